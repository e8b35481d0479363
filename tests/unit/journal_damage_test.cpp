// Damage of every kind: it is stepped over and told, and nothing sound is lost but what it touches.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "journal/journal.h"
#include "journal_encode.h"
#include "journal_files_support.h"

namespace journal {

namespace {

using test::Damages;
using test::JournalFiles;
using test::ReadRest;
using test::SegmentBytes;
using test::Strings;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSubsetOf;
using ::testing::SizeIs;

// Segment 1 holds four records of output, segment 2 one; 2 is behind it, so that 1 is not growing.
class JournalDamageTest : public ::testing::Test {
 protected:
  JournalDamageTest() {
    segment_.Define(1, "web");
    for (const char* text : {"one", "two", "three", "four"}) {
      places_.push_back(segment_.Output(1, text));
    }
    files_.Put(segment_);
    SegmentBytes next(2, segment_.next_record());
    next.Define(1, "web");
    next.Output(1, "five");
    files_.Put(next);
  }

  void PutFirst(std::string bytes) {
    segment_.bytes = std::move(bytes);
    files_.Put(segment_);
  }

  // What a reader finds, both ways. The damages are those of the way forward.
  Strings Read() {
    const Journal journal(files_.path());
    Query query;
    query.kinds = KindBit(Kind::kOutput);
    const auto forward = journal.Read(query);
    Strings texts = ReadRest(*forward);
    damages_ = Damages(*forward);
    query.backward = true;
    const Strings backward = ReadRest(*journal.Read(query));
    EXPECT_EQ(Strings(backward.rbegin(), backward.rend()), texts);
    return texts;
  }

