#include "listener.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "listener_query.h"
#include "settings.h"

namespace zevctl {

namespace {

// Stands for every user that the user namespace of this process does not have.
constexpr uid_t kNobodyKnown = 65534;

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

ListenerCheck::ListenerCheck(const sockaddr& address) : destination_(Destination(address)) {
  if (destination_ && !IsOfThisMachine(*destination_)) {
    trust_ = Trust::kElsewhere;
  } else {
    before_ = Look();
  }
}

void ListenerCheck::Finish() {
  if (trust_ == Trust::kElsewhere) return;
  after_ = Look();
  trust_ = Judge(before_, after_, OwnerOfConfig(), getuid());
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

std::string ListenerCheck::Owners() const {
  std::set<uid_t> users;
  for (const Listener& listener : *after_) users.insert(listener.uid);
  std::string text;
  for (const uid_t user : users) text += (text.empty() ? "" : ", ") + InWords(user);
  return text;
}

std::string ListenerCheck::Complaint() const {
  const std::string where = destination_ ? destination_->InWords() : "this address";
  switch (trust_) {
    case Trust::kOwn:
    case Trust::kStranger:
      return "what listens at " + where + " belongs to " + Owners() +
             ", not to root or the owner of " + ConfigDirectory() + ": " + kNothingSent +
             ". Is zevd running? For a tunnel of your own see --tunnel.";
    case Trust::kChanged:
      return "what listens at " + where + " changed during the connecting: " + kNothingSent +
             ". Try again.";
    case Trust::kNobody:
      return "something answers at " + where +
             ", but no listener can be seen there: " + kNothingSent + ".";
    case Trust::kElsewhere:
    case Trust::kStation:
    case Trust::kUntold:
      break;
  }
  return "the system does not tell who listens at " + where + ": " + kNothingSent + ".";
}

ExitStatus ListenerCheck::status() const {
  return trust_ == Trust::kChanged ? ExitStatus::kNoDaemon : ExitStatus::kNotTheDaemon;
}

}  // namespace zevctl
