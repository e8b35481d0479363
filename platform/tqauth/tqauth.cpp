// Stand-in for the authentication library: the client types its argument line and is then asked for
// a user name and a password, which the station's password helper checks. root and the members of
// the group "qoruser" are admitted.
#include "tqauth.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <password_check.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>

namespace {

constexpr char kHelper[] = QOR_ROOT "/bin/qor_pam_auth";
constexpr char kGroup[] = "qoruser";
constexpr char kGroupFile[] = "/etc/group";

constexpr int kTries = 3;
constexpr int64_t kExchangeLimit = 120000;  // milliseconds for the whole exchange
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

/// A text of at most `kLimit` characters. It may be a password, even where none was asked for, so
/// it is never moved to another place, and nothing of it stays in memory.
template <size_t kLimit>
class WipedText {
 public:
  WipedText() = default;
  ~WipedText() { Clear(); }
  WipedText(const WipedText&) = delete;
  WipedText& operator=(const WipedText&) = delete;

  const char* c_str() const { return text_; }
  std::string_view view() const { return {text_, size_}; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  /// False when there is no room.
  bool Append(std::string_view more) {
    if (more.size() > kLimit - size_) return false;
    memcpy(text_ + size_, more.data(), more.size());
    size_ += more.size();
    return true;
  }

  void RemoveLast() {
    if (size_ > 0) text_[--size_] = '\0';
  }

  void Clear() {
    explicit_bzero(text_, sizeof text_);
    size_ = 0;
  }

 private:
  char text_[kLimit + 1] = {};
  size_t size_ = 0;
};

using Answer = WipedText<kLineLimit>;

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
  bool ReadLine(Answer* line) {
    line->Clear();
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
  static bool Edit(Answer* line, uint8_t byte) {
    if (byte == '\b' || byte == 127) {
      line->RemoveLast();
      return true;
    }
    const char character = static_cast<char>(byte);
    return character != '\0' && line->Append({&character, 1});
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

// The address of the peer, for the helper; empty when it has none. Taken at the start: a connection
// that was reset has none any more, and its guesses would be counted for nobody.
struct PeerAddress {
  char text[INET_ADDRSTRLEN] = "";
  bool known;  // false: there is no peer any more

  explicit PeerAddress(int sock) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    known = getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    if (known && peer.sin_family == AF_INET) {
      inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
    }
  }
};

/// A password that nobody has: one of 2^128.
class Decoy {
 public:
  Decoy() {
    uint64_t halves[2];
    while (getrandom(halves, sizeof halves, 0) != static_cast<ssize_t>(sizeof halves)) {
    }
    char text[33];
    snprintf(text, sizeof text, "%016" PRIx64 "%016" PRIx64, halves[0], halves[1]);
    answer_.Append(text);
  }

  const Answer& answer() const { return answer_; }

 private:
  Answer answer_;
};

std::atomic<tqauth_refused*> tell_refusal = nullptr;

/// The connection that is authenticated.
struct Exchange {
  int sock;
  PeerAddress peer;
  Answer line;  ///< the client's argument line

  explicit Exchange(int socket) : sock(socket), peer(socket) {}
};

PasswordCheck HelperAnswer(const Exchange& exchange, const Answer& name, const Answer& password) {
  return CheckPassword(kHelper,
                       {name.c_str(), password.c_str(), exchange.peer.text, exchange.sock});
}

/// Room for one entry of the group database, however large.
class GroupBuffer {
 public:
  /// Repeats a look-up until the entry fits. Null when nothing is found, or memory runs out.
  template <typename LookUp>
  const group* Find(LookUp look_up) {
    group* found = nullptr;
    while (Grow() && look_up(&entry_, buffer_.get(), size_, &found) == ERANGE) size_ *= 2;
    return found;
  }

 private:
  bool Grow() {
    buffer_.reset(new (std::nothrow) char[size_]);
    return buffer_ != nullptr;
  }

  group entry_{};
  size_t size_ = 16384;
  std::unique_ptr<char[]> buffer_;
};

bool Lists(const group& entry, const char* name) {
  for (char** member = entry.gr_mem; *member != nullptr; ++member) {
    if (strcmp(name, *member) == 0) return true;
  }
  return false;
}

// By the system's rules, which know other places than the file, but only the first entry of a name.
bool IsListedInDatabase(const char* name) {
  GroupBuffer buffer;
  const group* entry = buffer.Find([](group* result, char* text, size_t size, group** found) {
    return getgrnam_r(kGroup, result, text, size, found);
  });
  return entry != nullptr && Lists(*entry, name);
}

// A large group may be spread over several entries of the same name. The file is read here, because
// the system's own walk has one position for the whole process.
bool IsListedInFile(const char* name) {
  const std::unique_ptr<FILE, decltype(&fclose)> file(fopen(kGroupFile, "re"), fclose);
  if (file == nullptr) return false;
  GroupBuffer buffer;
  const auto next = [&](group* result, char* text, size_t size, group** found) {
    return fgetgrent_r(file.get(), result, text, size, found);
  };
  for (const group* entry = buffer.Find(next); entry != nullptr; entry = buffer.Find(next)) {
    if (strcmp(entry->gr_name, kGroup) == 0 && Lists(*entry, name)) return true;
  }
  return false;
}

bool IsAdmitted(const char* name) {
  return strcmp(name, "root") == 0 || IsListedInDatabase(name) || IsListedInFile(name);
}

bool AskPair(Client& client, Answer* name, Answer* password) {
  if (!client.Send("username: ") || !client.ReadLine(name)) return false;
  if (!client.Send(kHideTyping) || !client.Send("password: ")) return false;
  const bool answered = client.ReadLine(password);
  return answered && client.Send(kShowTyping) && client.Send("\r\n");
}

// The caller adds the name to the line as an option. Without room for it, the name that the client
// gave itself in the line would count.
bool LeavesRoomForName(const Answer& line, const Answer& name) {
  return line.size() + strlen(" user=") + name.size() <= kLineLimit;
}

// For a name that is not admitted no password is right: the helper is asked about one that nobody
// has, so that neither an answer nor the time that it takes tells whether the password was the
// person's, and no password of a stranger to the group is tried here.
PasswordCheck Check(const Exchange& exchange, const Answer& name, const Answer& password) {
  if (LeavesRoomForName(exchange.line, name) && IsAdmitted(name.c_str())) {
    return HelperAnswer(exchange, name, password);
  }
  const PasswordCheck result = HelperAnswer(exchange, name, Decoy().answer());
  return result == PasswordCheck::kAccepted ? PasswordCheck::kRefused : result;
}

// Sets `name` to the last one that came with a password. kRefused as well when the client is gone,
// too slow or too talkative.
PasswordCheck LogIn(Client& client, const Exchange& exchange, Answer* name) {
  for (int tries = 0; tries < kTries; ++tries) {
    Answer typed;
    Answer password;
    if (!AskPair(client, &typed, &password)) break;
    if (typed.empty()) continue;
    name->Clear();
    name->Append(typed.view());
    const PasswordCheck result = Check(exchange, *name, password);
    if (result == PasswordCheck::kAccepted || result == PasswordCheck::kNoTurn) return result;
    if (tell_refusal != nullptr) (*tell_refusal)(exchange.sock, name->c_str());
  }
  return PasswordCheck::kRefused;
}

}  // namespace

void authenticate_tell_refusals(tqauth_refused* refused) {
  tell_refusal = refused;
}

char* authenticate(int sock, char** user) {
  thread_local char argument_line[kLineLimit + 1];
  Client client(sock);
  Exchange exchange(sock);
  Answer name;
  if (!exchange.peer.known || !client.ReadLine(&exchange.line)) return nullptr;
  const PasswordCheck result = LogIn(client, exchange, &name);
  client.FinishLine();
  if (!name.empty()) *user = strdup(name.c_str());
  errno = result == PasswordCheck::kNoTurn ? EUSERS : EACCES;
  // Without a name here, too, the one in the line would count.
  if (result != PasswordCheck::kAccepted || *user == nullptr) return nullptr;
  memcpy(argument_line, exchange.line.c_str(), exchange.line.size() + 1);
  return argument_line;
}
