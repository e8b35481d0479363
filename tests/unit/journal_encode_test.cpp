// Headers, records and fields as bytes: what was written is read, and nothing else is.
#include "journal_encode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "crc32c.h"
#include "journal_fields.h"

namespace journal {

namespace {

constexpr int64_t kEarliest = std::numeric_limits<int64_t>::min();

// ---- Checksums ----------------------------------------------------------------------------------

// The definition, bit by bit.
uint32_t PlainCrc32c(std::string_view bytes) {
  uint32_t sum = ~uint32_t{0};
  for (const char byte : bytes) {
    sum ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) sum = sum >> 1 ^ ((sum & 1) != 0 ? 0x82F63B78 : 0);
  }
  return ~sum;
}

uint32_t Sum(std::string_view bytes) {
  return Crc32c(bytes.data(), bytes.size());
}

std::string SomeBytes(size_t count) {
  std::string bytes;
  uint32_t state = 1;
  while (bytes.size() < count) {
    state = state * 1664525 + 1013904223;
    bytes += static_cast<char>(state >> 24);
  }
  return bytes;
}

TEST(Crc32cTest, GivesTheKnownSums) {
  std::string rising;
  for (int byte = 0; byte < 32; ++byte) rising += static_cast<char>(byte);
  EXPECT_EQ(Sum(""), 0U);
  EXPECT_EQ(Sum("123456789"), 0xE3069283U);
  EXPECT_EQ(Sum(std::string(32, '\0')), 0x8A9136AAU);
  EXPECT_EQ(Sum(std::string(32, '\xFF')), 0x62A8AB43U);
  EXPECT_EQ(Sum(rising), 0x46DD794EU);
}

TEST(Crc32cTest, IsTheSameByTablesAndByInstruction) {
  const std::string bytes = SomeBytes(200);
  for (size_t begin = 0; begin < 9; ++begin) {
    for (size_t size = 0; begin + size <= bytes.size(); ++size) {
      const std::string_view part = std::string_view(bytes).substr(begin, size);
      const uint32_t sum = PlainCrc32c(part);
      ASSERT_EQ(Crc32c(part.data(), size), sum) << begin << " " << size;
      ASSERT_EQ(Crc32cByTables(part.data(), size), sum) << begin << " " << size;
    }
  }
}

TEST(Crc32cTest, GoesOnAtAnyPlace) {
  const std::string bytes = SomeBytes(100);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    const uint32_t first = Crc32c(bytes.data(), cut);
    ASSERT_EQ(Crc32c(&bytes[cut], bytes.size() - cut, first), Sum(bytes)) << cut;
    ASSERT_EQ(Crc32cByTables(&bytes[cut], bytes.size() - cut, first), Sum(bytes)) << cut;
  }
}

// ---- Segment headers ----------------------------------------------------------------------------

SegmentHeader AHeader() {
  return {0x0123456789ABCDEF, 7, -5, 99, 0xFEDCBA9876543210, 1234567890123};
}

std::string Encoded(const SegmentHeader& header) {
  const auto bytes = EncodeSegmentHeader(header);
  return {bytes.begin(), bytes.end()};
}

TEST(SegmentHeaderTest, ComesBack) {
  SegmentHeader header;
  ASSERT_EQ(DecodeSegmentHeader(Encoded(AHeader()) + "more", &header), HeaderFault::kNone);
  EXPECT_EQ(header.station, 0x0123456789ABCDEFU);
  EXPECT_EQ(header.segment, 7U);
  EXPECT_EQ(header.wall, -5);
  EXPECT_EQ(header.monotonic, 99);
  EXPECT_EQ(header.run, 0xFEDCBA9876543210U);
  EXPECT_EQ(header.first_record, 1234567890123U);
}

