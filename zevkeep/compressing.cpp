// Compressing sealed segments. The newest one stays as it is: the daemon looks where it ends.
#include <fcntl.h>

#include <cerrno>
#include <system_error>

#include "placing.h"
#include "seekable.h"
#include "work.h"

namespace zevkeep {

namespace {

using journal::Form;
using journal::SealedIndex;
using journal::StoredSegment;

// An earlier pass was ended between the new form and the removal of the old one. The new one counts
// only if it has what was sealed.
bool IsWhole(const Work& work, uint64_t number, const SealedIndex& sealed) {
  const auto opened = work.store.OpenSegment(number, Form::kCompressed);
  if (!opened.source) return false;
  try {
    return HashOf(*opened.source) == sealed.seal.raw;
  } catch (const journal::SeekableError&) {
    return false;
  }
}

void Compress(Work& work, uint64_t number, const SealedIndex& sealed) {
  const auto opened = work.store.OpenSegment(number, Form::kRaw);
  if (!opened.source) throw std::system_error(errno, std::generic_category());
  uint64_t size = 0;
  Place(work.store, NameOf(number, Form::kCompressed),
        [&](int fd) { size = journal::WriteSeekable(*opened.source, sealed.index.blocks, fd); });
  ++work.compressed;
  work.tell.Detail("compressed segment " + std::to_string(number) + " from " +
                   std::to_string(sealed.index.size) + " to " + std::to_string(size) + " bytes");
}

// What was changed after it was sealed stays as it is, for whoever looks into it.
bool IsUnchanged(const Work& work, uint64_t number, const SealedIndex& sealed) {
  const auto opened = work.store.OpenSegment(number, Form::kRaw);
  return opened.source && HashOf(*opened.source) == sealed.seal.raw;
}

void CompressSegment(Work& work, uint64_t number, const StoredSegment& files) {
  const std::string name = "segment " + std::to_string(number);
  const SealedIndex sealed = work.store.ReadIndex(work.station, number);
  if (!sealed.fault.empty()) {
    work.tell.Problem(name + " stays uncompressed: its index " + sealed.fault +
                      "; run \"zevctl journal verify\"");
    return;
  }
  if (!IsUnchanged(work, number, sealed)) {
    work.tell.Problem(name +
                      " stays uncompressed: it was changed after it was sealed, or cannot be "
                      "read; run \"zevctl journal verify\"");
    return;
  }
  if (work.dry_run) {
    work.tell.Detail("would compress " + name);
    return;
  }
  if (!files.has_compressed || !IsWhole(work, number, sealed)) Compress(work, number, sealed);
  Remove(work.store, NameOf(number, Form::kRaw));
  Settle(work.store);
}

}  // namespace

void CompressSegments(Work& work) {
  const auto segments = work.store.List();
  for (const auto& [number, files] : segments) {
    const bool is_newest = number == segments.rbegin()->first;
    if (!files.has_raw || !files.has_index || is_newest) continue;
    const std::string what = "segment " + std::to_string(number) + " cannot be compressed";
    try {
      CompressSegment(work, number, files);
    } catch (const journal::SeekableError& error) {
      work.tell.Problem(what + ": " + error.what());
    } catch (const std::system_error& error) {
      TellFailure(work, what, error.code().value());
      return;
    }
  }
}

}  // namespace zevkeep
