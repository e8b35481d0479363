#include "support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "attach.h"
#include "cancellation.h"
#include "clock.h"
#include "event.h"
#include "fixed_text.h"
#include "serv_conn.h"
#include "signal_hold.h"
#include "sockets.h"
#include "user.h"
#include "user_conn.h"
#include "util.h"
#include "waker.h"
#include "zev_signal.h"

namespace test {

namespace {

// As main() does it.
[[maybe_unused]] const bool posts_daemon_errors = [] {
  PostDaemonErrorsToJix();
  return true;
}();

constexpr int kPatience = 10'000;  // milliseconds

[[noreturn]] void ThrowErrno(const char* call) {
  throw std::system_error(errno, std::generic_category(), call);
}

int Check(int result, const char* call) {
  if (result == -1) ThrowErrno(call);
  return result;
}

}  // namespace

// ---- Debug output -------------------------------------------------------------------------------

namespace {

constexpr std::string_view kPrefix = "ZEV ";
constexpr std::string_view kStampShape = "00/00/00_00:00:00";

// True when a line of zev_debug() begins at `at`.
bool LineBeginsAt(std::string_view output, size_t at) {
  if (output.substr(at, kPrefix.size()) != kPrefix) return false;
  const std::string_view stamp = output.substr(at + kPrefix.size(), kStampShape.size());
  const auto fits = [](char actual, char shape) {
    return shape == '0' ? actual >= '0' && actual <= '9' : actual == shape;
  };
  return std::equal(stamp.begin(), stamp.end(), kStampShape.begin(), kStampShape.end(), fits);
}

size_t NextLine(std::string_view output, size_t from) {
  for (size_t at = output.find(kPrefix, from); at != std::string_view::npos;
       at = output.find(kPrefix, at + 1)) {
    if (LineBeginsAt(output, at)) return at;
  }
  return output.size();
}

DebugLine ParseLine(std::string_view line) {
  constexpr std::string_view kThreadStart = ":<";
  constexpr std::string_view kThreadEnd = ">: ";
  DebugLine parsed;
  parsed.stamp = line.substr(kPrefix.size(), kStampShape.size());
  line.remove_prefix(kPrefix.size() + kStampShape.size());
  if (line.substr(0, kThreadStart.size()) == kThreadStart) {
    const size_t end = line.find(kThreadEnd);
    parsed.thread = line.substr(kThreadStart.size(), end - kThreadStart.size());
    line.remove_prefix(end + kThreadEnd.size());
  } else {
    line.remove_prefix(strlen(": "));
  }
  parsed.text = line;
  return parsed;
}

// Makes sure that the next message differs from the last, and that its repetitions are reported.
void EndRepetitions() {
  static std::atomic<int> number{0};
  debug_level = std::max(debug_level, static_cast<int>(kError));
  zev_debug(kError, "-- output %d --\n", ++number);
}

}  // namespace

std::vector<DebugLine> ParseDebugOutput(std::string_view output) {
  std::vector<DebugLine> lines;
  for (size_t at = NextLine(output, 0); at < output.size();) {
    const size_t next = NextLine(output, at + 1);
    lines.push_back(ParseLine(output.substr(at, next - at)));
    at = next;
  }
  return lines;
}

std::vector<std::string> DebugMessages(std::string_view output) {
  std::vector<std::string> messages;
  for (DebugLine& line : ParseDebugOutput(output)) messages.push_back(std::move(line.text));
  return messages;
}

namespace {

using Predicate = bool (*)(const std::string&);

std::vector<std::string> Without(const std::vector<std::string>& messages, Predicate unwanted) {
  std::vector<std::string> others;
  std::remove_copy_if(messages.begin(), messages.end(), std::back_inserter(others), unwanted);
  return others;
}

bool IsEntry(const std::string& text) {
  return text.rfind("Entering ", 0) == 0;
}

bool IsAboutEvents(const std::string& text) {
  return text.rfind("ConnectToJix: ", 0) == 0 || text.rfind("PostJixEvent: ", 0) == 0;
}

}  // namespace

std::vector<std::string> WithoutEntries(const std::vector<std::string>& messages) {
  return Without(messages, IsEntry);
}

std::vector<std::string> Reports(const std::vector<std::string>& messages) {
  return Without(messages,
                 [](const std::string& text) { return IsEntry(text) || IsAboutEvents(text); });
}

std::vector<std::string> Containing(const std::vector<std::string>& messages,
                                    std::string_view part) {
  std::vector<std::string> found;
  std::copy_if(messages.begin(), messages.end(), std::back_inserter(found),
               [&](const std::string& text) { return text.find(part) != std::string::npos; });
  return found;
}

DebugCapture::DebugCapture(int level)
    : saved_stdout_(Check(dup(STDOUT_FILENO), "dup")),
      saved_level_(debug_level),
      file_(Check(memfd_create("debug output", MFD_CLOEXEC), "memfd_create")) {
  fflush(stdout);
  dup2(file_, STDOUT_FILENO);
  EndRepetitions();
  start_ = lseek(file_, 0, SEEK_CUR);
  debug_level = level;
}

DebugCapture::~DebugCapture() {
  fflush(stdout);
  const std::string output = ::testing::Test::HasFailure() ? Output() : "";
  dup2(saved_stdout_, STDOUT_FILENO);
  close(saved_stdout_);
  close(file_);
  debug_level = saved_level_;
  fwrite(output.data(), 1, output.size(), stdout);
}

std::string DebugCapture::Output() const {
  struct stat file {};
  fstat(file_, &file);
  std::string output(static_cast<size_t>(file.st_size - start_), '\0');
  const ssize_t count = pread(file_, output.data(), output.size(), start_);
  output.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  return output;
}

std::vector<DebugLine> DebugCapture::Lines() const {
  return ParseDebugOutput(Output());
}

std::vector<std::string> DebugCapture::Messages() const {
  return DebugMessages(Output());
}

std::vector<std::string> DebugCapture::NewMessages() {
  std::vector<std::string> messages = Messages();
  messages.erase(messages.begin(), messages.begin() + static_cast<ptrdiff_t>(reported_));
  reported_ += messages.size();
  return messages;
}

bool DebugCapture::Has(std::string_view message) const {
  return Count(message) > 0;
}

int DebugCapture::Count(std::string_view message) const {
  const std::vector<std::string> messages = Messages();
  return static_cast<int>(std::count(messages.begin(), messages.end(), message));
}

void StartDebugOutput() {
  zev_debug(kTrace, "Entering %s\n", "main");
}

void JoinStandardOutput() {
  fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
}

void SendDebugToStderr(int level) {
  fflush(stdout);
  const Descriptor nowhere(Check(open("/dev/null", O_WRONLY | O_CLOEXEC), "open"));
  dup2(nowhere.get(), STDOUT_FILENO);
  EndRepetitions();
  dup2(STDERR_FILENO, STDOUT_FILENO);
  debug_level = level;
}

void EndChild() {
  fflush(stdout);
  // The parent shows what is written here; what failed is not printed by itself in a child.
  const ::testing::TestResult& result =
      *::testing::UnitTest::GetInstance()->current_test_info()->result();
  for (int i = 0; i < result.total_part_count(); ++i) {
    const ::testing::TestPartResult& part = result.GetTestPartResult(i);
    fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
  }
  exit(result.Failed() ? 1 : 0);
}

// ---- Options and lists --------------------------------------------------------------------------

OptionsGuard::OptionsGuard()
    : debug_level_(debug_level),
      security_enabled_(security_enabled),
      cons_buf_size_(cons_buf_size),
      suppress_cr_(suppress_cr),
      foreground_(foreground),
      log_archive_time_(log_archive_time),
      use_cmd_line_arch_time_(USE_CMD_LINE_ARCH_TIME),
      user_port_(user_port),
      max_pending_logins_(max_pending_logins),
      log_dir_(log_dir),
      config_file_(config_file),
      progname_(progname) {}

OptionsGuard::~OptionsGuard() {
  debug_level = debug_level_;
  security_enabled = security_enabled_;
  cons_buf_size = cons_buf_size_;
  suppress_cr = suppress_cr_;
  foreground = foreground_;
  log_archive_time = log_archive_time_;
  USE_CMD_LINE_ARCH_TIME = use_cmd_line_arch_time_;
  user_port = user_port_;
  max_pending_logins = max_pending_logins_;
  log_dir = log_dir_;
  config_file = config_file_;
  progname = progname_;
  u_err_msg = nullptr;
  thread_waitreq_mask = 0;
  thread_waiting_mask = 0;
}

namespace {

template <typename L>
void FreeName(L* list) {
  free(const_cast<char*>(list->list_name));
  list->list_name = nullptr;
}

void FreeUsers(UserList* list) {
  for (UserNode* unode : Nodes(*list)) delete unode;
}

// Leaves the list as it was before it was made.
template <typename L>
void Forget(L* list) {
  DropElements(*list);
  list->count = 0;
  Recompute(*list);
  FreeName(list);
}

void FreeCommands(CommandList* list) {
  for (CommandNode* cnode : Nodes(*list)) FreeCommandNode(cnode);
}

void FreeMappedPorts(MappedPortList* list) {
  for (MappedPortNode* mpnode : Nodes(*list)) FreeMappedPortNode(mpnode);
}

}  // namespace

GlobalLists::GlobalLists() {
  InitConsoleList(a_cons_list, "a_cons_list");
  InitConsoleList(i_cons_list, "i_cons_list");
  InitUserList(user_list, "user_list");
  InitCommandList(cmd_list, "cmd_list");
  InitEventSetList(ev_list, "ev_list");
  InitMappedPortList(mapped_port_list, "mapped_port_list");
}

GlobalLists::~GlobalLists() {
  FreeUsers(user_list);
  Forget(user_list);
  EmptyConsoleList(a_cons_list);
  Forget(a_cons_list);
  EmptyConsoleList(i_cons_list);
  Forget(i_cons_list);
  FreeCommands(cmd_list);
  Forget(cmd_list);
  EmptyEventSetList(ev_list);
  Forget(ev_list);
  FreeMappedPorts(mapped_port_list);
  Forget(mapped_port_list);
}

// ---- Files --------------------------------------------------------------------------------------

TemporaryDirectory::TemporaryDirectory() {
  std::filesystem::create_directories(ZEVD_UNIT_SCRATCH);
  std::string name = ZEVD_UNIT_SCRATCH "/XXXXXX";
  if (mkdtemp(name.data()) == nullptr) ThrowErrno("mkdtemp");
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

StationRoot::StationRoot() : former_(std::filesystem::current_path()) {
  for (const char* part : {"config", "logs", "run"}) {
    std::filesystem::create_directories(directory_.path() / "root" / part);
  }
  std::filesystem::current_path(directory_.path());
}

StationRoot::~StationRoot() {
  std::filesystem::current_path(former_);
}

void WriteFile(const std::filesystem::path& path, std::string_view content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.exceptions(std::ios::failbit | std::ios::badbit);
  file << content << std::flush;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) ThrowErrno("open");
  return {std::istreambuf_iterator<char>(file), {}};
}

// ---- Sockets ------------------------------------------------------------------------------------

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  Reset(other.Release());
  return *this;
}

