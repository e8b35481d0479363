// The index of a segment: what is built is what the records are, through bytes and back, and bytes
// that are cut, changed or lie are no index.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "crc32c.h"
#include "journal_support.h"
#include "segment_index.h"
#include "segment_scan.h"

namespace journal {

namespace {

using ::test::SegmentBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

SegmentIndex Decoded(std::string_view bytes) {
  SegmentIndex index;
  EXPECT_EQ(IndexFault::kNone, DecodeIndex(bytes, &index));
  return index;
}

SegmentBytes ThreeConsoles() {
  SegmentBytes segment(5, 100);
  segment.Define(1, "web");
  segment.Define(2, "db");
  segment.Define(9, "quiet");
  segment.Output(1, "login: ");
  segment.Add(Kind::kAudit, 0, "");
  segment.Output(2, "booting");
  segment.Define(1, "web-old");
  segment.Output(1, "hello");
  segment.Add(Kind::kConsoleGone, 2, "");
  return segment;
}

TEST(SegmentIndexTest, HasWhatTheDaemonReadsWhereItLooks) {
  const SegmentIndex index = ThreeConsoles().Index();
  const std::string bytes = EncodeIndex(index);
  EXPECT_EQ(kIndexVersion, GetNumber<uint16_t>(&bytes[kIndexVersionAt]));
  EXPECT_EQ(index.header.station, GetNumber<uint64_t>(&bytes[kIndexStationAt]));
  EXPECT_EQ(5u, GetNumber<uint64_t>(&bytes[kIndexSegmentAt]));
  EXPECT_EQ(109u, GetNumber<uint64_t>(&bytes[kIndexNextRecordAt]));
}

TEST(SegmentIndexTest, CountsRecordsAndBytesOfEachConsole) {
  const SegmentIndex index = ThreeConsoles().Index();
  EXPECT_EQ(9u, index.records);
  EXPECT_EQ(109u, index.next_record);
  ASSERT_THAT(index.consoles, SizeIs(4));
  const IndexedConsole& web = index.consoles[index.PlaceOf(1).value()];
  EXPECT_EQ(2u, web.records);
  EXPECT_EQ(12u, web.output_bytes);
  EXPECT_EQ(1'000'004'000'000, web.lowest_wall);
  EXPECT_EQ(1'000'008'000'000, web.highest_wall);
  ASSERT_THAT(web.names, SizeIs(2));
  EXPECT_EQ("web", web.names[0].name);
  EXPECT_EQ("10.0.0.1", web.names[0].address);
  EXPECT_EQ(4001, web.names[0].port);
  EXPECT_EQ(100u, web.names[0].record);
  EXPECT_EQ("web-old", web.names[1].name);
  EXPECT_EQ(1'000'007'000'000, web.names[1].since);
  EXPECT_FALSE(web.is_gone);
  EXPECT_TRUE(index.consoles[index.PlaceOf(2).value()].is_gone);
  EXPECT_EQ(1u, index.consoles[index.PlaceOf(0).value()].records);
  EXPECT_FALSE(index.PlaceOf(3));
}

TEST(SegmentIndexTest, ADefinitionAloneDoesNotPutAConsoleIntoABlock) {
  const SegmentIndex index = ThreeConsoles().Index();
  ASSERT_THAT(index.blocks, SizeIs(1));
  EXPECT_TRUE(index.blocks[0].Has(index.PlaceOf(1).value()));
  EXPECT_TRUE(index.blocks[0].Has(index.PlaceOf(0).value()));
  EXPECT_FALSE(index.blocks[0].Has(index.PlaceOf(9).value()));
}

TEST(SegmentIndexTest, LeavesOutANameThatIsDefinedAgainUnchanged) {
  SegmentBytes segment;
  segment.Define(1, "web", 4001);
  segment.Define(1, "web", 4001);
  segment.Define(1, "web", 4002);
  EXPECT_THAT(segment.Index().consoles.at(0).names, SizeIs(2));
}

TEST(SegmentIndexTest, BlocksAreWholeRecordsAndCoverTheSegment) {
  SegmentBytes segment;
  const std::string text(60000, 'x');
  for (int i = 0; i < 40; ++i) segment.Output(static_cast<uint32_t>(1 + i / 20), text);
  const SegmentIndex index = segment.Index();
  ASSERT_GE(index.blocks.size(), 8u);
  uint64_t offset = 0;
  uint64_t number = 1;
  for (const Block& block : index.blocks) {
    EXPECT_EQ(offset, block.offset);
    EXPECT_EQ(number, block.first_record);
    EXPECT_LE(block.length, kMostBlockSize);
    EXPECT_TRUE(DecodeRecord(std::string_view(segment.bytes).substr(block.FirstRecordAt())));
    offset += block.length;
    number += block.records;
  }
  EXPECT_EQ(segment.bytes.size(), offset);
  EXPECT_TRUE(index.blocks.front().Has(index.PlaceOf(1).value()));
  EXPECT_FALSE(index.blocks.front().Has(index.PlaceOf(2).value()));
  EXPECT_FALSE(index.blocks.back().Has(index.PlaceOf(1).value()));
}

TEST(SegmentIndexTest, KnowsTheTimesOfAClockThatGoesBack) {
  SegmentBytes segment;
  segment.Output(1, "a");
  segment.SetWall(-5'000'000);
  segment.Output(1, "b");
  const SegmentIndex index = segment.Index();
  EXPECT_EQ(-4'000'000, index.lowest_wall);
  EXPECT_EQ(1'000'001'000'000, index.highest_wall);
  EXPECT_EQ(-4'000'000, index.blocks.at(0).lowest_wall);
}

TEST(SegmentIndexTest, IsTheSameAfterBytesAndBack) {
  SegmentBytes segment = ThreeConsoles();
  segment.bytes += "torn";
  const SegmentIndex index = segment.Index();
  const std::string bytes = EncodeIndex(index);
  const SegmentIndex decoded = Decoded(bytes);
  EXPECT_EQ(bytes, EncodeIndex(decoded));
  EXPECT_EQ(index.consoles, decoded.consoles);
  EXPECT_EQ(index.damages, decoded.damages);
  EXPECT_EQ(index.blocks.at(0).consoles, decoded.blocks.at(0).consoles);
  EXPECT_EQ(5u, decoded.header.segment);
  EXPECT_EQ(7u, decoded.header.run);
  EXPECT_EQ(index.size, decoded.size);
}

TEST(SegmentIndexTest, TellsItsLengthAndLeavesTheSealAlone) {
  const std::string bytes = EncodeIndex(ThreeConsoles().Index());
  SegmentIndex index;
  size_t length = 0;
  EXPECT_EQ(IndexFault::kNone, DecodeIndex(bytes + "the seal", &index, &length));
  EXPECT_EQ(bytes.size(), length);
}

TEST(SegmentIndexTest, IsNotDecodedWhereItIsCut) {
  const std::string bytes = EncodeIndex(ThreeConsoles().Index());
  SegmentIndex index;
  for (size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_EQ(IndexFault::kShort, DecodeIndex(bytes.substr(0, size), &index)) << size;
  }
}

TEST(SegmentIndexTest, IsNotDecodedWithAnyByteChanged) {
  const std::string bytes = EncodeIndex(ThreeConsoles().Index());
  SegmentIndex index;
  for (size_t i = 0; i < bytes.size(); ++i) {
    for (const int bits : {0x01, 0x80, 0xFF}) {
      std::string changed = bytes;
      changed[i] = static_cast<char>(changed[i] ^ bits);
      EXPECT_NE(IndexFault::kNone, DecodeIndex(changed, &index)) << i;
    }
  }
}

// What a checksum that was made to fit lets through must still not lead a reader out of bounds.
TEST(SegmentIndexTest, LiesBehindARightChecksumAreBounded) {
  const std::string bytes = EncodeIndex(ThreeConsoles().Index());
  constexpr size_t kBehindChecksum = 16;
  SegmentIndex index;
  for (size_t i = kBehindChecksum; i < bytes.size(); ++i) {
    for (const int bits : {0x01, 0x7F, 0xFF}) {
      std::string changed = bytes;
      changed[i] = static_cast<char>(changed[i] ^ bits);
      PutNumber(&changed[12],
                Crc32c(changed.data() + kBehindChecksum, changed.size() - kBehindChecksum));
      if (DecodeIndex(changed, &index) != IndexFault::kNone) continue;
      uint64_t offset = 0;
      for (const Block& block : index.blocks) {
        EXPECT_EQ(offset, block.offset) << i;
        EXPECT_THAT(block.consoles, SizeIs(index.consoles.size())) << i;
        offset += block.length;
      }
      EXPECT_EQ(index.size, offset) << i;
    }
  }
}

TEST(SegmentIndexTest, AnotherVersionIsTold) {
  std::string bytes = EncodeIndex(ThreeConsoles().Index());
  PutNumber(&bytes[8], static_cast<uint16_t>(kIndexVersion + 1));
  SegmentIndex index;
  EXPECT_EQ(IndexFault::kVersion, DecodeIndex(bytes, &index));
}

TEST(SegmentScanTest, ADamagedRecordCostsItselfOnly) {
  SegmentBytes segment;
  segment.Output(1, "one");
  const uint64_t second = segment.Output(1, "two");
  const uint64_t third = segment.Output(1, "three");
  for (uint64_t i = second; i < third; ++i) {
    SegmentBytes changed = segment;
    changed.bytes[i] = static_cast<char>(changed.bytes[i] ^ 0x55);
    const SegmentIndex index = changed.Index();
    EXPECT_EQ(2u, index.records) << i;
    EXPECT_THAT(index.damages, ElementsAre(DamagedBytes{second, third - second})) << i;
  }
}

TEST(SegmentScanTest, ATornEndIsDamageWhereverItIsCut) {
  SegmentBytes segment;
  const uint64_t first = segment.Output(1, "one");
  const uint64_t second = segment.Output(1, "two and more");
  for (size_t size = second + 1; size < segment.bytes.size(); ++size) {
    SegmentBytes cut = segment;
    cut.bytes.resize(size);
    const SegmentIndex index = cut.Index();
    EXPECT_EQ(1u, index.records) << first;
    EXPECT_THAT(index.damages, ElementsAre(DamagedBytes{second, size - second}));
  }
}

// What a console prints is not taken for a record when the record around it is damaged.
TEST(SegmentScanTest, AConsoleCannotForgeARecordInsideDamage) {
  SegmentBytes forged(1, 900);
  const uint64_t at = forged.Output(1, "forged");
  SegmentBytes segment;
  segment.Output(1, "one");
  const uint64_t damaged = segment.Output(1, "xx" + forged.bytes.substr(at) + "xx");
  segment.Output(1, "three");
  segment.bytes[damaged + kRecordHeaderSize] = 'y';
  EXPECT_EQ(2u, segment.Index().records);
  segment.bytes[damaged] = 'y';  // the length, too: the next record is looked for byte by byte
  const SegmentIndex index = segment.Index();
  EXPECT_EQ(2u, index.records);
  EXPECT_EQ(4u, index.next_record);
}

TEST(SegmentScanTest, ALongDamageIsDividedAmongBlocks) {
  SegmentBytes segment;
  segment.Output(1, "one");
  segment.bytes += std::string(3 * kBlockSize, '\0');
  segment.Output(1, "two");
  const SegmentIndex index = segment.Index();
  EXPECT_EQ(2u, index.records);
  EXPECT_THAT(index.damages, SizeIs(1));
  EXPECT_THAT(index.blocks, SizeIs(4));
  EXPECT_EQ(IndexFault::kNone, [&] {
    SegmentIndex decoded;
    return DecodeIndex(EncodeIndex(index), &decoded);
  }());
}

TEST(SegmentScanTest, ASegmentOfAnotherStationOrNumberIsDamageThroughout) {
  SegmentBytes segment(3);
  segment.Output(1, "one");
  HeaderFault fault = HeaderFault::kNone;
  SegmentIndex index = IndexOf(segment, SegmentBytes::kStation, 4, &fault);
  EXPECT_EQ(HeaderFault::kForeign, fault);
  EXPECT_FALSE(index.header_is_sound);
  EXPECT_EQ(4u, index.header.segment);
  EXPECT_THAT(index.damages, ElementsAre(DamagedBytes{0, segment.bytes.size()}));
  index = IndexOf(segment, 1, 3, &fault);
  EXPECT_EQ(HeaderFault::kForeign, fault);
  segment.bytes[20] ^= 1;
  index = IndexOf(segment, SegmentBytes::kStation, 3, &fault);
  EXPECT_EQ(HeaderFault::kChecksum, fault);
  EXPECT_EQ(0u, index.records);
}

TEST(SegmentScanTest, AnEmptySegmentHasNothing) {
  SegmentBytes segment;
  const SegmentIndex index = segment.Index();
  EXPECT_EQ(kSegmentHeaderSize, index.size);
  EXPECT_THAT(index.damages, IsEmpty());
  segment.bytes.clear();
  HeaderFault fault = HeaderFault::kNone;
  EXPECT_EQ(0u, IndexOf(segment, SegmentBytes::kStation, 1, &fault).size);
  EXPECT_EQ(HeaderFault::kShort, fault);
}

}  // namespace

}  // namespace journal
