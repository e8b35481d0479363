// Who owns the listener that a connection leads to. While the daemon is down, anybody on this
// machine may listen on its port, and must be sent neither the cookie nor a password.
//
// The listener is looked at before connecting and again afterwards. When it is the same socket both
// times, it had the address all the while, and no other listener can have taken the connection.
//
// That is not enough. A socket that was bound to the address before the listener may connect to the
// very port from which this program connects; the two then meet half-way, without any listener (a
// simultaneous open of TCP). So the socket at the other end of the connection is looked at as well.
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
  kNobody,     ///< no listener can be seen, though something may have answered
  kChanged,    ///< before connecting, it was another one
  kTaken,      ///< the listener is right, but somebody else's socket is at the other end
  kUnseen,     ///< the listener is right, but no socket can be seen at the other end
  kUntold,     ///< the system does not tell
};

/// Judges the listeners that were seen before and after connecting; they have no value where the
/// system did not tell. Where several may take the connection, all must be right. `station`: the
/// owner of the configuration, if there is one.
Trust Judge(const std::optional<Listeners>& before, const std::optional<Listeners>& after,
            std::optional<uid_t> station, uid_t caller);

/// Judges the sockets at the other end of the connection. `listener` is what Judge() found,
/// kStation or kOwn: the sockets may belong to the same users as the listener. A socket that no
/// process has either waits for the listener to accept it or is closed; so nobody else reads from
/// it.
Trust JudgePeers(Trust listener, const std::optional<TcpSockets>& peers,
                 std::optional<uid_t> station, uid_t caller);

/// One connection's listener, and its other end.
class ListenerCheck {
 public:
  /// Looks at the listener. To be made before connecting to that address.
  explicit ListenerCheck(const sockaddr& address);

  /// Looks again, and at the other end of the connection as well. To be called once the connection
  /// is there and before anything is sent.
  void Finish(int connection);

  Trust trust() const { return trust_; }

  /// True when a password may be sent. `tunnel`: the user said that the port is a tunnel of their
  /// own.
  bool AdmitsPassword(bool tunnel) const;

  /// True when a cookie may be sent.
  bool AdmitsCookie() const { return trust_ == Trust::kStation; }

  /// What is wrong, and the status to end with, where something must not be sent.
  std::string Complaint() const;
  ExitStatus status() const;

 private:
  std::optional<Listeners> Look() const;

  std::optional<Endpoint> destination_;  // nothing for an unknown kind of address
  std::optional<Listeners> before_;
  std::optional<Listeners> after_;
  std::optional<TcpSockets> peers_;
  Trust trust_ = Trust::kUntold;
};

}  // namespace zevctl
