// The stand-in authentication library: its exchange with a client, its limits, whom it admits.
#include "tqauth.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
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
using test::FailCall;
using test::SocketPair;
using std::string_literals::operator""s;
using std::string_view_literals::operator""sv;

constexpr char kHelper[] = "root/bin/qor_pam_auth";
constexpr char kHide[] = "\xFF\xFB\x01";  // IAC WILL ECHO
constexpr char kShow[] = "\xFF\xFC\x01";  // IAC WONT ECHO

// The members of "qoruser", and the size of the buffer that the look-up insists on.
std::vector<const char*> members;
size_t needed_buffer = 0;
bool group_exists = true;

// The entries of the group file, and how many of them have been read.
struct FileEntry {
  const char* name;
  std::vector<const char*> members;
};
std::vector<FileEntry> file_entries;
size_t entries_read = 0;

// By how much the monotonic clock has been moved.
std::atomic<time_t> clock_offset = 0;

std::string Attempt() {
  return "username: "s + kHide + "password: " + kShow + "\r\n";
}

}  // namespace

// These replace the system's group database and clock for the whole program.
extern "C" {

static void FillEntry(group* entry, const char* name, const std::vector<const char*>& listed) {
  static std::array<char*, 8> members_of_entry;
  members_of_entry.fill(nullptr);
  for (size_t i = 0; i < listed.size(); ++i) {
    members_of_entry.at(i) = const_cast<char*>(listed[i]);
  }
  *entry = {const_cast<char*>(name), nullptr, 0, members_of_entry.data()};
}

int getgrnam_r(const char* name, group* entry, char* /*buffer*/, size_t size, group** found) {
  *found = nullptr;
  if (size < needed_buffer) return ERANGE;
  if (!group_exists || std::string_view(name) != "qoruser") return 0;
  FillEntry(entry, name, members);
  *found = entry;
  return 0;
}

int fgetgrent_r(FILE* /*file*/, group* entry, char* /*buffer*/, size_t size, group** found) {
  *found = nullptr;
  if (size < needed_buffer) return ERANGE;
  if (entries_read == file_entries.size()) return ENOENT;
  const FileEntry& next = file_entries[entries_read++];
  FillEntry(entry, next.name, next.members);
  *found = entry;
  return 0;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (clock == CLOCK_MONOTONIC) now->tv_sec += clock_offset;
  return static_cast<int>(result);
}

}  // extern "C"

namespace {

class TqauthTest : public ::testing::Test {
 protected:
  TqauthTest() {
    members = {"carl", "anna"};
    needed_buffer = 0;
    group_exists = true;
    file_entries.clear();
    entries_read = 0;
    std::filesystem::create_directory("root/bin");
    Install(
        "pair=$(cat; echo .)\nprintf '%s|' \"${pair%.}\" >> root/pairs\n"
        "case $pair in *secret.) exit 0;; esac\nexit 1\n");
  }
  ~TqauthTest() override {
    free(user_);
    clock_offset = 0;
  }

  static void Install(const std::string& script) {
    test::WriteFile(kHelper, "#!/bin/sh\n" + script);
    chmod(kHelper, 0755);
  }

  static std::string Pairs() {
    return std::filesystem::exists("root/pairs") ? test::ReadFile("root/pairs") : "";
  }

  // The argument line that the library returns for a client that sends this and then nothing;
  // "(refused)" when it returns none.
  std::string Authenticate(std::string_view sent) {
    const SocketPair pair;
    test::SendText(pair.theirs.get(), sent);
    shutdown(pair.theirs.get(), SHUT_WR);
    free(user_);
    user_ = nullptr;
    const char* line = authenticate(pair.ours.get(), &user_);
    error_ = errno;
    answer_ = test::ReceiveAvailable(pair.theirs.get());
    unread_ = test::ReceiveAvailable(pair.ours.get());
    EXPECT_TRUE(line == nullptr || user_ != nullptr) << "a name comes with a line";
    return line == nullptr ? "(refused)" : line;
  }

  std::string User() const { return user_ == nullptr ? "" : user_; }

