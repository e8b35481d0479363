// The first line of a client, the library's answer and the login dialogue.
#include "security.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "relay_support.h"
#include "security_steps.h"

using namespace zevd;

namespace {

using test::Call;
using test::DebugCapture;
using test::FailCall;
using test::SocketPair;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kHelper[] = "root/bin/qor_pam_auth";
constexpr char kOffers[] = "\xFF\xFB\x01\xFF\xFB\x03";  // IAC WILL ECHO, IAC WILL SUPPRESS-GO-AHEAD
constexpr char kTryAgain[] = "\nInvalid username/password combination. Please try again.\r\n\n";

std::string UserMessage() {
  return u_err_msg == nullptr ? "" : u_err_msg;
}

/// Runs where its files are its own.
class SecurityTest : public test::RelayTest {
 protected:
  test::StationRoot root_;
  Identity identity_{};
};

// ---- Telling clients apart ----------------------------------------------------------------------

class FirstLineTest : public SecurityTest {
 protected:
  // What the client's line is taken for; the cookie it shows goes to `cookie_`.
  int Judge(std::string_view sent) {
    const SocketPair pair;
    test::SendText(pair.theirs.get(), sent);
    const int result = IsTokenAuthentication(pair.ours.get(), cookie_);
    EXPECT_EQ(test::ReceiveAvailable(pair.ours.get()), sent) << "nothing is consumed";
    return result;
  }

  char cookie_[kCookieSize] = {};
};

TEST_F(FirstLineTest, TokenLinesAreRecognised) {
  for (const char* line : {"token abc box\n", "token abc", " \t\r\ntoken\n\tabc\r\n"}) {
    EXPECT_EQ(Judge(line), 1) << line;
    EXPECT_STREQ(cookie_, "abc");
  }
}

TEST_F(FirstLineTest, SixteenCharactersOfTheCookieAreKept) {
  EXPECT_EQ(Judge("token 0123456789abcdefg box"), 1);
  EXPECT_STREQ(cookie_, "0123456789abcdef");
  EXPECT_EQ(Judge("token " + std::string(8186, 'c')), 1);
  EXPECT_EQ(cookie_, std::string(16, 'c'));
}

TEST_F(FirstLineTest, OtherLinesAreNotTokenLines) {
  for (const char* line :
       {"box\n", "Token abc", "tokens abc", "toke", "x token abc", "token\x01 a"}) {
    EXPECT_EQ(Judge(line), 0) << line;
  }
  EXPECT_EQ(u_err_msg, nullptr);
}

TEST_F(FirstLineTest, LinesWithoutWhatTheyNeedAreMalformed) {
  using std::string_view_literals::operator""sv;
  for (const std::string_view line :
       {"token"sv, "token \r\n"sv, " \t\r\n"sv, "\0token a"sv, "token\0 a"sv}) {
    EXPECT_EQ(Judge(line), -1) << line;
  }
  EXPECT_EQ(Judge(std::string(8192, ' ') + "token abc"), -1) << "behind what is looked at";
  EXPECT_EQ(u_err_msg, nullptr);
}

TEST_F(FirstLineTest, SilenceIsATimeOut) {
  const SocketPair pair;
  const FailCall failure(Call::kRecv, EAGAIN);
  EXPECT_EQ(IsTokenAuthentication(pair.ours.get(), cookie_), -2);
  EXPECT_EQ(UserMessage(), "003 - Timed out.\r\n");
}

TEST_F(FirstLineTest, FailureIsAReadError) {
  const SocketPair pair;
  const FailCall failure(Call::kRecv, ECONNRESET);
  EXPECT_EQ(IsTokenAuthentication(pair.ours.get(), cookie_), -1);
  EXPECT_EQ(UserMessage(), "008 - Read error.\r\n");
}

TEST_F(FirstLineTest, EndOfStreamIsAReadError) {
  SocketPair pair;
  pair.theirs.Reset();
  EXPECT_EQ(IsTokenAuthentication(pair.ours.get(), cookie_), -1);
  EXPECT_EQ(UserMessage(), "008 - Read error.\r\n");
}

timeval ReceiveTimeout(int sock) {
  timeval limit{};
  socklen_t length = sizeof limit;
  EXPECT_EQ(getsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, &length), 0);
  return limit;
}

