#include "user.h"

#include <command_wire.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <stdexcept>

#include "process.h"

namespace bench {

namespace {

constexpr size_t kStateAt = 260;  // in a console record

// The code '0' and its padding: connected, nobody attached; '1' is connected and in use.
bool IsConnected(const char* record) {
  return (record[kStateAt] == '0' || record[kStateAt] == '1') && record[kStateAt + 1] == '\0';
}

uint32_t NumberAt(const std::string& bytes, size_t at) {
  uint32_t number = 0;
  memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

}  // namespace

double User::Echo() {
  // Never the same key twice running, and none that occurs in what consoles print by themselves.
  constexpr int kLetters = 26;
  const std::string key(1, static_cast<char>('A' + keys_++ % kLetters));
  const double start = Now();
  Send(key);
  Expect(key);
  return Now() - start;
}

void User::Expect(const std::string& text) {
  size_t found = received_.find(text);
  for (; found == std::string::npos; found = received_.find(text)) received_ += ReceiveSome(sock_);
  received_.erase(0, found + text.size());
}

void User::ExpectEnd() const {
  std::array<char, 1024> thrown_away{};
  while (recv(sock_.get(), thrown_away.data(), thrown_away.size(), 0) > 0) {
  }
}

Tool::Consoles Tool::AskForConsoles() {
  Consoles consoles{AskForRecords("console"), 0};
  const std::string records = Take(consoles.known * zevd::kConsolePacketSize);
  for (size_t i = 0; i < consoles.known; ++i) {
    if (IsConnected(records.data() + i * zevd::kConsolePacketSize)) ++consoles.connected;
  }
  return consoles;
}

size_t Tool::AskForUsers(const std::string& console) {
  const size_t users = AskForRecords("who " + console);
  Take(users * zevd::kUserPacketSize);
  return users;
}

void Tool::Have(const std::string& command) {
  SendAll(sock_, command + "\n");
  if (NumberAt(Take(zevd::kHeaderSize), 0) != zevd::kDone) {
    throw std::runtime_error("\"" + command + "\" was not done");
  }
}

// The number of records that follow.
size_t Tool::AskForRecords(const std::string& command) {
  SendAll(sock_, command + "\n");
  const std::string header = Take(zevd::kHeaderSize);
  if (NumberAt(header, 0) != zevd::kRecordsFollow) {
    throw std::runtime_error("no records in answer to \"" + command + "\"");
  }
  return NumberAt(header, sizeof(uint32_t));
}

std::string Tool::Take(size_t count) {
  while (received_.size() < count) received_ += ReceiveSome(sock_);
  std::string taken = received_.substr(0, count);
  received_.erase(0, count);
  return taken;
}

}  // namespace bench
