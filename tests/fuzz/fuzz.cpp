#include "fuzz.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "lists.h"
#include "options.h"
#include "zev.h"
#include "zev_signal.h"

using namespace zevd;

namespace fuzz {

namespace {

constexpr size_t kLongestMessage = 8191;
constexpr int kSilent = kError - 1;

Arrivals* arrivals = nullptr;
int recording = -1;

// Bytes that a terminal would not show are escaped, so that the report can be read.
std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char byte : text) {
    const auto code = static_cast<unsigned char>(byte);
    std::array<char, 8> form{};
    snprintf(form.data(), form.size(), isprint(code) != 0 ? "%c" : "\\x%02X", code);
    escaped += form.data();
  }
  return escaped;
}

int Check(int result, const char* call) {
  if (result == -1) {
    perror(call);
    abort();
  }
  return result;
}

/// The working directory of the process.
class Station {
 public:
  Station() {
    std::string name = std::filesystem::temp_directory_path() / "zevd-fuzz-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) Check(-1, "mkdtemp");
    path_ = name;
    std::filesystem::current_path(path_);
    for (const char* directory : {"config", "events", "logs", "run"}) {
      std::filesystem::create_directories(std::filesystem::path("root") / directory);
    }
  }
  ~Station() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

 private:
  std::filesystem::path path_;
};

void RedirectDebugOutput() {
  recording = Check(memfd_create("debug output", MFD_CLOEXEC), "memfd_create");
  fcntl(recording, F_SETFL, O_APPEND);
  fflush(stdout);
  Check(dup2(recording, STDOUT_FILENO), "dup2");
  debug_level = kSilent;
}

template <typename L>
void CloseSockets(const L& list) {
  for (const auto* node : Nodes(list)) {
    const int sock = node->sock;
    if (sock != -1) close(sock);
  }
}

void FreeUsers() {
  for (UserNode* unode : Nodes(*user_list)) {
    RemoveUserFromList(unode, user_list);
    delete unode;
  }
}

}  // namespace

// ---- Checks -------------------------------------------------------------------------------------

void Fail(const char* what, const char* file, int line) {
  fprintf(stderr, "%s:%d: not true: %s\n", file, line, what);
  abort();
}

void FailEqual(const char* what, const std::string& actual, const std::string& expected,
               const char* file, int line) {
  fprintf(stderr, "%s:%d: %s\n  is       \"%s\"\n  and not  \"%s\"\n", file, line, what,
          Escaped(actual).c_str(), Escaped(expected).c_str());
  abort();
}

std::string Shown(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += "[" + text + "]";
  return all;
}

// ---- Input --------------------------------------------------------------------------------------

std::string_view Input::TakeLine() {
  const size_t end = rest_.find('\n');
  const std::string_view line = rest_.substr(0, end);
  rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
  return line;
}

std::string_view Input::TakeRest() {
  return std::exchange(rest_, {});
}

namespace {

size_t PieceSize(char code) {
  if (code >= 'a' && code <= 'z') return static_cast<size_t>(code - 'a') + 1;
  if (code >= 'A' && code <= 'Z') return (static_cast<size_t>(code - 'A') + 1) * 40;
  return static_cast<unsigned char>(code) % 7 + 1;
}

}  // namespace

std::vector<std::string_view> Cut(std::string_view bytes, std::string_view sizes) {
  std::vector<std::string_view> pieces;
  for (size_t i = 0; !bytes.empty(); ++i) {
    const size_t wanted = sizes.empty() ? bytes.size() : PieceSize(sizes[i % sizes.size()]);
    pieces.push_back(bytes.substr(0, wanted));
    bytes.remove_prefix(pieces.back().size());
  }
  return pieces;
}

std::vector<std::string> Lines(std::string_view content, size_t longest) {
  std::vector<std::string> lines;
  while (!content.empty()) {
    const size_t end = std::min(content.substr(0, longest).find('\n'), content.size());
    const size_t size = std::min({end + 1, content.size(), longest});
    lines.push_back(UpToNul(content.substr(0, size)));
    content.remove_prefix(size);
  }
  return lines;
}

std::string UpToNul(std::string_view bytes) {
  return std::string(bytes.substr(0, bytes.find('\0')));
}

// ---- The daemon's surroundings ------------------------------------------------------------------

void SetUp() {
  static const Station station;
  static const bool ready = [] {
    setenv("TZ", "UTC0", 1);
    tzset();
    RedirectDebugOutput();
    BlockSignal(SIGPIPE);
    Initialize();
    return true;
  }();
  REQUIRE(ready);
}

void WriteFile(const char* path, std::string_view content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  REQUIRE(file.good());
}

