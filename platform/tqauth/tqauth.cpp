// Stand-in for the authentication library: the client types its argument line and is then asked for
// a user name and a password, which the station's password helper checks. root and the members of
// the group "qoruser" are admitted.
#include "tqauth.h"

#include <grp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr char kHelper[] = QOR_ROOT "/bin/qor_pam_auth";
constexpr char kGroup[] = "qoruser";

constexpr int kTries = 3;
constexpr int64_t kExchangeLimit = 120000;  // milliseconds for the whole exchange
constexpr int64_t kHelperLimit = 10000;     // milliseconds for one check
constexpr int kByteLimit = 8192;            // bytes that the client may send in all
constexpr size_t kLineLimit = 1023;         // characters of one answer
constexpr int kLineEndLimit = 20;           // milliseconds for the second byte of a line end

// Telnet (RFC 854, RFC 857).
constexpr uint8_t kIac = 255;
constexpr uint8_t kSubnegotiation = 250;
constexpr uint8_t kSubnegotiationEnd = 240;
constexpr uint8_t kFirstWithOption = 251;
constexpr char kHideTyping[] = "\xFF\xFB\x01";  // IAC WILL ECHO: the client stops echoing
constexpr char kShowTyping[] = "\xFF\xFC\x01";  // IAC WONT ECHO

int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Characters that were taken back lie behind the end.
void Wipe(std::string& text) {
  text.resize(text.capacity());
  explicit_bzero(text.data(), text.size());
  text.clear();
}

/// What the client types, with telnet commands taken out.
class Client {
 public:
  explicit Client(int sock) : sock_(sock), deadline_(Now() + kExchangeLimit) {}

  bool Send(const char* text) { return send(sock_, text, strlen(text), MSG_NOSIGNAL) >= 0; }

  /// Takes the rest of the last line's end, which is no key for the console. CR LF and CR NUL
  /// arrive together.
  void FinishLine() {
    char byte = 0;
    pollfd readable = {sock_, POLLIN, 0};
    if (!after_carriage_return_ || poll(&readable, 1, kLineEndLimit) <= 0) return;
    if (recv(sock_, &byte, 1, MSG_PEEK) != 1 || (byte != '\n' && byte != '\0')) return;
    recv(sock_, &byte, 1, 0);
  }

  /// Reads a line without its end. False when the client is gone, too slow or too talkative.
  bool ReadLine(std::string* line) {
    Wipe(*line);
    line->reserve(kLineLimit);  // no reallocation leaves a password behind
    for (;;) {
      uint8_t byte = 0;
      if (!ReadData(&byte)) return false;
      const bool second_of_line_end = after_carriage_return_ && (byte == '\n' || byte == '\0');
      after_carriage_return_ = byte == '\r';
      if (second_of_line_end) continue;
      if (byte == '\r' || byte == '\n') return true;
      if (!Edit(line, byte)) return false;
    }
  }

 private:
  static bool Edit(std::string* line, uint8_t byte) {
    if (byte == '\b' || byte == 127) {
      if (!line->empty()) line->pop_back();
      return true;
    }
    if (byte == '\0') return false;
    line->push_back(static_cast<char>(byte));
    return line->size() <= kLineLimit;
  }

  bool ReadByte(uint8_t* byte) {
    if (++bytes_read_ > kByteLimit) return false;
    const int64_t left = deadline_ - Now();
    pollfd readable = {sock_, POLLIN, 0};
    if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) <= 0) return false;
    return recv(sock_, byte, 1, 0) == 1;
  }

  // The next byte that is not part of a telnet command; 255 255 is the data byte 255.
  bool ReadData(uint8_t* byte) {
    while (ReadByte(byte)) {
      if (*byte != kIac) return true;
      if (!ReadByte(byte)) return false;
      if (*byte == kIac) return true;
      if (!SkipCommand(*byte)) return false;
    }
    return false;
  }

  bool SkipCommand(uint8_t command) {
    uint8_t byte = 0;
    if (command == kSubnegotiation) return SkipSubnegotiation();
    return command < kFirstWithOption || ReadByte(&byte);
  }

  // Ends at IAC SE; a doubled IAC inside is data.
  bool SkipSubnegotiation() {
    uint8_t byte = 0;
    while (ReadByte(&byte)) {
      if (byte != kIac) continue;
      if (!ReadByte(&byte)) return false;
      if (byte == kSubnegotiationEnd) return true;
    }
    return false;
  }

  int sock_;
  int64_t deadline_;
  int bytes_read_ = 0;
  bool after_carriage_return_ = false;
};

// True when the child ends with status 0 in time; one that does not is killed.
bool WaitForHelper(pid_t pid) {
  const int64_t deadline = Now() + kHelperLimit;
  int status = 0;
  for (;;) {
    const pid_t ended = waitpid(pid, &status, WNOHANG);
    if (ended == pid) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (ended < 0 && errno != EINTR) return false;
    if (Now() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return false;
    }
    usleep(5000);
  }
}

// Starts the helper with `input` as its standard input and no signal blocked; no shell is involved.
// -1 on failure.
pid_t StartHelper(int input) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  char* arguments[] = {const_cast<char*>(kHelper), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, kHelper, &actions, &attributes, arguments, environ) != 0) pid = -1;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

bool HelperAccepts(const std::string& name, const std::string& password) {
  int ends[2];
  // A socket pair, because a write to it can be kept from raising SIGPIPE.
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
  const pid_t pid = StartHelper(ends[0]);
  close(ends[0]);
  std::string pair = name + " " + password;
  if (pid != -1) send(ends[1], pair.data(), pair.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  Wipe(pair);
  close(ends[1]);
  return pid != -1 && WaitForHelper(pid);
}

bool IsListed(const std::string& name) {
  group entry{};
  group* found = nullptr;
  std::vector<char> buffer(16384);
  while (getgrnam_r(kGroup, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) return false;
  for (char** member = found->gr_mem; *member != nullptr; ++member) {
    if (name == *member) return true;
  }
  return false;
}

bool IsAdmitted(const std::string& name) {
  return name == "root" || IsListed(name);
}

bool AskPair(Client& client, std::string* name, std::string* password) {
  if (!client.Send("username: ") || !client.ReadLine(name)) return false;
  if (!client.Send(kHideTyping) || !client.Send("password: ")) return false;
  const bool answered = client.ReadLine(password);
  return answered && client.Send(kShowTyping) && client.Send("\r\n");
}

// The name that proved itself, empty when none did.
std::string LogIn(Client& client) {
  std::string name;
  std::string password;
  for (int tries = 0; tries < kTries; ++tries) {
    const bool asked = AskPair(client, &name, &password);
    const bool accepted = asked && !name.empty() && HelperAccepts(name, password);
    Wipe(password);
    if (!asked) return "";
    if (accepted) return IsAdmitted(name) ? name : "";
  }
  return "";
}

// The caller adds the name to the line as an option. Without room for it, the name that the client
// gave itself in the line would count.
bool LeavesRoomForName(const std::string& line, const std::string& name) {
  return line.size() + strlen(" user=") + name.size() <= kLineLimit;
}

}  // namespace

char* authenticate(int sock, char** user) {
  thread_local char argument_line[kLineLimit + 1];
  Client client(sock);
  std::string line;
  if (!client.ReadLine(&line)) return nullptr;
  const std::string name = LogIn(client);
  client.FinishLine();
  if (name.empty() || !LeavesRoomForName(line, name)) return nullptr;
  memcpy(argument_line, line.c_str(), line.size() + 1);
  *user = strdup(name.c_str());
  return argument_line;
}
