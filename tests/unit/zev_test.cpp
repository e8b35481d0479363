// Start-up: options, detaching, and making what the threads share, and the threads.
#include "zev.h"

#include <fcntl.h>
#include <getopt.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "daemon_support.h"
#include "debug_support.h"
#include "error_steps.h"
#include "failure_support.h"
#include "file_support.h"
#include "lock_file.h"
#include "options.h"
#include "socket_support.h"
#include "waker.h"
#include "zev_steps.h"

using namespace zevd;

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StrEq;

/// The arguments of one run of the program.
class CommandLine {
 public:
  explicit CommandLine(std::vector<std::string> words) : words_(std::move(words)) {
    words_.insert(words_.begin(), "zevd");
    for (std::string& word : words_) pointers_.push_back(word.data());
    pointers_.push_back(nullptr);
  }

  void Parse() {
    optind = 0;  // makes getopt() start afresh
    progname = pointers_[0];
    GetCommandLineOptions(static_cast<int>(words_.size()), pointers_.data());
  }

 private:
  std::vector<std::string> words_;
  std::vector<char*> pointers_;
};

void Parse(std::vector<std::string> words) {
  CommandLine(std::move(words)).Parse();
}

// The same in the child of a death test, where what the program prints is matched.
void ParseInChild(std::vector<std::string> words) {
  test::SendDebugToStderr(debug_level);
  Parse(std::move(words));
}

class StartUpTest : public ::testing::Test {
 protected:
  test::OptionsGuard options_;
};

using CommandLineTest = StartUpTest;

// ---- Effects of the options ---------------------------------------------------------------------

TEST_F(CommandLineTest, NoOptionsLeaveTheDefaults) {
  Parse({});
  EXPECT_EQ(foreground, 0);
  EXPECT_EQ(user_port, 6500);
  EXPECT_EQ(USE_CMD_LINE_ARCH_TIME, 0);
}

TEST_F(CommandLineTest, EachSetsItsVariable) {
  Parse({"-a", "2w", "-d", "-7", "-f", "-p", "6501", "-s", "0", "-B", "4096", "-S", "0"});
  EXPECT_EQ(log_archive_time, 1209600);
  EXPECT_EQ(USE_CMD_LINE_ARCH_TIME, 1);
  EXPECT_EQ(debug_level, -7);
  EXPECT_EQ(foreground, 1);
  EXPECT_EQ(user_port, 6501);
  EXPECT_EQ(suppress_cr, 0);
  EXPECT_EQ(cons_buf_size, 4096);
  EXPECT_EQ(security_enabled, 0);
}

TEST_F(CommandLineTest, ArgumentsMayBeAttachedAndLettersJoined) {
  Parse({"-fd-7", "-p6502"});
  EXPECT_EQ(foreground, 1);
  EXPECT_EQ(debug_level, -7);
  EXPECT_EQ(user_port, 6502);
}

TEST_F(CommandLineTest, LaterOptionWins) {
  Parse({"-p", "1", "-p", "2"});
  EXPECT_EQ(user_port, 2);
}

TEST_F(CommandLineTest, PathsAreCopies) {
  std::string log_argument = "/tmp/logs";
  std::string config_argument = "/tmp/zev.conf";
  {
    CommandLine line({"-l", log_argument, "-c", config_argument});
    line.Parse();
  }  // the arguments are gone
  EXPECT_STREQ(log_dir, "/tmp/logs");
  EXPECT_STREQ(config_file, "/tmp/zev.conf");
  free(const_cast<char*>(log_dir));
  free(const_cast<char*>(config_file));
}

TEST_F(CommandLineTest, PathThatCannotBeCopiedEndsTheProcess) {
  for (const char* option : {"-c", "-l"}) {
    EXPECT_EXIT(
        {
          CommandLine line({option, "path"});
          test::SendDebugToStderr(kInfo);
          const test::FailAllocation failure(1);
          line.Parse();
        },
        ExitedWithCode(1),
        test::DebugReportsAre(
            ElementsAre("GetCommandLineOptions: malloc() failed : Cannot allocate memory\n",
                        test::IsExitTrace(1, "zev.cpp"))));
  }
}

