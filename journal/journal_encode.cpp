#include "journal_encode.h"

#include <cstring>

#include "crc32c.h"

namespace journal {

namespace {

constexpr size_t kBehindSegmentChecksum = kSegmentChecksumAt + sizeof(uint32_t);
constexpr size_t kBehindRecordChecksum = kRecordChecksumAt + sizeof(uint32_t);

uint32_t ChecksumOfSegmentHeader(const char* bytes) {
  return Crc32c(bytes + kBehindSegmentChecksum, kSegmentHeaderSize - kBehindSegmentChecksum);
}

uint32_t ChecksumOfRecord(const char* header, std::string_view payload) {
  uint32_t sum = Crc32c(header, kRecordChecksumAt);
  sum = Crc32c(header + kBehindRecordChecksum, kRecordHeaderSize - kBehindRecordChecksum, sum);
  return Crc32c(payload.data(), payload.size(), sum);
}

}  // namespace

std::array<char, kSegmentHeaderSize> EncodeSegmentHeader(const SegmentHeader& header) {
  std::array<char, kSegmentHeaderSize> bytes{};
  memcpy(bytes.data(), kSegmentMagic, kMagicSize);
  PutNumber(&bytes[kSegmentVersionAt], kFormatVersion);
  PutNumber(&bytes[kSegmentSizeAt], static_cast<uint16_t>(kSegmentHeaderSize));
  PutNumber(&bytes[kSegmentStationAt], header.station);
  PutNumber(&bytes[kSegmentNumberAt], header.segment);
  PutNumber(&bytes[kSegmentWallAt], header.wall);
  PutNumber(&bytes[kSegmentMonotonicAt], header.monotonic);
  PutNumber(&bytes[kSegmentRunAt], header.run);
  PutNumber(&bytes[kSegmentFirstRecordAt], header.first_record);
  PutNumber(&bytes[kSegmentChecksumAt], ChecksumOfSegmentHeader(bytes.data()));
  return bytes;
}

HeaderFault DecodeSegmentHeader(std::string_view bytes, SegmentHeader* header) {
  if (bytes.size() < kSegmentHeaderSize) return HeaderFault::kShort;
  const char* data = bytes.data();
  if (memcmp(data, kSegmentMagic, kMagicSize) != 0) return HeaderFault::kForeign;
  if (GetNumber<uint16_t>(data + kSegmentVersionAt) != kFormatVersion) return HeaderFault::kVersion;
  if (GetNumber<uint32_t>(data + kSegmentChecksumAt) != ChecksumOfSegmentHeader(data) ||
      GetNumber<uint16_t>(data + kSegmentSizeAt) != kSegmentHeaderSize) {
    return HeaderFault::kChecksum;
  }
  header->station = GetNumber<uint64_t>(data + kSegmentStationAt);
  header->segment = GetNumber<uint64_t>(data + kSegmentNumberAt);
  header->wall = GetNumber<int64_t>(data + kSegmentWallAt);
  header->monotonic = GetNumber<int64_t>(data + kSegmentMonotonicAt);
  header->run = GetNumber<uint64_t>(data + kSegmentRunAt);
  header->first_record = GetNumber<uint64_t>(data + kSegmentFirstRecordAt);
  return HeaderFault::kNone;
}

void EncodeRecordHeader(char* place, const RecordHeader& header, std::string_view payload) {
  memset(place, 0, kRecordHeaderSize);
  PutNumber(place + kRecordLengthAt, static_cast<uint32_t>(kRecordHeaderSize + payload.size()));
  PutNumber(place + kRecordNumberAt, header.number);
  PutNumber(place + kRecordWallAt, header.wall);
  PutNumber(place + kRecordMonotonicAt, header.monotonic);
  PutNumber(place + kRecordConsoleAt, header.console);
  PutNumber(place + kRecordKindAt, static_cast<uint8_t>(header.kind));
  PutNumber(place + kRecordChecksumAt, ChecksumOfRecord(place, payload));
}

bool MayContinue(std::string_view bytes, uint64_t number, uint64_t lost) {
  if (bytes.size() < kRecordHeaderSize) return false;
  const auto found = GetNumber<uint64_t>(bytes.data() + kRecordNumberAt);
  return found >= number && found - number <= lost / kRecordHeaderSize;
}

std::optional<RecordHeader> DecodeRecord(std::string_view bytes) {
  if (bytes.size() < kRecordHeaderSize) return {};
  const char* data = bytes.data();
  RecordHeader header;
  header.length = GetNumber<uint32_t>(data + kRecordLengthAt);
  if (header.length < kRecordHeaderSize || header.length > kRecordHeaderSize + kMostPayload ||
      header.length > bytes.size()) {
    return {};
  }
  header.checksum = GetNumber<uint32_t>(data + kRecordChecksumAt);
  const std::string_view payload =
      bytes.substr(kRecordHeaderSize, header.length - kRecordHeaderSize);
  if (header.checksum != ChecksumOfRecord(data, payload)) return {};
  header.number = GetNumber<uint64_t>(data + kRecordNumberAt);
  header.wall = GetNumber<int64_t>(data + kRecordWallAt);
  header.monotonic = GetNumber<int64_t>(data + kRecordMonotonicAt);
  header.console = GetNumber<uint32_t>(data + kRecordConsoleAt);
  header.kind = static_cast<Kind>(GetNumber<uint8_t>(data + kRecordKindAt));
  return header;
}

}  // namespace journal
