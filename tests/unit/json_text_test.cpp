// Values as JSON.
#include "json_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

using namespace zevd;

namespace {

std::string Encoded(std::string_view text) {
  std::string out;
  JsonText(out).Text(text);
  return out;
}

TEST(JsonTextTest, ValuesAreSeparated) {
  std::string out;
  JsonText json(out);
  json.BeginObject().Key("a").Number(UINT64_MAX).Key("b").BeginArray();
  json.Text("x").Null().BeginObject().EndObject().Number(0).EndArray();
  json.Key("c")
      .TextOrNull("")
      .Key("d")
      .TextOrNull("d")
      .Key("e")
      .Time(0)
      .Key("f")
      .Time(7)
      .EndObject();
  EXPECT_EQ(out, R"({"a": 18446744073709551615, "b": ["x", null, {}, 0], "c": null, "d": "d", )"
                 R"("e": null, "f": 7})");
}

TEST(JsonTextTest, TextCannotEndItsQuotesOrTheLine) {
  EXPECT_EQ(Encoded("say \"\\\""), R"("say \"\\\"")");
  EXPECT_EQ(Encoded("a\n\r\t\x1b[2J\x7f"), R"("a\u000a\u000d\u0009\u001b[2J\u007f")");
  EXPECT_EQ(Encoded(std::string_view("\0", 1)), R"("\u0000")");
}

TEST(JsonTextTest, ControlsBeyondAsciiAreEscaped) {
  EXPECT_EQ(Encoded("\xC2\x80\xC2\x9B\xC2\x9F\xC2\xA0"), "\"\\u0080\\u009b\\u009f\xC2\xA0\"");
}

TEST(JsonTextTest, BytesThatAreNotUtf8AreReplacedOneByOne) {
  EXPECT_EQ(Encoded("\xC3\xBC\xFF\xE2\x82"), "\"\xC3\xBC\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"");
  EXPECT_EQ(Encoded("\x9B"), "\"\xEF\xBF\xBD\"");
  EXPECT_EQ(Encoded("\xC2"), "\"\xEF\xBF\xBD\"");
}

}  // namespace