struct PortCase {
  const char* argument;
  uint16_t port;
};

TEST_F(CommandLineTest, PortIsCutTo16Bits) {
  for (const PortCase& c : {PortCase{"70000", 4464}, PortCase{"65536", 0}, PortCase{"65535", 65535},
                            PortCase{"-1", 65535}, PortCase{"abc", 0}, PortCase{"23x", 23}}) {
    Parse({"-p", c.argument});
    EXPECT_EQ(user_port, c.port) << c.argument;
  }
}

TEST_F(CommandLineTest, NumbersAreNotChecked) {
  Parse({"-d", "nonsense", "-s", "7", "-B", "-3", "-S", "9x"});
  EXPECT_EQ(debug_level, 0);
  EXPECT_EQ(suppress_cr, 7);
  EXPECT_EQ(cons_buf_size, -3);
  EXPECT_EQ(security_enabled, 9);
  Parse({"-s", "x", "-B", "", "-S", "y"});
  EXPECT_EQ(suppress_cr, 0);
  EXPECT_EQ(cons_buf_size, 0);
  EXPECT_EQ(security_enabled, 0);
}

// ---- Options that end the process ---------------------------------------------------------------

TEST_F(CommandLineTest, UnknownOptionIsReportedByGetopt) {
  EXPECT_EXIT(ParseInChild({"-x"}), ExitedWithCode(1), StrEq("zevd: invalid option -- 'x'\n"));
}

TEST_F(CommandLineTest, MissingArgumentIsReportedByGetopt) {
  EXPECT_EXIT(ParseInChild({"-p"}), ExitedWithCode(1),
              StrEq("zevd: option requires an argument -- 'p'\n"));
  EXPECT_EXIT(ParseInChild({"-D"}), ExitedWithCode(1),
              StrEq("zevd: option requires an argument -- 'D'\n"));
}

TEST_F(CommandLineTest, OnDemandConnectionIsRefusedSilently) {
  EXPECT_EXIT(ParseInChild({"-D", "x"}), ExitedWithCode(1), StrEq(""));
}

TEST_F(CommandLineTest, RefusalLeavesTheExitTrace) {
  EXPECT_EXIT(ParseInChild({"-d", "1", "-D", "x"}), ExitedWithCode(1),
              test::DebugTextsAre(ElementsAre(test::IsExitTrace(1, "zev.cpp"))));
}

TEST_F(CommandLineTest, FirstWrongOptionStopsTheParsing) {
  EXPECT_EXIT(ParseInChild({"-x", "-h"}), ExitedWithCode(1),
              StrEq("zevd: invalid option -- 'x'\n"));
  EXPECT_EXIT(ParseInChild({"-D", "x", "-d", "1"}), ExitedWithCode(1), StrEq(""));
}

TEST_F(CommandLineTest, InvalidArchiveTimeIsReported) {
  EXPECT_EXIT(ParseInChild({"-a", "3x"}), ExitedWithCode(1), StrEq("Invalid option \"-a 3x\"\n"));
  EXPECT_EXIT(ParseInChild({"-a", ""}), ExitedWithCode(1), StrEq("Invalid option \"-a \"\n"));
  EXPECT_EXIT(ParseInChild({"-d1", "-a", "soon"}), ExitedWithCode(1),
              AllOf(HasSubstr("Invalid option \"-a soon\"\n"),
                    test::DebugTextsAre(ElementsAre(test::IsExitTrace(1, "zev.cpp")))));
}

