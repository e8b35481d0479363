// What the unit tests share: captured debug output, a private station root, sockets, consoles and
// failures on demand.
//
// The tests link a copy of the daemon whose root directory is the relative path "root". A test that
// needs files there declares a StationRoot, which gives it a working directory of its own; tests
// may therefore run side by side and leave the machine as it was.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cons_conn.h"
#include "console.h"
#include "console_lists.h"
#include "error.h"
#include "lists.h"
#include "options.h"
#include "threads.h"
#include "zev.h"

namespace test {

// ---- Debug output -------------------------------------------------------------------------------

/// One message as zev_debug() wrote it. The line that reports repetitions has no thread name.
struct DebugLine {
  std::string stamp;   ///< "yy/mm/dd_HH:MM:SS"
  std::string thread;  ///< empty in the line that reports repetitions
  std::string text;    ///< the message with its newline
};

std::vector<DebugLine> ParseDebugOutput(std::string_view output);

/// The texts alone, in order.
std::vector<std::string> DebugMessages(std::string_view output);

/// Those that do not begin with "Entering ".
std::vector<std::string> WithoutEntries(const std::vector<std::string>& messages);

/// Those that are neither entry lines nor about the posting of events: what is said about the event
/// manager depends on what was said before.
std::vector<std::string> Reports(const std::vector<std::string>& messages);

/// Those that contain `part`.
std::vector<std::string> Containing(const std::vector<std::string>& messages,
                                    std::string_view part);

/// Redirects standard output for as long as it lives and sets debug_level. The first message is
/// never taken for a repetition of one written before. When the test has failed, the captured
/// output is shown at the end.
class DebugCapture {
 public:
  explicit DebugCapture(int level = kInfo);
  ~DebugCapture();
  DebugCapture(const DebugCapture&) = delete;
  DebugCapture& operator=(const DebugCapture&) = delete;

  std::string Output() const;                 ///< everything so far, as written
  std::vector<DebugLine> Lines() const;       ///< everything so far, parsed
  std::vector<std::string> Messages() const;  ///< the texts of Lines()
  std::vector<std::string> NewMessages();     ///< those since the last call
  bool Has(std::string_view message) const;   ///< some text equals `message`
  int Count(std::string_view message) const;  ///< texts that equal `message`

 private:
  int saved_stdout_;
  int saved_level_;
  int file_;
  off_t start_ = 0;
  size_t reported_ = 0;
};

/// Makes standard output that of standard error, in the child of a death test. What the program has
/// not written yet goes out before, or it would come after the debug output, which is not buffered.
void JoinStandardOutput();

/// The first call of zev_debug() is the main thread's, before there is another. For tests that
/// start threads and have no other fixture of this header.
void StartDebugOutput();

/// In the child of a death test: what goes to standard output is matched like standard error.
void SendDebugToStderr(int level);

/// For death tests: the texts of the debug lines that a dying process wrote.
MATCHER_P(DebugTextsAre, inner,
          "debug texts, of which " +
              ::testing::DescribeMatcher<std::vector<std::string>>(inner, negation)) {
  return ::testing::ExplainMatchResult(inner, DebugMessages(arg), result_listener);
}

/// The same without entry lines and lines about the posting of events.
MATCHER_P(DebugReportsAre, inner,
          "debug texts, of which " +
              ::testing::DescribeMatcher<std::vector<std::string>>(inner, negation)) {
  return ::testing::ExplainMatchResult(inner, Reports(DebugMessages(arg)), result_listener);
}

/// The exit trace, whatever its line number.
MATCHER_P2(IsExitTrace, code, file,
           "is the exit trace with code " + std::to_string(code) + " from file " + file) {
  const std::string start =
      "Exiting with code " + std::to_string(code) + " from file " + file + " line ";
  if (arg.compare(0, start.size(), start) != 0) return false;
  const std::string line = arg.substr(start.size());
  return line.size() > 1 && line.back() == '\n' &&
         line.find_first_not_of("0123456789") == line.size() - 1;
}

/// The line at level 2 that announces a daemon error event of the usual priority; its wording is
/// free.
MATCHER_P(AnnouncesDaemonError, text, "") {
  using ::testing::AllOf;
  using ::testing::HasSubstr;
  using ::testing::StartsWith;
  return ::testing::ExplainMatchResult(
      AllOf(StartsWith("PostJixEvent: "), HasSubstr("qor.zevd.daemon.error"), HasSubstr(text),
            HasSubstr("700")),
      arg, result_listener);
}

/// Ends a death test's child with status 0 when its expectations held: a test of something that
/// changes the process for good runs in a child.
[[noreturn]] void EndChild();
#define EXPECT_HOLDS_IN_CHILD(...) \
  EXPECT_EXIT(                     \
      {                            \
        __VA_ARGS__;               \
        ::test::EndChild();        \
      },                           \
      ::testing::ExitedWithCode(0), "")

// ---- Options and lists --------------------------------------------------------------------------

/// The plainest member that a list with sockets can have, and its element.
struct Node {
  int sock = -1;
};

struct Elem {
  Node* node;
  Elem* prev;
  Elem* next;
  uint64_t place;
};

/// Puts every option and shared word back to what it was, and u_err_msg to null.
class OptionsGuard {
 public:
  OptionsGuard();
  ~OptionsGuard();
  OptionsGuard(const OptionsGuard&) = delete;
  OptionsGuard& operator=(const OptionsGuard&) = delete;

