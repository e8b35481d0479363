// A command connection beside a session: it never holds the session up, asks nobody anything and
// has no messages of its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "command_port.h"
#include "login.h"
#include "settings.h"
#include "socket.h"

namespace zevctl {

/// Answers of JSON lines, one command at a time. Where the daemon refuses the connection, wants a
/// login that is not known, or answers anything else, the port is closed and stays so.
class QuietPort {
 public:
  /// Connects, for a second at most. Everything after that happens in Read().
  QuietPort(const Settings& settings, Credentials& credentials);

  /// The descriptor to poll for input; -1 when the port is closed.
  int fd() const { return contact_ ? contact_->socket.fd() : -1; }

  bool closed() const { return !contact_; }

  /// True when something listened at the daemon's address.
  bool reached() const { return reached_; }

  /// True when the daemon has sent something, be it a refusal.
  bool heard() const { return heard_; }

  /// True while an answer is awaited.
  bool busy() const { return !command_.empty(); }

  /// Sends the command once the port is open. Not while it is busy.
  void Ask(const std::string& command);

  /// Takes what has come.
  void Read();

  /// The answer, once it is there.
  std::optional<std::string> Take();

  /// Asks, and waits for the answer; nothing when there is none within the limit.
  std::optional<std::string> Ask(const std::string& command, Milliseconds limit);

 private:
  enum class Stage { kLogin, kProbe, kOpen };

  void Advance();
  bool TakeLoginStep();
  bool TakeAnswer();
  void Accept(const AnswerHeader& header, std::string text);
  void Send(std::string_view bytes);
  void Close();

  Credentials& credentials_;
  std::optional<Contact> contact_;
  bool reached_ = false;
  bool heard_ = false;
  Stage stage_ = Stage::kLogin;
  LoginDialogue dialogue_;
  std::string received_;
  std::string command_;  // whose answer is awaited
  std::optional<std::string> answer_;
};

}  // namespace zevctl
