// The stand-in for the event manager's client library, by its own interface.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jix.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "failure_support.h"
#include "file_support.h"
#include "socket_support.h"

namespace {

using test::Call;
using test::Descriptor;
using test::EventCollector;
using test::FailCall;
using test::ReceiveLine;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr char kPath[] = "root/run/jix.sock";

struct ConnectionDeleter {
  void operator()(JixConn* conn) const { JixConnDestroy(conn); }
};
using Connection = std::unique_ptr<JixConn, ConnectionDeleter>;

struct EventDeleter {
  void operator()(JixEvent* event) const { JixEventDestroy(event); }
};
using Event = std::unique_ptr<JixEvent, EventDeleter>;

JixStatus TryToConnect(const char* address) {
  const JixConnOptions options = {address};
  auto* conn = reinterpret_cast<JixConn*>(1);
  const JixStatus status = JixConnCreate(&options, &conn);
  EXPECT_EQ(conn == nullptr, status != JixERROR_NONE);
  JixConnDestroy(conn);
  return status;
}

Event MakeEvent(const char* name, int priority = 0) {
  JixEvent* event = nullptr;
  EXPECT_EQ(JixEventCreateVa(&event, JixITEM_NAME, name, JixITEM_END), JixERROR_NONE);
  EXPECT_EQ(JixItemSetVa(event, JixITEM_PRIORITY, priority, JixITEM_END), JixERROR_NONE);
  return Event(event);
}

void SetVariable(const Event& event, const char* name, const char* value) {
  EXPECT_EQ(JixVarSet(event.get(), name, JixTYPE_STRING, value), JixERROR_NONE);
}

// ---- Connecting ---------------------------------------------------------------------------------

class JixConnectionTest : public ::testing::Test {
 protected:
  test::StationRoot root_;
};

TEST_F(JixConnectionTest, NobodyListens) {
  EXPECT_EQ(TryToConnect(kPath), JixERROR_CANNOT_CONNECT);
  EXPECT_EQ(TryToConnect(nullptr), JixERROR_CANNOT_CONNECT);
}

TEST_F(JixConnectionTest, ManagerThatIsGone) {
  { const EventCollector collector; }
  EXPECT_EQ(TryToConnect(kPath), JixERROR_CANNOT_CONNECT);
}

TEST_F(JixConnectionTest, PathThatIsNoSocketOrTooLong) {
  test::WriteFile("root/run/file", "");
  EXPECT_EQ(TryToConnect("root/run/file"), JixERROR_CANNOT_CONNECT);
  EXPECT_EQ(TryToConnect(""), JixERROR_CANNOT_CONNECT);
  EXPECT_EQ(TryToConnect(std::string(1000, 'a').c_str()), JixERROR_CANNOT_CONNECT);
}

TEST_F(JixConnectionTest, AddressIsTheStationsOwnUnlessGiven) {
  const EventCollector collector;
  EXPECT_EQ(TryToConnect(nullptr), JixERROR_NONE);
  collector.Accept();
  JixConn* conn = nullptr;
  EXPECT_EQ(JixConnCreate(nullptr, &conn), JixERROR_NONE);
  JixConnDestroy(conn);
  collector.Accept();
  std::filesystem::rename(kPath, "root/run/other");
  EXPECT_EQ(TryToConnect("root/run/other"), JixERROR_NONE);
  EXPECT_EQ(TryToConnect(nullptr), JixERROR_CANNOT_CONNECT);
}

TEST_F(JixConnectionTest, FailuresLeaveNoDescriptor) {
  const EventCollector collector;
  const int next = test::NextDescriptor();
  EXPECT_EQ(TryToConnect("root/run/missing"), JixERROR_CANNOT_CONNECT);
  {
    const test::FailAllocation failure(1);
    EXPECT_EQ(TryToConnect(kPath), JixERROR_NO_MEMORY);
  }
  {
    const FailCall failure(Call::kSocket, EMFILE);
    EXPECT_EQ(TryToConnect(kPath), JixERROR_CANNOT_CONNECT);
  }
  EXPECT_EQ(test::NextDescriptor(), next);
}

TEST_F(JixConnectionTest, NullMayBeDestroyed) {
  JixConnDestroy(nullptr);
  JixEventDestroy(nullptr);
}

// ---- Events -------------------------------------------------------------------------------------

class JixTest : public JixConnectionTest {
 protected:
  JixTest() { Connect(); }