std::string ReadFile(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The first message is never taken for a repetition of one written before.
DebugRecorder::DebugRecorder(int level) {
  debug_level = level;
  zev_debug(kError, "first\n");
  zev_debug(kError, "begin\n");
  start_ = lseek(recording, 0, SEEK_END);
}

DebugRecorder::~DebugRecorder() {
  debug_level = kSilent;
  Check(ftruncate(recording, 0), "ftruncate");
}

std::string DebugRecorder::Output() {
  struct stat file {};
  Check(fstat(recording, &file), "fstat");
  std::string output(static_cast<size_t>(file.st_size - start_), '\0');
  const ssize_t count = pread(recording, output.data(), output.size(), start_);
  REQUIRE_EQUAL(count, static_cast<ssize_t>(output.size()));
  return output;
}

std::string AsDebugOutput(const std::vector<std::string>& messages) {
  const std::string prefix = std::string("ZEV ") + kStamp + ":<unknown>: ";
  std::string output;
  std::string last;
  int repeated = 0;
  for (const std::string& message : messages) {
    const std::string cut = UpToNul(message).substr(0, kLongestMessage);
    if (!output.empty() && cut == last) {
      ++repeated;
      continue;
    }
    if (repeated > 0) {
      output += std::string("ZEV ") + kStamp + ": Last message repeated " +
                std::to_string(repeated) + " times\n";
    }
    output += prefix + cut;
    last = cut;
    repeated = 0;
  }
  return output;
}

Lists::~Lists() {
  CloseSockets(*user_list);
  CloseSockets(*a_cons_list);
  CloseSockets(*i_cons_list);
  FreeUsers();
  EmptyConsoleList(a_cons_list);
  EmptyConsoleList(i_cons_list);
  EmptyEventSetList(ev_list);
}

ConsoleNode* AddConsole(ConsoleList* list, const char* name, int sock, int status,
                        const char* model) {
  ConsoleSettings settings{};
  CopyText(settings.cname, name);
  CopyText(settings.pname, "platform");
  CopyText(settings.ipaddr, "192.0.2.1");
  CopyText(settings.model, model);
  settings.cons_port = 2001;
  settings.mgmt_port = 23;
  settings.enable = 1;
  ConsoleNode* cnode = NewConsoleNode(settings);
  REQUIRE(cnode != nullptr);
  cnode->sock = sock;
  cnode->status = status;
  REQUIRE(AddConsoleToList(cnode, list) == 0);
  return cnode;
}

UserNode* AddUser(ConsoleNode* cnode, const char* name, int sock, int mode) {
  UserNode* unode = NewUserNode(sock, cnode, name, "192.0.2.2", mode);
  REQUIRE(unode != nullptr);
  REQUIRE(AddUserToList(unode, cnode->user_list) == 0);
  REQUIRE(AddUserToList(unode, user_list) == 0);
  return unode;
}

// ---- Sockets ------------------------------------------------------------------------------------

SocketPair::SocketPair() {
  Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), "socketpair");
}

SocketPair::~SocketPair() {
  for (const int end : ends_) {
    if (end != -1) close(end);
  }
}

int SocketPair::ReleaseOurs() {
  return std::exchange(ends_[0], -1);
}

void SendAll(int sock, std::string_view bytes) {
  REQUIRE(send(sock, bytes.data(), bytes.size(), MSG_DONTWAIT) ==
          static_cast<ssize_t>(bytes.size()));
}

std::string ReceiveAvailable(int sock) {
  std::string received;
  std::array<char, 65536> chunk{};
  for (;;) {
    const ssize_t count = recv(sock, chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (count <= 0) return received;
    received.append(chunk.data(), static_cast<size_t>(count));
  }
}

Arrivals::Arrivals(const SocketPair& pair, std::vector<std::string_view> pieces, bool closes)
    : sock_(pair.ours()), peer_(pair.theirs()), pieces_(std::move(pieces)), closes_(closes) {
  arrivals = this;
}

Arrivals::~Arrivals() {
  arrivals = nullptr;
}

bool Arrivals::NextPiece() {
  if (arrived_ == pieces_.size()) return false;
  SendAll(peer_, pieces_[arrived_++]);
  return true;
}

bool Arrivals::Next() {
  if (NextPiece()) return true;
  if (closes_) shutdown(peer_, SHUT_WR);
  return closes_;
}

}  // namespace fuzz

// ---- The wrapped calls (the linker's --wrap) ----------------------------------------------------

extern "C" {

time_t __wrap_time(time_t* result);
time_t __wrap_time(time_t* result) {
  if (result != nullptr) *result = fuzz::kNow;
  return fuzz::kNow;
}

ssize_t __real_send(int fd, const void* buf, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* buf, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* buf, size_t size, int flags) {
  fuzz::Arrivals* arrivals = fuzz::arrivals;
  if (arrivals == nullptr || fd != arrivals->sock()) return __real_send(fd, buf, size, flags);
  arrivals->AddSent({static_cast<const char*>(buf), size});
  return static_cast<ssize_t>(size);
}

int __real_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask);
int __wrap_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask);
int __wrap_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask) {
  fuzz::Arrivals* arrivals = fuzz::arrivals;
  if (arrivals == nullptr || count != 1 || fds->fd != arrivals->sock()) {
    return __real_ppoll(fds, count, limit, mask);
  }
  const timespec at_once{};
  const int ready = __real_ppoll(fds, count, &at_once, mask);
  // The telnet reader waits for a second; a person is given more.
  const bool waits = limit == nullptr || limit->tv_sec > 1;
  if (ready != 0 || !waits || !arrivals->Next()) return ready;
  return __real_ppoll(fds, count, &at_once, mask);
}

}  // extern "C"
