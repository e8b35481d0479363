// How often something may happen for one name or one address.
#pragma once

#include <chrono>
#include <map>
#include <string>

namespace zevweb {

/// The key for an address. With IPv6 it is the network, as one machine may have all addresses of
/// it.
std::string RateKeyOf(const std::string& address);

/// Lets `burst` happen at once for each key, and one more in each `pause`. One thread, or a lock of
/// the caller's.
class WebRate {
 public:
  using Clock = std::chrono::steady_clock;

  WebRate(int burst, std::chrono::seconds pause) : burst_(burst), pause_(pause) {}

  /// How long to wait; zero when it may happen now.
  std::chrono::seconds WaitOf(const std::string& key, Clock::time_point now);

  /// It happens now.
  void Note(const std::string& key, Clock::time_point now);

  /// It did no harm: it does not count.
  void Forgive(const std::string& key);

 private:
  // When everything that happened has been worked off.
  std::map<std::string, Clock::time_point> until_;
  int burst_;
  std::chrono::seconds pause_;
};

}  // namespace zevweb
