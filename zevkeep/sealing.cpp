#include "sealing.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "placing.h"
#include "segment_scan.h"

namespace zevkeep {

namespace {

using journal::Form;
using journal::HashText;
using journal::HeaderFault;
using journal::SegmentIndex;
using journal::StoredSegment;

std::string Segment(uint64_t number) {
  return "segment " + std::to_string(number);
}

// What becomes of a segment that is looked at.
enum class Outcome {
  kSealed,
  kLater,  ///< it is being written, or the daemon still has to cut its end off
  kFailed,
};

// The daemon begins a segment before it locks it: the lock must not be taken away from it there.
bool HasHeader(int fd) {
  struct stat info {};
  return fstat(fd, &info) == 0 && info.st_size >= static_cast<off_t>(journal::kSegmentHeaderSize);
}

// A crash may have torn the last record of the newest segment. The daemon cuts that off and marks
// it when it starts again; a seal that was made before would be broken by it.
bool HasTornEnd(const SegmentIndex& index) {
  if (!index.header_is_sound) return true;
  if (index.damages.empty()) return false;
  const auto& last = index.damages.back();
  return last.offset + last.length == index.size;
}

void TellDamage(Work& work, uint64_t number, const SegmentIndex& index, HeaderFault fault) {
  if (fault != HeaderFault::kNone) {
    work.tell.Problem(Segment(number) +
                      " has a damaged header or belongs to another journal; it is "
                      "sealed as it is: run \"zevctl journal verify\"");
  } else if (!index.damages.empty()) {
    work.tell.Problem(Segment(number) + " is damaged in " + std::to_string(index.damages.size()) +
                      (index.damages.size() == 1 ? " place" : " places") +
                      "; it is sealed as it is: run \"zevctl journal verify\"");
  }
}

void Seal(Work& work, uint64_t number, const SegmentIndex& index, journal::SegmentSource& source) {
  const std::string bytes = EncodeIndex(index);
  const journal::Seal seal =
      journal::MakeSeal(work.chain.sealed.hash, work.station, number, HashOf(source), bytes);
  PlaceBytes(work.store, NameOf(number, Form::kIndex), bytes + EncodeSeal(seal));
  work.chain.sealed = {number, seal.hash};
  ++work.sealed;
  TellSeal(work);
  PlaceChain(work.store, work.chain);
  work.tell.Detail("sealed " + Segment(number) + ": " + std::to_string(index.records) +
                   " records, hash " + HashText(seal.hash));
}

// What is sealed is on the disk: the daemon does not wait for that.
void Sync(int fd) {
  if (fsync(fd) != 0) throw std::system_error(errno, std::generic_category());
}

Outcome SealLocked(Work& work, uint64_t number, bool is_newest, int fd) {
  if (!work.dry_run) Sync(fd);
  journal::RawSegment source(fd);
  HeaderFault fault = HeaderFault::kNone;
  const SegmentIndex index = IndexOf(source, work.station, number, &fault);
  if (fault == HeaderFault::kVersion) {
    work.tell.Problem(Segment(number) +
                      " has the format of another version; run the zevkeep of the "
                      "daemon's version");
    return Outcome::kFailed;
  }
  if (is_newest && HasTornEnd(index)) {
    work.tell.Detail(Segment(number) +
                     " ends in the middle of a record: the daemon cuts that off "
                     "when it starts");
    return Outcome::kLater;
  }
  TellDamage(work, number, index, fault);
  if (work.dry_run) {
    work.tell.Detail("would seal " + Segment(number));
  } else {
    Seal(work, number, index, source);
  }
  return Outcome::kSealed;
}

Outcome SealSegment(Work& work, uint64_t number, bool is_newest) {
  const journal::StoredFile file = work.store.Open(NameOf(number, Form::kRaw), O_RDONLY);
  if (!file) throw std::system_error(errno, std::generic_category());
  if (is_newest && !HasHeader(file.get())) return Outcome::kLater;
  // The daemon writes the newest only, so nobody else's lock of another one matters.
  if (is_newest && flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) throw std::system_error(errno, std::generic_category());
    work.tell.Detail(Segment(number) + " is being written");
    return Outcome::kLater;
  }
  return SealLocked(work, number, is_newest, file.get());
}

// Whether a segment can get a seal now that continues the chain.
bool IsToBeSealed(Work& work, uint64_t number, const StoredSegment& files) {
  if (files.has_index || number <= work.chain.removed.segment) return false;
  if (number > work.chain.sealed.segment && files.has_raw) return true;
  work.tell.Problem(Segment(number) +
                    " has no seal, though it was sealed; run \"zevctl journal "
                    "verify\"");
  return false;
}

}  // namespace

std::string SealText(uint64_t station, const journal::Link& link) {
  char number[17];
  snprintf(number, sizeof number, "%016" PRIx64, station);
  return std::string("station=\"") + number + "\" segment=\"" + std::to_string(link.segment) +
         "\" hash=\"" + journal::HashText(link.hash) + "\"";
}

void TellSeal(const Work& work) {
  work.tell.Record(LOG_NOTICE, "sealed " + SealText(work.station, work.chain.sealed));
}

void SealSegments(Work& work) {
  const auto segments = work.store.List();
  for (const auto& [number, files] : segments) {
    if (!IsToBeSealed(work, number, files)) continue;
    try {
      const bool is_newest = number == segments.rbegin()->first;
      if (SealSegment(work, number, is_newest) != Outcome::kSealed) return;
    } catch (const std::system_error& error) {
      TellFailure(work, Segment(number) + " cannot be sealed", error.code().value());
      return;
    }
  }
}

}  // namespace zevkeep
