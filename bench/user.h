// Those who are attached to consoles, through the daemon or through the relay, and a management
// tool.
#pragma once

#include <cstdint>
#include <string>

#include "net.h"

namespace bench {

/// One who types keys and waits for their echo.
class User {
 public:
  explicit User(Descriptor sock) : sock_(std::move(sock)) {}

  /// Types one key; the seconds until the console's echo of it has come back.
  double Echo();
  /// Reads until the text has come; what comes before it is thrown away.
  void Expect(const std::string& text);
  /// Reads until the connection is over, or silent for long.
  void ExpectEnd() const;
  void Send(const std::string& text) const { SendAll(sock_, text); }
  const Descriptor& sock() const { return sock_; }
  /// Gives the connection away.
  Descriptor Leave() { return std::move(sock_); }

 private:
  Descriptor sock_;
  std::string received_;
  int keys_ = 0;
};

/// One connection to the command port.
class Tool {
 public:
  explicit Tool(Descriptor sock) : sock_(std::move(sock)) {}

  /// Asks "console": how many consoles there are, and how many of them are connected.
  struct Consoles {
    size_t known;
    size_t connected;
  };
  Consoles AskForConsoles();
  /// Asks "who": how many users a console has.
  size_t AskForUsers(const std::string& console);
  /// Has a command done that answers nothing else.
  void Have(const std::string& command);

 private:
  size_t AskForRecords(const std::string& command);
  std::string Take(size_t count);

  Descriptor sock_;
  std::string received_;
};

}  // namespace bench