int Descriptor::Release() {
  return std::exchange(fd_, -1);
}

void Descriptor::Reset(int fd) {
  if (fd_ != -1) close(fd_);
  fd_ = fd;
}

SocketPair::SocketPair() {
  std::array<int, 2> ends{};
  Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), "socketpair");
  ours.Reset(ends[0]);
  theirs.Reset(ends[1]);
}

namespace {

// A TCP socket bound to a port of the loopback that the system chooses.
int BindToLoopback(uint16_t* port) {
  const int sock = Check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  Check(bind(sock, reinterpret_cast<sockaddr*>(&address), length), "bind");
  Check(getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
  *port = ntohs(address.sin_port);
  return sock;
}

}  // namespace

Listener::Listener() {
  sock_.Reset(BindToLoopback(&port_));
  Check(listen(sock_.get(), SOMAXCONN), "listen");
}

Descriptor Listener::Accept() const {
  if (!WaitReadable(sock_.get())) throw std::runtime_error("nobody connected");
  return Descriptor(Check(accept4(sock_.get(), nullptr, nullptr, SOCK_CLOEXEC), "accept4"));
}

RefusingPort::RefusingPort() {
  sock_.Reset(BindToLoopback(&port_));
}

bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatience);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool WaitReadable(int sock) {
  pollfd readable = {sock, POLLIN, 0};
  return poll(&readable, 1, kPatience) == 1;
}

