// The login of the authentication library's stand-in: whom it admits, what it says meanwhile, what
// it gives the password helper, and what it leaves on the connection.
//
// An input is what the client sends. The helper is played here: it accepts passwords that begin
// with "y". The group has one member, anna.
#include <fcntl.h>
#include <grp.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "tqauth.h"

using namespace zevd;

namespace {

constexpr size_t kByteLimit = 8192;
constexpr size_t kLineLimit = 1023;
constexpr int kTries = 3;
constexpr pid_t kHelper = 1 << 28;  // no process has such a number
constexpr std::string_view kMember = "anna";

/// What the helper has been given, and the descriptor that it is to read.
std::vector<std::string> pairs;
int helper_input = -1;

bool IsAccepted(const std::string& pair) {
  return pair.ends_with('y');
}

// Stands for a password that the library has drawn: 32 hexadecimal digits.
constexpr char kDecoy[] = "(drawn)";

std::string WithoutDecoy(const std::string& text) {
  constexpr size_t kLength = 32;
  const size_t start = text.size() - std::min(text.size(), kLength);
  const bool drawn = text.size() >= kLength &&
                     text.find_first_not_of("0123456789abcdef", start) == std::string::npos;
  return drawn ? text.substr(0, start) + kDecoy : text;
}

/// What the model expects of a client.
struct Expected {
  bool admitted = false;
  std::string line;
  std::string name;
  std::string said;
  std::vector<std::string> pairs;
};

/// The bytes of a client, with telnet commands taken out.
class Client {
 public:
  explicit Client(std::string_view bytes) : rest_(bytes) {}

  /// Nothing when the client has gone or says too much.
  std::optional<std::string> Line() {
    std::string line;
    for (auto byte = Data(); byte; byte = Data()) {
      const bool rest_of_end = after_cr_ && (*byte == '\n' || *byte == 0);
      after_cr_ = *byte == '\r';
      if (rest_of_end) continue;
      if (*byte == '\r' || *byte == '\n') return line;
      if (*byte == '\b' || *byte == 127) {
        if (!line.empty()) line.pop_back();
      } else {
        if (*byte == 0 || line.size() == kLineLimit) return {};
        line += static_cast<char>(*byte);
      }
    }
    return {};
  }

  void FinishLine() {
    if (after_cr_ && !rest_.empty() && (rest_[0] == '\n' || rest_[0] == '\0')) {
      rest_.remove_prefix(1);
    }
  }

  std::string_view rest() const { return rest_; }

 private:
  std::optional<uint8_t> Byte() {
    if (rest_.empty() || taken_ == kByteLimit) return {};
    ++taken_;
    const auto byte = static_cast<uint8_t>(rest_[0]);
    rest_.remove_prefix(1);
    return byte;
  }

  std::optional<uint8_t> Data() {
    for (auto byte = Byte(); byte; byte = Byte()) {
      if (*byte != 255) return byte;
      const auto command = Byte();
      if (!command || *command == 255) return command;
      if (*command == 250) SkipSubnegotiation();
      if (*command > 250 && !Byte()) return {};
    }
    return {};
  }

  void SkipSubnegotiation() {
    for (auto byte = Byte(); byte; byte = Byte()) {
      if (*byte == 255 && Byte() == 240) return;
    }
  }

  std::string_view rest_;
  size_t taken_ = 0;
  bool after_cr_ = false;
};

bool ExpectLogin(Client& client, Expected& expected) {
  for (int tries = 0; tries < kTries; ++tries) {
    expected.said += "username: ";
    const auto name = client.Line();
    if (!name) return false;
    expected.said += "\xFF\xFB\x01password: ";
    const auto password = client.Line();
    if (!password) return false;
    expected.said += "\xFF\xFC\x01\r\n";
    expected.name = *name;
    if (name->empty()) continue;
    const bool has_room =
        expected.line.size() + std::string_view(" user=").size() + name->size() <= kLineLimit;
    const bool may_enter = has_room && (*name == "root" || *name == kMember);
    expected.pairs.push_back(*name + " " + (may_enter ? WithoutDecoy(*password) : kDecoy));
    if (may_enter && IsAccepted(*password)) return true;
  }
  return false;
}

Expected Expect(Client& client) {
  Expected expected;
  const auto line = client.Line();
  if (!line) return expected;
  expected.line = *line;
  const bool logged_in = ExpectLogin(client, expected);
  client.FinishLine();
  expected.admitted = logged_in;
  return expected;
}

std::string ReadPair() {
  char text[4096];
  const ssize_t count = read(helper_input, text, sizeof text);
  close(helper_input);
  helper_input = -1;
  return {text, static_cast<size_t>(std::max<ssize_t>(count, 0))};
}

}  // namespace

// ---- In place of the helper and the group database (the linker's --wrap) ------------------------

extern "C" {

int __real_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to);
int __wrap_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to);
int __wrap_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to) {
  REQUIRE(helper_input == -1 && to == STDIN_FILENO);
  helper_input = fcntl(from, F_DUPFD_CLOEXEC, 0);
  return __real_posix_spawn_file_actions_adddup2(actions, from, to);
}

int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* arguments,
                       char* const* environment);
int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const* arguments, char* const*) {
  REQUIRE_EQUAL(std::string(path), std::string("root/bin/qor_pam_auth"));
  REQUIRE(arguments[1] == nullptr);
  *pid = kHelper;
  return 0;
}

pid_t __real_waitpid(pid_t pid, int* status, int options);
pid_t __wrap_waitpid(pid_t pid, int* status, int options);
pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
  if (pid != kHelper) return __real_waitpid(pid, status, options);
  const std::string pair = ReadPair();
  pairs.push_back(WithoutDecoy(pair));
  *status = IsAccepted(pair) ? 0 : 1 << 8;
  return pid;
}

int __wrap_getgrnam_r(const char* name, group* entry, char* buffer, size_t size, group** found);
int __wrap_getgrnam_r(const char* name, group* entry, char*, size_t, group** found) {
  static char member[] = "anna";
  static char* members[] = {member, nullptr};
  REQUIRE_EQUAL(std::string(name), std::string("qoruser"));
  *entry = {const_cast<char*>(name), nullptr, 0, members};
  *found = entry;
  return 0;
}

int __wrap_fgetgrent_r(FILE* file, group* entry, char* buffer, size_t size, group** found);
int __wrap_fgetgrent_r(FILE*, group*, char*, size_t, group** found) {
  *found = nullptr;
  return ENOENT;
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::SetUp();
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  Client client(bytes);
  const Expected expected = Expect(client);
  const fuzz::SocketPair pair;
  fuzz::SendAll(pair.theirs(), bytes);
  shutdown(pair.theirs(), SHUT_WR);

  pairs.clear();
  char* user = nullptr;
  const char* line = authenticate(pair.ours(), &user);
  const std::string name = user == nullptr ? "" : user;
  free(user);
  REQUIRE_EQUAL(line != nullptr, expected.admitted);
  REQUIRE_EQUAL(std::string(line == nullptr ? "" : line), expected.admitted ? expected.line : "");
  REQUIRE_EQUAL(name, expected.name);
  REQUIRE_EQUAL(pairs, expected.pairs);
  REQUIRE_EQUAL(fuzz::ReceiveAvailable(pair.theirs()), expected.said);
  REQUIRE_EQUAL(fuzz::ReceiveAvailable(pair.ours()), client.rest());
  return 0;
}
