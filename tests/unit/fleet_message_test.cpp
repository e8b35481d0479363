#include "fleet_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "journal/journal_fields.h"

namespace zevfleet {

namespace {

using journal::Field;
using journal::Kind;
using nlohmann::json;

const ShipName kName = {"hall1", "st1"};

// A record in memory.
struct Made : journal::Record {
  explicit Made(Kind kind, std::string_view content = "") {
    position = {0x1122334455667788, 3, 64};
    header = {.number = 17, .wall = 1'000'000'000'000'000'123, .kind = kind};
    payload = content;
  }
};

class Fields {
 public:
  Fields& Add(Field field, std::string_view text) {
    writer_.Add(field, text);
    return *this;
  }
  std::string_view view() const { return {room_, writer_.length()}; }

 private:
  char room_[512];
  journal::FieldWriter writer_{room_, sizeof room_};
};

std::map<std::string, std::string> HeadersOf(const ShipMessage& message) {
  return {message.headers.begin(), message.headers.end()};
}

TEST(FleetMessageTest, OutputGoesAsItIs) {
  const std::string_view bytes("\0\xFFraw\r\n", 7);
  const ShipMessage message = MessageOf(kName, Made(Kind::kOutput, bytes), "web.1");
  EXPECT_EQ(message.subject, "hall1.st1.web%2E1.out");
  EXPECT_EQ(message.content(), bytes);
  EXPECT_EQ(MessageId(message.place, ""), "1122334455667788:3:64");
  const std::map<std::string, std::string> headers = {
      {"Zev-Console", "web.1"},
      {"Zev-Record", "17"},
      {"Zev-Time", "2001-09-09T01:46:40.000000123Z"}};
  EXPECT_EQ(HeadersOf(message), headers);
}

TEST(FleetMessageTest, EachKindHasItsTopic) {
  EXPECT_EQ(TopicOf(Kind::kOutput), Topic::kOut);
  EXPECT_EQ(TopicOf(Kind::kEvent), Topic::kEvent);
  EXPECT_EQ(TopicOf(Kind::kAudit), Topic::kAudit);
  for (const Kind kind : {Kind::kConsole, Kind::kInput, Kind::kGap, Kind::kStarted, Kind::kTorn}) {
    EXPECT_EQ(TopicOf(kind), Topic::kState);
  }
  EXPECT_EQ(TopicOf(static_cast<Kind>(99)), Topic::kState);
}

TEST(FleetMessageTest, WhatIsNoOutputIsAnObject) {
  Fields fields;
  fields.Add(Field::kUser, "anna").Add(Field::kMode, "sh");
  const ShipMessage message = MessageOf(kName, Made(Kind::kAttached, fields.view()), "web");
  EXPECT_EQ(message.subject, "hall1.st1.web.state");
  const json data = json::parse(message.content());
  EXPECT_EQ(data["kind"], "attached");
  EXPECT_EQ(data["console"], "web");
  EXPECT_EQ(data["user"], "anna");
  EXPECT_EQ(data["position"], "1122334455667788:3:64");
  EXPECT_EQ(data["record"], 17);
}

TEST(FleetMessageTest, AnActBelongsToItsConsole) {
  Fields fields;
  fields.Add(Field::kWhat, "attach").Add(Field::kConsole, "web");
  EXPECT_EQ(MessageOf(kName, Made(Kind::kAudit, fields.view()), "").subject, "hall1.st1.web.audit");
  Fields other;
  other.Add(Field::kWhat, "reload");
  const ShipMessage message = MessageOf(kName, Made(Kind::kAudit, other.view()), "");
  EXPECT_EQ(message.subject, "hall1.st1.%.audit");
  EXPECT_FALSE(HeadersOf(message).contains("Zev-Console"));
}

TEST(FleetMessageTest, BytesThatAreNoTextAreReplaced) {
  Fields fields;
  fields.Add(Field::kUser, "\xFF\xC3\xA4");
  const ShipMessage message = MessageOf(kName, Made(Kind::kAttached, fields.view()), "\xFF");
  EXPECT_EQ(json::parse(message.content())["user"], "\xEF\xBF\xBD\xC3\xA4");
  EXPECT_EQ(HeadersOf(message)["Zev-Console"], "%FF");
}

TEST(FleetMessageTest, AGapTellsFromWhereToWhere) {
  const ShipPlace from{{0x1122334455667788, 1, 100}, 5, 0, true};
  const ShipGap gap{from, 11, "removed before it was shipped"};
  const ShipMessage message = GapMessage(kName, gap, Made(Kind::kOutput, "x"));
  EXPECT_EQ(message.subject, "hall1.st1.%.state");
  EXPECT_EQ(HeadersOf(message)["Zev-Gap"], "11");
  EXPECT_EQ(MessageId(message.place, ""), "1122334455667788:3:64~gap");
  const json data = json::parse(message.content());
  EXPECT_EQ(data["from"], "1122334455667788:1:100");
  EXPECT_EQ(data["to"], "1122334455667788:3:64");
  EXPECT_EQ(data["count"], 11);
  EXPECT_EQ(data["what"], "gap");
  EXPECT_EQ(data["reason"], "removed before it was shipped");
}

TEST(FleetMessageTest, WhatIsTooLargeIsCounted) {
  const std::string large(5000, 'x');
  const ShipMessage message = TooLargeMessage(kName, Made(Kind::kOutput, large), "web");
  EXPECT_EQ(message.subject, "hall1.st1.web.state");
  EXPECT_EQ(HeadersOf(message)["Zev-Gap"], "1");
  EXPECT_EQ(MessageId(message.place, ""), "1122334455667788:3:64");
  const json data = json::parse(message.content());
  EXPECT_EQ(data["size"], 5000);
  EXPECT_EQ(data["of"], "output");
}

TEST(FleetMessageTest, PlacesComeBackFromHeadersAndFiles) {
  for (const bool is_behind : {true, false}) {
    for (const int64_t wall : {int64_t{0}, int64_t{1'000'000'000'000'000'123}, int64_t{-1}}) {
      const ShipPlace place{{0x1122334455667788, 3, 64}, 17, wall, is_behind};
      EXPECT_EQ(ParsePlace(PlaceText(place)), place);
    }
  }
  const std::string time = "1970-01-01T00:00:00.000000005Z";
  const ShipPlace place{{1, 2, 3}, 4, 5, true};
  EXPECT_EQ(PlaceOf("0000000000000001:2:3", "4", time), place);
  EXPECT_EQ(PlaceOf("0000000000000001:2:3~77", "4", time), place);
  EXPECT_FALSE(PlaceOf("0000000000000001:2:3~gap~77", "4", time)->is_behind);
  EXPECT_EQ(MessageId(*PlaceOf("0000000000000001:2:3~gap", "4", time), "9"),
            "0000000000000001:2:3~gap~9");
}

TEST(FleetMessageTest, WhatOthersSendIsNoPlace) {
  const std::string time = "1970-01-01T00:00:00.000000005Z";
  for (const char* id : {"", "x", "1:2:3", "~gap", "0000000000000001:2:3:4"}) {
    EXPECT_FALSE(PlaceOf(id, "4", time)) << id;
  }
  for (const char* record : {"", "x", "-1", "4 "}) {
    EXPECT_FALSE(PlaceOf("0000000000000001:2:3", record, time)) << record;
  }
  for (const char* other : {"", "now", "1970-01-01T00:00:00Z", "1970-01-01T00:00:00.5"}) {
    EXPECT_FALSE(PlaceOf("0000000000000001:2:3", "4", other)) << other;
  }
  EXPECT_FALSE(ParsePlace(""));
}

TEST(FleetMessageTest, TheRecordBehindAPlaceHasTheNextNumber) {
  EXPECT_EQ((ShipPlace{{}, 7, 0, true}).next(), 8U);
  EXPECT_EQ((ShipPlace{{}, 7, 0, false}).next(), 7U);
}

}  // namespace

}  // namespace zevfleet