void SendText(int sock, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = send(sock, text.data(), text.size(), MSG_NOSIGNAL);
    if (count == -1) ThrowErrno("send");
    text.remove_prefix(static_cast<size_t>(count));
  }
}

std::string Receive(int sock, size_t count) {
  std::string received;
  std::string chunk(count, '\0');
  while (received.size() < count && WaitReadable(sock)) {
    const ssize_t got = recv(sock, chunk.data(), count - received.size(), 0);
    if (got <= 0) break;
    received.append(chunk, 0, static_cast<size_t>(got));
  }
  return received;
}

std::string ReceiveAvailable(int sock) {
  std::string received;
  std::array<char, 65536> chunk{};
  for (;;) {
    const ssize_t got = recv(sock, chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (got <= 0) return received;
    received.append(chunk.data(), static_cast<size_t>(got));
  }
}

// ---- Consoles -----------------------------------------------------------------------------------

ConsoleSettings Settings(const char* name) {
  ConsoleSettings settings{};
  CopyText(settings.cname, name);
  CopyText(settings.pname, "platform");
  CopyText(settings.ipaddr, "127.0.0.1");
  CopyText(settings.model, "A200");
  settings.enable = 1;
  return settings;
}

ConsolePtr MakeConsole(const char* name) {
  return ConsolePtr(NewConsoleNode(Settings(name)));
}

ConsoleNode* AddConsole(ConsoleList* list, const char* name, int sock, int status) {
  ConsolePtr cnode = MakeConsole(name);
  cnode->sock = sock;
  cnode->status = status;
  if (AddConsoleToList(cnode.get(), list) != 0) throw std::bad_alloc();
  return cnode.release();
}

std::vector<std::string> Names(const ConsoleList& list) {
  std::vector<std::string> names;
  for (const ConsoleNode* cnode : Nodes(list)) names.emplace_back(cnode->cname);
  return names;
}

// ---- The relay ----------------------------------------------------------------------------------

Attached<UserNode> AttachUser(ConsoleNode* cnode, const char* name, int mode) {
  SocketPair pair;
  UserNode* unode = NewUserNode(pair.ours.Release(), cnode, name, "192.0.2.1", mode);
  if (AddUserToList(unode, cnode->user_list) != 0 || AddUserToList(unode, user_list) != 0) {
    throw std::bad_alloc();
  }
  return {unode, std::move(pair.theirs)};
}

Attached<ConsoleNode> ConnectConsole(const char* name) {
  SocketPair pair;
  return {AddConsole(a_cons_list, name, pair.ours.Release(), kConnected), std::move(pair.theirs)};
}

namespace {

void OpenOnce(Waker& waker) {
  if (waker.descriptor() == -1 && !waker.Open()) ThrowErrno("eventfd");
}

template <typename L>
void CloseSockets(const L& list) {
  for (const auto* node : Nodes(list)) {
    const int sock = node->sock;
    if (sock != -1) close(sock);
  }
}

}  // namespace

RelayTest::RelayTest() {
  BlockSignal(SIGPIPE);
  ArrangeCancelSignal();
  OpenOnce(cons_mon_waker);
  OpenOnce(user_mon_waker);
  debug_level = kError - 1;
  ConnectToJix();
}

RelayTest::~RelayTest() {
  CloseSockets(*user_list);
  CloseSockets(*a_cons_list);
  CloseSockets(*i_cons_list);
}

// ---- Events -------------------------------------------------------------------------------------

EventCollector::EventCollector() {
  constexpr char kPath[] = "root/run/jix.sock";
  std::filesystem::remove(kPath);
  sock_.Reset(Check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  CopyText(address.sun_path, kPath);
  Check(bind(sock_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
  Check(listen(sock_.get(), SOMAXCONN), "listen");
}

Descriptor EventCollector::Accept() const {
  if (!WaitReadable(sock_.get())) throw std::runtime_error("nobody connected");
  return Descriptor(Check(accept(sock_.get(), nullptr, nullptr), "accept"));
}

std::string ReceiveLine(int sock) {
  std::string line;
  while (line.empty() || line.back() != '\n') {
    const std::string byte = Receive(sock, 1);
    if (byte.empty()) break;
    line += byte;
  }
  return line;
}

// ---- Failures on demand -------------------------------------------------------------------------

namespace {

/// Which calls of one kind fail.
struct Failure {
  int first;
  int count;
  int error;
  int calls;

  // Counts one call; true when it fails.
  bool Next() {
    ++calls;
    return calls >= first && calls - first < count;
  }
};

struct Clock {
  time_t now;
  suseconds_t microseconds;
  std::function<void(useconds_t)> on_sleep;
  std::vector<useconds_t> sleeps;
};

thread_local std::optional<Failure> failing_allocation;
thread_local std::array<std::optional<Failure>, static_cast<size_t>(Call::kCount)> failing_calls;
thread_local Clock* fake_clock = nullptr;

std::optional<Failure>& FailureOf(Call call) {
  return failing_calls.at(static_cast<size_t>(call));
}

bool AllocationFails() {
  if (!failing_allocation || !failing_allocation->Next()) return false;
  errno = ENOMEM;
  return true;
}

// The error with which this call is to fail, 0 when it is to be made.
int ErrorOf(Call call) {
  std::optional<Failure>& failure = FailureOf(call);
  return failure && failure->Next() ? failure->error : 0;
}

// What a call that reports through errno is to return without being made.
std::optional<int> ResultOf(Call call) {
  const int error = ErrorOf(call);
  if (error == 0) return std::nullopt;
  if (error == FailCall::kPretend) return 0;
  errno = error;
  return -1;
}

}  // namespace

FailAllocation::FailAllocation(int first, int count) {
  failing_allocation = Failure{first, count, ENOMEM, 0};
}

FailAllocation::~FailAllocation() {
  failing_allocation.reset();
}

int FailAllocation::calls() const {
  return failing_allocation->calls;
}

bool FailAllocation::reached() const {
  return failing_allocation->calls >= failing_allocation->first;
}

FailCall::FailCall(Call call, int error, int first, int count) : call_(call) {
  FailureOf(call) = Failure{first, count, error, 0};
}

FailCall::~FailCall() {
  FailureOf(call_).reset();
}

int FailCall::calls() const {
  return FailureOf(call_)->calls;
}

namespace {

thread_local int64_t passage_step = 0;
thread_local int64_t passage_time = 0;

}  // namespace

FakePassageOfTime::FakePassageOfTime(int64_t step) {
  passage_step = step;
}

FakePassageOfTime::~FakePassageOfTime() {
  passage_step = 0;
}

void FakePassageOfTime::Pass(int64_t microseconds) {
  passage_time += microseconds;
}

FakeClock::FakeClock(time_t now) {
  fake_clock = new Clock{now, 0, nullptr, {}};
}

FakeClock::~FakeClock() {
  delete std::exchange(fake_clock, nullptr);
}

time_t FakeClock::now() const {
  return fake_clock->now;
}

void FakeClock::Set(time_t now) {
  fake_clock->now = now;
}

void FakeClock::Advance(time_t seconds) {
  fake_clock->now += seconds;
}

void FakeClock::AdvanceOnSleep(time_t seconds) {
  OnSleep([this, seconds](useconds_t) { Advance(seconds); });
}

void FakeClock::OnSleep(std::function<void(useconds_t)> action) {
  fake_clock->on_sleep = std::move(action);
}

void FakeClock::SetMicroseconds(suseconds_t microseconds) {
  fake_clock->microseconds = microseconds;
}

const std::vector<useconds_t>& FakeClock::sleeps() const {
  return fake_clock->sleeps;
}

}  // namespace test

// ---- The wrapped calls (the linker's --wrap) ----------------------------------------------------

using test::Call;

// A call that returns -1 and sets errno.
#define WRAP_ERRNO(type, name, call, parameters, arguments) \
  extern "C" type __real_##name parameters;                 \
  extern "C" type __wrap_##name parameters;                 \
  extern "C" type __wrap_##name parameters {                \
    const std::optional<int> result = test::ResultOf(call); \
    return result ? *result : __real_##name arguments;      \
  }

// A call that returns the error number.
#define WRAP_RESULT(name, call, parameters, arguments)   \
  extern "C" int __real_##name parameters;               \
  extern "C" int __wrap_##name parameters;               \
  extern "C" int __wrap_##name parameters {              \
    const int error = test::ErrorOf(call);               \
    return error != 0 ? error : __real_##name arguments; \
  }

WRAP_ERRNO(int, accept4, Call::kAccept, (int fd, sockaddr* peer, socklen_t* length, int flags),
           (fd, peer, length, flags))
WRAP_ERRNO(int, connect, Call::kConnect, (int fd, const sockaddr* peer, socklen_t length),
           (fd, peer, length))
WRAP_ERRNO(int, daemon, Call::kDaemon, (int no_chdir, int no_close), (no_chdir, no_close))
WRAP_ERRNO(int, epoll_create1, Call::kEpollCreate, (int flags), (flags))
WRAP_ERRNO(int, epoll_ctl, Call::kEpollCtl, (int fd, int operation, int member, epoll_event* event),
           (fd, operation, member, event))
WRAP_ERRNO(int, eventfd, Call::kEventfd, (unsigned initial, int flags), (initial, flags))
WRAP_ERRNO(int, fchown, Call::kFchown, (int fd, uid_t owner, gid_t group), (fd, owner, group))
WRAP_ERRNO(int, flock, Call::kFlock, (int fd, int operation), (fd, operation))
WRAP_ERRNO(int, ftruncate, Call::kFtruncate, (int fd, off_t length), (fd, length))
WRAP_ERRNO(int, gethostname, Call::kGethostname, (char* name, size_t size), (name, size))
WRAP_ERRNO(int, ppoll, Call::kPpoll,
           (pollfd * fds, nfds_t count, const timespec* limit, const sigset_t* mask),
           (fds, count, limit, mask))
WRAP_ERRNO(ssize_t, recv, Call::kRecv, (int fd, void* buf, size_t size, int flags),
           (fd, buf, size, flags))
WRAP_ERRNO(int, select, Call::kSelect,
           (int width, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout),
           (width, readable, writable, exceptional, timeout))
WRAP_ERRNO(ssize_t, send, Call::kSend, (int fd, const void* buf, size_t size, int flags),
           (fd, buf, size, flags))
WRAP_ERRNO(int, sigaction, Call::kSigaction,
           (int signum, const struct sigaction* action, struct sigaction* old),
           (signum, action, old))
WRAP_ERRNO(int, sigprocmask, Call::kSigprocmask, (int how, const sigset_t* set, sigset_t* old),
           (how, set, old))
WRAP_ERRNO(int, socket, Call::kSocket, (int domain, int type, int protocol),
           (domain, type, protocol))

WRAP_RESULT(pthread_mutex_lock, Call::kMutexLock, (pthread_mutex_t * mutex), (mutex))
WRAP_RESULT(pthread_create, Call::kPthreadCreate,
            (pthread_t * thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg),
            (thread, attr, start, arg))
WRAP_RESULT(pthread_rwlock_init, Call::kRwlockInit,
            (pthread_rwlock_t * lock, const pthread_rwlockattr_t* attr), (lock, attr))
WRAP_RESULT(pthread_rwlock_rdlock, Call::kRdlock, (pthread_rwlock_t * lock), (lock))
WRAP_RESULT(pthread_rwlock_tryrdlock, Call::kTryrdlock, (pthread_rwlock_t * lock), (lock))
WRAP_RESULT(pthread_rwlock_trywrlock, Call::kTrywrlock, (pthread_rwlock_t * lock), (lock))
WRAP_RESULT(pthread_rwlock_unlock, Call::kRwlockUnlock, (pthread_rwlock_t * lock), (lock))
WRAP_RESULT(pthread_rwlock_wrlock, Call::kWrlock, (pthread_rwlock_t * lock), (lock))

extern "C" {

// The debug output waits and writes, too: what is asked of it here is no test's business.

int __real_poll(pollfd* fds, nfds_t count, int timeout);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
  const bool output = count == 1 && fds[0].fd == STDOUT_FILENO;
  const std::optional<int> result = output ? std::nullopt : test::ResultOf(Call::kPoll);
  return result ? *result : __real_poll(fds, count, timeout);
}

ssize_t __real_write(int fd, const void* buf, size_t size);
ssize_t __wrap_write(int fd, const void* buf, size_t size);
ssize_t __wrap_write(int fd, const void* buf, size_t size) {
  const std::optional<int> result =
      fd == STDOUT_FILENO ? std::nullopt : test::ResultOf(Call::kWrite);
  return result ? *result : __real_write(fd, buf, size);
}

time_t __real_time(time_t* result);
time_t __wrap_time(time_t* result);
time_t __wrap_time(time_t* result) {
  if (test::fake_clock == nullptr) return __real_time(result);
  if (result != nullptr) *result = test::fake_clock->now;
  return test::fake_clock->now;
}

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  if (clock != CLOCK_MONOTONIC || test::passage_step == 0) return __real_clock_gettime(clock, now);
  test::passage_time += test::passage_step;
  *now = {test::passage_time / 1'000'000, test::passage_time % 1'000'000 * 1000};
  return 0;
}