constexpr char kUsage[] =
    "usage: zevd [options]\n"
    "\n"
    " options:\n"
    "   -a N[dw]          Archive log files every N days (d) or weeks (w).\n"
    "                     Default: 7 days\n"
    "   -c config_file    Configuration file containing consoles to monitor.\n"
    "                     Default: root/config/zev.conf\n"
    "   -d N              Set debug level to N\n"
    "                     Default: 0\n"
    "   -D                Connect to management ports only on demand.\n"
    "   -f                Run in foreground mode.\n"
    "   -h                Display this help message.\n"
    "   -l                Log file directory.\n"
    "                     Default: root/logs\n"
    "   -p N              Listen on port N for user connections.\n"
    "                     Default: 6500\n"
    "   -s { 0 | 1 }      Strip carriage returns from log files.\n"
    "                     Default: 1\n"
    "   -B N              Send up to N bytes of buffered console output when the\n"
    "                     user connects to the console.\n"
    "                     Default: 0\n"
    "   -S { 0 | 1 }      Turn on/off security.\n"
    "                     Default: 1\n"
    "   -V                Display version.\n";

TEST_F(CommandLineTest, UsageShowsTheDefaults) {
  EXPECT_EXIT(ParseInChild({"-h"}), ExitedWithCode(0), StrEq(kUsage));
}

constexpr char kUsageAfterOptions[] =
    "usage: zevd [options]\n"
    "\n"
    " options:\n"
    "   -a N[dw]          Archive log files every N days (d) or weeks (w).\n"
    "                     Default: 14 days\n"
    "   -c config_file    Configuration file containing consoles to monitor.\n"
    "                     Default: /etc/my.conf\n"
    "   -d N              Set debug level to N\n"
    "                     Default: -5\n"
    "   -D                Connect to management ports only on demand.\n"
    "   -f                Run in foreground mode.\n"
    "   -h                Display this help message.\n"
    "   -l                Log file directory.\n"
    "                     Default: /var/log\n"
    "   -p N              Listen on port N for user connections.\n"
    "                     Default: 4464\n"
    "   -s { 0 | 1 }      Strip carriage returns from log files.\n"
    "                     Default: 0\n"
    "   -B N              Send up to N bytes of buffered console output when the\n"
    "                     user connects to the console.\n"
    "                     Default: 1234\n"
    "   -S { 0 | 1 }      Turn on/off security.\n"
    "                     Default: 2\n"
    "   -V                Display version.\n";

TEST_F(CommandLineTest, UsageShowsWhatOptionsBeforeItHaveSet) {
  EXPECT_EXIT(ParseInChild({"-a", "2w", "-c", "/etc/my.conf", "-d", "-5", "-f", "-l", "/var/log",
                            "-p", "70000", "-s0", "-B", "1234", "-S", "2", "-h", "-p", "1"}),
              ExitedWithCode(0), StrEq(kUsageAfterOptions));
}

TEST_F(CommandLineTest, UsageShowsWholeDays) {
  EXPECT_EXIT(ParseInChild({"-a", "90m", "-h"}), ExitedWithCode(0),
              HasSubstr("weeks (w).\n                     Default: 0 days\n"));
  EXPECT_EXIT(ParseInChild({"-a", "2879m", "-h"}), ExitedWithCode(0),
              HasSubstr("weeks (w).\n                     Default: 1 days\n"));
}

TEST_F(CommandLineTest, UsageShowsTheDebugLevelAndLeavesTheExitTrace) {
  EXPECT_EXIT(ParseInChild({"-d", "5", "-h"}), ExitedWithCode(0),
              AllOf(HasSubstr("   -d N              Set debug level to N\n"
                              "                     Default: 5\n"),
                    HasSubstr("Exiting with code 0 from file zev.cpp line ")));
}

TEST_F(CommandLineTest, UsageNamesTheProgramAsItWasCalled) {
  EXPECT_EXIT((test::SendDebugToStderr(0), ShowUsage("/opt/bin/console daemon")), ExitedWithCode(0),
              HasSubstr("usage: /opt/bin/console daemon [options]\n\n"));
}

