// Pages of the past: each line on one page, whichever way they are read.
#include "web_past.h"

#include <gmock/gmock.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "exchange.h"
#include "journal_files_support.h"
#include "web_journals.h"

namespace zevweb {
namespace {

using journal::Kind;
using testing::ElementsAre;
using testing::IsEmpty;
using zevctl::Json;

using Lines = std::vector<std::string>;

/// A journal in two segments, in which some records end several lines and some none.
class WebPastTest : public testing::Test {
 protected:
  WebPastTest() : journals_(files_.path(), 1, std::chrono::milliseconds(10)) {
    test::SegmentBytes first(1, 1);
    first.Define(1, "lab");
    first.Define(2, "rack");
    for (int i = 0; i < 300; ++i) {
      const std::string number = std::to_string(i);
      first.Output(1, "lab " + number + " a\nlab " + number + " b\nlab ");
      first.Output(2, "rack " + number + "\n");
      first.Output(1, number + " c\n");
    }
    first.Output(2, "half ");
    files_.Put(first);
    test::SegmentBytes second(2, first.next_record());
    second.header.wall = 1'001'000'000'000;
    test::EncodeHeaderOf(second);
    second.SetWall(second.header.wall);
    second.Define(1, "lab");
    second.Define(2, "rack");
    second.Output(2, "a line\n");
    second.Output(1, "login: ");
    files_.Put(second);
  }

  WebPastQuestion Question(size_t count, const std::string& name = "lab") {
    WebPastQuestion question;
    question.names = {name};
    question.count = count;
    return question;
  }

  Json Read(const WebPastQuestion& question) {
    return ReadWebPast(journals_, files_.path() + "/none", question);
  }

  static Lines Texts(const Json& page) {
    Lines texts;
    for (const Json& line : page["lines"]) {
      if (line["kind"] == "output") texts.push_back(line["text"]);
    }
    return texts;
  }

  static std::optional<WebPlace> Place(const Json& page, const char* key) {
    return page[key].is_null() ? std::nullopt : ParsePlace(page[key].get<std::string>());
  }

  test::JournalFiles files_;
  WebJournals journals_;
};

Lines All() {
  Lines all;
  for (int i = 0; i < 300; ++i) {
    for (const char* end : {" a", " b", " c"}) all.push_back("lab " + std::to_string(i) + end);
  }
  return all;
}

TEST_F(WebPastTest, BackwardEachLineIsOnOnePage) {
  for (const size_t count : {3U, 7U, 64U, 1000U}) {
    Lines found;
    WebPastQuestion question = Question(count);
    for (;;) {
      const Json page = Read(question);
      EXPECT_TRUE(page["complete"].get<bool>());
      const Lines texts = Texts(page);
      found.insert(found.begin(), texts.begin(), texts.end());
      question.before = Place(page, "previous");
      if (!question.before) break;
    }
    Lines expected = All();
    expected.emplace_back("login: ");
    EXPECT_EQ(found, expected) << count;
  }
}

TEST_F(WebPastTest, ForwardEachLineIsOnOnePage) {
  for (const size_t count : {3U, 7U, 64U, 1000U}) {
    Lines found;
    WebPastQuestion question = Question(count);
    question.after = WebPlace{journal::Position{test::SegmentBytes::kStation, 1, 0}, 0};
    for (;;) {
      const Json page = Read(question);
      const Lines texts = Texts(page);
      if (texts.empty() || texts == Lines{"login: "}) break;
      found.insert(found.end(), texts.begin(), texts.end());
      if (found.back() == "login: ") found.pop_back();
      question.after = Place(page, "next");
    }
    EXPECT_EQ(found, All()) << count;
  }
}

TEST_F(WebPastTest, ALineThatIsInTheMakingAtAPagesEndIsOnTheNextPage) {
  const Json page = Read(Question(1, "rack"));
  EXPECT_THAT(Texts(page), ElementsAre("half a line"));
  WebPastQuestion question = Question(1, "rack");
  question.before = Place(page, "previous");
  EXPECT_THAT(Texts(Read(question)), ElementsAre("rack 299"));
}

TEST_F(WebPastTest, SearchesManyConsoles) {
  WebPastQuestion question = Question(3, "*");
  question.pattern = std::make_unique<zevctl::Pattern>("(lab|rack) 7(7| |$)", false);
  const Json page = Read(question);
  EXPECT_THAT(Texts(page), ElementsAre("lab 77 a", "lab 77 b", "rack 77", "lab 77 c"));
  question.before = Place(page, "previous");
  question.count = 100;
  const Json former = Read(question);
  EXPECT_THAT(Texts(former), ElementsAre("lab 7 a", "lab 7 b", "rack 7", "lab 7 c"));
}

TEST_F(WebPastTest, LinesOfOneRecordAreNotParted) {
  WebPastQuestion question = Question(1);
  question.pattern = std::make_unique<zevctl::Pattern>("lab 5 [ab]", false);
  EXPECT_THAT(Texts(Read(question)), ElementsAre("lab 5 a", "lab 5 b"));
}

TEST_F(WebPastTest, ShowsWhatIsAroundAMatch) {
  WebPastQuestion question = Question(1);
  question.pattern = std::make_unique<zevctl::Pattern>("lab 5 c", false);
  question.context = 1;
  EXPECT_THAT(Texts(Read(question)), ElementsAre("lab 5 b", "lab 5 c", "lab 6 a"));
}

TEST_F(WebPastTest, RefusesPlacesThatAreNotThere) {
  WebPastQuestion question = Question(1);
  question.before = WebPlace{journal::Position{1, 1, 64}, 0};
  EXPECT_THROW(Read(question), journal::JournalError);
  files_.Remove(1);
  question.before = WebPlace{journal::Position{test::SegmentBytes::kStation, 1, 64}, 0};
  EXPECT_THROW(Read(question), journal::JournalError);
}

TEST_F(WebPastTest, OneConsoleIsMeantByItsWholeName) {
  WebPastQuestion question = Question(1, "la");
  question.is_one = true;
  EXPECT_THROW(Read(question), Problem);
  question.names = {"lab"};
  EXPECT_THAT(Texts(Read(question)), ElementsAre("lab 299 c", "login: "));
}

TEST_F(WebPastTest, JournalsAreGivenToSoManyAtOnce) {
  {
    const WebJournals::Lease taken = journals_.Take();
    EXPECT_THROW(journals_.Take(), Problem);
  }
  EXPECT_NE(journals_.Take().get(), nullptr);
}

TEST_F(WebPastTest, WithoutAJournalAndLogsThereIsNoPast) {
  WebJournals none(files_.path() + "/none", 1, std::chrono::milliseconds(10));
  EXPECT_THROW(ReadWebPast(none, files_.path() + "/none", Question(1)), Problem);
}

}  // namespace
}  // namespace zevweb
