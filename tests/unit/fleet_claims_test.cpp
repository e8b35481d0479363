// Which consoles a station claims and lets go of.
#include "fleet_claims.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <utility>

#include "fleet_clock.h"
#include "fleet_map.h"
#include "fleet_support.h"
#include "json_line.h"

namespace zevfleet {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class FleetClaimsTest : public testing::Test {
 protected:
  void Whole(std::vector<EtcdKey> keys, int64_t now = 0) {
    view_.Take({.is_whole = true, .present = std::move(keys), .gone = {}}, now);
  }
  void Comes(const EtcdKey& key, int64_t now) {
    view_.Take({.is_whole = false, .present = {key}, .gone = {}}, now);
  }
  void Goes(const std::string& key, int64_t now) {
    view_.Take({.is_whole = false, .present = {}, .gone = {"/zevfleet/hall/" + key}}, now);
  }
  static UsersOf Users(std::optional<size_t> count) {
    return [count](const std::string&) { return count; };
  }

  static std::optional<int64_t> FreeSince(const FleetView& view, const std::string& console) {
    const auto found = view.free_since().find(console);
    if (found == view.free_since().end()) return {};
    return found->second;
  }
  /// The stations that claim a free console, after so many seconds as they wait.
  std::map<int64_t, std::string> Claimants(const SharedConsole& console) {
    Comes(ConsoleKey(console), 0);
    std::map<int64_t, std::string> claimants;
    for (const auto& [name, seen] : view_.stations()) {
      const ClaimSelf self{.station = name, .lease = seen.lease, .ready = true};
      for (int64_t seconds = 0; seconds < 20; ++seconds) {
        if (std::ranges::count(ToClaim(view_, self, seconds * kSecond), console.name) == 0)
          continue;
        EXPECT_TRUE(claimants.emplace(seconds, name).second) << "two at once";
        break;
      }
    }
    return claimants;
  }

