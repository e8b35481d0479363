#include "journal_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

#include "clock.h"
#include "journal_encode.h"
#include "journal_fields.h"

namespace zevd {

using journal::Field;
using journal::GetNumber;
using journal::Kind;
using journal::RecordHeader;

namespace {

uint32_t LengthOf(const char* record) {
  return GetNumber<uint32_t>(record + journal::kRecordLengthAt);
}

// What the queue knows of a record.
RecordHeader HeaderOf(const char* record) {
  RecordHeader header;
  header.length = LengthOf(record);
  header.wall = GetNumber<int64_t>(record + journal::kRecordWallAt);
  header.monotonic = GetNumber<int64_t>(record + journal::kRecordMonotonicAt);
  header.console = GetNumber<uint32_t>(record + journal::kRecordConsoleAt);
  header.kind = static_cast<Kind>(GetNumber<uint8_t>(record + journal::kRecordKindAt));
  return header;
}

std::string_view PayloadOf(const char* record) {
  return {record + journal::kRecordHeaderSize, LengthOf(record) - journal::kRecordHeaderSize};
}

// The bytes of the whole records among the first `bytes`.
size_t WholeRecords(std::span<const char> batch, size_t bytes) {
  size_t whole = 0;
  while (whole < bytes && whole + LengthOf(&batch[whole]) <= bytes)
    whole += LengthOf(&batch[whole]);
  return whole;
}

void AppendTorn(const TornEnd& torn, RecordHeader header, std::string* records) {
  char room[64];
  journal::FieldWriter fields(room, sizeof room);
  fields.AddNumber(Field::kSegment, static_cast<int64_t>(torn.segment));
  fields.AddNumber(Field::kBytes, static_cast<int64_t>(torn.bytes));
  header.kind = Kind::kTorn;
  header.console = 0;
  AppendRecord(header, {room, fields.length()}, records);
}

}  // namespace

JournalResult JournalWriter::Fail(const std::string& call) {
  trouble_ = call + " failed : " + strerror(errno);
  queue_.SetReason(strerrordesc_np(errno));
  return JournalResult::kFailed;
}

JournalResult JournalWriter::OpenDirectory() {
  const JournalResult result = directory_.Open(path_, &trouble_);
  if (result == JournalResult::kFailed) queue_.SetReason(strerrordesc_np(errno));
  if (result == JournalResult::kRefused) queue_.SetReason("The directory was refused.");
  if (result != JournalResult::kDone) return result;
  // The newest segments may have been removed meanwhile: no number is given twice.
  const bool is_same = end_.station == directory_.station();
  next_segment_ = std::max(directory_.next_segment(), is_same ? next_segment_ : 0);
  next_record_ = std::max(directory_.next_record(), is_same ? next_record_ : 0);
  torn_told_ = false;
  end_.station = directory_.station();
  return result;
}

JournalResult JournalWriter::WriteWaiting() {
  if (!directory_.is_open()) {
    if (const JournalResult result = OpenDirectory(); result != JournalResult::kDone) return result;
  }
  for (size_t left = queue_.Waiting(); left > 0;) {
    const std::span<char> batch = queue_.Front();
    if (batch.empty()) break;
    if (const JournalResult result = WriteBatch(batch); result != JournalResult::kDone) {
      return result;
    }
    left -= std::min(left, batch.size());
  }
  queue_.SetReason(nullptr);
  return JournalResult::kDone;
}

JournalResult JournalWriter::WriteBatch(std::span<char> batch) {
  if (segment_.is_open() && segment_.size() + batch.size() > limits_.bytes) segment_.End();
  if (!segment_.is_open()) {
    if (const JournalResult result = BeginSegment(batch); result != JournalResult::kDone) {
      return result;
    }
  }
  Stamp(batch);
  size_t kept = 0;
  if (segment_.Append({batch.data(), batch.size()}, &kept)) {
    TakeNote(batch);
    return JournalResult::kDone;
  }
  const JournalResult result = Fail("write");
  if (kept != 0) {
    // Its end is torn. The next run would cut that off, or zevkeep leaves it out.
    TakeNote(batch.first(WholeRecords(batch, kept)));
    segment_.End();
  }
  return result;
}

// The segment begins at the time of its first record, so that the names in front of that are not
// later than it.
JournalResult JournalWriter::BeginSegment(std::span<const char> batch) {
  const RecordHeader first = HeaderOf(batch.data());
  uint64_t next = next_record_;
  std::string records;
  names_.AppendRecords(first.wall, first.monotonic, &next, &records);
  if (directory_.torn() && !torn_told_) {
    RecordHeader header = first;
    header.number = next++;
    AppendTorn(*directory_.torn(), header, &records);
  }
  const journal::SegmentHeader header = {.station = directory_.station(),
                                         .segment = next_segment_,
                                         .wall = first.wall,
                                         .monotonic = first.monotonic,
                                         .run = run_,
                                         .first_record = next_record_};
  std::string call;
  if (!segment_.Begin(directory_.descriptor(), header, records, &call)) {
    const JournalResult result = Fail(call);
    // The directory may be another one by now, or have other segments.
    if (errno == ENOENT || errno == EEXIST) directory_.Close();
    return result;
  }
  end_.records += next - next_record_;
  end_.bytes += records.size();
  end_.segment = next_segment_++;
  end_.offset = segment_.size();
  next_record_ = next;
  torn_told_ = true;
  segment_ends_ = MonotonicMilliseconds() + limits_.age;
  return JournalResult::kDone;
}

// Gives records their running numbers, in the order in which they stand in the file.
void JournalWriter::Stamp(std::span<char> batch) const {
  uint64_t number = next_record_;
  for (size_t at = 0; at < batch.size(); at += LengthOf(&batch[at])) {
    RecordHeader header = HeaderOf(&batch[at]);
    header.number = number++;
    journal::EncodeRecordHeader(&batch[at], header, PayloadOf(&batch[at]));
  }
}

// What is in the file must not be written again, whatever happens here: names that find no memory
// are told once more.
void JournalWriter::NoteNames(std::span<const char> written) {
  try {
    for (size_t at = 0; at < written.size(); at += LengthOf(&written[at])) {
      names_.Note(HeaderOf(&written[at]), PayloadOf(&written[at]));
    }
  } catch (const std::bad_alloc&) {
    queue_.AskForNames();
  }
}

void JournalWriter::TakeNote(std::span<const char> written) {
  for (size_t at = 0; at < written.size(); at += LengthOf(&written[at])) {
    ++next_record_;
    ++end_.records;
  }
  end_.bytes += written.size();
  end_.offset = segment_.size();
  NoteNames(written);
  queue_.Drop(written.size());
}

void JournalWriter::EndOldSegment() {
  // A segment that somebody has removed would take records that nobody ever sees.
  const bool is_removed = segment_.is_open() && segment_.IsRemoved();
  if (is_removed) directory_.Close();
  if (is_removed || TimeToEnd() == 0) segment_.End();
}

void JournalWriter::Close() {
  segment_.End();
  directory_.Close();
}

int64_t JournalWriter::TimeToEnd() const {
  if (!segment_.is_open()) return -1;
  return std::max<int64_t>(segment_ends_ - MonotonicMilliseconds(), 0);
}

}  // namespace zevd