TEST_F(CommandLineTest, VersionIsShown) {
  EXPECT_EXIT(ParseInChild({"-V"}), ExitedWithCode(0),
              MatchesRegex("QOR version 1\\.2\\.3 build date "
                           "[A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9][0-9][0-9] "
                           "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\n"));
}

TEST_F(CommandLineTest, EntryLinesAreWritten) {
  const test::DebugCapture capture(kTrace);
  Parse({"-a", "3"});
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Entering GetCommandLineOptions\n", "Entering GetLogArchiveTime\n"));
}

// ---- GetLogArchiveTime --------------------------------------------------------------------------

struct ArchiveTime {
  const char* argument;
  int32_t seconds;
};

void PrintTo(const ArchiveTime& time, std::ostream* out) {
  *out << ::testing::PrintToString(std::string(time.argument));
}

class ArchiveTimeTest : public StartUpTest, public ::testing::WithParamInterface<ArchiveTime> {};

TEST_P(ArchiveTimeTest, IsConvertedAndStored) {
  EXPECT_EQ(GetLogArchiveTime(GetParam().argument), GetParam().seconds);
  EXPECT_EQ(log_archive_time, GetParam().seconds);
  EXPECT_EQ(USE_CMD_LINE_ARCH_TIME, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Units, ArchiveTimeTest,
    ::testing::Values(ArchiveTime{"2w", 1209600}, ArchiveTime{"3", 259200},
                      ArchiveTime{"3d", 259200}, ArchiveTime{"90m", 5400}, ArchiveTime{"0d", 0},
                      ArchiveTime{"0", 0}, ArchiveTime{"0w", 0}, ArchiveTime{"12345", 1066608000},
                      // Only the last character counts as the unit, and atoi() takes what it can.
                      ArchiveTime{"d", 0}, ArchiveTime{"w", 0}, ArchiveTime{"m", 0},
                      ArchiveTime{"xyz9", 0}, ArchiveTime{"7x1", 604800}, ArchiveTime{"1dm", 60},
                      ArchiveTime{" 1d", 86400}, ArchiveTime{"-1d", -86400},
                      ArchiveTime{"-2m", -120}));

INSTANTIATE_TEST_SUITE_P(Invalid, ArchiveTimeTest,
                         ::testing::Values(ArchiveTime{"", -1}, ArchiveTime{"x", -1},
                                           ArchiveTime{"3x", -1}, ArchiveTime{"3D", -1},
                                           ArchiveTime{"3W", -1}, ArchiveTime{"3M", -1},
                                           ArchiveTime{"3 ", -1}, ArchiveTime{"3d\n", -1},
                                           ArchiveTime{"-", -1}));

// Seconds have 32 bits and wrap round.
INSTANTIATE_TEST_SUITE_P(
    Wrapping, ArchiveTimeTest,
    ::testing::Values(ArchiveTime{"24855", 2147472000}, ArchiveTime{"24856", -2147408896},
                      ArchiveTime{"100000d", 50065408}, ArchiveTime{"7101w", -282496},
                      ArchiveTime{"2147483647m", -60}, ArchiveTime{"-2147483648w", 0}));

// ---- Initialize ---------------------------------------------------------------------------------

using InitializeTest = StartUpTest;

void CheckInitialized() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 512);
  setrlimit(RLIMIT_NOFILE, &limit);
  Initialize();
  std::set<int> descriptors;
  for (const Waker* waker :
       {&cons_conn_waker, &cons_mon_waker, &user_conn_waker, &user_mon_waker, &cmd_mon_waker}) {
    EXPECT_TRUE(test::IsOpen(waker->descriptor()));
    descriptors.insert(waker->descriptor());
  }
  EXPECT_THAT(descriptors, ::testing::SizeIs(5));
  getrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
}

TEST_F(InitializeTest, MakesWakersAndRoomForDescriptors) {
  EXPECT_HOLDS_IN_CHILD(CheckInitialized());
}

