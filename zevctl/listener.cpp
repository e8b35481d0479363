#include "listener.h"

#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "listener_query.h"
#include "settings.h"
#include "socket.h"

namespace zevctl {

namespace {

// Stands for every user that is unknown in the user namespace of this process.
constexpr uid_t kNobodyKnown = 65534;

constexpr Milliseconds kPeerLimit{1000};  // for the other end to show
constexpr std::chrono::duration<int, std::milli> kPeerInterval{10};

const std::string& ConfigDirectory() {
  static const std::string directory = kStationRoot + "/config";
  return directory;
}

std::optional<uid_t> OwnerOfConfig() {
  struct stat info {};
  const bool known = stat(ConfigDirectory().c_str(), &info) == 0 && info.st_uid != kNobodyKnown;
  return known ? std::optional(info.st_uid) : std::nullopt;
}

std::set<uint64_t> InodesOf(const Listeners& listeners) {
  std::set<uint64_t> inodes;
  for (const Listener& listener : listeners) inodes.insert(listener.inode);
  return inodes;
}

template <typename Condition>
bool All(const Listeners& listeners, Condition condition) {
  return std::all_of(listeners.begin(), listeners.end(), condition);
}

std::string InWords(uid_t user) {
  const passwd* entry = getpwuid(user);
  const std::string number = std::to_string(user);
  return entry == nullptr ? "user " + number : std::string(entry->pw_name) + " (" + number + ")";
}

// The users to whom the sockets belong.
std::string OwnersOf(const TcpSockets& sockets) {
  std::set<uid_t> users;
  for (const TcpSocket& socket : sockets) users.insert(socket.uid);
  std::string text;
  for (const uid_t user : users) text += (text.empty() ? "" : ", ") + InWords(user);
  return text;
}

using NameCall = int (*)(int, sockaddr*, socklen_t*);

// One end of the connection, as getsockname() or getpeername() tells.
std::optional<Endpoint> EndOf(int connection, NameCall call) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  return call(connection, generic, &size) == 0 ? Destination(*generic) : std::nullopt;
}

// The other end may not be there yet: this end is complete first.
std::optional<TcpSockets> PeersOf(int connection) {
  const auto here = EndOf(connection, getsockname);
  const auto there = EndOf(connection, getpeername);
  if (!here || !there) return {};
  const auto deadline = Clock::now() + kPeerLimit;
  for (;;) {
    const auto sockets = ConnectedSockets(there->port, here->port);
    if (!sockets) return {};
    TcpSockets peers = EndsOf(*sockets, *there, *here);
    if (!peers.empty() || Clock::now() >= deadline) return peers;
    poll(nullptr, 0, kPeerInterval.count());
  }
}

constexpr char kNothingSent[] = "neither cookie nor password was sent";

}  // namespace

Trust Judge(const std::optional<Listeners>& before, const std::optional<Listeners>& after,
            std::optional<uid_t> station, uid_t caller) {
  if (!before || !after) return Trust::kUntold;
  const auto is_rights = [&](const Listener& listener) {
    return listener.uid == 0 || listener.uid == station;
  };
  const auto is_callers = [&](const Listener& listener) {
    return is_rights(listener) || listener.uid == caller;
  };
  if (!All(*after, is_callers)) return Trust::kStranger;
  if (InodesOf(*before) != InodesOf(*after)) return Trust::kChanged;
  if (after->empty()) return Trust::kNobody;
  return All(*after, is_rights) ? Trust::kStation : Trust::kOwn;
}

Trust JudgePeers(Trust listener, const std::optional<TcpSockets>& peers,
                 std::optional<uid_t> station, uid_t caller) {
  if (!peers) return Trust::kUntold;
  if (peers->empty()) return Trust::kUnseen;
  if (peers->size() == 1 && peers->front().inode == 0) return listener;
  const auto is_right = [&](const TcpSocket& peer) {
    const bool callers = listener == Trust::kOwn && peer.uid == caller;
    return peer.inode != 0 && (peer.uid == 0 || peer.uid == station || callers);
  };
  return All(*peers, is_right) ? listener : Trust::kTaken;
}

ListenerCheck::ListenerCheck(const sockaddr& address) : destination_(Destination(address)) {
  if (destination_ && !IsOfThisMachine(*destination_)) {
    trust_ = Trust::kElsewhere;
  } else {
    before_ = Look();
  }
}

void ListenerCheck::Finish(int connection) {
  if (trust_ == Trust::kElsewhere) return;
  const auto station = OwnerOfConfig();
  after_ = Look();
  trust_ = Judge(before_, after_, station, getuid());
  if (trust_ != Trust::kStation && trust_ != Trust::kOwn) return;
  peers_ = PeersOf(connection);
  trust_ = JudgePeers(trust_, peers_, station, getuid());
}

std::optional<Listeners> ListenerCheck::Look() const {
  if (!destination_) return {};
  const auto listeners = ListenersOn(destination_->port);
  return listeners ? std::optional(TakersOf(*listeners, *destination_)) : std::nullopt;
}

bool ListenerCheck::AdmitsPassword(bool tunnel) const {
  return trust_ == Trust::kElsewhere || trust_ == Trust::kStation ||
         (tunnel && trust_ == Trust::kOwn);
}

std::string ListenerCheck::Complaint() const {
  const std::string where = destination_ ? destination_->InWords() : "this address";
  switch (trust_) {
    case Trust::kOwn:
    case Trust::kStranger:
      return "what listens at " + where + " belongs to " + OwnersOf(*after_) +
             ", not to root or the owner of " + ConfigDirectory() + ": " + kNothingSent +
             ". Is zevd running? For a tunnel of your own see --tunnel.";
    case Trust::kChanged:
      return "what listens at " + where + " changed during the connecting: " + kNothingSent +
             ". Try again.";
    case Trust::kNobody:
      return "something answers at " + where +
             ", but no listener can be seen there: " + kNothingSent +
             ". Use the address at which zevd listens; see --host and --port.";
    case Trust::kTaken:
      return "what answers at " + where + " belongs to " + OwnersOf(*peers_) +
             ", not to root or the owner of " + ConfigDirectory() +
             ", though what listens there is right: " + kNothingSent +
             ". As root, \"ss -tanpe\" shows the program.";
    case Trust::kUnseen:
      return "something answers at " + where +
             ", but the other end of the connection cannot be seen: " + kNothingSent +
             ". Try again, or use the address at which zevd listens.";
    case Trust::kElsewhere:
    case Trust::kStation:
    case Trust::kUntold:
      break;
  }
  return "the system does not tell who listens at " + where + ": " + kNothingSent +
         ". If this is a sandbox, run zevctl outside of it.";
}

ExitStatus ListenerCheck::status() const {
  return trust_ == Trust::kChanged ? ExitStatus::kNoDaemon : ExitStatus::kNotTheDaemon;
}

}  // namespace zevctl
