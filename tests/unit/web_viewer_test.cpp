// Watching a console over a channel, out of journals that grow meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "journal_files_support.h"
#include "web_live.h"
#include "web_live_support.h"

namespace zevweb {

namespace {

using journal::Kind;
using test::JournalFiles;
using test::SegmentBytes;
using test::TestPeer;
using test::TestWorkers;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint16_t kClosedPort = 1;

class WebViewerTest : public ::testing::Test {
 protected:
  /// A page at a console.
  struct Page {
    std::shared_ptr<TestPeer> peer = std::make_shared<TestPeer>();
    std::unique_ptr<Channel> channel;
  };

  WebViewerTest() {
    segment_.Define(1, "alpha");
    segment_.Define(2, "beta");
    files_.Put(segment_);
  }

  void Print(uint32_t console, const std::string& text) {
    segment_.Output(console, text);
    files_.Put(segment_);
  }

  void Start() {
    LiveSettings settings;
    settings.station.port = kClosedPort;
    settings.journal = files_.path();
    live_ = std::make_unique<Live>(settings, workers_);
    live_->AddChannels(&channels_);
  }

  Page Open(const std::string& name, std::vector<std::pair<std::string, std::string>> query = {}) {
    if (!live_) Start();
    Request request;
    request.parts = {name};
    request.query = std::move(query);
    request.caller = {Proof::kSession, "ann", "192.0.2.1"};
    Page page;
    page.channel = channels_.front().make(request, page.peer);
    return page;
  }

  bool Until(Page& page, const std::function<bool()>& holds) {
    return workers_.Until([&] {
      page.peer->TakeAll(*page.channel);
      return holds();
    });
  }

  bool UntilOutput(Page& page, const std::string& output) {
    return Until(page, [&] { return page.peer->Output() == output; });
  }

  bool UntilText(Page& page, const std::string& what) {
    return Until(page, [&] { return !page.peer->Texts(what).empty(); });
  }

