#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "event_line.h"
#include "event_socket.h"
#include "exit_status.h"
#include "support.h"

namespace zevctl {

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kLine[] =
    R"({"time": "2026-11-21T09:25:48+00:00", "host": "station", "name": "qor.zevd.console.lab1", )"
    R"("priority": 300, "vars": {"name": "lab1", "message": "Disk sda ERROR\u000a"}})";

const std::string kAdvice = "mend that, or give another path with --socket";

std::string Text(const std::string& line) {
  const auto event = ParseEvent(line);
  return event ? EventColumns().Line(*event) : "no event";
}

std::string Json(const std::string& line) {
  const auto event = ParseEvent(line);
  return event ? EventAsJson(*event) : "no event";
}

// ---- Events -------------------------------------------------------------------------------------

TEST(EventLineTest, IsShownOnOneLine) {
  EXPECT_EQ(Text(kLine), "2026-11-21T09:25:48+00:00 300 lab1 -: Disk sda ERROR");
}

TEST(EventLineTest, NamesConsoleAndPattern) {
  auto event = *ParseEvent(kLine);
  EXPECT_EQ(ConsoleOf(event), "lab1");
  EXPECT_EQ(MessageOf(event), "Disk sda ERROR\n");
  AddOrigin(event, "lab1", "disk");
  EXPECT_EQ(EventColumns().Line(event), "2026-11-21T09:25:48+00:00 300 lab1 disk: Disk sda ERROR");
  EXPECT_THAT(EventAsJson(event), EndsWith(R"(,"console":"lab1","pattern":"disk"})"));
  AddOrigin(event, "lab1", std::nullopt);
  EXPECT_THAT(EventAsJson(event), EndsWith(R"(,"console":"lab1","pattern":null})"));
  EXPECT_EQ(ConsoleOf(*ParseEvent(R"({"name": "n", "vars": {"name": "lab1"}})")), std::nullopt);
  EXPECT_EQ(ConsoleOf(*ParseEvent(R"({"name": "qor.zevd.console.lab1"})")), std::nullopt);
}

TEST(EventLineTest, HasColumnsThatGrow) {
  EventColumns columns;
  const auto line = [&](int priority, const std::string& console) {
    return columns.Line(*ParseEvent(R"({"time": "t", "name": "qor.zevd.console.x", "priority": )" +
                                    std::to_string(priority) + R"(, "vars": {"name": ")" + console +
                                    "\"}}"));
  };
  EXPECT_EQ(line(300, "lab1"), "t 300 lab1 -");
  EXPECT_EQ(line(1, "rack7_1"), "t 1   rack7_1 -");
  EXPECT_EQ(line(300, "lab1"), "t 300 lab1    -");
  EXPECT_EQ(line(300, std::string(64, 'x')), "t 300 " + std::string(64, 'x') + " -");
  EXPECT_EQ(line(300, "lab1"), "t 300 lab1    -");
}

TEST(EventLineTest, KeepsItsOrderAsJson) {
  EXPECT_EQ(Json(kLine), R"({"time":"2026-11-21T09:25:48+00:00","host":"station",)"
                         R"("name":"qor.zevd.console.lab1","priority":300,)"
                         R"("vars":{"name":"lab1","message":"Disk sda ERROR\n"}})");
}

TEST(EventLineTest, LosesOneLineEnd) {
  const auto shown = [](const std::string& message) {
    return Text(R"({"name": "n", "vars": {"message": ")" + message + "\"}}");
  };
  EXPECT_EQ(shown(R"(a\n)"), "- - - n: a");
  EXPECT_EQ(shown(R"(a\r)"), "- - - n: a");
  EXPECT_EQ(shown(R"(a\r\n)"), "- - - n: a");
  EXPECT_EQ(shown(R"(a\n\n)"), "- - - n: a?");
  EXPECT_EQ(shown(R"(\n)"), "- - - n: ");
}

TEST(EventLineTest, IsHarmless) {
  EXPECT_EQ(Text(R"({"time": "\u001b[2J", "priority": "\u0007", "name": "a\tb\u009bc",)"
                 R"( "vars": {"message": "\u001b]0;x\u0007 é"}})"),
            "?[2J ? - a b?c: ?]0;x? é");
}

TEST(EventLineTest, ShowsWhatIsMissing) {
  EXPECT_EQ(Text("{}"), "- - - -");
  EXPECT_EQ(Text(R"({"time": null, "priority": 1.5, "name": ["x"], "vars": []})"),
            "- 1.5 - [\"x\"]");
  EXPECT_EQ(Text(R"({"name": "n", "vars": {"message": 7}})"), "- - - n: 7");
  EXPECT_EQ(Text(R"({"name": "n", "vars": {"other": "x"}})"), "- - - n");
}

