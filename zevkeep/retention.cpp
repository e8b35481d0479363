// Removing what is beyond the limits.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <map>
#include <optional>
#include <system_error>

#include "placing.h"
#include "retention_limits.h"
#include "sealing.h"
#include "work.h"

namespace zevkeep {

namespace {

using journal::Form;
using journal::Link;
using journal::SealedIndex;
using journal::StoredSegment;

using Map = std::map<uint64_t, StoredSegment>;

constexpr Form kForms[] = {Form::kRaw, Form::kCompressed, Form::kIndex};
constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int64_t kNanosecondsPerDay = 86400 * kNanosecondsPerSecond;

bool Examine(const Work& work, uint64_t number, Form form, struct stat* info) {
  return fstatat(work.store.fd(), NameOf(number, form).c_str(), info, AT_SYMLINK_NOFOLLOW) == 0;
}

uint64_t BytesOf(const Work& work, uint64_t number) {
  uint64_t bytes = 0;
  struct stat info {};
  for (const Form form : kForms) {
    if (Examine(work, number, form, &info)) bytes += static_cast<uint64_t>(info.st_size);
  }
  return bytes;
}

// When something was last recorded in it, which cannot be later than its files were written: a
// clock may have been far ahead. When they were written, if its index does not tell.
int64_t EndOf(const Work& work, uint64_t number, const SealedIndex& sealed) {
  int64_t end = 0;
  struct stat info {};
  for (const Form form : kForms) {
    if (!Examine(work, number, form, &info)) continue;
    end = std::max(end, info.st_mtim.tv_sec * kNanosecondsPerSecond + info.st_mtim.tv_nsec);
  }
  if (sealed.fault.empty() && sealed.index.records > 0) {
    return std::min(end, sealed.index.highest_wall);
  }
  return end;
}

bool IsOlder(const Work& work, uint64_t number, const SealedIndex& sealed, uint64_t days,
             int64_t now) {
  constexpr uint64_t kMostDays = 100'000;  // more cannot be counted in nanoseconds
  const auto age = static_cast<int64_t>(std::min(days, kMostDays)) * kNanosecondsPerDay;
  return days != 0 && EndOf(work, number, sealed) < now - age;
}

// The hash with which the chain goes on behind the segment.
Link LinkOf(const Work& work, uint64_t number, const SealedIndex& sealed, const Map& segments) {
  if (sealed.fault.empty()) return {number, sealed.seal.hash};
  if (work.chain.sealed.segment == number) return work.chain.sealed;
  const auto next = segments.upper_bound(number);
  if (next == segments.end()) return {number, {}};
  return {number, work.store.ReadIndex(work.station, next->first).seal.previous};
}

void RemoveSegment(Work& work, const Link& link, const char* reason) {
  const std::string name = "segment " + std::to_string(link.segment);
  if (work.dry_run) {
    work.tell.Detail("would remove " + name + reason);
    return;
  }
  work.chain.removed = link;
  PlaceChain(work.store, work.chain);
  RemoveFiles(work.store, link.segment);
  ++work.removed;
  work.tell.Record(LOG_NOTICE, "removed " + SealText(work.station, link));
  work.tell.Detail("removed " + name + reason);
}

}  // namespace

void RemoveSegments(Work& work, const Limits& limits, int64_t now) try {
  if (limits.mebibytes == 0) return;
  const Map segments = work.store.List();
  uint64_t bytes = 0;
  for (const auto& [number, files] : segments) bytes += BytesOf(work, number);
  for (const auto& [number, files] : segments) {
    if (number <= work.chain.removed.segment) continue;
    // Sealed once, whatever has become of its index since.
    if (number > work.chain.sealed.segment || number == segments.rbegin()->first) return;
    const SealedIndex sealed = work.store.ReadIndex(work.station, number);
    const bool is_beyond_size = bytes > limits.mebibytes << 20;
    const bool is_old = IsOlder(work, number, sealed, limits.days, now);
    if (!is_beyond_size && !is_old) return;
    bytes -= BytesOf(work, number);
    RemoveSegment(work, LinkOf(work, number, sealed, segments),
                  is_beyond_size ? ": the journal is larger than ZEVD_JOURNAL= allows"
                                 : ": it is older than ZEVD_JOURNAL_DAYS= allows");
  }
} catch (const std::system_error& error) {
  TellFailure(work, "old segments cannot be removed", error.code().value());
}

}  // namespace zevkeep