TEST_F(InitializeTest, MakesTheListsInTheirOrder) {
  EXPECT_EXIT((test::SendDebugToStderr(kTrace), Initialize(), _exit(0)), ExitedWithCode(0),
              test::DebugTextsAre(::testing::ResultOf(
                  [](const std::vector<std::string>& messages) {
                    return test::Containing(messages, "Entering Init");
                  },
                  ElementsAre("Entering Initialize\n", "Entering InitConsoleList\n",
                              "Entering InitConsoleList\n", "Entering InitUserList\n",
                              "Entering InitCommandList\n", "Entering InitEventSetList\n",
                              "Entering InitMappedPortList\n"))));
}

TEST_F(InitializeTest, EndsTheProcessWithoutWakers) {
  for (const int failing : {1, 2, 3}) {
    EXPECT_EXIT(
        {
          test::SendDebugToStderr(kInfo);
          const test::FailCall failure(test::Call::kEventfd, EMFILE, failing, 1);
          Initialize();
        },
        ExitedWithCode(1),
        test::DebugTextsAre(ElementsAre("Initialize: eventfd() failed : Too many open files\n",
                                        test::IsExitTrace(1, "zev.cpp"))));
  }
}

// ---- RunAsDaemon --------------------------------------------------------------------------------

constexpr char kOutput[] = "root/logs/zevd.log";
constexpr char kOldOutput[] = "root/logs/zevd.log.old";

class DaemonizeTest : public StartUpTest {
 protected:
  DaemonizeTest() : saved_umask_(umask(007)) {}
  ~DaemonizeTest() override { umask(saved_umask_); }

  test::StationRoot root_;

 private:
  mode_t saved_umask_;
};

// What the detached process does; it ends when the test asks it to.
[[noreturn]] void DetachAndWait() {
  if (Lock() != 0) _exit(2);
  RunAsDaemon();
  zev_debug(kError, "debug output\n");
  fprintf(stderr, "message\n");
  test::WriteFile("ready", getsid(0) == getpid() ? "in a session of its own" : "not detached");
  test::Eventually([] { return std::filesystem::exists("end"); });
  _exit(0);
}

bool AnotherHoldsTheLock() {
  const test::Descriptor file(open("root/config/zev.lock", O_RDWR | O_CLOEXEC));
  return flock(file.get(), LOCK_EX | LOCK_NB) != 0;
}

/// A detached process that has started. The destructor waits until it has ended.
class DetachedProcess {
 public:
  DetachedProcess() {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) DetachAndWait();
    waitpid(child, &status_, 0);
    ready_ = test::Eventually([] {
      return std::filesystem::exists("ready") &&
             test::ReadFile("ready") == "in a session of its own";
    });
  }
  ~DetachedProcess() {
    test::WriteFile("end", "");
    EXPECT_TRUE(test::Eventually([] { return !AnotherHoldsTheLock(); }));
  }
  DetachedProcess(const DetachedProcess&) = delete;
  DetachedProcess& operator=(const DetachedProcess&) = delete;

  int status() const { return status_; }  ///< of the process that was started
  bool ready() const { return ready_; }

 private:
  int status_ = -1;
  bool ready_ = false;
};

TEST_F(DaemonizeTest, ProcessDetachesAndWritesToItsFile) {
  const DetachedProcess process;
  EXPECT_EQ(process.status(), 0);
  ASSERT_TRUE(process.ready());
  const std::string output = test::ReadFile(kOutput);
  EXPECT_THAT(test::ParseDebugOutput(output).at(0).text, HasSubstr("debug output\n"));
  EXPECT_THAT(output, HasSubstr("message\n"));
  EXPECT_FALSE(std::filesystem::exists(kOldOutput));
}

TEST_F(DaemonizeTest, DetachedProcessHoldsTheLock) {
  const DetachedProcess process;
  ASSERT_TRUE(process.ready());
  EXPECT_TRUE(AnotherHoldsTheLock());
}