TEST(EventLineTest, ShowsHowManyEventsItStandsFor) {
  EXPECT_EQ(Text(R"({"time": "t", "priority": 700, "name": "qor.zevd.daemon.error.Internal error",)"
                 R"( "vars": {"message": "Internal error"}, "repeats": 314})"),
            "t 700 - qor.zevd.daemon.error.Internal error: Internal error (314 times)");
  EXPECT_EQ(Text(R"({"name": "n", "repeats": 1})"), "- - - n (1 times)");
  for (const char* no_number : {"null", "-1", "\"7\"", "1.5", "[]"}) {
    EXPECT_EQ(Text(R"({"name": "n", "repeats": )" + std::string(no_number) + "}"), "- - - n")
        << no_number;
  }
  EXPECT_EQ(Json(R"({"name": "n", "vars": {}, "repeats": 314})"),
            R"({"name":"n","vars":{},"repeats":314})");
}

TEST(EventLineTest, IsMadeValidUtf8) {
  EXPECT_EQ(Json("{\"name\": \"\xff\xc3(\"}"), "{\"name\":\"\xEF\xBF\xBD\xEF\xBF\xBD(\"}");
  EXPECT_EQ(Text("{\"name\": \"\xff\"}"), "- - - \xEF\xBF\xBD");
}

TEST(EventLineTest, MustBeAnObject) {
  for (const char* line : {"", " ", "x", "{", "{}x", "{} {}", "[]", "7", "null", "\"{}\"",
                           "{'a': 1}", "{\"a\"}", "{\"a\": \"\\ud800\"}", "{\"a\": 1e999}"}) {
    EXPECT_FALSE(ParseEvent(line)) << line;
  }
  EXPECT_TRUE(ParseEvent(" {} \r"));
}

TEST(EventLineTest, MustNotBeNestedDeeply) {
  const auto nested = [](size_t depth) {
    return "{\"a\": " + std::string(depth, '[') + std::string(depth, ']') + "}";
  };
  EXPECT_TRUE(ParseEvent(nested(20)));
  EXPECT_FALSE(ParseEvent(nested(40)));
  EXPECT_FALSE(ParseEvent(nested(30000)));
  EXPECT_FALSE(ParseEvent(std::string(60000, '[')));
}

TEST(EventLineTest, MayHaveAPriority) {
  const auto has = [](const std::string& priority, int least) {
    return HasPriority(*ParseEvent("{\"priority\": " + priority + "}"), least);
  };
  EXPECT_TRUE(has("300", 300));
  EXPECT_TRUE(has("301", 300));
  EXPECT_FALSE(has("299", 300));
  EXPECT_TRUE(has("-1", -1));
  EXPECT_FALSE(has("-2", -1));
  EXPECT_FALSE(has("\"900\"", 1));
  EXPECT_FALSE(HasPriority(*ParseEvent("{}"), -1000));
}

// ---- Lines --------------------------------------------------------------------------------------

class LineCutterTest : public ::testing::Test {
 protected:
  void Add(std::string_view bytes) {
    cutter_.Add(
        bytes, [this](std::string_view line) { lines_.emplace_back(line); },
        [this] { ++too_long_; });
  }
  void Finish() {
    cutter_.Finish([this](std::string_view line) { lines_.emplace_back(line); });
  }

  LineCutter cutter_;
  std::vector<std::string> lines_;
  int too_long_ = 0;
};

TEST_F(LineCutterTest, FindsLinesHoweverTheBytesArrive) {
  const std::string bytes = "one\n\ntwo\nthree";
  for (size_t at = 0; at <= bytes.size(); ++at) {
    cutter_ = {};
    lines_.clear();
    Add(std::string_view(bytes).substr(0, at));
    Add(std::string_view(bytes).substr(at));
    EXPECT_THAT(lines_, ElementsAre("one", "", "two"));
    Finish();
    EXPECT_THAT(lines_, ElementsAre("one", "", "two", "three"));
  }
}

TEST_F(LineCutterTest, DropsALineThatIsTooLong) {
  Add("before\n");
  Add(std::string(LineCutter::kLongestLine, 'x'));
  EXPECT_EQ(too_long_, 0);
  for (int i = 0; i < 10; ++i) Add(std::string(LineCutter::kLongestLine, 'x'));
  EXPECT_EQ(too_long_, 1);
  Add("x\nafter\n");
  EXPECT_THAT(lines_, ElementsAre("before", "after"));
  Add(std::string(LineCutter::kLongestLine + 1, 'x') + "\nlast\n");
  EXPECT_EQ(too_long_, 2);
  EXPECT_THAT(lines_, ElementsAre("before", "after", "last"));
}

TEST_F(LineCutterTest, TakesTheLongestLine) {
  const std::string line(LineCutter::kLongestLine, 'x');
  Add(line + "\n");
  EXPECT_THAT(lines_, ElementsAre(line));
  EXPECT_EQ(too_long_, 0);
}

TEST_F(LineCutterTest, FinishesWithoutTheRestOfALongLine) {
  Add(std::string(LineCutter::kLongestLine + 1, 'x'));
  Finish();
  EXPECT_THAT(lines_, IsEmpty());
}

