// etcd by its JSON interface (the gateway of version 3.4): keys, transactions and leases. Bytes are
// plain here; the interface wants them in base64, and its numbers as texts.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fleet_options.h"
#include "json_line.h"

namespace zevfleet {

using zevctl::Json;

/// Why etcd has not done what was asked.
class EtcdError : public std::runtime_error {
 public:
  enum class Cause {
    kUnreachable,  ///< no endpoint answers in time, or none has a leader
    kNoLease,      ///< the lease is not known any more
    kCompacted,    ///< the revision is too old
    kRefused,      ///< anything else: rights, a request that is not understood
  };
  EtcdError(Cause cause, const std::string& text) : std::runtime_error(text), cause_(cause) {}
  Cause cause() const { return cause_; }

 private:
  Cause cause_;
};

struct EtcdKey {
  std::string key;
  std::string value;
  int64_t create_revision = 0;
  int64_t mod_revision = 0;
  int64_t lease = 0;  ///< 0: it does not end by itself
};

struct EtcdListing {
  int64_t revision = 0;  ///< as of which the keys are
  std::vector<EtcdKey> keys;
};

struct EtcdLease {
  int64_t id = 0;
  int64_t seconds = 0;  ///< as granted
};

/// Which server answered, and in which term of a leader.
struct EtcdTerm {
  std::string endpoint;
  uint64_t term = 0;

  bool operator==(const EtcdTerm&) const = default;
};

/// The first key behind all that begin with the prefix.
std::string EndOfPrefix(std::string prefix);

/// A transaction as it is being put together: when all comparisons hold, all changes are made.
class EtcdTransaction {
 public:
  EtcdTransaction& IfMissing(const std::string& key);
  EtcdTransaction& IfUnchanged(const std::string& key, int64_t mod_revision);
  EtcdTransaction& IfOfLease(const std::string& key, int64_t lease);
  EtcdTransaction& Put(const std::string& key, const std::string& value, int64_t lease = 0);
  EtcdTransaction& Delete(const std::string& key);

  Json Request() const;

 private:
  EtcdTransaction& Compare(const std::string& key, const char* target, const char* field,
                           int64_t number);

  std::vector<std::string> comparisons_;  // JSON texts
  std::vector<std::string> changes_;
};

/// A connection to one endpoint at a time, and to another one when that does not answer. Belongs to
/// one thread. Every request throws EtcdError.
class Etcd {
 public:
  explicit Etcd(const EtcdOptions& options);
  ~Etcd();
  Etcd(const Etcd&) = delete;
  Etcd& operator=(const Etcd&) = delete;

  /// All keys with the prefix, as of one revision that the leader has confirmed.
  EtcdListing List(const std::string& prefix);
  std::optional<EtcdKey> Get(const std::string& key);

  /// False when a comparison did not hold.
  bool Commit(const EtcdTransaction& transaction);

  EtcdLease Grant(int64_t seconds);
  /// The seconds that the lease has from now on. Throws EtcdError(kNoLease) when it has ended.
  int64_t KeepAlive(int64_t lease);
  void Revoke(int64_t lease);

  /// Follows the keys with the prefix from the revision on: `take` gets each answer's object until
  /// it returns false. Returns when the connection ends or `stop` becomes true.
  using TakeEvents = std::function<bool(const Json& result)>;
  void Watch(const std::string& prefix, int64_t revision, const TakeEvents& take,
             const std::atomic<bool>& stop);

  /// Of the last answer.
  const EtcdTerm& term() const { return term_; }
  /// The server's clock less this machine's, in seconds, at the last answer.
  int64_t clock_ahead() const { return clock_ahead_; }

  /// The next request goes to another endpoint.
  void Leave();

 private:
  struct Handle;

  Json Post(const std::string& path, const Json& request);
  Json PostOnce(const std::string& path, const std::string& body);
  void LogIn();
  void LogInOnce();
  void Note(const Json& answer);

  EtcdOptions options_;
  std::unique_ptr<Handle> handle_;
  size_t endpoint_ = 0;
  std::string token_;
  bool wants_login_ = true;  // until it says that anybody may do everything
  EtcdTerm term_;
  int64_t clock_ahead_ = 0;
};

/// The key and its fields, as the interface describes one.
EtcdKey DecodeKey(const Json& key);

/// A number of the interface, which leaves out what is 0.
int64_t NumberIn(const Json& object, const char* key);

}  // namespace zevfleet