TEST_F(FirstLineTest, LimitIsFifteenSecondsAndOnlyForThisLine) {
  const SocketPair pair;
  const timeval former = {3, 0};
  setsockopt(pair.ours.get(), SOL_SOCKET, SO_RCVTIMEO, &former, sizeof former);
  int result = 0;
  std::thread waiting([&] { result = IsTokenAuthentication(pair.ours.get(), cookie_); });
  EXPECT_TRUE(test::Eventually([&] { return ReceiveTimeout(pair.ours.get()).tv_sec == 15; }));
  test::SendText(pair.theirs.get(), "token abc");
  waiting.join();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(ReceiveTimeout(pair.ours.get()).tv_sec, 3);
  EXPECT_EQ(ReceiveTimeout(pair.ours.get()).tv_usec, 0);
}

// ---- Deciding -----------------------------------------------------------------------------------

class DecisionTest : public SecurityTest {
 protected:
  DecisionTest() {
    GenerateCookie();
    cookie_ = test::ReadFile("root/config/.cookie").substr(0, kCookieSize - 1);
  }

  // The client at `address` sends this and then no more.
  int Authenticate(const std::string& sent, const char* address = "127.0.0.1") {
    SocketPair pair;
    test::SendText(pair.theirs.get(), sent);
    shutdown(pair.theirs.get(), SHUT_WR);
    u_err_msg = nullptr;
    return DoAuthentication(pair.ours.get(), Address(address), line_, sizeof line_, identity_);
  }

  static sockaddr_in Address(const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, text, &address.sin_addr);
    return address;
  }

  std::string cookie_;
  char line_[1024] = {};
};

TEST_F(DecisionTest, CookieFromLoopbackAdmitsAndLeavesTheWholeLine) {
  const std::string line = "token " + cookie_ + "xyz box mode=ro\r\n";
  EXPECT_EQ(Authenticate(line + "more\n"), 0);
  EXPECT_EQ(line_, line);
  EXPECT_EQ(u_err_msg, nullptr);
}

TEST_F(DecisionTest, WrongCookieFromLoopbackIsRefused) {
  EXPECT_EQ(Authenticate("token 0123456789abcdef box\n"), -1);
  EXPECT_EQ(UserMessage(), "001 - Authentication failed.\r\n");
}

TEST_F(DecisionTest, CookieFromAnywhereElseGoesToTheLibrary) {
  for (const char* address : {"127.0.0.2", "127.0.0.0", "10.0.0.1", "0.0.0.0", "1.0.0.127"}) {
    DebugCapture debug(kTrace);
    EXPECT_EQ(Authenticate("token " + cookie_ + " box\n", address), -1);
    EXPECT_EQ(UserMessage(), "001 - Authentication failed.\r\n");
    EXPECT_TRUE(debug.Has("Entering DoTqAuthValidation\n")) << address;
    EXPECT_FALSE(debug.Has("Entering DoCookieValidation\n")) << address;
  }
}

TEST_F(DecisionTest, OtherLinesGoToTheLibrary) {
  DebugCapture debug(kTrace);
  EXPECT_EQ(Authenticate("box token " + cookie_ + "\n"), -1);
  EXPECT_TRUE(debug.Has("Entering DoTqAuthValidation\n"));
  EXPECT_TRUE(debug.Has("DoTqAuthValidation: Authentication failed.\n"));
}

TEST_F(DecisionTest, MalformedLineGetsNoText) {
  DebugCapture debug;
  EXPECT_EQ(Authenticate("token\n"), -1);
  EXPECT_EQ(u_err_msg, nullptr);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("DoAuthentication: Error reading authentication data.\n"));
}

TEST_F(DecisionTest, SilenceIsReported) {
  const SocketPair pair;
  DebugCapture debug;
  const FailCall failure(Call::kRecv, EAGAIN);
  EXPECT_EQ(DoAuthentication(pair.ours.get(), Address("127.0.0.1"), line_, sizeof line_, identity_),
            -1);
  EXPECT_THAT(debug.Messages(), ElementsAre("DoAuthentication: Timed out waiting for input.\n"));
  EXPECT_EQ(UserMessage(), "003 - Timed out.\r\n");
}