// ---- The socket ---------------------------------------------------------------------------------

class EventSocketTest : public ::testing::Test {
 protected:
  fs::path path() const { return directory_.path() / "run" / "socket"; }

  std::string Refusal() const {
    try {
      const EventSocket made(path());
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.status(), ExitStatus::kFailed);
      return failure.what();
    }
    return "none";
  }

  // A socket at that path, which listens or has only been bound.
  Descriptor Bound(int type, bool listening) const {
    fs::create_directories(path().parent_path());
    Descriptor made(socket(AF_UNIX, type, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path().c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(bind(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    if (listening) {
      EXPECT_EQ(listen(made.get(), 1), 0);
    }
    return made;
  }

  Descriptor Connected() const {
    Descriptor made(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path().c_str(), sizeof address.sun_path - 1);
    if (connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return {};
    return made;
  }

 private:
  test::TemporaryDirectory directory_;
};

TEST_F(EventSocketTest, ExistsAsLongAsItsOwner) {
  bool full = true;
  {
    EventSocket made(path());
    struct stat info {};
    ASSERT_EQ(stat(path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, S_IFSOCK | 0660);
    EXPECT_FALSE(made.Accept(full));
    EXPECT_FALSE(full);
    const Descriptor one = Connected(), two = Connected();
    EXPECT_TRUE(one);
    EXPECT_TRUE(made.Accept(full));
    EXPECT_TRUE(made.Accept(full));
    EXPECT_FALSE(made.Accept(full));
  }
  EXPECT_FALSE(fs::exists(path()));
}

TEST_F(EventSocketTest, ReportsTooManyConnections) {
  EventSocket made(path());
  const Descriptor one = Connected();
  const test::FailCall fail(test::Call::kAccept, EMFILE);
  bool full = false;
  EXPECT_FALSE(made.Accept(full));
  EXPECT_TRUE(full);
}

TEST_F(EventSocketTest, ReplacesAStaleSocket) {
  Bound(SOCK_STREAM, true);
  ASSERT_TRUE(fs::exists(path()));
  EventSocket made(path());
  EXPECT_TRUE(Connected());
}

TEST_F(EventSocketTest, LeavesASocketWithAListener) {
  const Descriptor other = Bound(SOCK_STREAM, true);
  EXPECT_EQ(Refusal(), "somebody receives the events of " + path().string() +
                           " already; end that program, or give another path with --socket");
  EXPECT_TRUE(Connected());
}

TEST_F(EventSocketTest, LeavesASocketWhoseQueueIsFull) {
  const Descriptor other = Bound(SOCK_STREAM, true);
  const test::FailCall fail(test::Call::kConnect, EAGAIN);
  EXPECT_THAT(Refusal(), HasSubstr("already"));
}

TEST_F(EventSocketTest, LeavesASocketOfAnotherType) {
  const Descriptor other = Bound(SOCK_DGRAM, false);
  EXPECT_EQ(Refusal(), "cannot use the socket " + path().string() +
                           ": Protocol wrong type for socket; " + kAdvice);
  EXPECT_TRUE(fs::exists(path()));
}

TEST_F(EventSocketTest, LeavesWhatIsNotASocket) {
  fs::create_directories(path().parent_path());
  const std::string refusal = path().string() +
                              " is there already and is no socket; remove it, or give another path "
                              "with --socket";
  test::WriteFile(path(), "kept");
  EXPECT_EQ(Refusal(), refusal);
  EXPECT_EQ(test::ReadFile(path()), "kept");
  fs::remove(path());
  fs::create_directory(path());
  EXPECT_EQ(Refusal(), refusal);
  fs::remove(path());
  fs::create_symlink("nowhere", path());
  EXPECT_EQ(Refusal(), refusal);
  EXPECT_TRUE(fs::is_symlink(path()));
}

TEST_F(EventSocketTest, LeavesTheSocketOfASuccessor) {
  std::optional<EventSocket> made(std::in_place, path());
  fs::remove(path());
  const Descriptor successor = Bound(SOCK_STREAM, true);
  made.reset();
  EXPECT_TRUE(Connected());
}

TEST_F(EventSocketTest, NeedsTheParentOfItsDirectory) {
  try {
    const EventSocket made("/nonexistent/run/socket");
    FAIL() << "nothing was thrown";
  } catch (const Failure& failure) {
    EXPECT_STREQ(
        failure.what(),
        ("cannot make the directory /nonexistent/run: No such file or directory; " + kAdvice)
            .c_str());
  }
}

TEST_F(EventSocketTest, HasAPathOfLimitedLength) {
  for (const std::string& text : {""s, "/" + std::string(107, 'x')}) {
    try {
      const EventSocket made(text);
      FAIL() << "nothing was thrown";
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.status(), ExitStatus::kUsage);
      EXPECT_STREQ(failure.what(),
                   "--socket: a path of a socket has 1 to 107 bytes; give a shorter one");
    }
  }
}

}  // namespace

}  // namespace zevctl
