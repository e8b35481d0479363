#include "journal_segments.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <system_error>
#include <utility>

#include "seekable.h"
#include "segment_scan.h"

namespace journal {

namespace {

using Cause = JournalError::Cause;

// Those of the largest segments with ten thousand consoles take a tenth of it.
constexpr uint64_t kMostIndexSize = 64 << 20;

std::string ReadAll(SegmentSource& source, uint64_t size) {
  std::string bytes(size, '\0');
  bytes.resize(source.ReadAt(0, bytes));
  return bytes;
}

// The daemon writes a record's bytes in their order: while only a part of them is there, the rest
// may come, and the inside of that part may look like a record.
bool MayBecomeRecord(SegmentSource& source, uint64_t offset, uint64_t end) {
  if (end - offset < kRecordHeaderSize) return true;
  std::array<char, sizeof(uint32_t)> bytes{};
  if (source.ReadAt(offset + kRecordLengthAt, bytes) < bytes.size()) return true;
  const auto length = GetNumber<uint32_t>(bytes.data());
  return length >= kRecordHeaderSize && length <= kRecordHeaderSize + kMostPayload &&
         length > end - offset;
}

// Adds what has come behind the records that the index has.
void Grow(SegmentIndexBuilder& builder, SegmentSource& source, bool may_grow) {
  const uint64_t end = source.Size();
  SegmentScan scan(source, builder.index().size, end, builder.index().next_record);
  for (auto found = scan.Next(); found != SegmentScan::Found::kEnd; found = scan.Next()) {
    if (found == SegmentScan::Found::kRecord) {
      builder.AddRecord(scan.header(), scan.payload());
    } else if (may_grow && (scan.offset() + scan.length() == end ||
                            MayBecomeRecord(source, scan.offset(), end))) {
      return;  // where the damage ends shows later
    } else {
      builder.AddDamage(scan.length());
    }
  }
}

// Once their names are known to all of the journal, they take room only.
void ForgetNames(SegmentIndex& index) {
  for (IndexedConsole& console : index.consoles) console.names = {};
}

OpenSegment Opened(OpenedFile opened, bool is_compressed) {
  OpenSegment segment;
  segment.is_missing = opened.is_missing;
  segment.reason = std::move(opened.reason);
  segment.file_size = opened.size;
  segment.file = std::move(opened.file);
  if (!segment.file) return segment;
  try {
    if (is_compressed) {
      segment.source = std::make_unique<SeekableSegment>(segment.file.get());
    } else {
      segment.source = std::make_unique<RawSegment>(segment.file.get());
    }
    if (segment.source->Size() <= kMostSegmentSize) return segment;
    segment.reason = "is larger than any segment that is written";
  } catch (const std::runtime_error& error) {
    segment.reason = error.what();
  }
  segment.source.reset();
  return segment;
}

}  // namespace

JournalSegments::JournalSegments(const std::string& path)
    : directory_(path), station_(directory_.Station()) {
  Refresh();
  ThrowUnlessReadable();
}

OpenSegment JournalSegments::Open(uint64_t number) const {
  // It may become compressed between the two, and it is removed in this order.
  OpenSegment raw = Opened(directory_.Open(number, FileKind::kRaw), false);
  if (!raw.is_missing) return raw;
  return Opened(directory_.Open(number, FileKind::kCompressed), true);
}

void JournalSegments::Refresh() {
  const auto listed = directory_.List();
  std::erase_if(segments_, [&](const auto& one) { return !listed.contains(one.first); });
  const uint64_t last = listed.empty() ? 0 : listed.rbegin()->first;
  for (const auto& [number, files] : listed) {
    const auto [found, is_new] = segments_.try_emplace(number);
    if (is_new) found->second = std::make_shared<Segment>();
    Segment& segment = *found->second;
    const bool could_grow = is_new || segment.may_grow;
    segment.number = number;
    segment.may_grow = number == last && files.has_raw && !files.has_index;
    const bool has_changed = segment.files != files;
    segment.files = files;
    if (could_grow) {
      Load(segment);
    } else if (has_changed) {
      segment.file_size = Open(number).file_size;
    }
  }
}

void JournalSegments::Load(Segment& segment) {
  segment.fault.clear();
  segment.cause.reset();
  const bool is_begun = segment.builder.has_value();
  if (!is_begun && segment.files.has_index && LoadIndex(segment)) {
    segment.file_size = Open(segment.number).file_size;
  } else {
    Scan(segment);
  }
  if (!segment.may_grow) Finish(segment);
}

bool JournalSegments::LoadIndex(Segment& segment) {
  const OpenedFile opened = directory_.Open(segment.number, FileKind::kIndex);
  if (!opened.file || opened.size > kMostIndexSize) return false;
  SegmentIndex index;
  try {
    RawSegment source(opened.file.get());
    if (DecodeIndex(ReadAll(source, opened.size), &index) != IndexFault::kNone) return false;
  } catch (const std::system_error&) {
    return false;
  }
  if (index.header.segment != segment.number || !IsOwn(index.header)) return false;
  if (!index.header_is_sound) return false;
  segment.finished = std::move(index);
  segment.ids = names_.Add(segment.finished);
  return true;
}

// The first sound segment tells the station when the file "id" does not.
bool JournalSegments::IsOwn(const SegmentHeader& header) {
  if (!station_) station_ = header.station;
  return *station_ == header.station;
}

void JournalSegments::Scan(Segment& segment) {
  const OpenSegment opened = Open(segment.number);
  segment.file_size = opened.file_size;
  if (!opened.source) {
    segment.fault = opened.is_missing ? "has been removed" : opened.reason;
    segment.cause = opened.is_missing ? Cause::kGone : Cause::kUnreadable;
    return;
  }
  try {
    const uint64_t known = segment.builder ? segment.builder->index().records : 0;
    if (segment.builder && opened.source->Size() < segment.builder->index().size) {
      segment.builder.reset();  // what a failed write had left was cut off
    }
    if (!Begin(segment, *opened.source)) return;
    Grow(*segment.builder, *opened.source, segment.may_grow);
    if (segment.builder->index().records != known) segment.ids = names_.Add(segment.index());
  } catch (const std::runtime_error& error) {  // the disk, or a damaged frame
    segment.fault = error.what();
    segment.cause = Cause::kUnreadable;
    segment.builder.reset();
  }
}

bool JournalSegments::Begin(Segment& segment, SegmentSource& source) {
  if (segment.builder) return true;
  std::array<char, kSegmentHeaderSize> bytes{};
  const size_t count = source.ReadAt(0, bytes);
  SegmentHeader header;
  const HeaderFault fault = DecodeSegmentHeader({bytes.data(), count}, &header);
  if (fault == HeaderFault::kShort && segment.may_grow) return false;
  if (fault == HeaderFault::kNone && header.segment == segment.number && IsOwn(header)) {
    segment.builder.emplace(header);
    return true;
  }
  SetFault(segment, fault, header);
  return false;
}

void JournalSegments::SetFault(Segment& segment, HeaderFault fault, const SegmentHeader& header) {
  switch (fault) {
    case HeaderFault::kNone:
      segment.fault = header.segment != segment.number ? "is another segment under this name"
                                                       : "belongs to another station";
      segment.cause = Cause::kForeign;
      break;
    case HeaderFault::kForeign:
      segment.fault = "is no segment of a journal";
      segment.cause = Cause::kForeign;
      break;
    case HeaderFault::kVersion:
      segment.fault = "was written by another version";
      segment.cause = Cause::kVersion;
      break;
    case HeaderFault::kShort:
      segment.fault = "ends within its header";
      break;
    case HeaderFault::kChecksum:
      segment.fault = "has a damaged header";
      break;
  }
}

void JournalSegments::Finish(Segment& segment) {
  if (segment.builder) segment.finished = segment.builder->index();
  segment.builder.reset();
  ForgetNames(segment.finished);
}

// One damaged segment says nothing of the journal, but a directory with nothing else is none.
void JournalSegments::ThrowUnlessReadable() const {
  if (segments_.empty()) {
    throw JournalError(Cause::kMissing, directory_.path() + ": there are no segments yet");
  }
  const auto can_be_shown = [](const auto& one) {
    return one.second->fault.empty() || !one.second->cause;
  };
  if (std::any_of(segments_.begin(), segments_.end(), can_be_shown)) return;
  const auto& [number, segment] = *std::prev(segments_.end());
  throw JournalError(*segment->cause, directory_.path() + ": segment " + std::to_string(number) +
                                          " " + segment->fault);
}

}  // namespace journal
