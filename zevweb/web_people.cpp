#include "web_people.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "rights.h"

namespace zevweb {

namespace {

constexpr std::chrono::seconds kLifetime{60};
constexpr size_t kMostKnown = 4096;
constexpr size_t kMostBytes = 1 << 22;  // of a group with very many members

// Calls one of the database's functions with a buffer that is large enough; false when there is no
// such entry.
template <typename Entry, typename Function>
bool Find(Function function, const char* name, Entry* entry, std::vector<char>& buffer) {
  for (buffer.resize(1024); buffer.size() <= kMostBytes; buffer.resize(buffer.size() * 2)) {
    Entry* found = nullptr;
    const int error = function(name, entry, buffer.data(), buffer.size(), &found);
    if (error != ERANGE) return found != nullptr;
  }
  return false;
}

bool IsMember(const std::string& name) {
  passwd person{};
  group admitted{};
  std::vector<char> person_bytes;
  std::vector<char> group_bytes;
  const bool has_account = Find(getpwnam_r, name.c_str(), &person, person_bytes);
  if (has_account && person.pw_uid == 0) return true;
  if (!Find(getgrnam_r, zevctl::kLoginGroup, &admitted, group_bytes)) return false;
  if (has_account && person.pw_gid == admitted.gr_gid) return true;
  for (char** member = admitted.gr_mem; *member != nullptr; ++member) {
    if (name == *member) return true;
  }
  return false;
}

}  // namespace

bool WebPeople::MayUse(const std::string& name) {
  {
    const std::lock_guard lock(mutex_);
    const auto known = known_.find(name);
    if (known != known_.end() && Clock::now() - known->second.asked < kLifetime) {
      return known->second.may_use;
    }
  }
  const bool may_use = IsMember(name);
  const std::lock_guard lock(mutex_);
  if (known_.size() >= kMostKnown) known_.clear();
  known_[name] = {may_use, Clock::now()};
  return may_use;
}

}  // namespace zevweb
