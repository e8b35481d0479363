#include <gmock/gmock.h>

#include "config_range.h"

namespace zevctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(ConfigRangeTest, ATextWithoutARangeStandsForItself) {
  for (const char* text : {"", "lab1", "a[1]", "a[b-c]", "a[1-2", "[::1]", "]1-2["}) {
    const RangeText range = Expand(text);
    EXPECT_THAT(range.texts, ElementsAre(text));
    EXPECT_FALSE(range.has_range) << text;
  }
}

TEST(ConfigRangeTest, ALeadingZeroKeepsTheWidth) {
  EXPECT_THAT(Expand("r[08-10]x").texts, ElementsAre("r08x", "r09x", "r10x"));
  EXPECT_THAT(Expand("r[8-10]x").texts, ElementsAre("r8x", "r9x", "r10x"));
}

TEST(ConfigRangeTest, ItemsAreSeparatedByCommas) {
  EXPECT_THAT(Expand("[1-2,7,10-11]").texts, ElementsAre("1", "2", "7", "10", "11"));
}

TEST(ConfigRangeTest, RangesRunTogether) {
  EXPECT_THAT(Expand("10.0.0.[1-3]:20[01-03]").texts,
              ElementsAre("10.0.0.1:2001", "10.0.0.2:2002", "10.0.0.3:2003"));
  EXPECT_THAT(Expand("[1-3]:[1-2]").mistake, HasSubstr("not equally long"));
}

TEST(ConfigRangeTest, MistakesAreNamed) {
  EXPECT_THAT(Expand("[2-1]").mistake, HasSubstr("ends before it begins"));
  EXPECT_THAT(Expand("[01-100]").mistake, HasSubstr("different widths"));
  EXPECT_THAT(Expand("[1-]").mistake, HasSubstr("neither a number nor two"));
  EXPECT_THAT(Expand("[1-2,]").mistake, HasSubstr("comma"));
  EXPECT_THAT(Expand("[,1-2]").mistake, HasSubstr("neither a number nor two"));
  EXPECT_THAT(Expand("[1-2-3]").mistake, HasSubstr("neither a number nor two"));
}

TEST(ConfigRangeTest, ARangeTakesNoMemoryWithoutBounds) {
  EXPECT_THAT(Expand("[1-999999999]").mistake, HasSubstr("more than 65535"));
  EXPECT_THAT(Expand("[1-99999999999999999999]").mistake, HasSubstr("neither a number nor two"));
  EXPECT_EQ(Expand("[1-65535]").texts.size(), 65535U);
}

}  // namespace
}  // namespace zevctl
