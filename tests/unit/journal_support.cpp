#include "journal_support.h"

#include <algorithm>
#include <cstring>

#include "journal_encode.h"
#include "journal_fields.h"
#include "segment_scan.h"

namespace test {

using journal::Field;
using journal::Kind;

SegmentBytes::SegmentBytes(uint64_t segment, uint64_t first_record) : number_(first_record) {
  header.station = kStation;
  header.segment = segment;
  header.wall = wall_;
  header.run = 7;
  header.first_record = first_record;
  const auto encoded = journal::EncodeSegmentHeader(header);
  bytes.assign(encoded.begin(), encoded.end());
}

uint64_t SegmentBytes::Add(Kind kind, uint32_t console, std::string_view payload) {
  const uint64_t offset = bytes.size();
  journal::RecordHeader record;
  record.number = number_++;
  record.wall = wall_ += 1'000'000;
  record.console = console;
  record.kind = kind;
  bytes.resize(offset + journal::kRecordHeaderSize);
  journal::EncodeRecordHeader(&bytes[offset], record, payload);
  bytes += payload;
  return offset;
}

uint64_t SegmentBytes::Output(uint32_t console, std::string_view text) {
  return Add(Kind::kOutput, console, text);
}

uint64_t SegmentBytes::Define(uint32_t console, std::string_view name, uint16_t port) {
  char room[256];
  journal::FieldWriter fields(room, sizeof room);
  fields.Add(Field::kName, name);
  fields.Add(Field::kAddress, "10.0.0.1");
  fields.AddNumber(Field::kPort, port);
  return Add(Kind::kConsole, console, {room, fields.length()});
}

journal::SegmentIndex SegmentBytes::Index() {
  return journal::IndexOf(*this, header.station, header.segment);
}

size_t SegmentBytes::ReadAt(uint64_t offset, std::span<char> room) {
  if (offset >= bytes.size()) return 0;
  const size_t count = std::min<size_t>(room.size(), bytes.size() - offset);
  memcpy(room.data(), &bytes[offset], count);
  return count;
}

}  // namespace test
