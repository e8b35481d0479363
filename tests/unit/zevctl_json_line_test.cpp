// JSON that is read only when it is not nested too deeply.
#include <gtest/gtest.h>

#include <ctime>
#include <nlohmann/json.hpp>
#include <string>

#include "json_line.h"

namespace zevctl {
namespace {

TEST(JsonLineTest, WhatIsNestedTooDeeplyIsDiscarded) {
  for (const char* text : {"1", "[1]", "[[1]]", "[[[]]]", R"({"a": {"b": [ ] }})", R"("[[[[")",
                           R"(["[[[[", {"]]\"[[[": "\\"}])", "[[1], [2], [{}]]"}) {
    EXPECT_FALSE(ReadJson(text, 2).is_discarded()) << text;
  }
  for (const char* text : {"[[[1]]]", "[[[[]]]]", R"({"a": {"b": {"c": 1}}})", R"([[{"": 1}]])",
                           R"(["\\", [["]"]]])", R"([["", [""]]])"}) {
    EXPECT_FALSE(ReadJson(text).is_discarded()) << text;
    EXPECT_TRUE(ReadJson(text, 2).is_discarded()) << text;
  }
  EXPECT_TRUE(ReadJson(std::string(1'000'000, '['), 2).is_discarded());
  EXPECT_TRUE(ReadJson("[[[1", 2).is_discarded());
  EXPECT_TRUE(ReadJson("]]]][1]", 2).is_discarded());
  EXPECT_TRUE(ReadJson("\"\\", 2).is_discarded());
}

// The processor's time, in seconds, for a list of so many objects.
double TimeFor(int count) {
  std::string text = "[{}";
  for (int i = 1; i < count; ++i) text += ",{\"a\":[]}";
  text += "]";
  const clock_t begin = clock();
  EXPECT_EQ(ReadJson(text, 3).size(), static_cast<size_t>(count));
  return static_cast<double>(clock() - begin) / CLOCKS_PER_SEC;
}

TEST(JsonLineTest, ALongListTakesTimeAsItIsLong) {
  const double base = TimeFor(30'000);
  EXPECT_LT(TimeFor(300'000), 40 * base);  // with the square it would be a hundred times
}

}  // namespace
}  // namespace zevctl