  void Connect() {
    JixConn* conn = nullptr;
    EXPECT_EQ(JixConnCreate(nullptr, &conn), JixERROR_NONE);
    connection_.reset(conn);
    manager_ = collector_.Accept();
  }

  JixStatus Post(const Event& event) { return JixEventPost(connection_.get(), event.get()); }

  /// The line that the event manager receives.
  std::string Line(const Event& event) {
    EXPECT_EQ(Post(event), JixERROR_NONE);
    return ReceiveLine(manager_.get());
  }

  /// How `text` looks in the line.
  std::string Encoded(std::string_view text) {
    const Event event = MakeEvent("event");
    SetVariable(event, "v", std::string(text).c_str());
    const std::string line = Line(event);
    const std::string start = "\"vars\": {\"v\": \"";
    const size_t begin = line.find(start) + start.size();
    return line.substr(begin, line.size() - begin - strlen("\"}}\n"));
  }

  EventCollector collector_;
  Connection connection_;
  Descriptor manager_;
};

TEST_F(JixTest, EventIsOneLine) {
  const test::FakeClock clock(1'000'000'000);
  const Event event = MakeEvent("qor.zevd.test", 450);
  SetVariable(event, "name", "sys1");
  SetVariable(event, "message", "text");
  char host[256] = "";
  gethostname(host, sizeof host);
  EXPECT_THAT(Line(event), EndsWith("\", \"host\": \"" + std::string(host) +
                                    "\", \"name\": \"qor.zevd.test\", \"priority\": 450, "
                                    "\"vars\": {\"name\": \"sys1\", \"message\": \"text\"}}\n"));
}

TEST_F(JixTest, VariablesKeepTheirOrderAndMayRepeat) {
  const Event event = MakeEvent("event");
  for (const char* name : {"b", "a", "b"}) SetVariable(event, name, "");
  EXPECT_THAT(Line(event), EndsWith("\"vars\": {\"b\": \"\", \"a\": \"\", \"b\": \"\"}}\n"));
}

TEST_F(JixTest, BareEvent) {
  JixEvent* event = nullptr;
  ASSERT_EQ(JixEventCreateVa(&event, JixITEM_END), JixERROR_NONE);
  EXPECT_THAT(Line(Event(event)), EndsWith("\"name\": \"\", \"priority\": 0, \"vars\": {}}\n"));
}

TEST_F(JixTest, ItemsMayBeSetTogetherAndAgain) {
  JixEvent* event = nullptr;
  ASSERT_EQ(JixEventCreateVa(&event, JixITEM_PRIORITY, 1, JixITEM_NAME, "first", JixITEM_END),
            JixERROR_NONE);
  const Event holder(event);
  ASSERT_EQ(JixItemSetVa(event, JixITEM_NAME, "second", JixITEM_PRIORITY, -5, JixITEM_END),
            JixERROR_NONE);
  EXPECT_THAT(Line(holder), HasSubstr("\"name\": \"second\", \"priority\": -5, "));
}

TEST_F(JixTest, UnknownItemsAndTypesAreInvalid) {
  constexpr int kUnknown = 99;
  JixEvent* event = nullptr;
  EXPECT_EQ(JixEventCreateVa(&event, kUnknown, 1, JixITEM_END), JixERROR_INVALID);
  const Event holder(event);
  EXPECT_EQ(JixItemSetVa(event, kUnknown, 1, JixITEM_END), JixERROR_INVALID);
  EXPECT_EQ(JixVarSet(event, "name", kUnknown, "value"), JixERROR_INVALID);
  EXPECT_THAT(Line(holder), EndsWith("\"vars\": {}}\n"));
}

TEST_F(JixTest, ValuesAreCopied) {
  std::string value = "before";
  const Event event = MakeEvent("event");
  SetVariable(event, "v", value.c_str());
  value = "after!";
  EXPECT_THAT(Line(event), EndsWith("{\"v\": \"before\"}}\n"));
}

TEST_F(JixTest, SameEventMayBePostedAgain) {
  const Event event = MakeEvent("event", 7);
  EXPECT_THAT(Line(event), HasSubstr("\"priority\": 7"));
  EXPECT_THAT(Line(event), HasSubstr("\"priority\": 7"));
}

/// Sets the local time zone for as long as it lives.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) : former_(getenv("TZ") == nullptr ? "" : getenv("TZ")) {
    Set(zone);
  }
  ~TimeZone() { Set(former_.empty() ? nullptr : former_.c_str()); }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  static void Set(const char* zone) {
    zone == nullptr ? unsetenv("TZ") : setenv("TZ", zone, 1);
    tzset();
  }
  std::string former_;
};

