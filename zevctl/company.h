// Who else is at the console of a session, as the daemon's command port tells it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "console_status.h"
#include "login.h"
#include "quiet_port.h"
#include "settings.h"
#include "socket.h"

namespace zevctl {

/// Looks every few seconds. Where the command port is not there for this user, nothing is known
/// and nothing is said.
class Company {
 public:
  /// `mode`: that of the user's own session, in the daemon's words.
  Company(const Settings& settings, Credentials& credentials, std::string console,
          std::string mode);

  /// The descriptor to poll for input; -1 for none.
  int fd() const { return port_->fd(); }

  /// When to call Look(); nothing while an answer is awaited or none can come.
  std::optional<Clock::time_point> Due() const;

  void Look();

  /// Looks at once, over a new connection where the last one has closed.
  void LookNow();

  /// Takes what has come; true when it is a new status.
  bool Read();

  bool closed() const { return port_->closed(); }

  /// The console, by its present name.
  const std::string& console() const { return console_; }

  /// The newest status; nothing before the first one.
  const std::optional<ConsoleStatus>& status() const { return status_; }

  /// All but the user's own session.
  std::vector<Attendee> Others() const;

  /// Those who came and went between the last two looks; whoever was there at the first look did
  /// not come.
  const std::vector<Attendee>& joined() const { return joined_; }
  const std::vector<Attendee>& left() const { return left_; }

 private:
  void Take(ConsoleStatus status);
  std::optional<Attendee> FindSelf(const ConsoleStatus& status) const;
  bool IsMyName(const std::string& name) const;

  const Settings& settings_;
  Credentials& credentials_;
  std::string console_;
  std::string mode_;
  std::optional<QuietPort> port_;
  Clock::time_point next_{};
  std::optional<ConsoleStatus> status_;
  std::optional<Attendee> self_;
  std::vector<Attendee> joined_;
  std::vector<Attendee> left_;
};

}  // namespace zevctl