TEST_F(DecisionTest, LineThatCannotBeReadIsRefusedWithTheReadersText) {
  {
    const FailCall failure(Call::kPpoll, FailCall::kPretend);
    EXPECT_EQ(Authenticate("token " + cookie_ + " box\n"), -1);
    EXPECT_EQ(UserMessage(), "003 - Timed out.\r\n");
  }
  const FailCall failure(Call::kRecv, ECONNRESET, 3);  // after two peeks
  EXPECT_EQ(Authenticate("token " + cookie_ + " box\n"), -1);
  EXPECT_EQ(UserMessage(), "008 - Read error.\r\n");
}

// ---- The password helper ------------------------------------------------------------------------

/// A helper that keeps what it reads and accepts what ends in "secret".
class HelperTest : public SecurityTest {
 protected:
  HelperTest() {
    std::filesystem::create_directory("root/bin");
    Install(
        "pair=$(cat; echo .)\nprintf %s \"${pair%.}\" >> root/pairs\n"
        "case $pair in *secret.) exit 0;; esac\nexit 1\n");
  }

  static void Install(const std::string& script) {
    test::WriteFile(kHelper, "#!/bin/sh\n" + script);
    chmod(kHelper, 0755);
  }

  static std::string Pairs() {
    return std::filesystem::exists("root/pairs") ? test::ReadFile("root/pairs") : "";
  }
};

TEST_F(HelperTest, IsSentTheNameOneBlankAndThePassword) {
  EXPECT_EQ(AuthenticateOnLinux("anna", " two  words secret", ""), 0);
  EXPECT_EQ(Pairs(), "anna  two  words secret");
  EXPECT_EQ(AuthenticateOnLinux("anna", "", ""), 1);
}

TEST_F(HelperTest, EveryOtherEndIsARefusal) {
  for (const char* script : {"exit 1\n", "exit 255\n", "kill -KILL $$\n", "kill -SEGV $$\n"}) {
    Install(script);
    EXPECT_EQ(AuthenticateOnLinux("anna", "secret", ""), 1) << script;
  }
}

TEST_F(HelperTest, MissingHelperIsARefusal) {
  std::filesystem::remove(kHelper);
  EXPECT_EQ(AuthenticateOnLinux("anna", "secret", ""), 1);
}

// From now on the process gets no further descriptor but one.
void ExhaustDescriptors() {
  const auto next = static_cast<rlim_t>(dup(0));
  const rlimit limit = {next + 1, next + 1};
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(HelperTest, HelperThatCannotBeStartedIsReported) {
  EXPECT_HOLDS_IN_CHILD({
    DebugCapture debug;
    ExhaustDescriptors();
    EXPECT_EQ(AuthenticateOnLinux("anna", "secret", ""), 1);
    EXPECT_THAT(debug.Output(),
                HasSubstr("AuthenticateOnLinux: popen( root/bin/qor_pam_auth, ...) failed : "
                          "Too many open files\n"));
  });
}

// Whatever its status says, a helper that has not read the pair has not checked it.
TEST_F(HelperTest, PairThatNobodyReadsIsReportedAndARefusal) {
  Install("exit 0\n");
  DebugCapture debug;
  EXPECT_EQ(AuthenticateOnLinux("anna", "secret", ""), 1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("AuthenticateOnLinux: fprintf() failed : Broken pipe\n"));
}

TEST_F(HelperTest, LeavesNoDescriptorOpen) {
  const int before = dup(0);
  close(before);
  AuthenticateOnLinux("anna", "secret", "");
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
}

}  // namespace

// ---- The group database -------------------------------------------------------------------------

// In place of the system's, for the whole program.
namespace {

struct FakeEntry {
  const char* name;
  std::vector<const char*> members;
};
using Entries = std::vector<FakeEntry>;

/// The entries that the walk finds, for as long as it lives.
class GroupDatabase {
 public:
  explicit GroupDatabase(Entries entries) : entries_(std::move(entries)) { current = this; }
  ~GroupDatabase() { current = nullptr; }
  GroupDatabase(const GroupDatabase&) = delete;
  GroupDatabase& operator=(const GroupDatabase&) = delete;

