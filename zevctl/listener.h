// Whose listener a connection leads to. While the daemon is down, anybody on this machine may
// listen on its port, and must be sent neither the cookie nor a password.
//
// The listener is looked at before connecting and again afterwards. When it is the same socket both
// times, it had the address all the while, and no other listener can have taken the connection.
//
// That is not enough. A socket that was bound to the address before the listener was, and connects
// to the very port from which this program connects, meets it half-way without any listener (a
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
  kNobody,     ///< none is to be seen, though something may have answered
  kChanged,    ///< it was another one before
  kTaken,      ///< the listener is right, but somebody else's socket is at the other end
  kUnseen,     ///< the listener is right, but no socket is to be seen at the other end
  kUntold,     ///< the system does not tell
};

/// What the two looks show; without a value where the system did not tell. Where several may take
/// the connection, all must be right. `station`: the owner of the configuration, if there is one.
Trust Judge(const std::optional<Listeners>& before, const std::optional<Listeners>& after,
            std::optional<uid_t> station, uid_t caller);

/// What the sockets at the other end show, when the listener is right: `listener` is kStation or
/// kOwn. They may belong to whom the listener may belong to. One that no process has either waits
/// for the listener to accept it or is closed, and then nobody else reads from it.
Trust JudgePeers(Trust listener, const std::optional<TcpSockets>& peers,
                 std::optional<uid_t> station, uid_t caller);

/// One connection's listener, and its other end.
class ListenerCheck {
 public:
  /// Looks; to be called before connecting to that address.
  explicit ListenerCheck(const sockaddr& address);

  /// Looks again, also at the other end; to be called with the connection once it is there, before
  /// anything is sent.
  void Finish(int connection);

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

  std::optional<Endpoint> destination_;  // nothing for an unknown kind of address
  std::optional<Listeners> before_;
  std::optional<Listeners> after_;
  std::optional<TcpSockets> peers_;
  Trust trust_ = Trust::kUntold;
};

}  // namespace zevctl
