#include "fleet_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "journal_files_support.h"

namespace zevfleet {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using test::JournalFiles;
using test::SegmentBytes;
using Strings = std::vector<std::string>;

class FleetSourceTest : public ::testing::Test {
 protected:
  // A segment with the console "web", and these lines of it.
  SegmentBytes Segment(uint64_t number, const Strings& lines) {
    SegmentBytes segment(number, next_);
    segment.Define(1, "web");
    for (const std::string& line : lines) segment.Output(1, line);
    next_ = segment.next_record();
    files_.Put(segment);
    return segment;
  }

  // "CONSOLE NUMBER", and "gap COUNT REASON".
  Strings Rest(ShipSource& source) {
    Strings found;
    for (ShipItem item; source.Next(&item);) {
      places_.push_back(*source.place());
      found.push_back(item.gap ? "gap " + std::to_string(item.gap->count) + " " + item.gap->reason
                               : std::string(item.console) + " " +
                                     std::to_string(item.record->header.number));
    }
    return found;
  }

  JournalFiles files_;
  uint64_t next_ = 1;
  std::vector<ShipPlace> places_;
};

TEST_F(FleetSourceTest, BeginsAtTheOldestRecord) {
  Segment(1, {"a", "b"});
  Segment(2, {"c"});
  ShipSource source(files_.path());
  source.Begin({}, "");
  EXPECT_THAT(Rest(source), ElementsAre("web 1", "web 2", "web 3", "web 4", "web 5"));
  EXPECT_THAT(Rest(source), IsEmpty());
}

TEST_F(FleetSourceTest, GoesOnBehindEachPlace) {
  Segment(1, {"a", "b"});
  Segment(2, {"c"});
  ShipSource source(files_.path());
  source.Begin({}, "");
  const Strings all = Rest(source);
  for (size_t i = 0; i < all.size(); ++i) {
    EXPECT_TRUE(source.Has(places_[i]));
    ShipSource other(files_.path());
    other.Begin(places_[i], "");
    const auto rest = all.begin() + static_cast<ptrdiff_t>(i) + 1;
    EXPECT_EQ(Rest(other), Strings(rest, all.end()));
  }
}

TEST_F(FleetSourceTest, FollowsWhatIsWritten) {
  SegmentBytes segment = Segment(1, {"a"});
  ShipSource source(files_.path());
  source.Begin({}, "");
  EXPECT_THAT(Rest(source), ElementsAre("web 1", "web 2"));
  segment.Output(1, "b");
  files_.Put(segment);
  EXPECT_THAT(Rest(source), IsEmpty());
  source.Refresh();
  EXPECT_THAT(Rest(source), ElementsAre("web 3"));
}

TEST_F(FleetSourceTest, MarksWhatWasRemoved) {
  Segment(1, {"a", "b"});
  ShipSource source(files_.path());
  source.Begin({}, "");
  Rest(source);
  const ShipPlace last = places_.back();
  Segment(2, {"c"});
  Segment(3, {"d"});
  files_.Remove(1);
  files_.Remove(2);
  ShipSource later(files_.path());
  EXPECT_TRUE(later.Has(last));
  later.Begin(last, "");
  EXPECT_THAT(Rest(later), ElementsAre("gap 2 removed before it was shipped", "web 6", "web 7"));
}

TEST_F(FleetSourceTest, WhatWasShippedMayBeRemoved) {
  Segment(1, {"a", "b"});
  ShipSource source(files_.path());
  source.Begin({}, "");
  Rest(source);
  const ShipPlace last = places_.back();
  Segment(2, {"c"});
  files_.Remove(1);
  ShipSource later(files_.path());
  later.Begin(last, "");
  EXPECT_THAT(Rest(later), ElementsAre("web 4", "web 5"));
}

// The marker has arrived, the record behind it has not.
TEST_F(FleetSourceTest, GoesOnBehindAMarker) {
  next_ = 50;
  Segment(9, {"a"});
  ShipSource source(files_.path());
  source.Begin({}, "");
  EXPECT_THAT(Rest(source),
              ElementsAre("gap 49 removed before it was shipped", "web 50", "web 51"));
  EXPECT_FALSE(places_.front().is_behind);
  ShipSource later(files_.path());
  later.Begin(places_.front(), "");
  EXPECT_THAT(Rest(later), ElementsAre("web 50", "web 51"));
}

TEST_F(FleetSourceTest, MarksDamage) {
  SegmentBytes segment = Segment(1, {"a", "b", "c"});
  segment.bytes[segment.bytes.size() - 42] ^= 1;  // in the record of "b"
  files_.Put(segment);
  segment.bytes.resize(segment.bytes.size());
  ShipSource source(files_.path());
  source.Begin({}, "");
  const Strings found = Rest(source);
  ASSERT_EQ(found.size(), 4U);
  EXPECT_THAT(found[2], ::testing::StartsWith("gap 1 the journal cannot be read at "));
  EXPECT_EQ(found[3], "web 4");
}

TEST_F(FleetSourceTest, KnowsARecordThatIsAnotherOne) {
  Segment(1, {"a", "b"});
  ShipSource source(files_.path());
  source.Begin({}, "");
  Rest(source);
  ShipPlace place = places_.back();
  place.number += 1;
  EXPECT_FALSE(source.Has(place));
  place = places_.back();
  place.wall += 1;
  EXPECT_FALSE(source.Has(place));
  place = places_.back();
  place.position.offset += 1000;
  EXPECT_FALSE(source.Has(place));
  place = places_.back();
  place.position.station += 1;
  EXPECT_FALSE(source.Has(place));
}

TEST_F(FleetSourceTest, ADoubtIsAMarkerBeforeTheFirstRecord) {
  Segment(1, {"a"});
  ShipSource source(files_.path());
  source.Begin(ShipPlace{{9, 1, 64}, 700, 0, true}, "another one");
  EXPECT_THAT(Rest(source), ElementsAre("gap 0 another one", "web 1", "web 2"));
}

TEST_F(FleetSourceTest, TellsAnotherJournal) {
  Segment(1, {"a"});
  const auto write = [&](const char* text) { std::ofstream(files_.path() + "/id") << text; };
  write("1122334455667788\n");
  ShipSource source(files_.path());
  EXPECT_TRUE(source.IsSame());
  write("0000000000000001\n");
  EXPECT_FALSE(source.IsSame());
}

}  // namespace

}  // namespace zevfleet