  group* Next() {
    if (position_ == entries_.size()) return nullptr;
    FakeEntry& entry = entries_[position_++];
    members_.clear();
    for (const char* member : entry.members) members_.push_back(const_cast<char*>(member));
    members_.push_back(nullptr);
    entry_ = {const_cast<char*>(entry.name), nullptr, 0, members_.data()};
    return &entry_;
  }

  void Rewind() {
    position_ = 0;
    ++rewound;
  }

  int rewound = 0;
  int closed = 0;
  static GroupDatabase* current;

 private:
  Entries entries_;
  std::vector<char*> members_;
  size_t position_ = 0;
  group entry_{};
};

GroupDatabase* GroupDatabase::current = nullptr;

}  // namespace

extern "C" {

void setgrent() {
  GroupDatabase::current->Rewind();
}

group* getgrent() {
  return GroupDatabase::current->Next();
}

void endgrent() {
  ++GroupDatabase::current->closed;
}

}  // extern "C"

namespace {

TEST(GroupTest, MembersAreThoseListedExactly) {
  const GroupDatabase groups(Entries{{"qoruser", {"anna", "bert"}}});
  EXPECT_EQ(IsInQORUserGroup("anna"), 1);
  EXPECT_EQ(IsInQORUserGroup("bert"), 1);
  for (const char* name : {"", "ann", "annab", "Anna", "anna ", "anna,bert", "qoruser"}) {
    EXPECT_EQ(IsInQORUserGroup(name), 0) << name;
  }
}

TEST(GroupTest, AllEntriesOfThatNameAreSearched) {
  const GroupDatabase groups(Entries{{"qoruser", {}},
                                     {"qoruser2", {"carl"}},
                                     {"qoruser", {"bert"}},
                                     {"Qoruser", {"carl"}},
                                     {"qoruse", {"carl"}},
                                     {"qoruser", {"dora", "anna"}}});
  EXPECT_EQ(IsInQORUserGroup("anna"), 1);
  EXPECT_EQ(IsInQORUserGroup("bert"), 1);
  EXPECT_EQ(IsInQORUserGroup("carl"), 0);
}

TEST(GroupTest, DatabaseIsRewoundAndClosedEveryTime) {
  const GroupDatabase groups(Entries{{"qoruser", {"anna"}}});
  for (const char* name : {"anna", "bert", "anna"}) IsInQORUserGroup(name);
  EXPECT_EQ(groups.rewound, 3);
  EXPECT_EQ(groups.closed, 3);
}

TEST(GroupTest, EmptyDatabaseHasNoMembers) {
  const GroupDatabase groups(Entries{});
  EXPECT_EQ(IsInQORUserGroup("anna"), 0);
  EXPECT_EQ(groups.closed, 1);
}

// ---- The login dialogue -------------------------------------------------------------------------

class DialogueTest : public HelperTest {
 protected:
  // What the caller, who has typed `typed` and no more, is sent before the end. The caller reads
  // all the time: each echoed key takes a lot of room in the socket.
  std::string Talk(std::string_view typed) {
    SocketPair pair;
    test::SendText(pair.theirs.get(), typed);
    shutdown(pair.theirs.get(), SHUT_WR);
    std::string shown;
    std::thread caller([&] { shown = test::Receive(pair.theirs.get(), 1 << 20); });
    u_err_msg = nullptr;
    result_ = PromptForUserNameAndPasswd(pair.ours.get(), "box", identity_);
    pair.ours.Reset();
    caller.join();
    return shown;
  }

  static std::string Welcome(const std::string& host) {
    return "\r\nWelcome to zevd running on \"" + host +
           "\".\r\n\nIn order to connect to console \"box\", you must first provide\r\n"
           "a valid username/password combination on \"" +
           host + "\".\r\n\nPlease enter your username and password on \"" + host + "\".\r\n\n";
  }

  static std::string Welcome() {
    std::array<char, 65> name{};
    gethostname(name.data(), name.size());
    return Welcome(name.data()) + kOffers;
  }