  JournalFiles files_;
  SegmentBytes segment_;
  std::vector<uint64_t> places_;
  Strings damages_;
};

TEST_F(JournalDamageTest, CostsTheRecordThatItHits) {
  const std::string sound = segment_.bytes;
  const Strings all = {"one", "two", "three", "four", "five"};
  for (size_t place = places_[0]; place < sound.size(); ++place) {
    std::string bytes = sound;
    bytes[place] = static_cast<char>(bytes[place] ^ 0x55);
    PutFirst(bytes);
    Strings expected = all;
    const auto behind = std::upper_bound(places_.begin(), places_.end(), place);
    const uint64_t hit = *std::prev(behind);
    expected.erase(expected.begin() + std::distance(places_.begin(), behind) - 1);
    ASSERT_EQ(Read(), expected) << place;
    ASSERT_THAT(damages_, SizeIs(1)) << place;
    ASSERT_TRUE(damages_[0].starts_with("1:" + std::to_string(hit) + '+')) << place;
  }
}

TEST_F(JournalDamageTest, OfASealedSegmentCostsItsRecordToo) {
  const std::string sound = segment_.bytes;
  files_.Seal(1);
  for (size_t place = places_[0]; place < sound.size(); ++place) {
    std::string bytes = sound;
    bytes[place] = static_cast<char>(bytes[place] ^ 0x55);
    PutFirst(bytes);
    ASSERT_THAT(Read(), SizeIs(4)) << place;
    ASSERT_THAT(damages_, SizeIs(1)) << place;
  }
}

TEST_F(JournalDamageTest, OfTheHeaderCostsASegmentWithoutIndex) {
  const std::string sound = segment_.bytes;
  for (size_t place = 0; place < kSegmentHeaderSize; ++place) {
    std::string bytes = sound;
    bytes[place] = static_cast<char>(bytes[place] ^ 0x55);
    PutFirst(bytes);
    ASSERT_THAT(Read(), ElementsAre("five")) << place;
    ASSERT_THAT(damages_, SizeIs(1)) << place;
    ASSERT_TRUE(damages_[0].starts_with("1:0+0 ")) << damages_[0];
  }
}

TEST_F(JournalDamageTest, OfTheHeaderCostsNoRecordWhereThereIsAnIndex) {
  files_.Seal(1);
  std::string bytes = segment_.bytes;
  bytes[20] = static_cast<char>(bytes[20] ^ 0x55);
  PutFirst(bytes);
  EXPECT_THAT(Read(), ElementsAre("one", "two", "three", "four", "five"));
  EXPECT_THAT(damages_, ElementsAre("1:0+64 has a damaged header"));
}

TEST_F(JournalDamageTest, CutsASegmentAnywhere) {
  const std::string sound = segment_.bytes;
  for (size_t size = 0; size < sound.size(); ++size) {
    PutFirst(sound.substr(0, size));
    Strings expected;
    for (size_t record = 0; record < places_.size(); ++record) {
      const size_t end = record + 1 < places_.size() ? places_[record + 1] : sound.size();
      if (end <= size) expected.push_back(Strings{"one", "two", "three", "four"}[record]);
    }
    expected.emplace_back("five");
    ASSERT_EQ(Read(), expected) << size;
    const bool is_whole = size == kSegmentHeaderSize || size == places_[0] ||
                          std::count(places_.begin(), places_.end(), size) > 0;
    ASSERT_THAT(damages_, SizeIs(is_whole ? 0 : 1)) << size;
  }
}

TEST_F(JournalDamageTest, CutsASealedSegmentAnywhere) {
  const std::string sound = segment_.bytes;
  files_.Seal(1);
  for (size_t size = 0; size < sound.size(); ++size) {
    PutFirst(sound.substr(0, size));
    const Strings texts = Read();
    ASSERT_THAT(texts, Contains("five")) << size;
    ASSERT_THAT(texts, IsSubsetOf({"one", "two", "three", "four", "five"})) << size;
    ASSERT_THAT(damages_, ::testing::Not(IsEmpty())) << size;
  }
}

TEST_F(JournalDamageTest, OfACompressedSegmentIsTold) {
  files_.Seal(1);
  files_.Compress(1);
  const std::string sound = test::ReadFile(files_.Compressed(1));
  for (size_t place = 0; place < sound.size(); ++place) {
    std::string bytes = sound;
    bytes[place] = static_cast<char>(bytes[place] ^ 0x55);
    test::Overwrite(files_.Compressed(1), bytes);
    const Strings texts = Read();
    ASSERT_TRUE(texts.size() == 5 || !damages_.empty()) << place;
    ASSERT_THAT(texts, Contains("five")) << place;
  }
  for (size_t size = 0; size < sound.size(); ++size) {
    test::Overwrite(files_.Compressed(1), sound.substr(0, size));
    ASSERT_THAT(Read(), ElementsAre("five")) << size;
    ASSERT_THAT(damages_, SizeIs(1)) << size;
  }
}

// A damaged index is none: the segment is read.
TEST_F(JournalDamageTest, OfAnIndexCostsNothing) {
  files_.Seal(1);
  const std::string sound = test::ReadFile(files_.Index(1));
  const Strings all = {"one", "two", "three", "four", "five"};
  for (size_t place = 0; place < sound.size(); ++place) {
    std::string bytes = sound;
    bytes[place] = static_cast<char>(bytes[place] ^ 0x55);
    test::Overwrite(files_.Index(1), bytes);
    ASSERT_EQ(Read(), all) << place;
    test::Overwrite(files_.Index(1), sound.substr(0, place));
    ASSERT_EQ(Read(), all) << place;
  }
}

TEST_F(JournalDamageTest, ExchangesTheIndexOfAnother) {
  files_.Seal(1);
  files_.Seal(2);
  std::filesystem::rename(files_.Index(1), files_.Index(2));
  EXPECT_THAT(Read(), ElementsAre("one", "two", "three", "four", "five"));
}

TEST_F(JournalDamageTest, ExchangesSegments) {
  files_.Seal(1);
  files_.Seal(2);
  const auto aside = files_.Raw(3);
  std::filesystem::rename(files_.Raw(1), aside);
  std::filesystem::rename(files_.Raw(2), files_.Raw(1));
  std::filesystem::rename(aside, files_.Raw(2));
  EXPECT_THAT(Read(), IsEmpty());
  EXPECT_THAT(damages_, ElementsAre("1:0+0 is another segment under this name",
                                    "2:0+0 is another segment under this name"));
}

TEST_F(JournalDamageTest, LeavesHoles) {
  SegmentBytes later(5, 100);
  later.Output(1, "six");
  files_.Put(later);
  EXPECT_THAT(Read(), ElementsAre("one", "two", "three", "four", "five", "six"));
  EXPECT_THAT(damages_, ElementsAre("3:0+0 and the segments behind it, 2 in all, are missing"));
}

// ---- Lengths that lie, and bytes that look like records -----------------------------------------

TEST_F(JournalDamageTest, LiesAboutLengths) {
  for (const uint32_t length : {0U, 1U, 39U, 40U, 41U, 83U, 65576U, 65577U, 0x7FFFFFFFU, ~0U}) {
    std::string bytes = segment_.bytes;
    const std::string sound = bytes;
    PutNumber(&bytes[places_[1]], length);
    PutFirst(bytes);
    EXPECT_THAT(Read(), ElementsAre("one", "three", "four", "five")) << length;
    EXPECT_THAT(damages_, SizeIs(1)) << length;
    PutFirst(sound);
  }
}

// A console can print a record, and the record that holds it can be damaged.
TEST_F(JournalDamageTest, MakesNoRecordOfWhatAConsolePrinted) {
  SegmentBytes forged;
  forged.SkipNumbers(500);
  forged.Output(1, "forged");
  const std::string inner = forged.bytes.substr(kSegmentHeaderSize);
  const uint64_t place = segment_.Output(1, "cat " + inner + " end");
  segment_.Output(1, "last");
  segment_.bytes[place + kRecordHeaderSize] = 'X';
  files_.Put(segment_);
  const Strings without = {"one", "two", "three", "four", "last", "five"};
  EXPECT_EQ(Read(), without);
  std::string bytes = segment_.bytes;
  PutNumber(&bytes[place], ~0U);  // and the search goes through its inside
  PutFirst(bytes);
  EXPECT_EQ(Read(), without);
}

TEST_F(JournalDamageTest, FillsALargePart) {
  std::string bytes = segment_.bytes.substr(0, places_[2]);
  for (const char filling : {'\0', '\xFF', '\x30'}) {
    PutFirst(bytes + std::string(1 << 20, filling) + segment_.bytes.substr(places_[2]));
    EXPECT_THAT(Read(), ElementsAre("one", "two", "three", "four", "five"));
    ASSERT_THAT(damages_, SizeIs(1));
    EXPECT_TRUE(damages_[0].starts_with("1:" + std::to_string(places_[2]) + "+1048576 "));
    segment_.bytes.erase(places_[2], 1 << 20);
  }
}

// Where damage ends shows when a record follows it: until then a growing segment's end is left
// alone, and nothing of what comes is lost.
TEST_F(JournalDamageTest, OfAGrowingSegmentLosesNothingThatComes) {
  SegmentBytes last(3, 100);
  last.Output(1, "six");
  const std::string before = last.bytes;
  last.Output(1, "seven");
  last.Output(1, "eight");
  const std::string behind = last.bytes.substr(before.size());
  const std::string garbage(100, '\x7F');
  last.bytes = before + garbage;
  files_.Put(last);
  Journal journal(files_.path());
  const auto cursor = journal.Read({});
  ReadRest(*cursor);
  Strings found;
  for (size_t size = 0; size <= behind.size(); ++size) {
    last.bytes = before + garbage + behind.substr(0, size);
    files_.Put(last);
    journal.Refresh();
    for (const std::string& text : ReadRest(*cursor)) found.push_back(text);
  }
  EXPECT_THAT(found, ElementsAre("seven", "eight"));
  EXPECT_THAT(Damages(*cursor), ElementsAre("3:" + std::to_string(before.size()) +
                                            "+100 has bytes that are no sound record"));
}

// An hour that the damage has nothing to do with is shown without a word of it.
TEST_F(JournalDamageTest, IsToldWhereItMatters) {
  std::string bytes = segment_.bytes;
  bytes[places_[1] + 41] = 'X';
  PutFirst(bytes);
  SegmentBytes later(3, 100);
  later.SetWall(int64_t{1} << 60);
  later.Output(1, "later");
  files_.Put(later);
  const Journal journal(files_.path());
  Query query;
  query.since = int64_t{1} << 60;
  const auto cursor = journal.Read(query);
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("later"));
  EXPECT_THAT(Damages(*cursor), IsEmpty());
}

// Kinds and fields that a later version adds within the format are passed on.
TEST_F(JournalDamageTest, IsNoKindThatIsUnknown) {
  SegmentBytes later(3, 100);
  for (const int kind : {0, 40, 63, 64, 200, 255}) later.Add(static_cast<Kind>(kind), 1, "new");
  files_.Put(later);
  const Journal journal(files_.path());
  EXPECT_EQ(ReadRest(*journal.Read({})).size(), 13U);
  Query query;
  query.kinds = KindBit(static_cast<Kind>(40));
  EXPECT_THAT(ReadRest(*journal.Read(query)), ElementsAre("new"));
}

}  // namespace

}  // namespace journal