TEST(SegmentHeaderTest, StandsInTheFileAsDocumented) {
  const std::string bytes = Encoded(AHeader());
  EXPECT_EQ(bytes.substr(0, 8), "ZEVJRNL\n");
  EXPECT_EQ(bytes.substr(8, 4), std::string("\x01\x00\x40\x00", 4));
  EXPECT_EQ(bytes.substr(16, 8), "\xEF\xCD\xAB\x89\x67\x45\x23\x01");
  EXPECT_EQ(bytes.substr(24, 8), std::string("\x07\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(bytes.substr(32, 8), "\xFB\xFF\xFF\xFF\xFF\xFF\xFF\xFF");
}

TEST(SegmentHeaderTest, IsShortWhereverItIsCut) {
  const std::string bytes = Encoded(AHeader());
  SegmentHeader header;
  for (size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_EQ(DecodeSegmentHeader(bytes.substr(0, size), &header), HeaderFault::kShort);
  }
}

TEST(SegmentHeaderTest, ShowsAChangeOfAnyByte) {
  for (size_t place = 0; place < kSegmentHeaderSize; ++place) {
    std::string bytes = Encoded(AHeader());
    bytes[place] = static_cast<char>(bytes[place] ^ 0x10);
    SegmentHeader header;
    const HeaderFault fault = DecodeSegmentHeader(bytes, &header);
    const HeaderFault expected = place < kSegmentVersionAt ? HeaderFault::kForeign
                                 : place < kSegmentSizeAt  ? HeaderFault::kVersion
                                                           : HeaderFault::kChecksum;
    EXPECT_EQ(fault, expected) << place;
  }
}

// ---- Records ------------------------------------------------------------------------------------

std::string ARecord(const RecordHeader& header, std::string_view payload) {
  std::string bytes(kRecordHeaderSize, '\0');
  EncodeRecordHeader(bytes.data(), header, payload);
  return bytes + std::string(payload);
}

TEST(RecordTest, ComesBack) {
  const RecordHeader written{0, 0, 1234567890123, kEarliest, 55, 4000000000, Kind::kEvent};
  const auto read = DecodeRecord(ARecord(written, "payload") + "more");
  ASSERT_TRUE(read);
  EXPECT_EQ(read->length, kRecordHeaderSize + 7);
  EXPECT_EQ(read->number, written.number);
  EXPECT_EQ(read->wall, kEarliest);
  EXPECT_EQ(read->monotonic, 55);
  EXPECT_EQ(read->console, 4000000000);
  EXPECT_EQ(read->kind, Kind::kEvent);
}

TEST(RecordTest, MayBeEmptyAndMayBeLarge) {
  for (const size_t size : {size_t{0}, kMostPayload}) {
    const auto read = DecodeRecord(ARecord({}, std::string(size, 'x')));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->length, kRecordHeaderSize + size);
  }
  EXPECT_FALSE(DecodeRecord(ARecord({}, std::string(kMostPayload + 1, 'x'))));
}

TEST(RecordTest, IsNoneWhereverItIsCut) {
  const std::string bytes = ARecord({}, "payload");
  for (size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_FALSE(DecodeRecord(bytes.substr(0, size))) << size;
  }
}

TEST(RecordTest, IsNoneWhicheverByteIsChanged) {
  const std::string bytes = ARecord({}, "payload");
  for (size_t place = 0; place < bytes.size(); ++place) {
    for (const int bit : {0, 3, 7}) {
      std::string changed = bytes;
      changed[place] = static_cast<char>(changed[place] ^ 1 << bit);
      EXPECT_FALSE(DecodeRecord(changed)) << place;
    }
  }
}

// ---- Fields -------------------------------------------------------------------------------------

std::string SomeFields() {
  std::array<char, 100> room{};
  FieldWriter writer(room.data(), room.size());
  writer.Add(Field::kUser, "anna");
  writer.AddNumber(Field::kBytes, -2);
  writer.Add(Field::kReason, static_cast<const char*>(nullptr));
  writer.Add(Field::kFrom, "");
  writer.Add(Field::kText, std::string_view("a\0b", 3));
  return {room.data(), writer.length()};
}

TEST(FieldsTest, ComeBack) {
  const std::string payload = SomeFields();
  const FieldReader reader(payload);
  EXPECT_EQ(reader.Text(Field::kUser), "anna");
  EXPECT_EQ(reader.Number(Field::kBytes), -2);
  EXPECT_EQ(reader.Text(Field::kText), std::string_view("a\0b", 3));
  EXPECT_TRUE(reader.Has(Field::kText));
  EXPECT_FALSE(reader.Has(Field::kReason));
  EXPECT_FALSE(reader.Has(Field::kFrom));
  EXPECT_EQ(reader.Text(Field::kName), "");
  EXPECT_FALSE(reader.Number(Field::kPort));
  EXPECT_FALSE(reader.Number(Field::kUser));  // no number has four bytes
}

TEST(FieldsTest, AreThoseBeforeTheCut) {
  const std::string payload = SomeFields();
  const size_t user = kFieldHeaderSize + 4;
  const size_t bytes = user + kFieldHeaderSize + 8;
  for (size_t size = 0; size < payload.size(); ++size) {
    const std::string part = payload.substr(0, size);  // so that reading behind it is seen
    const FieldReader reader(part);
    EXPECT_EQ(reader.Has(Field::kUser), size >= user) << size;
    EXPECT_EQ(reader.Has(Field::kBytes), size >= bytes) << size;
    EXPECT_FALSE(reader.Has(Field::kText)) << size;
  }
}

TEST(FieldsTest, StayWithinAPayloadWhicheverByteIsChanged) {
  const std::string payload = SomeFields();
  for (size_t place = 0; place < payload.size(); ++place) {
    for (int value = 0; value < 256; ++value) {
      std::string changed = payload;
      changed[place] = static_cast<char>(value);
      const FieldReader reader(changed);
      for (const Field field : {Field::kUser, Field::kBytes, Field::kText}) {
        const std::string_view text = reader.Text(field);
        ASSERT_TRUE(text.empty() || (text.data() >= changed.data() &&
                                     text.end() <= std::string_view(changed).end()));
      }
    }
  }
}

TEST(FieldsTest, AreLeftOutWholeWhereThereIsNoRoom) {
  std::array<char, 12> room{};
  FieldWriter writer(room.data(), room.size());
  writer.Add(Field::kUser, "anna");
  writer.Add(Field::kText, "abc");
  writer.Add(Field::kMode, "sh");
  EXPECT_EQ(writer.length(), 12U);
  const FieldReader reader({room.data(), writer.length()});
  EXPECT_EQ(reader.Text(Field::kUser), "anna");
  EXPECT_FALSE(reader.Has(Field::kText));
  EXPECT_EQ(reader.Text(Field::kMode), "sh");
}

}  // namespace

}  // namespace journal