int __real_gettimeofday(timeval* now, void* zone);
int __wrap_gettimeofday(timeval* now, void* zone);
int __wrap_gettimeofday(timeval* now, void* zone) {
  if (test::fake_clock == nullptr) return __real_gettimeofday(now, zone);
  *now = {test::fake_clock->now, test::fake_clock->microseconds};
  return 0;
}

int __real_usleep(useconds_t pause);
int __wrap_usleep(useconds_t pause);
int __wrap_usleep(useconds_t pause) {
  if (test::ResultOf(Call::kUsleep)) return -1;
  if (test::fake_clock == nullptr) return __real_usleep(pause);
  test::fake_clock->sleeps.push_back(pause);
  if (!test::fake_clock->on_sleep) return __real_usleep(pause);
  test::fake_clock->on_sleep(pause);
  return 0;
}

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
  return test::AllocationFails() ? nullptr : __real_calloc(count, size);
}

void* __real_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size) {
  return test::AllocationFails() ? nullptr : __real_realloc(block, size);
}

char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text);
char* __wrap_strdup(const char* text) {
  return test::AllocationFails() ? nullptr : __real_strdup(text);
}

// operator new, its nothrow form, and the nothrow form for arrays.
void* __real__Znwm(size_t size);
void* __wrap__Znwm(size_t size);
void* __wrap__Znwm(size_t size) {
  if (test::AllocationFails()) throw std::bad_alloc();
  return __real__Znwm(size);
}

void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
  return test::AllocationFails() ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

void* __real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
  return test::AllocationFails() ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}

}  // extern "C"