TEST_F(DaemonizeTest, EarlierOutputIsKeptUnderTheOldName) {
  test::WriteFile(kOutput, "the run before\n");
  test::WriteFile(kOldOutput, "the run before that\n");
  const DetachedProcess process;
  ASSERT_TRUE(process.ready());
  EXPECT_EQ(test::ReadFile(kOldOutput), "the run before\n");
  EXPECT_THAT(test::ReadFile(kOutput), ::testing::Not(HasSubstr("the run before")));
}

TEST_F(DaemonizeTest, OutputFileHasTheRootsGroupAndItsMode) {
  constexpr gid_t kGroup = 12345;
  // Without the right to do so the root keeps its group, and the file must have it too.
  [[maybe_unused]] const int ignored = chown("root", static_cast<uid_t>(-1), kGroup);
  const DetachedProcess process;
  ASSERT_TRUE(process.ready());
  struct stat root {};
  struct stat file {};
  ASSERT_EQ(stat("root", &root), 0);
  ASSERT_EQ(stat(kOutput, &file), 0);
  EXPECT_EQ(file.st_gid, root.st_gid);
  EXPECT_EQ(file.st_uid, geteuid());
  EXPECT_EQ(file.st_mode & 07777U, 0770U);
}

TEST_F(DaemonizeTest, LockThatCannotBeReleasedEndsTheProcess) {
  EXPECT_EXIT(
      {
        if (Lock() != 0) _exit(2);
        test::SendDebugToStderr(0);
        const test::FailCall failure(test::Call::kFlock, ENOLCK);
        RunAsDaemon();
      },
      ExitedWithCode(1), StrEq("Unlock() failed.\n"));
}

TEST_F(DaemonizeTest, FailureToDetachEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kInfo);
        const test::FailCall failure(test::Call::kDaemon, EAGAIN);
        RunAsDaemon();
      },
      ExitedWithCode(1),
      test::DebugTextsAre(
          ElementsAre("RunAsDaemon: daemon() failed : Resource temporarily unavailable\n",
                      test::IsExitTrace(1, "zev.cpp"))));
}

// From here on the process only pretends to detach, so that the test sees how it ends.

TEST_F(DaemonizeTest, MissingLogDirectoryEndsTheProcess) {
  std::filesystem::remove_all("root/logs");
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kInfo);
        const test::FailCall pretence(test::Call::kDaemon, test::FailCall::kPretend);
        RunAsDaemon();
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("RunAsDaemon: open() failed : No such file or directory\n",
                                      test::IsExitTrace(1, "zev.cpp"))));
}

TEST_F(DaemonizeTest, GroupThatCannotBeSetEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kInfo);
        const test::FailCall pretence(test::Call::kDaemon, test::FailCall::kPretend);
        const test::FailCall fchown(test::Call::kFchown, EPERM);
        RunAsDaemon();
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("RunAsDaemon: chown failed : Operation not permitted\n",
                                      test::IsExitTrace(1, "zev.cpp"))));
}

