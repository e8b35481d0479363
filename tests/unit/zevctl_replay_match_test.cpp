// Where in the output of a replay a pattern matches.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "replay_match.h"

namespace zevctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(LineMatcher, FindsCompleteAndUnfinishedLines) {
  const Pattern pattern("^login", false);
  LineMatcher matcher(pattern, {});
  EXPECT_THAT(matcher.Take("login: ann\r\nlo"), ElementsAre(12));
  EXPECT_THAT(matcher.Take("gin: "), ElementsAre(5));
  EXPECT_THAT(matcher.Take("bob\r\n"), IsEmpty());
}

TEST(LineMatcher, FindsWhatIsTypedOverOrErased) {
  const Pattern pattern("^panic", false);
  for (const std::string taken :
       {"panic\r", "panic\x1b[5D", "panic\x1b[2K", "panic\x1b[1G\x1b[0K", "panic\x1b[1`\x1b[9P"}) {
    LineMatcher matcher(pattern, {});
    EXPECT_EQ(matcher.Take(taken + "other\r\n").size(), 1U) << taken;
  }
  LineMatcher matcher(pattern, {});
  EXPECT_THAT(matcher.Take("panic\x1b[2K\rok"), ElementsAre(5));
}

TEST(LineMatcher, FindsEachBeginOfAMatchInALineWithoutEnd) {
  const Pattern pattern("full", false);
  LineMatcher matcher(pattern, {});
  EXPECT_THAT(matcher.Take("is full\rso full\r99 %   \r"), ElementsAre(8));
  EXPECT_THAT(matcher.Take("is full"), ElementsAre(7));
}

TEST(LineMatcher, CountsNotWhatItSkips) {
  const Pattern pattern("full", false);
  LineMatcher matcher(pattern, {});
  matcher.SkipLine();
  EXPECT_THAT(matcher.Take("full\rdisk\rfull\nfull"), ElementsAre(19));
  matcher.SkipLine();
  EXPECT_THAT(matcher.Take("\nfull"), ElementsAre(5));
  matcher.SkipLine();
  EXPECT_THAT(matcher.Take("\rdisk\rfull"), IsEmpty());
  matcher.EndSkipping();
  EXPECT_THAT(matcher.Take(" now\rdisk full\r"), IsEmpty());
  EXPECT_THAT(matcher.Take("disk     \rfull"), ElementsAre(14));
}

TEST(LineMatcher, TellsHowDearALongLineIs) {
  const Pattern pattern("full", false);
  LineMatcher matcher(pattern, {});
  for (int i = 0; i < 100; ++i) matcher.Take("0123456789");
  EXPECT_GT(matcher.looked_at(), 100U * 100 * 10 / 2);
}

}  // namespace
}  // namespace zevctl