 private:
  int debug_level_, security_enabled_, cons_buf_size_, suppress_cr_, foreground_;
  int32_t log_archive_time_;
  int use_cmd_line_arch_time_;
  uint16_t user_port_;
  int max_pending_logins_;
  const char *log_dir_, *config_file_, *progname_;
};

/// Makes the global lists as Initialize() does; at the end frees what is on them (users and
/// consoles included, no socket closed) and leaves them empty.
class GlobalLists {
 public:
  GlobalLists();
  ~GlobalLists();
  GlobalLists(const GlobalLists&) = delete;
  GlobalLists& operator=(const GlobalLists&) = delete;
};

/// Most tests want both.
class DaemonTest : public ::testing::Test {
 protected:
  OptionsGuard options_;
  GlobalLists lists_;
};

// ---- Files --------------------------------------------------------------------------------------

/// A new directory in the build tree, removed with all it holds.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// A working directory of the test's own with the station's "root/config", "root/logs" and
/// "root/run". Death tests that use it keep the "fast" style, in which the child inherits it.
class StationRoot {
 public:
  StationRoot();
  ~StationRoot();
  StationRoot(const StationRoot&) = delete;
  StationRoot& operator=(const StationRoot&) = delete;

 private:
  TemporaryDirectory directory_;
  std::filesystem::path former_;
};

void WriteFile(const std::filesystem::path& path, std::string_view content);
std::string ReadFile(const std::filesystem::path& path);

// ---- Sockets ------------------------------------------------------------------------------------

/// Closes what it holds.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { Reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  int Release();
  void Reset(int fd = -1);

 private:
  int fd_;
};

/// Two connected stream sockets: the daemon's end and its peer's.
struct SocketPair {
  SocketPair();
  Descriptor ours;
  Descriptor theirs;
};

/// A listening TCP socket on 127.0.0.1, at a port that the system chose.
class Listener {
 public:
  Listener();
  uint16_t port() const { return port_; }
  int get() const { return sock_.get(); }
  Descriptor Accept() const;
  void Close() { sock_.Reset(); }

 private:
  Descriptor sock_;
  uint16_t port_ = 0;
};

/// A TCP port on 127.0.0.1 at which nobody listens and that no other program is given meanwhile.
class RefusingPort {
 public:
  RefusingPort();
  uint16_t port() const { return port_; }

 private:
  Descriptor sock_;
  uint16_t port_ = 0;
};

bool IsOpen(int fd);

/// Waits until the condition holds; false after 10 seconds.
bool Eventually(const std::function<bool()>& condition);

/// Waits for something to read (end of stream included); false after 10 seconds.
bool WaitReadable(int sock);
void SendText(int sock, std::string_view text);

/// Exactly `count` bytes; less only at end of stream or after 10 seconds without any.
std::string Receive(int sock, size_t count);

/// What is there now.
std::string ReceiveAvailable(int sock);

// ---- Consoles -----------------------------------------------------------------------------------

/// An enabled console at 127.0.0.1 without ports, logging or events.
ConsoleSettings Settings(const char* name);

struct ConsoleDeleter {
  void operator()(ConsoleNode* cnode) const { FreeConsoleNode(cnode); }
};
using ConsolePtr = std::unique_ptr<ConsoleNode, ConsoleDeleter>;

/// A console that is on no list.
ConsolePtr MakeConsole(const char* name);