TEST_F(DaemonizeTest, LockThatAnotherHasTakenEndsTheProcess) {
  const test::Descriptor other(open("root/config/zev.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0660));
  ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_EXIT(
      {
        const test::FailCall pretence(test::Call::kDaemon, test::FailCall::kPretend);
        RunAsDaemon();
      },
      ExitedWithCode(1), StrEq(""));
  EXPECT_THAT(test::DebugMessages(test::ReadFile(kOutput)),
              ElementsAre("zevd is already running on this machine.\n"));
}

TEST_F(DaemonizeTest, OutputGoesToTheDirectoryOfTheOption) {
  std::filesystem::create_directory("elsewhere");
  log_dir = "elsewhere";
  EXPECT_EXIT(
      {
        const test::FailCall pretence(test::Call::kDaemon, test::FailCall::kPretend);
        RunAsDaemon();
        zev_debug(kError, "here\n");
        _exit(0);
      },
      ExitedWithCode(0), StrEq(""));
  EXPECT_THAT(test::DebugMessages(test::ReadFile("elsewhere/zevd.log")), ElementsAre("here\n"));
}

// ---- Thread creation ----------------------------------------------------------------------------

struct ThreadCase {
  std::string name;
  void (*create)();
  std::string function;
};

void PrintTo(const ThreadCase& thread, std::ostream* out) {
  *out << thread.name;
}

class ThreadCreationTest : public StartUpTest, public ::testing::WithParamInterface<ThreadCase> {};

INSTANTIATE_TEST_SUITE_P(
    Threads, ThreadCreationTest,
    ::testing::Values(
        ThreadCase{"cons_conn", CreateConsoleConnectionsThread, "CreateConsoleConnectionsThread"},
        ThreadCase{"user_conn", CreateUserConnectionsThread, "CreateUserConnectionsThread"},
        ThreadCase{"user_mon", CreateUserMonitorThread, "CreateUserMonitorThread"},
        ThreadCase{"cmd_mon", CreateCommandMonitorThread, "CreateCommandMonitorThread"}),
    [](const auto& test_case) { return test_case.param.name; });

TEST_P(ThreadCreationTest, FailureEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kInfo);
        const test::FailCall failure(test::Call::kPthreadCreate, EAGAIN);
        GetParam().create();
      },
      ExitedWithCode(1),
      test::DebugReportsAre(ElementsAre(
          GetParam().function + ": pthread_create() failed : Resource temporarily unavailable\n",
          test::IsExitTrace(1, "zev.cpp"))));
}

TEST_P(ThreadCreationTest, FailurePostsTheTerminationEvent) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kTrace);
        const test::FailCall failure(test::Call::kPthreadCreate, EAGAIN);
        GetParam().create();
      },
      ExitedWithCode(1),
      test::DebugTextsAre(AllOf(Contains("Entering " + GetParam().function + "\n"),
                                Contains("PostJixEvent: template=qor.zevd.daemon.error "
                                         "message=Terminated: Couldn't create " +
                                         GetParam().name + " thread -=- priority=700\n"))));
}

bool IsRegistered(const std::string& name) {
  return std::any_of(std::begin(thread_name_list.slot), std::end(thread_name_list.slot),
                     [&](const ThreadName& slot) { return slot.in_use == 1 && slot.name == name; });
}

// The signals that a thread of this process blocks, one bit for each.
unsigned long BlockedSignals(const std::filesystem::path& task) {
  constexpr std::string_view kField = "SigBlk:\t";
  const std::string status = test::ReadFile(task / "status");
  return std::stoul(status.substr(status.find(kField) + kField.size(), 16), nullptr, 16);
}

bool EveryThreadButTheMainOneBlocks(int signum) {
  const std::filesystem::path main_thread = "/proc/self/task/" + std::to_string(getpid());
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::all_of(begin(tasks), end(tasks), [&](const auto& task) {
    const bool blocks = ((BlockedSignals(task.path()) >> (signum - 1)) & 1) != 0;
    return blocks == (task.path() != main_thread);
  });
}

/// The children have threads.
class ThreadStartTest : public StartUpTest {
 protected:
  ThreadStartTest() { test::StartChildrenAfresh(); }
};

void StartThreads() {
  Initialize();
  CreateConsoleConnectionsThread();
  CreateUserMonitorThread();
  CreateCommandMonitorThread();
}

TEST_F(ThreadStartTest, ThreadsLeaveTheTermSignalToTheMainThread) {
  EXPECT_HOLDS_IN_CHILD({
    StartThreads();
    EXPECT_TRUE(test::Eventually([] { return EveryThreadButTheMainOneBlocks(SIGTERM); }));
  });
}

TEST_F(ThreadStartTest, ThreadsRegisterTheirNames) {
  EXPECT_HOLDS_IN_CHILD({
    StartThreads();
    for (const char* name : {"cons_conn", "user_mon", "cmd_mon"}) {
      EXPECT_TRUE(test::Eventually([&] { return IsRegistered(name); })) << name;
    }
  });
}

}  // namespace