  test::StationRoot root_;
  std::string answer_;  // what the client was sent
  std::string unread_;  // what the client sent and the library left
  char* user_ = nullptr;
  int error_ = 0;  // errno, where there is no line
};

// ---- The exchange -------------------------------------------------------------------------------

TEST_F(TqauthTest, AsksForThePairAndReturnsLineAndName) {
  EXPECT_EQ(Authenticate("box mode=ro\nroot\nsecret\n"), "box mode=ro");
  EXPECT_EQ(User(), "root");
  EXPECT_EQ(answer_, Attempt());
  EXPECT_EQ(Pairs(), "root secret|");
}

TEST_F(TqauthTest, ThreeTries) {
  EXPECT_EQ(Authenticate("box\nroot\na\nroot\nb\nroot\nsecret\n"), "box");
  EXPECT_EQ(Authenticate("box\nroot\na\nroot\nb\nroot\nc\nroot\nsecret\n"), "(refused)");
  EXPECT_EQ(answer_, Attempt() + Attempt() + Attempt());
}

TEST_F(TqauthTest, EmptyNameIsATryWithoutACheck) {
  EXPECT_EQ(Authenticate("box\n\nsecret\n\nsecret\nroot\nsecret\n"), "box");
  EXPECT_EQ(Pairs(), "root secret|");
}

TEST_F(TqauthTest, LinesEndInEveryUsualWay) {
  for (const std::string& end : {"\n"s, "\r"s, "\r\n"s, "\r\0"s}) {
    EXPECT_EQ(Authenticate("box" + end + "root" + end + "secret" + end), "box");
  }
}

TEST_F(TqauthTest, TakesTheWholeOfTheLastLineEnd) {
  for (const std::string& end : {"\n"s, "\r\n"s, "\r\0"s}) {
    EXPECT_EQ(Authenticate("box" + end + "root" + end + "secret" + end), "box");
    EXPECT_EQ(unread_, "");
  }
}

TEST_F(TqauthTest, LeavesWhatFollowsTheLogin) {
  EXPECT_EQ(Authenticate("box\nroot\nsecret\nkeys"), "box");
  EXPECT_EQ(unread_, "keys");
}

TEST_F(TqauthTest, ErasingKeysErase) {
  EXPECT_EQ(Authenticate("\b\x7Fvxx\b\x7F\bbox\nrx\boot\nsecrets\x7F\n"), "box");
  EXPECT_EQ(Pairs(), "root secret|");
}

TEST_F(TqauthTest, TelnetCommandsAreTakenOut) {
  EXPECT_EQ(Authenticate("\xFF\xFD\x01"
                         "b\xFF\xF1ox\xFF\xFA\x1F\x01\x02\xFF\xF0\nro\xFF\xFB\x03ot\n"
                         "sec\xFF\xF4ret\n"),
            "box");
  EXPECT_EQ(Pairs(), "root secret|");
}

TEST_F(TqauthTest, DoubledByteIsDataInsideASubnegotiationToo) {
  EXPECT_EQ(Authenticate("b\xFF\xFA\x1F\xFF\xFF\xF0!\xFF\xF0ox\nroot\nsecret\n"), "box");
}

TEST_F(TqauthTest, DoubledByteIsData) {
  EXPECT_EQ(Authenticate("b\xFF\xFFx\nroot\nsecret\n"), "b\xFFx");
}

// ---- Whom it admits -----------------------------------------------------------------------------

TEST_F(TqauthTest, ListedMembersAreAdmitted) {
  EXPECT_EQ(Authenticate("box\nanna\nmy secret\n"), "box");
  EXPECT_EQ(User(), "anna");
}

TEST_F(TqauthTest, RightPasswordOfSomebodyElseLooksLikeAWrongOne) {
  for (const std::string& name : {"bert"s, "ann"s, "annab"s, "Anna"s, "root x"s, " root"s}) {
    EXPECT_EQ(Authenticate("box\n" + name + "\nsecret\nroot\nsecret\n"), "box") << name;
    EXPECT_EQ(answer_, Attempt() + Attempt()) << name;
    const std::string pair = name + "\nsecret\n";
    EXPECT_EQ(Authenticate("box\n" + pair + pair + pair), "(refused)") << name;
    EXPECT_EQ(answer_, Attempt() + Attempt() + Attempt()) << name;
  }
}

// The helper takes as long as it does for a wrong password, and learns nothing.
TEST_F(TqauthTest, HelperIsAskedAboutAPasswordThatNobodyHas) {
  EXPECT_EQ(Authenticate("box\nbert\nsecret\nbert\nsecret\n"), "(refused)");
  const std::string pairs = Pairs();
  EXPECT_THAT(pairs, ::testing::MatchesRegex("bert [0-9a-f]+\\|bert [0-9a-f]+\\|"));
  ASSERT_EQ(pairs.size(), 2 * (sizeof "bert " - 1 + 32 + 1));
  EXPECT_NE(pairs.substr(0, pairs.size() / 2), pairs.substr(pairs.size() / 2));
}

TEST_F(TqauthTest, ClientThatHasLeftIsNotAnswered) {
  test::Descriptor sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(authenticate(sock.get(), &user_), nullptr) << "no connection, and so no address";
  EXPECT_EQ(Pairs(), "");
}

TEST_F(TqauthTest, FailedNameIsReported) {
  EXPECT_EQ(Authenticate("box\nbert\na\nanna\nb\n"), "(refused)");
  EXPECT_EQ(User(), "anna");
  EXPECT_EQ(error_, EACCES);
}

TEST_F(TqauthTest, WithoutTheGroupOnlyRootIsAdmitted) {
  group_exists = false;
  EXPECT_EQ(Authenticate("box\nanna\nsecret\n"), "(refused)");
  EXPECT_EQ(Authenticate("box\nroot\nsecret\n"), "box");
}

TEST_F(TqauthTest, GroupMayBeLarge) {
  needed_buffer = 100000;
  EXPECT_EQ(Authenticate("box\nanna\nsecret\n"), "box");
  group_exists = false;
  file_entries = {{"others", {"bert"}}, {"qoruser", {"anna"}}};
  EXPECT_EQ(Authenticate("box\nanna\nsecret\n"), "box");
}

TEST_F(TqauthTest, AllEntriesOfTheFileAreSearched) {
  file_entries = {
      {"qoruser", {"carl", "anna"}}, {"qoruser2", {"bert"}}, {"qoruser", {}},
      {"Qoruser", {"bert"}},         {"qoruse", {"bert"}},   {"qoruser", {"dora", "emil"}}};
  for (const auto& [name, line] :
       {std::pair{"anna", "box"}, {"emil", "box"}, {"bert", "(refused)"}, {"emi", "(refused)"}}) {
    entries_read = 0;
    EXPECT_EQ(Authenticate("box\n" + std::string(name) + "\nsecret\n"), line) << name;
  }
}

TEST_F(TqauthTest, GroupThatOnlyTheDatabaseKnowsIsEnough) {
  file_entries = {{"others", {"bert"}}};
  EXPECT_EQ(Authenticate("box\nanna\nsecret\n"), "box");
  entries_read = 0;
  EXPECT_EQ(Authenticate("box\nbert\nsecret\n"), "(refused)");
}

// ---- Limits and failures ------------------------------------------------------------------------

TEST_F(TqauthTest, LinesHaveALimit) {
  const std::string pair = "\nroot\nsecret\n";
  EXPECT_EQ(Authenticate(std::string(900, 'x') + pair), std::string(900, 'x'));
  EXPECT_EQ(Authenticate(std::string(1024, 'x') + pair), "(refused)");
  EXPECT_EQ(Authenticate("box\n" + std::string(1024, 'x') + "\nsecret\n"), "(refused)");
  EXPECT_EQ(Authenticate("box\nroot\n" + std::string(1024, 'x') + "\n"), "(refused)");
  EXPECT_EQ(Pairs(), "root secret|");
}

TEST_F(TqauthTest, NulIsRefused) {
  for (const std::string& sent : {"b\0x\n"s, "box\nro\0ot\nsecret\n"s, "box\nroot\nsec\0ret\n"s}) {
    EXPECT_EQ(Authenticate(sent), "(refused)");
  }
  EXPECT_EQ(Pairs(), "");
}

TEST_F(TqauthTest, InputIsLimited) {
  const std::string rest = "box\nroot\nsecret\n";
  EXPECT_EQ(Authenticate(std::string(8192 - rest.size(), '\b') + rest), "box");
  EXPECT_EQ(Authenticate(std::string(8193 - rest.size(), '\b') + rest), "(refused)");
}

TEST_F(TqauthTest, ClientThatStopsIsRefused) {
  const std::string whole = "box\r\nroot\r\nsecret";
  for (size_t length = 0; length <= whole.size(); ++length) {
    EXPECT_EQ(Authenticate(whole.substr(0, length)), "(refused)") << length;
  }
  for (const char* telnet : {"\xFF", "\xFF\xFD", "\xFF\xFA", "\xFF\xFA\x1F\xFF"}) {
    EXPECT_EQ(Authenticate(telnet), "(refused)");
  }
  EXPECT_EQ(Pairs(), "");
}

TEST_F(TqauthTest, RunningOutOfTimeIsARefusal) {
  const FailCall failure(Call::kPoll, FailCall::kPretend);
  EXPECT_EQ(Authenticate("box\nroot\nsecret\n"), "(refused)");
}

/// Types "b", waits until it is read, and continues that many seconds later.
class SlowClientTest : public TqauthTest {
 protected:
  std::string AuthenticateAfter(time_t seconds) {
    const SocketPair pair;
    test::SendText(pair.theirs.get(), "b");
    std::thread client([&] {
      test::Eventually([&] {
        char byte = 0;
        return recv(pair.ours.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == -1;
      });
      clock_offset += seconds;
      test::SendText(pair.theirs.get(), "ox\nroot\nsecret\n");
    });
    const char* line = authenticate(pair.ours.get(), &user_);
    client.join();
    return line == nullptr ? "(refused)" : line;
  }
};

TEST_F(SlowClientTest, WholeExchangeHasTwoMinutes) {
  EXPECT_EQ(AuthenticateAfter(119), "box");
}

TEST_F(SlowClientTest, ClientThatKeepsTypingIsRefusedInTheEnd) {
  EXPECT_EQ(AuthenticateAfter(121), "(refused)");
  EXPECT_EQ(Pairs(), "");
}

// The test's own send is the first of those that are counted.
TEST_F(TqauthTest, FailedSendIsARefusal) {
  for (int number = 2; number <= 5; ++number) {
    const FailCall failure(Call::kSend, EPIPE, number, 1);
    EXPECT_EQ(Authenticate("box\nroot\nsecret\n"), "(refused)") << number;
  }
}

TEST_F(TqauthTest, HelperThatDoesNotSayYesIsARefusal) {
  for (const char* script : {"exit 1\n", "exit 128\n", "kill -KILL $$\n", "kill -SEGV $$\n"}) {
    Install(script);
    EXPECT_EQ(Authenticate("box\nroot\nsecret\nroot\nsecret\nroot\nsecret\n"), "(refused)")
        << script;
  }
  std::filesystem::remove(kHelper);
  EXPECT_EQ(Authenticate("box\nroot\nsecret\nroot\nsecret\nroot\nsecret\n"), "(refused)");
  test::WriteFile(kHelper, "");
  chmod(kHelper, 0755);
  EXPECT_EQ(Authenticate("box\nroot\nsecret\nroot\nsecret\nroot\nsecret\n"), "(refused)");
}

TEST_F(TqauthTest, LeavesNoDescriptorOpen) {
  const int before = dup(0);
  close(before);
  Authenticate("box\nroot\nwrong\nroot\nsecret\n");
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
}

// Whichever allocation fails, there is no line without the name, and neither a descriptor nor a
// child is left.
TEST_F(TqauthTest, RunningOutOfMemoryIsARefusal) {
  group_exists = false;
  file_entries = {{"others", {"bert"}}, {"qoruser", {"anna"}}};
  const int before = test::NextDescriptor();
  int refusals = 0;
  int number = 1;
  for (bool failed = true; failed; ++number) {
    entries_read = 0;
    const SocketPair pair;
    test::SendText(pair.theirs.get(), "box\nanna\nsecret\n");
    shutdown(pair.theirs.get(), SHUT_WR);
    char* user = nullptr;
    const char* line = nullptr;
    {
      const test::FailAllocation failure(number);
      line = authenticate(pair.ours.get(), &user);
      failed = failure.reached();
    }
    EXPECT_TRUE(line == nullptr || user == "anna"sv);
    EXPECT_TRUE(failed || line != nullptr) << "enough memory after " << number;
    if (line == nullptr) ++refusals;
    free(user);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }
  EXPECT_GT(refusals, 1);
  EXPECT_EQ(test::NextDescriptor(), before);
}

TEST_F(TqauthTest, LongestAnswersHave1023Characters) {
  const std::string longest(1023, 'x');
  EXPECT_EQ(Authenticate("box\nroot\n" + longest + "\nroot\n" + longest + "y\n"), "(refused)");
  EXPECT_EQ(Pairs(), "root " + longest + "|");
  // Erasing makes room.
  members.push_back(longest.c_str());
  EXPECT_EQ(Authenticate("box\n" + longest + "\b\x7F" + longest.substr(0, 2) + "\nsecret\n"),
            "(refused)")
      << "there is no room for the name in the line";
  EXPECT_THAT(Pairs(), ::testing::StartsWith("root " + longest + "|" + longest + " "));
  EXPECT_THAT(Pairs(), ::testing::Not(::testing::HasSubstr("secret")))
      << "the right password looks like a wrong one there";
}

}  // namespace