/// A new console at the tail of `list`, which owns it.
ConsoleNode* AddConsole(ConsoleList* list, const char* name, int sock = -1,
                        int status = kNotConnected);

/// The names of a list's consoles, in order.
std::vector<std::string> Names(const ConsoleList& list);

// ---- The relay

/// A console or a user, and the other end of its connection.
template <typename Node>
struct Attached {
  Node* node;
  Descriptor peer;
};

/// Puts a user on the console's list and on user_list, without greeting.
Attached<UserNode> AttachUser(ConsoleNode* cnode, const char* name, int mode = kShared);

/// Puts a connected console on a_cons_list.
Attached<ConsoleNode> ConnectConsole(const char* name);

/// For what relays: SIGPIPE is blocked, the wakers are open, and it is no news that there is no
/// event manager. Sockets of users and consoles that are still on the lists are closed at the end.
class RelayTest : public DaemonTest {
 protected:
  RelayTest();
  ~RelayTest() override;
};

// ---- Events -------------------------------------------------------------------------------------

/// Listens where the event manager of a StationRoot does; takes the place of one before it.
class EventCollector {
 public:
  EventCollector();
  Descriptor Accept() const;

 private:
  Descriptor sock_;
};

/// The next line with its newline; less only at end of stream or after 10 seconds.
std::string ReceiveLine(int sock);

// ---- Failures on demand -------------------------------------------------------------------------
// They concern the calling thread alone, and only calls from the daemon's and the tests' own code.

/// Makes allocations fail (operator new, calloc, realloc and strdup, counted together from 1).
class FailAllocation {
 public:
  static constexpr int kForEver = 1 << 30;
  explicit FailAllocation(int first, int count = 1);
  ~FailAllocation();
  FailAllocation(const FailAllocation&) = delete;
  FailAllocation& operator=(const FailAllocation&) = delete;

  int calls() const;     ///< allocations so far
  bool reached() const;  ///< at least one has failed
};

/// System and library calls that can be made to fail.
enum class Call {
  kAccept,
  kConnect,
  kDaemon,
  kEpollCreate,
  kEpollCtl,
  kEventfd,
  kFchown,
  kFlock,
  kFtruncate,
  kGethostname,
  kMutexLock,
  kPoll,
  kPpoll,
  kPthreadCreate,
  kRdlock,
  kRecv,
  kRwlockInit,
  kRwlockUnlock,
  kSelect,
  kSend,
  kSigaction,
  kSigprocmask,
  kSocket,
  kTryrdlock,
  kTrywrlock,
  kUsleep,
  kWrite,
  kWrlock,
  kCount,
};

/// Makes calls number `first` to `first + count - 1` fail with `error`; with `count` 0 it only
/// counts. One for each call at a time.
class FailCall {
 public:
  static constexpr int kForEver = 1 << 30;
  /// In place of an error: the call is not made and returns 0.
  static constexpr int kPretend = -1;
  explicit FailCall(Call call, int error, int first = 1, int count = kForEver);
  ~FailCall();
  FailCall(const FailCall&) = delete;
  FailCall& operator=(const FailCall&) = delete;

  int calls() const;

 private:
  Call call_;
};

/// Whenever the calling thread looks at the monotonic clock, `step` microseconds have passed.
class FakePassageOfTime {
 public:
  explicit FakePassageOfTime(int64_t step);
  ~FakePassageOfTime();
  FakePassageOfTime(const FakePassageOfTime&) = delete;
  FakePassageOfTime& operator=(const FakePassageOfTime&) = delete;

  /// So many microseconds pass now, whoever looks.
  void Pass(int64_t microseconds);
};

/// time() and gettimeofday() as the test wants them.
class FakeClock {
 public:
  explicit FakeClock(time_t now = 1'000'000'000);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  time_t now() const;
  void Set(time_t now);
  void Advance(time_t seconds);

  /// Every call of usleep() sleeps not at all and advances the clock by whole seconds.
  void AdvanceOnSleep(time_t seconds);

  /// Every call of usleep() runs `action` with its argument in place of sleeping.
  void OnSleep(std::function<void(useconds_t)> action);

  /// The microseconds field of gettimeofday(); 0 at first.
  void SetMicroseconds(suseconds_t microseconds);

  /// The arguments of usleep() so far.
  const std::vector<useconds_t>& sleeps() const;
};

}  // namespace test