  FleetView view_{"hall"};
  const ClaimSelf self_{
      .station = "st1", .lease = kTestLease, .ready = true, .return_time = 30 * kSecond};
};

TEST_F(FleetClaimsTest, NamedStationsComeFirstAndOthersInAnOrderOfTheConsole) {
  Whole({StationKey("st1", 1), StationKey("st2", 2), StationKey("st3", 3, false)});
  EXPECT_THAT(Claimants(ConsoleFor("box", {"st2", "st3", "st1"})),
              ElementsAre(Pair(0, "st2"), Pair(2, "st1")));
  EXPECT_THAT(Claimants(ConsoleFor("box", {"st2"})), ElementsAre(Pair(0, "st2"), Pair(2, "st1")));
  EXPECT_THAT(Claimants(ConsoleFor("box", {"st2"}, false)), ElementsAre(Pair(0, "st2")));
  EXPECT_THAT(Claimants(ConsoleFor("box", {"gone"}, false)), IsEmpty());
  size_t first = 0;
  for (int i = 0; i < 1000; ++i) {
    const auto order = Claimants(ConsoleFor("box" + std::to_string(i), {}));
    ASSERT_THAT(order, UnorderedElementsAre(Key(1), Key(2)));
    if (order.at(1) == "st1") ++first;
  }
  EXPECT_GT(first, 400U);
  EXPECT_LT(first, 600U);
}

TEST_F(FleetClaimsTest, WhatElseHappensDoesNotChangeSinceWhenAConsoleIsFree) {
  Whole({StationKey("st1", kTestLease), ConsoleKey(ConsoleFor("box", {"st2", "st1"}))}, kSecond);
  Comes(StationKey("st1", kTestLease), 2 * kSecond);
  Comes(ConsoleKey(ConsoleFor("new", {})), 3 * kSecond);
  EXPECT_EQ(FreeSince(view_, "box"), kSecond);
  EXPECT_EQ(FreeSince(view_, "new"), 3 * kSecond);
}

TEST_F(FleetClaimsTest, AConsoleIsClaimedAtOnceByItsFirstStation) {
  Whole({StationKey("st1", kTestLease), ConsoleKey(ConsoleFor("box", {"st1"}))});
  EXPECT_THAT(ToClaim(view_, self_, 0), ElementsAre("box"));
}

TEST_F(FleetClaimsTest, TheNextStationWaitsForTheOneBeforeIt) {
  Whole({StationKey("st1", kTestLease), StationKey("st2", 2),
         ConsoleKey(ConsoleFor("box", {"st2", "st1"}))});
  EXPECT_THAT(ToClaim(view_, self_, 2 * kSecond - 1), IsEmpty());
  EXPECT_THAT(ToClaim(view_, self_, 2 * kSecond), ElementsAre("box"));
  // Without the one before it, it does not take as long.
  Goes("stations/st2", 0);
  EXPECT_THAT(ToClaim(view_, self_, kSecond - 1), IsEmpty());
  EXPECT_THAT(ToClaim(view_, self_, kSecond), ElementsAre("box"));
}

TEST_F(FleetClaimsTest, EachWaitsForAllThatComeBeforeIt) {
  std::vector<EtcdKey> keys;
  for (int i = 1; i <= 7; ++i) keys.push_back(StationKey("st" + std::to_string(i), i, i != 4));
  Whole(keys);
  std::set<std::string> last;
  for (int i = 0; i < 50; ++i) {
    const auto console = ConsoleFor("box" + std::to_string(i), {"st2", "st4", "gone", "st3"});
    const auto order = Claimants(console);
    ASSERT_THAT(order, ElementsAre(Pair(0, "st2"), Pair(2, "st3"), Key(3), Key(4), Key(5), Key(6)));
    last.insert(order.at(6));
  }
  EXPECT_THAT(last, ElementsAre("st1", "st5", "st6", "st7"));
}

TEST_F(FleetClaimsTest, TheWaitBeginsWhenTheConsoleBecomesFree) {
  Whole({StationKey("st1", kTestLease), ConsoleKey(ConsoleFor("box", {"st2"})),
         ClaimKey("box", "st2", 2)});
  EXPECT_THAT(ToClaim(view_, self_, 100 * kSecond), IsEmpty());
  Goes("claims/" + AddressFor("box"), 100 * kSecond);
  EXPECT_THAT(ToClaim(view_, self_, 100 * kSecond), IsEmpty());
  EXPECT_THAT(ToClaim(view_, self_, 101 * kSecond), ElementsAre("box"));
  Comes(ClaimKey("box", "st3", 3), 101 * kSecond);
  EXPECT_THAT(ToClaim(view_, self_, 200 * kSecond), IsEmpty());
}

TEST_F(FleetClaimsTest, OneThatIsNotReadyClaimsNothing) {
  Whole({StationKey("st1", kTestLease, false), ConsoleKey(ConsoleFor("box", {"st1"}))});
  EXPECT_THAT(ToClaim(view_, self_, 100 * kSecond), IsEmpty());
  Comes(StationKey("st1", kTestLease), 0);
  ClaimSelf unready = self_;
  unready.ready = false;
  EXPECT_THAT(ToClaim(view_, unready, 100 * kSecond), IsEmpty());
  EXPECT_THAT(ToClaim(view_, self_, 100 * kSecond), ElementsAre("box"));
}

TEST_F(FleetClaimsTest, AClaimThatIsNotUnderstoodIsSomebodysNevertheless) {
  Whole({StationKey("st1", kTestLease),
         ConsoleKey(ConsoleFor("box", {"st1"})),
         {.key = "/zevfleet/hall/claims/" + AddressFor("box"), .value = "mine"}});
  EXPECT_THAT(ToClaim(view_, self_, 100 * kSecond), IsEmpty());
  EXPECT_THAT(view_.Problems(), SizeIs(1));
}

TEST_F(FleetClaimsTest, WhatIsHeldIsHeldByTheLeaseOfNow) {
  Whole({ConsoleKey(ConsoleFor("a", {})), ConsoleKey(ConsoleFor("b", {})),
         ConsoleKey(ConsoleFor("c", {})), ClaimKey("a", "st1", kTestLease),
         ClaimKey("b", "st1", kTestLease + 1), ClaimKey("c", "st2", kTestLease)});
  EXPECT_THAT(Held(view_, self_), ElementsAre("a"));
}

TEST_F(FleetClaimsTest, AnAddressThatNoConsoleHasAnyMoreIsStillHeld) {
  SharedConsole moved = ConsoleFor("box", {});
  moved.line = LineFor("box");
  Whole(
      {ClaimKey("box", "st1", kTestLease), ClaimKey("gone", "st1", kTestLease), ConsoleKey(moved)});
  EXPECT_THAT(Held(view_, self_), IsEmpty());
  EXPECT_THAT(HeldAddresses(view_, self_), ElementsAre(AddressFor("box"), AddressFor("gone")));
  // The new address is nobody's.
  EXPECT_EQ(FreeSince(view_, "box"), 0);
}

TEST_F(FleetClaimsTest, OneThatMayNotBeHereAnyMoreIsLetGo) {
  Whole({ConsoleKey(ConsoleFor("box", {"st2"}, false)), ClaimKey("box", "st1", kTestLease)});
  EXPECT_THAT(ToRelease(view_, self_, Users(3), 0), ElementsAre("box"));
}

TEST_F(FleetClaimsTest, ABetterStationGetsItOnceItIsBackForAWhileAndNobodyIsAttached) {
  Whole({ConsoleKey(ConsoleFor("box", {"st2"})), ClaimKey("box", "st1", kTestLease)});
  EXPECT_FALSE(MayRelease(view_, self_, 100 * kSecond));
  Comes(StationKey("st2", 2), 100 * kSecond);
  EXPECT_FALSE(MayRelease(view_, self_, 130 * kSecond - 1));
  EXPECT_TRUE(MayRelease(view_, self_, 130 * kSecond));
  EXPECT_THAT(ToRelease(view_, self_, Users(0), 130 * kSecond), ElementsAre("box"));
  EXPECT_THAT(ToRelease(view_, self_, Users(1), 130 * kSecond), IsEmpty());
  EXPECT_THAT(ToRelease(view_, self_, Users({}), 130 * kSecond), IsEmpty());  // nobody knows
}

TEST_F(FleetClaimsTest, ABetterStationThatIsNotReadyOrNewAgainStartsFromTheBeginning) {
  Whole({ConsoleKey(ConsoleFor("box", {"st2"})), ClaimKey("box", "st1", kTestLease),
         StationKey("st2", 2)});
  Comes(StationKey("st2", 2, false), 20 * kSecond);
  EXPECT_FALSE(MayRelease(view_, self_, 100 * kSecond));
  Comes(StationKey("st2", 2), 100 * kSecond);
  Comes(StationKey("st2", 3), 120 * kSecond);  // by another lease
  EXPECT_FALSE(MayRelease(view_, self_, 150 * kSecond - 1));
  EXPECT_TRUE(MayRelease(view_, self_, 150 * kSecond));
}

TEST_F(FleetClaimsTest, AWorseStationIsNoReason) {
  Whole({ConsoleKey(ConsoleFor("box", {"st1", "st2"})), ClaimKey("box", "st1", kTestLease),
         StationKey("st2", 2)});
  EXPECT_FALSE(MayRelease(view_, self_, 100 * kSecond));
}

TEST_F(FleetClaimsTest, OneThatWasSentGoesAtOnceWhoeverIsAttached) {
  Whole({ConsoleKey(ConsoleFor("box", {"st2"}, true, true)), ClaimKey("box", "st1", kTestLease)});
  EXPECT_THAT(ToRelease(view_, self_, Users(3), 0), IsEmpty());  // the other one is not there
  Comes(StationKey("st2", 2), 0);
  EXPECT_THAT(ToRelease(view_, self_, Users(3), 0), ElementsAre("box"));
}

TEST_F(FleetClaimsTest, WhatWasSentHereHasArrivedOnceItIsHeld) {
  Whole({ConsoleKey(ConsoleFor("a", {"st1"}, true, true)),
         ConsoleKey(ConsoleFor("b", {"st1"}, true, true)), ConsoleKey(ConsoleFor("c", {"st1"})),
         ConsoleKey(ConsoleFor("d", {"st2"}, true, true)), ClaimKey("a", "st1", kTestLease),
         ClaimKey("c", "st1", kTestLease), ClaimKey("d", "st1", kTestLease)});
  EXPECT_THAT(Arrived(view_, self_), ElementsAre("a"));
}

TEST_F(FleetClaimsTest, WhatHoldsAfterManyChangesHoldsForTheSameKeysAtOnce) {
  const std::vector<std::string> names = {"a", "b", "c", "d"};
  std::map<std::string, EtcdKey> there;
  uint32_t chance = 1;
  const auto next = [&](uint32_t below) {
    return (chance = chance * 1664525 + 1013904223) / 7 % below;
  };
  for (int64_t now = 0; now < 3000; ++now) {
    const std::string& name = names[next(4)];
    EtcdKey key = ConsoleKey(ConsoleFor(name, {}));
    if (next(2) == 0) key = ClaimKey(name, next(2) == 0 ? "st1" : "st2", 7 + next(2));
    if (next(9) == 0) key.value = "foreign";
    if (next(3) == 0) {
      view_.Take({.is_whole = false, .present = {}, .gone = {key.key}}, now);
      there.erase(key.key);
    } else {
      Comes(key, now);
      there[key.key] = key;
    }
    FleetView fresh("hall");
    FleetNews whole{.is_whole = true, .present = {}, .gone = {}};
    for (const auto& [text, one] : there) whole.present.push_back(one);
    fresh.Take(whole, now);
    ASSERT_EQ(Held(view_, self_), Held(fresh, self_)) << now;
    ASSERT_EQ(HeldAddresses(view_, self_), HeldAddresses(fresh, self_)) << now;
    for (const std::string& one : names) {
      ASSERT_EQ(FreeSince(view_, one).has_value(), FreeSince(fresh, one).has_value()) << now;
    }
    if (next(50) == 0) view_.Take(whole, now);
  }
}

TEST_F(FleetClaimsTest, AConsoleStaysFreeSinceThenWhenAllIsReadAgain) {
  const std::vector<EtcdKey> keys = {ConsoleKey(ConsoleFor("a", {})),
                                     ConsoleKey(ConsoleFor("b", {})), ClaimKey("b", "st2", 2)};
  Whole(keys);
  Whole({keys[0], keys[1]}, kSecond);
  EXPECT_EQ(FreeSince(view_, "a"), 0);
  EXPECT_EQ(FreeSince(view_, "b"), kSecond);
}

TEST_F(FleetClaimsTest, ABeatIsNoChangeOfTheFleetButWhatElseAStationSaysIs) {
  Whole({StationKey("st2", 2), ConsoleKey(ConsoleFor("box", {}))});
  uint64_t version = view_.version();
  const auto has_changed = [&] {
    return view_.version() != std::exchange(version, view_.version());
  };
  const EtcdKey key = StationKey("st2", 2);
  auto station = *DecodeStation("st2", key.value);
  ++station.beat;
  Comes({.key = key.key, .value = Encode(station), .lease = 2}, kSecond);
  EXPECT_FALSE(has_changed());
  EXPECT_EQ(view_.stations().at("st2").station.beat, station.beat);
  station.ready = false;
  Comes({.key = key.key, .value = Encode(station), .lease = 2}, kSecond);
  EXPECT_TRUE(has_changed());
  Comes({.key = key.key, .value = Encode(station), .lease = 3}, kSecond);
  EXPECT_TRUE(has_changed());
  Comes(ClaimKey("box", "st2", 3), kSecond);
  EXPECT_TRUE(has_changed());
  Goes("claims/" + AddressFor("box"), kSecond);
  EXPECT_TRUE(has_changed());
  Goes("stations/st2", kSecond);
  EXPECT_TRUE(has_changed());
}

TEST_F(FleetClaimsTest, TheMapShowsWhatHasChanged) {
  FleetOptions options;
  options.site = "hall";
  options.station = "st1";
  FleetMap map(options);
  const auto owner = [&] {
    const zevctl::Json text = zevctl::ReadJson(map.Text(view_, {.as_of = 5, .problem = "none"}));
    EXPECT_EQ(text.value("as_of", 0), 5);
    EXPECT_EQ(text.value("problem", ""), "none");
    EXPECT_EQ(text.value("stations", zevctl::Json()).size(), 1U);
    return text.at("consoles").at(0).value("station", "?");
  };
  EXPECT_EQ(zevctl::ReadJson(map.Text(view_, {})).at("consoles"), zevctl::Json::array());
  Whole({StationKey("st1", kTestLease), ConsoleKey(ConsoleFor("box", {}))});
  EXPECT_EQ(owner(), "");
  Comes(ClaimKey("box", "st1", kTestLease), 0);
  EXPECT_EQ(owner(), "st1");
  EXPECT_EQ(owner(), "st1");
}

TEST_F(FleetClaimsTest, AWholeListReplacesWhatWasKnown) {
  Whole({StationKey("st1", 1), ConsoleKey(ConsoleFor("a", {}))});
  Whole({StationKey("st2", 1), ConsoleKey(ConsoleFor("b", {}))}, kSecond);
  EXPECT_THAT(view_.stations(), SizeIs(1));
  EXPECT_EQ(FreeSince(view_, "a"), std::nullopt);
  EXPECT_EQ(FreeSince(view_, "b"), kSecond);
}

}  // namespace
}  // namespace zevfleet