  GroupDatabase groups_{Entries{{"qoruser", {"anna"}}}};
  int result_ = 0;
};

TEST_F(DialogueTest, CallerWithoutATurnTimesOut) {
  Install(": > root/started.$$\nwhile [ ! -e root/go ]; do sleep .05; done\nexit 1\n");
  const auto started = [] {
    const std::filesystem::directory_iterator root("root");
    return std::count_if(begin(root), end(root), [](const auto& entry) {
      return entry.path().string().starts_with("root/started.");
    });
  };
  std::vector<std::thread> others;
  for (int i = 0; i < 8; ++i) others.emplace_back([] { AuthenticateOnLinux("bert", "x", ""); });
  EXPECT_TRUE(test::Eventually([&] { return started() == 8; }));
  {
    const test::FakePassageOfTime seconds(5'000'000);
    EXPECT_THAT(Talk("anna\nsecret\n"), EndsWith("password: \n\r\n"));
  }
  EXPECT_EQ(result_, -1);
  EXPECT_STREQ(u_err_msg, "003 - Timed out.\r\n");
  test::WriteFile("root/go", "");
  for (std::thread& other : others) other.join();
  EXPECT_EQ(started(), 8) << "the one who was timed out was not checked";
}

TEST_F(DialogueTest, RootIsAdmittedWithoutAGroup) {
  EXPECT_EQ(Talk("root\nsecret\n"), Welcome() + "username: root\npassword: \n\r\n");
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(Pairs(), "root secret");
  EXPECT_EQ(groups_.rewound, 0);
}

TEST_F(DialogueTest, MemberIsAdmittedAndOthersAreNot) {
  Talk("anna\nsecret\n");
  EXPECT_EQ(result_, 0);
  DebugCapture debug;
  EXPECT_EQ(Talk("bert\nsecret\nroot\nsecret\n"), Welcome() + "username: bert\npassword: \n\r\n");
  EXPECT_EQ(result_, -1);
  EXPECT_EQ(UserMessage(), "014 - Not an authorized user.\r\n");
  EXPECT_THAT(
      debug.Messages(),
      ElementsAre("PromptForUserNameAndPasswd: User \"bert\" is not in the qoruser group.\n"));
}

TEST_F(DialogueTest, FourthFailureIsTheLast) {
  const std::string attempt = "username: root\npassword: \n\r\n";
  DebugCapture debug;
  EXPECT_EQ(Talk("root\na\nroot\nb\nroot\nc\nroot\nd\nroot\nsecret\n"),
            Welcome() + attempt + kTryAgain + attempt + kTryAgain + attempt + kTryAgain + attempt +
                "\r\n");
  EXPECT_EQ(result_, -1);
  EXPECT_EQ(UserMessage(), "001 - Authentication failed.\r\n");
  EXPECT_EQ(Pairs(), "root aroot broot croot d");
  ASSERT_FALSE(debug.Messages().empty());
  EXPECT_EQ(debug.Messages().front(),
            "PromptForUserNameAndPasswd: Login failed (username=\"root\", console=\"box\")\n");
}

TEST_F(DialogueTest, FourthTryMaySucceed) {
  Talk("root\na\nroot\nb\nroot\nc\nroot\nsecret\n");
  EXPECT_EQ(result_, 0);
}

TEST_F(DialogueTest, EmptyNameIsNotATry) {
  EXPECT_EQ(Talk("\n\n\x03\n\n\nroot\nsecret\n"),
            Welcome() +
                "username: \nusername: \nusername: \r\nusername: \nusername: \nusername: "
                "\nusername: root\npassword: \n\r\n");
  EXPECT_EQ(result_, 0);
}

TEST_F(DialogueTest, TelnetCommandsBeforeTheNameBringNoSecondPrompt) {
  EXPECT_EQ(Talk("\xFF\xFD\x01\xFF\xFD\x03root\nsecret\n"),
            Welcome() + "username: root\npassword: \n\r\n");
  EXPECT_EQ(result_, 0);
}

TEST_F(DialogueTest, AnswersAreCutAt256Characters) {
  Talk(std::string(300, 'n') + "\n" + std::string(300, 'p') + "\n");
  EXPECT_EQ(Pairs(), std::string(256, 'n') + " " + std::string(256, 'p'));
}

TEST_F(DialogueTest, EmptyPasswordIsHandedOnWithItsLineEnd) {
  Talk("root\n\n");
  EXPECT_EQ(Pairs(), "root \n");
}

TEST_F(DialogueTest, UnknownHostHasANameToo) {
  const FailCall failure(Call::kGethostname, EFAULT);
  EXPECT_THAT(Talk(""), StartsWith(Welcome("<unknown>")));
}

TEST_F(DialogueTest, EndOfInputEndsItWithoutATry) {
  for (const char* typed : {"", "ro", "root\n", "root\nsecret"}) {
    Talk(typed);
    EXPECT_EQ(result_, -1) << typed;
  }
  EXPECT_EQ(Pairs(), "");
}

// The test's own send is the first of those that are counted. The welcome has three parts, the
// offers two, and each key is echoed.
TEST_F(DialogueTest, FailedSendEndsItAtOnce) {
  constexpr int kWelcome = 2;
  constexpr int kPrompt = kWelcome + 3 + 2;
  constexpr int kPasswordPrompt = kPrompt + 6;         // after "root\n"
  constexpr int kAfterPassword = kPasswordPrompt + 2;  // after the line end
  for (const int number :
       {kWelcome, kWelcome + 1, kWelcome + 2, kPrompt, kPasswordPrompt, kAfterPassword}) {
    DebugCapture debug;
    const FailCall failure(Call::kSend, EPIPE, number, 1);
    Talk("root\nsecret\n");
    EXPECT_EQ(result_, -1) << number;
    EXPECT_EQ(failure.calls(), number);
    EXPECT_THAT(debug.Messages(),
                ElementsAre("PromptForUserNameAndPasswd: send() failed : Broken pipe\n"));
  }
  EXPECT_EQ(Pairs(), "");
}

TEST_F(DialogueTest, FailedOffersDoNotMatter) {
  const FailCall failure(Call::kSend, EPIPE, 5, 2);
  EXPECT_EQ(Talk("root\nsecret\n").find(kOffers), std::string::npos);
  EXPECT_EQ(result_, 0);
}

// ---- The library's answer -----------------------------------------------------------------------

class LibraryAnswerTest : public HelperTest {
 protected:
  int Validate(const std::string& line, char* buf, int size) {
    const SocketPair pair;
    test::SendText(pair.theirs.get(), line + "\nroot\nsecret\n");
    u_err_msg = nullptr;
    return DoTqAuthValidation(pair.ours.get(), buf, size, identity_);
  }