  JournalFiles files_;
  SegmentBytes segment_;
  TestWorkers workers_;
  std::vector<ChannelRoute> channels_;
  std::unique_ptr<Live> live_;
};

TEST_F(WebViewerTest, ShowsTheLastLinesAndWhatComes) {
  Print(1, "one\ntwo\nthr");
  Print(2, "other\n");
  Print(1, "ee\nfo");
  Page page = Open("ALPHA", {{"last", "2"}});
  EXPECT_TRUE(UntilOutput(page, "two\nthree\nfo"));
  EXPECT_TRUE(UntilText(page, "live"));
  Print(1, "ur\n");
  EXPECT_TRUE(UntilOutput(page, "two\nthree\nfour\n"));
  EXPECT_THAT(page.peer->Texts("start"),
              ElementsAre(HasSubstr(R"("console":"alpha","journal":true,"problem":null)")));
}

TEST_F(WebViewerTest, GoesOnBehindAPosition) {
  Print(1, "before");
  Page first = Open("alpha", {{"last", "1"}});
  ASSERT_TRUE(UntilOutput(first, "before"));
  const std::string position = first.peer->LastPosition();
  first.channel.reset();
  Print(1, " between");
  Page second = Open("alpha", {{"from", position}});
  ASSERT_TRUE(UntilOutput(second, " between"));
  Page third = Open("alpha", {{"from", position}, {"skip", "3"}});
  EXPECT_TRUE(UntilOutput(third, "tween"));
  Print(1, " after");
  EXPECT_TRUE(UntilOutput(second, " between after"));
  EXPECT_TRUE(UntilOutput(third, "tween after"));
}

TEST_F(WebViewerTest, LeavesOutTelnetCommandsThatRecordsCut) {
  Print(1, "a\xFF");
  Page page = Open("alpha", {{"last", "1"}});
  ASSERT_TRUE(UntilOutput(page, "a"));
  const std::string position = page.peer->LastPosition();
  Print(1,
        "\xFB\x01"
        "b");
  EXPECT_TRUE(UntilOutput(page, "ab"));
  Page second = Open("alpha", {{"from", position}});
  EXPECT_TRUE(UntilOutput(second, "b"));
}

TEST_F(WebViewerTest, TellsOtherRecords) {
  Page page = Open("alpha");
  ASSERT_TRUE(UntilText(page, "live"));
  segment_.Add(Kind::kConnected, 1, "");
  segment_.Add(Kind::kInput, 1, "");
  segment_.Add(Kind::kConnected, 2, "");
  files_.Put(segment_);
  Print(1, "x");
  EXPECT_TRUE(UntilOutput(page, "x"));
  EXPECT_THAT(page.peer->Texts("record"),
              ElementsAre(HasSubstr(R"("kind":"connected","time":"1970-01-01T00:16:40)")));
}

// It takes nothing while far more than the tail holds is printed.
TEST_F(WebViewerTest, TellsASlowPageWhatItMissed) {
  Page page = Open("alpha");
  Page quick = Open("alpha");
  ASSERT_TRUE(UntilText(page, "live"));
  ASSERT_TRUE(UntilText(quick, "live"));
  constexpr size_t kPieces = 200;
  const std::string piece(64 << 10, 'x');
  for (size_t i = 0; i < kPieces; ++i) segment_.Output(1, piece);
  Print(1, "end");
  const size_t all = kPieces * piece.size() + 3;
  ASSERT_TRUE(Until(quick, [&] {
    size_t missed = 0;
    for (const std::string& text : quick.peer->Texts("missed")) {
      missed += std::stoul(text.substr(text.find("bytes\":") + 7));
    }
    return missed + quick.peer->Output().size() == all;
  }));
  page.peer->TakeAll(*page.channel);
  EXPECT_THAT(page.peer->Texts("missed"),
              ElementsAre(HasSubstr("\"bytes\":" + std::to_string(all))));
  EXPECT_EQ(page.peer->Output(), "");
  Print(1, "!");
  EXPECT_TRUE(UntilOutput(page, "!"));
}

TEST_F(WebViewerTest, TellsWhatIsUnknown) {
  Page page = Open("gamma");
  ASSERT_TRUE(UntilText(page, "start"));
  EXPECT_THAT(page.peer->Texts("start"),
              ElementsAre(HasSubstr("the journal has nothing of this console yet; attach to see")));
  segment_.Define(3, "gamma");
  files_.Put(segment_);
  Print(3, "first");
  EXPECT_TRUE(UntilOutput(page, "first"));
  EXPECT_THAT(page.peer->Texts("start"), SizeIs(2));
}

TEST_F(WebViewerTest, ShowsTheNewestWhenThePlaceIsGone) {
  Print(1, "old");
  Page page = Open("alpha", {{"from", "0000000000000001:1:64"}});
  ASSERT_TRUE(UntilText(page, "live"));
  EXPECT_THAT(page.peer->Texts("damage"),
              ElementsAre(HasSubstr("a part of the journal cannot be shown here: the position")));
  Print(1, "new");
  EXPECT_TRUE(UntilOutput(page, "new"));
}

TEST_F(WebViewerTest, FindsTheJournalWhenItComes) {
  LiveSettings settings;
  settings.journal = files_.path() + "/later";
  live_ = std::make_unique<Live>(settings, workers_);
  live_->AddChannels(&channels_);
  Page page = Open("alpha");
  ASSERT_TRUE(UntilText(page, "start"));
  EXPECT_THAT(page.peer->Texts("start"), ElementsAre(HasSubstr("there is no journal; the daemon")));
  std::filesystem::create_directory(settings.journal);
  std::filesystem::copy(files_.Raw(1), settings.journal);
  ASSERT_TRUE(UntilText(page, "live"));
  EXPECT_THAT(page.peer->Texts("start"), SizeIs(2));
}

TEST_F(WebViewerTest, RefusesToAttachWithoutADaemon) {
  Page page = Open("alpha");
  page.channel->Take(R"({"what":"attach","mode":2})", true);
  ASSERT_TRUE(UntilText(page, "refused"));
  EXPECT_THAT(page.peer->Texts("refused"),
              ElementsAre(HasSubstr(R"("number":null,"text":"the daemon cannot be reached)")));
  page.channel->Take("ls\r", false);
  ASSERT_TRUE(UntilText(page, "not-sent"));
  EXPECT_THAT(
      page.peer->Texts("not-sent"),
      ElementsAre(R"({"what":"not-sent","bytes":3,"text":"you are not attached; attach first"})"));
}

TEST_F(WebViewerTest, ClosesAPageThatOnlyAsks) {
  Page page = Open("alpha");
  for (int i = 0; i < 300; ++i) page.channel->Take("[]", true);
  EXPECT_EQ(page.peer->closed, 1008);
  Page other = Open("alpha");
  other.channel->Take(std::string(20'000, 'x'), false);
  EXPECT_EQ(other.peer->closed, 1009);
}

TEST_F(WebViewerTest, RefusesNamesAndParametersThatAreNone) {
  Start();
  const auto refusal = [&](const std::string& name, const std::string& from) {
    try {
      Open(name, {{"from", from}});
    } catch (const Problem& problem) {
      return std::to_string(problem.status()) + " " + problem.what();
    }
    return std::string("taken");
  };
  EXPECT_THAT(refusal("alpha mode=er", ""), HasSubstr("404 no console can have this name"));
  EXPECT_THAT(refusal("a\nb", ""), HasSubstr("404 no console can have this name"));
  EXPECT_THAT(refusal("@@@@", ""), HasSubstr("404 no console can have this name"));
  EXPECT_THAT(refusal("alpha", "17"), HasSubstr("400 the parameter \"from\" is no position"));
}

TEST_F(WebViewerTest, StreamsEvents) {
  Start();
  Request request;
  const auto peer = std::make_shared<TestPeer>();
  const auto channel = channels_.back().make(request, peer);
  const auto events = [&] {
    std::string text;
    for (const TestPeer::Frame& frame : peer->frames) text += frame.bytes;
    return text;
  };
  size_t pass = 0;
  ASSERT_TRUE(workers_.Until([&] {
    // The reader begins to listen at a time of its own.
    if (pass++ == 0) {
      Page page = Open("alpha");
      UntilText(page, "live");
    }
    segment_.Add(Kind::kConnected, 2, "");
    files_.Put(segment_);
    Page page = Open("alpha");
    UntilText(page, "live");
    peer->TakeAll(*channel);
    return events().find(R"("console":"beta","kind":"connected")") != std::string::npos;
  }));
  EXPECT_THAT(events(), HasSubstr(": events\n\nevent: record\nid: 1122334455667788:1:"));
}

}  // namespace

}  // namespace zevweb
