#include "segment_check.h"

#include <algorithm>
#include <system_error>

#include "seekable.h"
#include "segment_scan.h"

namespace journal {

const char kCompare[] =
    "look for a failing disk and for who may write there, and compare the hashes in the system's "
    "log (zevkeep) with \"zevctl journal list\"; a backup may have the file as it was";
const char kBringBack[] =
    "bring it back from a backup, or find out who removed it: zevkeep removes the oldest segments "
    "only, and tells the system's log";
const char kLost[] =
    "the records there are lost, those around them are sound; look for a failing disk";

namespace {

std::string Bytes(uint64_t count) {
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

const char* Words(HeaderFault fault) {
  switch (fault) {
    case HeaderFault::kNone:
      break;
    case HeaderFault::kShort:
      return "has no whole header";
    case HeaderFault::kForeign:
      return "is no segment, or one of another station or another place";
    case HeaderFault::kVersion:
      return "has the format of another version";
    case HeaderFault::kChecksum:
      return "has a damaged header";
  }
  return "";
}

const char* Advice(HeaderFault fault) {
  if (fault == HeaderFault::kForeign) return "move it out of the directory";
  if (fault == HeaderFault::kVersion) return "verify with the version that has written it";
  return kLost;
}

// The first damage that the index does not know: what has changed since it was made.
std::optional<uint64_t> NewDamage(const SegmentIndex& now, const SegmentIndex& then) {
  for (const DamagedBytes& damage : now.damages) {
    const auto known = std::find(then.damages.begin(), then.damages.end(), damage);
    if (known == then.damages.end()) return damage.offset;
  }
  return {};
}

// Where the running numbers do not go on evenly, if they do not.
std::optional<uint64_t> HoleInNumbers(const SegmentIndex& index) {
  uint64_t next = index.header.first_record;
  uint64_t place = kSegmentHeaderSize;
  for (const Block& block : index.blocks) {
    if (block.records == 0) continue;
    if (block.first_record != next) return place;
    next += block.records;
    place = block.FirstRecordAt();
  }
  if (next != index.next_record) return place;
  return {};
}

}  // namespace

void SegmentCheck::Add(const std::string& file, const std::string& problem,
                       const std::string& advice, std::optional<uint64_t> offset) {
  findings_.push_back({segment_, file, offset, problem, advice});
}

const SegmentIndex* SegmentCheck::records() const {
  if (found_) return &*found_;
  return is_sealed_ ? &sealed_.index : nullptr;
}

void SegmentCheck::Run(const StoredSegment& files) {
  if (files.has_index) ReadIndex();
  if (!files.has_raw && !files.has_compressed) {
    Add("", "its records are missing: only its index is there", kBringBack);
  }
  if (files.has_raw) CheckRecords(Form::kRaw);
  if (files.has_compressed) CheckRecords(Form::kCompressed);
}

void SegmentCheck::ReadIndex() {
  sealed_ = store_->ReadIndex(station_, segment_);
  is_sealed_ = sealed_.fault.empty();
  if (is_sealed_) return;
  Add(NameOf(segment_, Form::kIndex), sealed_.fault,
      sealed_.is_newer ? "verify with the version that has made it" : kCompare);
}

void SegmentCheck::CheckRecords(Form form) {
  const std::string name = NameOf(segment_, form);
  const OpenedSegment opened = store_->OpenSegment(segment_, form);
  if (!opened.source) {
    Add(name, opened.fault, kCompare);
    return;
  }
  try {
    CheckRecordsOf(name, *opened.source);
  } catch (const SeekableError& error) {
    found_.reset();
    Add(name, std::string("is damaged: ") + error.what(), kCompare);
  } catch (const std::system_error& error) {
    found_.reset();
    Add(name, std::string("cannot be read: ") + error.what(), kCompare);
  }
}

void SegmentCheck::CheckRecordsOf(const std::string& name, SegmentSource& source) {
  HeaderFault fault = HeaderFault::kNone;
  found_ = IndexOf(source, station_, segment_, &fault);
  if (is_sealed_) {
    CompareWithSeal(name, source);
  } else {
    CheckUnsealed(name, fault);
  }
  if (fault == HeaderFault::kNone && found_->damages.empty()) CheckNumbers(name);
}

void SegmentCheck::CompareWithSeal(const std::string& name, SegmentSource& source) {
  if (HashOf(source) != sealed_.seal.raw) {
    Add(name, "was changed after it was sealed", kCompare, NewDamage(*found_, sealed_.index));
  } else if (EncodeIndex(*found_) != sealed_.bytes) {
    Add(NameOf(segment_, Form::kIndex), "does not tell what the segment has", kCompare);
  }
  for (const DamagedBytes& damage : sealed_.index.damages) {
    Add(name, Bytes(damage.length) + " were no records when it was sealed", kLost, damage.offset);
  }
}

// The daemon may be writing to the last one, or may still have to cut its torn end off.
void SegmentCheck::CheckUnsealed(const std::string& name, HeaderFault fault) {
  if (is_last_ && fault == HeaderFault::kShort) return;
  if (fault != HeaderFault::kNone) {
    Add(name, Words(fault), Advice(fault));
    return;
  }
  for (const DamagedBytes& damage : found_->damages) {
    const bool is_end = damage.offset + damage.length == found_->size;
    if (is_last_ && is_end) continue;
    Add(name, Bytes(damage.length) + " are no records", kLost, damage.offset);
  }
}

void SegmentCheck::CheckNumbers(const std::string& name) {
  const auto hole = HoleInNumbers(*found_);
  if (hole) Add(name, "the running numbers of its records have a hole", kLost, hole);
}

}  // namespace journal