  char line_[1024] = {};
};

TEST_F(LibraryAnswerTest, ProvedNameComesLast) {
  DebugCapture debug(kDetail);
  EXPECT_EQ(Validate("box user=carl mode=ro", line_, sizeof line_), 0);
  EXPECT_STREQ(line_, "box user=carl mode=ro user=root");
  EXPECT_THAT(debug.Messages(),
              ElementsAre("DoTqAuthValidation: Authentication successful for user \"root\".\n"));
}

TEST_F(LibraryAnswerTest, NameIsAppendedWhileItFits) {
  const std::string line(1013, 'x');
  EXPECT_EQ(Validate(line, line_, sizeof line_), 0);
  EXPECT_EQ(line_, line + " user=root");
}

TEST_F(LibraryAnswerTest, LineIsCutToTheBuffer) {
  EXPECT_EQ(Validate("console", line_, 5), 0);
  EXPECT_STREQ(line_, "cons");
  EXPECT_EQ(line_[5], '\0');
}

TEST_F(LibraryAnswerTest, RefusalHasItsText) {
  SocketPair pair;
  pair.theirs.Reset();
  DebugCapture debug;
  EXPECT_EQ(DoTqAuthValidation(pair.ours.get(), line_, sizeof line_, identity_), -1);
  EXPECT_EQ(UserMessage(), "001 - Authentication failed.\r\n");
  EXPECT_THAT(debug.Messages(), ElementsAre("DoTqAuthValidation: Authentication failed.\n"));
}

}  // namespace
