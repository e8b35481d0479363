// Whose listener a connection leads to. While the daemon is down, anybody on this machine may
// listen on its port, and must be sent neither the cookie nor a password.
//
// The listener is looked at before connecting and again afterwards. When it is the same socket both
// times, it had the address all the while, and nobody else can have taken the connection.
#pragma once

#include <optional>
#include <string>

#include "exit_status.h"
#include "listener_table.h"

namespace zevctl {

enum class Trust {
  kElsewhere,  ///< the connection leads to another machine
  kStation,    ///< the listener is root's, or that of the owner of the station's configuration
  kOwn,        ///< it belongs to the calling user
  kStranger,   ///< it belongs to somebody else
  kNobody,     ///< none is to be seen, though something may have answered
  kChanged,    ///< it was another one before
  kUntold,     ///< the system does not tell
};

/// What the two looks show; without a value where the system did not tell. Where several may take
/// the connection, all must be right. `station`: the owner of the configuration, if there is one.
Trust Judge(const std::optional<Listeners>& before, const std::optional<Listeners>& after,
            std::optional<uid_t> station, uid_t caller);

/// One connection's listener.
class ListenerCheck {
 public:
  /// Looks; to be called before connecting to that address.
  explicit ListenerCheck(const sockaddr& address);

  /// Looks again; to be called once the connection is there.
  void Finish();

  Trust trust() const { return trust_; }

  /// True when a password may be sent; `tunnel`: also through a tunnel of the calling user's own.
  bool AdmitsPassword(bool tunnel) const;

  /// True when a cookie may be sent.
  bool AdmitsCookie() const { return trust_ == Trust::kStation; }

  /// What is wrong, and with which status to end; for what is not admitted.
  std::string Complaint() const;
  ExitStatus status() const;

 private:
  std::optional<Listeners> Look() const;
  std::string Owners() const;

  std::optional<Endpoint> destination_;  // nothing for an unknown kind of address
  std::optional<Listeners> before_;
  std::optional<Listeners> after_;
  Trust trust_ = Trust::kUntold;
};

}  // namespace zevctl