TEST_F(JixTest, TimeCarriesItsZone) {
  const test::FakeClock clock(1'000'000'000);
  const Event event = MakeEvent("event");
  for (const auto& [zone, time] : {std::pair{"UTC0", "2001-09-09T01:46:40+00:00"},
                                   {"XXX-02:30", "2001-09-09T04:16:40+02:30"},
                                   {"XXX05", "2001-09-08T20:46:40-05:00"}}) {
    const TimeZone here(zone);
    EXPECT_THAT(Line(event), StartsWith("{\"time\": \"" + std::string(time) + "\", \"host\": \""));
  }
}

TEST_F(JixTest, HostMayBeUnknown) {
  const FailCall failure(Call::kGethostname, ENAMETOOLONG);
  EXPECT_THAT(Line(MakeEvent("event")), HasSubstr("\"host\": \"<unknown>\""));
}

// ---- Texts --------------------------------------------------------------------------------------

TEST_F(JixTest, PlainTextIsLeftAlone) {
  EXPECT_EQ(Encoded("login: /~ 'a' <b> \x7F"), "login: /~ 'a' <b> \x7F");
}

TEST_F(JixTest, QuotesAndBackslashesAreEscaped) {
  EXPECT_EQ(Encoded("say \"\\\""), "say \\\"\\\\\\\"");
}

TEST_F(JixTest, ControlBytesAreEscaped) {
  EXPECT_EQ(Encoded("\x01\a\b\t\n\r\x1B\x1F "),
            "\\u0001\\u0007\\u0008\\u0009\\u000a\\u000d\\u001b\\u001f ");
}

TEST_F(JixTest, Utf8IsLeftAlone) {
  for (const char* text : {"\xC2\x80", "\xC3\xBC", "\xDF\xBF", "\xE0\xA0\x80", "\xE2\x82\xAC",
                           "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80",
                           "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_EQ(Encoded(std::string("a") + text + "b"), std::string("a") + text + "b");
  }
}

TEST_F(JixTest, BytesThatAreNotUtf8AreReplacedOneByOne) {
  for (const char* text : {
           "\x80", "\xBF",                          // continuation without a start
           "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF",  // overlong
           "\xE0\x9F\xBF", "\xF0\x80\x80\xAF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80",
           "\xED\xBF\xBF",                          // surrogates
           "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",  // beyond U+10FFFF
           "\xF8\x88\x80\x80\x80", "\xFE", "\xFF",  // never a start
           "\xC3", "\xE2\x82", "\xF0\x9F\x98",      // cut off
       }) {
    SCOPED_TRACE(::testing::PrintToString(text));
    std::string replaced;
    for (size_t i = 0; i < strlen(text); ++i) replaced += "\xEF\xBF\xBD";
    EXPECT_EQ(Encoded(text), replaced);
    EXPECT_EQ(Encoded(std::string("a") + text + "\"b"), "a" + replaced + "\\\"b");
  }
}

TEST_F(JixTest, TextStartsAgainAfterABrokenSequence) {
  EXPECT_EQ(Encoded("\xE2\x82\xC3\xBC"), "\xEF\xBF\xBD\xEF\xBF\xBD\xC3\xBC");
  EXPECT_EQ(Encoded("\xC3\xC3\xBC"), "\xEF\xBF\xBD\xC3\xBC");
}

TEST_F(JixTest, NamesAreEncodedToo) {
  const Event event = MakeEvent("a\"b\xFF");
  SetVariable(event, "c\n", "");
  EXPECT_THAT(Line(event), HasSubstr("\"name\": \"a\\\"b\xEF\xBF\xBD\", "));
  EXPECT_THAT(Line(event), EndsWith("{\"c\\u000a\": \"\"}}\n"));
}

TEST_F(JixTest, StatusTexts) {
  const auto text = [](JixStatus status, size_t size) {
    std::vector<char> buf(size, 'x');
    JixStatusTextGet(status, buf.data(), size);
    return std::string(buf.data());
  };
  EXPECT_EQ(text(JixERROR_NONE, 100), "No error");
  EXPECT_EQ(text(JixERROR_NO_MEMORY, 100), "Out of memory");
  EXPECT_EQ(text(JixERROR_INVALID, 100), "Invalid argument");
  EXPECT_EQ(text(JixERROR_CANNOT_CONNECT, 100), "Cannot connect to the event manager");
  EXPECT_EQ(text(JixERROR_BUSY, 100), "The event manager does not read");
  EXPECT_EQ(text(JixERROR_CONNECTION_LOST, 100), "Connection to the event manager lost");
  EXPECT_EQ(text(-1, 100), "Unknown status");
  EXPECT_EQ(text(JixERROR_NONE, 4), "No ");
  EXPECT_EQ(text(JixERROR_NONE, 1), "");
}

TEST_F(JixTest, CodesAreThoseOfThePlatform) {
  EXPECT_EQ(JixERROR_NONE, 0);
  EXPECT_EQ(JixERROR_CONNECTION_LOST, 20);
  EXPECT_EQ(JixITEM_NAME, 1);
  EXPECT_EQ(JixITEM_PRIORITY, 5);
  EXPECT_EQ(JixTYPE_STRING, 12);
}

// ---- Daemon errors that repeat ------------------------------------------------------------------

constexpr int64_t kSecond = 1'000'000;  // microseconds
constexpr char kError[] = "qor.zevd.daemon.error.Internal error";

/// Time passes only when a test lets it.
class RepeatedErrorTest : public JixTest {
 protected:
  static Event MakeError(const char* name = kError, int priority = 700,
                         const char* message = "Internal error") {
    Event event = MakeEvent(name, priority);
    SetVariable(event, "message", message);
    return event;
  }

  void PostTimes(int count, const Event& event) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(Post(event), JixERROR_NONE);
  }

  /// Posts until the manager's buffer is full.
  void FillUp() {
    while (Post(other_) == JixERROR_NONE) {
    }
  }

  /// What the manager has received since the last call: "NAME", or "NAME xN" where the line stands
  /// for several events. Lines must be whole.
  std::vector<std::string> Got() {
    std::vector<std::string> got;
    std::istringstream lines(test::ReceiveAvailable(manager_.get()));
    for (std::string line; std::getline(lines, line);) got.push_back(Summary(line));
    return got;
  }

  static std::string Summary(const std::string& line) {
    const auto between = [&](const std::string& begin, char end) {
      const size_t start = line.find(begin);
      return start == std::string::npos
                 ? ""
                 : line.substr(start + begin.size(),
                               line.find(end, start + begin.size()) - start - begin.size());
    };
    const std::string repeats = between("\"repeats\": ", '}');
    return between("\"name\": \"", '"') + (repeats.empty() ? "" : " x" + repeats);
  }

  test::FakePassageOfTime time_{1};
  const Event error_ = MakeError();
  const Event other_ = MakeEvent("qor.zevd.console.lab1", 300);
  const std::string name_ = kError;
  const std::string other_name_ = "qor.zevd.console.lab1";
};

TEST_F(RepeatedErrorTest, FirstGoesOutAtOnceUnchanged) {
  char host[256] = "";
  gethostname(host, sizeof host);
  EXPECT_THAT(Line(error_), EndsWith("\", \"host\": \"" + std::string(host) + "\", \"name\": \"" +
                                     name_ + "\", \"priority\": 700, " +
                                     "\"vars\": {\"message\": \"Internal error\"}}\n"));
}

TEST_F(RepeatedErrorTest, NumberIsAtTheEnd) {
  PostTimes(4, error_);
  time_.Pass(kSecond);
  PostTimes(1, other_);
  ReceiveLine(manager_.get());
  EXPECT_THAT(ReceiveLine(manager_.get()),
              EndsWith("\", \"name\": \"" + name_ + "\", \"priority\": 700, " +
                       "\"vars\": {\"message\": \"Internal error\"}, \"repeats\": 3}\n"));
}

TEST_F(RepeatedErrorTest, EqualOnesWithinASecondAreLeftOut) {
  PostTimes(315, error_);
  EXPECT_THAT(Got(), ElementsAre(name_));
}

TEST_F(RepeatedErrorTest, NextOneAfterTheSecondStandsForThemToo) {
  PostTimes(315, error_);
  time_.Pass(kSecond);
  PostTimes(1, error_);
  EXPECT_THAT(Got(), ElementsAre(name_, name_ + " x315"));
  PostTimes(2, error_);
  EXPECT_THAT(Got(), IsEmpty()) << "its own second has begun";
}

TEST_F(RepeatedErrorTest, RestGoesOutBeforeTheFirstPostOfAnyEventAfterTheSecond) {
  PostTimes(3, error_);
  PostTimes(1, other_);
  EXPECT_THAT(Got(), ElementsAre(name_, other_name_)) << "the second is not over";
  time_.Pass(kSecond);
  PostTimes(2, other_);
  EXPECT_THAT(Got(), ElementsAre(name_ + " x2", other_name_, other_name_));
  time_.Pass(kSecond);
  PostTimes(1, other_);
  EXPECT_THAT(Got(), ElementsAre(other_name_)) << "nothing is left";
}

TEST_F(RepeatedErrorTest, RestOfOneIsMarkedAsSuch) {
  PostTimes(2, error_);
  time_.Pass(kSecond);
  PostTimes(1, other_);
  EXPECT_THAT(Got(), ElementsAre(name_, name_ + " x1", other_name_));
}

TEST_F(RepeatedErrorTest, RestBeginsASecondOfItsOwn) {
  PostTimes(2, error_);
  time_.Pass(kSecond);
  PostTimes(1, other_);
  PostTimes(2, error_);
  EXPECT_THAT(Got(), ElementsAre(name_, name_ + " x1", other_name_));
  time_.Pass(kSecond);
  PostTimes(1, other_);
  EXPECT_THAT(Got(), ElementsAre(name_ + " x2", other_name_));
}

TEST_F(RepeatedErrorTest, RareOnesAreSingle) {
  for (int i = 0; i < 3; ++i) {
    PostTimes(1, error_);
    time_.Pass(kSecond);
  }
  EXPECT_THAT(Got(), ElementsAre(name_, name_, name_));
}

TEST_F(RepeatedErrorTest, DifferentOnesAreCountedSeparately) {
  const Event graver = MakeError(kError, 900);
  const Event worded = MakeError(kError, 700, "Internal Error");
  const Event named = MakeError("qor.zevd.daemon.error", 700);
  for (int i = 0; i < 3; ++i) {
    for (const Event* event : {&error_, &graver, &worded, &named}) PostTimes(1, *event);
  }
  EXPECT_THAT(Got(), ElementsAre(name_, name_, name_, "qor.zevd.daemon.error"));
  time_.Pass(kSecond);
  PostTimes(1, other_);
  EXPECT_THAT(Got(), ElementsAre(name_ + " x2", name_ + " x2", name_ + " x2",
                                 "qor.zevd.daemon.error x2", other_name_));
}

TEST_F(RepeatedErrorTest, EventsOfOtherNamesAllGoOut) {
  for (const char* name :
       {"qor.zevd.console.lab1", "qor.zevd.daemon", "xqor.zevd.daemon.error", ""}) {
    const Event event = MakeEvent(name, 700);
    PostTimes(3, event);
    EXPECT_THAT(Got(), ElementsAre(name, name, name));
  }
}

TEST_F(RepeatedErrorTest, FloodIsALineASecondAndNoneIsForgotten) {
  constexpr int kPerSecond = 315;
  constexpr int kSeconds = 20;
  for (int i = 0; i < kPerSecond * kSeconds; ++i) {
    PostTimes(1, error_);
    time_.Pass(kSecond / kPerSecond);
  }
  time_.Pass(kSecond);
  PostTimes(1, other_);
  const std::vector<std::string> got = Got();
  EXPECT_LE(got.size(), kSeconds + 2U);
  int counted = 0;
  for (const std::string& line : got) {
    const size_t repeats = line.find(" x");
    if (line != other_name_)
      counted += repeats == std::string::npos ? 1 : stoi(line.substr(repeats + 2));
  }
  EXPECT_EQ(counted, kPerSecond * kSeconds);
}

TEST_F(RepeatedErrorTest, LineHasTheTimeOfTheLatestThatItStandsFor) {
  const TimeZone zone("UTC0");
  test::FakeClock clock(1'000'000'000);
  PostTimes(2, error_);
  clock.Advance(1);
  PostTimes(1, error_);
  clock.Advance(3600);
  time_.Pass(kSecond);
  PostTimes(1, other_);
  ReceiveLine(manager_.get());
  EXPECT_THAT(ReceiveLine(manager_.get()), StartsWith("{\"time\": \"2001-09-09T01:46:41+00:00\""));
  EXPECT_THAT(ReceiveLine(manager_.get()), StartsWith("{\"time\": \"2001-09-09T02:46:41+00:00\""));
}

TEST_F(RepeatedErrorTest, OnlySoManyAreCountedAndOthersAllGoOut) {
  constexpr int kMost = 16;
  for (int i = 0; i < kMost; ++i) {
    PostTimes(2, MakeError((name_ + std::to_string(i)).c_str()));
  }
  EXPECT_THAT(Got(), SizeIs(kMost));
  PostTimes(2, error_);
  EXPECT_THAT(Got(), ElementsAre(name_, name_));
  time_.Pass(kSecond);
  PostTimes(1, other_);
  EXPECT_THAT(Got(), SizeIs(kMost + 1)) << "what was left out of each";
  time_.Pass(kSecond);
  PostTimes(2, error_);
  EXPECT_THAT(Got(), ElementsAre(name_)) << "places are free again";
}

TEST_F(RepeatedErrorTest, RestWaitsForRoom) {
  PostTimes(3, error_);
  EXPECT_THAT(Got(), ElementsAre(name_));
  const FailCall no_waiting(Call::kPoll, FailCall::kPretend);
  FillUp();
  time_.Pass(kSecond);
  EXPECT_EQ(Post(other_), JixERROR_BUSY);
  test::ReceiveAvailable(manager_.get());
  EXPECT_EQ(Post(other_), JixERROR_NONE);
  EXPECT_THAT(Got(), ElementsAre(name_ + " x2", other_name_));
}

TEST_F(RepeatedErrorTest, OneThatFoundNoRoomDoesNotCount) {
  const FailCall no_waiting(Call::kPoll, FailCall::kPretend);
  FillUp();
  EXPECT_EQ(Post(error_), JixERROR_BUSY);
  test::ReceiveAvailable(manager_.get());
  PostTimes(1, error_);
  EXPECT_THAT(Got(), ElementsAre(name_));
}

TEST_F(RepeatedErrorTest, AnotherConnectionBeginsAnew) {
  PostTimes(2, error_);
  Connect();
  PostTimes(2, error_);
  EXPECT_THAT(Got(), ElementsAre(name_));
}

TEST_F(RepeatedErrorTest, WithoutMemoryNothingIsCountedTwice) {
  PostTimes(1, error_);
  {
    const test::FailAllocation failure(1, test::FailAllocation::kForEver);
    EXPECT_EQ(Post(error_), JixERROR_NO_MEMORY);
  }
  PostTimes(1, error_);
  time_.Pass(kSecond);
  PostTimes(1, other_);
  EXPECT_THAT(Got(), ElementsAre(name_, name_ + " x1", other_name_));
}

// ---- Managers that fail -------------------------------------------------------------------------

TEST_F(JixTest, ManagerThatHangsUp) {
  manager_.Reset();
  EXPECT_EQ(Post(MakeEvent("event")), JixERROR_CONNECTION_LOST);
}

TEST_F(JixTest, ManagerThatSaysSomethingIsNotGone) {
  test::SendText(manager_.get(), "thanks");
  EXPECT_THAT(Line(MakeEvent("event")), HasSubstr("\"name\": \"event\""));
}

TEST_F(JixTest, FailingSendLosesTheConnection) {
  const FailCall failure(Call::kSend, ECONNRESET);
  EXPECT_EQ(Post(MakeEvent("event")), JixERROR_CONNECTION_LOST);
}

TEST_F(JixTest, InterruptedPostGoesOn) {
  const Event event = MakeEvent("event");
  {
    const FailCall interrupted(Call::kSend, EINTR, 1, 3);
    EXPECT_THAT(Line(event), HasSubstr("\"name\": \"event\""));
  }
  const FailCall full(Call::kSend, EAGAIN, 1, 2);
  const FailCall interrupted(Call::kPoll, EINTR, 1, 1);
  EXPECT_EQ(Post(event), JixERROR_NONE);
}

/// Events have been posted until the manager's buffer was full.
class StalledManagerTest : public JixTest {
 protected:
  StalledManagerTest() {
    const Event event = MakeEvent("event");
    const auto start = std::chrono::steady_clock::now();
    while ((status_ = Post(event)) == JixERROR_NONE) ++posted_;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  }

  JixStatus status_ = JixERROR_NONE;
  int posted_ = 0;
};

TEST_F(StalledManagerTest, EventThatFindsNoRoomIsDropped) {
  EXPECT_EQ(status_, JixERROR_BUSY);
  EXPECT_GT(posted_, 0);
  for (int i = 0; i < posted_; ++i) {
    ASSERT_THAT(ReceiveLine(manager_.get()), StartsWith("{\"time\": "));
  }
  EXPECT_EQ(test::ReceiveAvailable(manager_.get()), "");
}

// A wait takes at least a millisecond, which ten milliseconds make up for.
TEST_F(StalledManagerTest, PostsWaitATenthOfTheTimeAtMost) {
  const Event event = MakeEvent("event");
  const FailCall waits(Call::kPoll, EINTR, 1, 0);
  const auto start = std::chrono::steady_clock::now();
  auto elapsed = std::chrono::steady_clock::duration::zero();
  while (elapsed < std::chrono::seconds(1)) {
    EXPECT_EQ(Post(event), JixERROR_BUSY);
    elapsed = std::chrono::steady_clock::now() - start;
  }
  EXPECT_GT(waits.calls(), 0) << "it is tried again";
  EXPECT_LE(waits.calls(), elapsed / std::chrono::milliseconds(10) + 1);
}

TEST_F(StalledManagerTest, ManagerThatReadsSlowlyDoesNotSetThePace) {
  std::atomic<bool> stop = false;
  std::thread manager([&] {
    while (!stop) {
      test::Receive(manager_.get(), 100);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  const Event event = MakeEvent("event");
  int tried = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  for (; std::chrono::steady_clock::now() < end; ++tried) Post(event);
  stop = true;
  manager.join();
  EXPECT_GT(tried, 1000) << "more than ten times what the manager reads";
}

TEST_F(StalledManagerTest, ManagerThatReadsAgainGetsEvents) {
  test::ReceiveAvailable(manager_.get());
  EXPECT_THAT(Line(MakeEvent("again")), HasSubstr("\"name\": \"again\""));
}

TEST_F(JixTest, RestOfALineGoesOutBeforeTheNextOne) {
  const Event event = MakeEvent("event");
  const std::string huge(8 << 20, 'x');
  SetVariable(event, "message", huge.c_str());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Post(event), JixERROR_NONE);
  EXPECT_EQ(Post(MakeEvent("dropped")), JixERROR_BUSY);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

  std::string received;
  std::thread reader([&] { received = test::Receive(manager_.get(), 16 << 20); });
  const Event next = MakeEvent("next");
  EXPECT_TRUE(test::Eventually([&] { return Post(next) == JixERROR_NONE; }));
  connection_.reset();
  reader.join();
  const size_t end = received.find('\n') + 1;
  EXPECT_TRUE(received.substr(0, end).ends_with("\"vars\": {\"message\": \"" + huge + "\"}}\n"));
  EXPECT_THAT(received.substr(end), HasSubstr("\"name\": \"next\""));
  EXPECT_EQ(received.find("dropped"), std::string::npos);
}

TEST_F(JixTest, RestOfALineIsNotSentToAnotherManager) {
  const Event event = MakeEvent("event");
  SetVariable(event, "message", std::string(8 << 20, 'x').c_str());
  EXPECT_EQ(Post(event), JixERROR_NONE);
  manager_.Reset();
  EXPECT_EQ(Post(event), JixERROR_CONNECTION_LOST);
  Connect();
  EXPECT_THAT(Line(MakeEvent("next")), HasSubstr("\"name\": \"next\""));
}

// On a busy machine the manager may be slow once; it gets another chance.
TEST_F(JixTest, LineLongerThanTheBuffersIsFinishedWhileTheManagerReads) {
  const Event event = MakeEvent("event");
  const std::string huge(1 << 20, 'x');
  SetVariable(event, "message", huge.c_str());
  EXPECT_TRUE(test::Eventually([&] {
    std::string received;
    std::thread reader([&] { received = test::Receive(manager_.get(), 4 << 20); });
    const JixStatus status = Post(event);
    connection_.reset();
    reader.join();
    Connect();
    return status == JixERROR_NONE &&
           received.ends_with("\"vars\": {\"message\": \"" + huge + "\"}}\n");
  }));
}

TEST_F(JixTest, OneConnectionCarriesOnePostAtATime) {
  constexpr int kThreads = 8;
  constexpr int kEvents = 15;  // all of them find room, however slowly they are read
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      const Event event = MakeEvent("event");
      for (int number = 0; number < kEvents; ++number) EXPECT_EQ(Post(event), JixERROR_NONE);
    });
  }
  for (int i = 0; i < kThreads * kEvents; ++i) {
    const std::string line = ReceiveLine(manager_.get());
    ASSERT_THAT(line, StartsWith("{\"time\": "));
    ASSERT_THAT(line, EndsWith("\"name\": \"event\", \"priority\": 0, \"vars\": {}}\n"));
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
