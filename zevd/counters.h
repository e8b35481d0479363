// What the daemon has done since it started, for the command "stats".
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace zevd {

/// One number that any thread may raise. It orders no other memory access.
class Counter {
 public:
  void Add(uint64_t count = 1) { value_.fetch_add(count, std::memory_order_relaxed); }
  uint64_t Get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

/// What came of a reload.
enum class ReloadResult : int {
  kNone,              ///< there has been none
  kDone,              ///< everything was read
  kEventFilesFailed,  ///< the configuration was left alone
  kConfigurationFailed,
};

/// The highest number of a refusal ("NNN - text").
inline constexpr size_t kHighestRefusal = 16;

struct Counters {
  Counter console_connections;  ///< consoles that became connected
  Counter console_failures;     ///< attempts to connect that failed or were refused
  Counter console_losses;       ///< connections of consoles that ended, whoever ended them
  Counter console_bytes;        ///< received from consoles
  Counter console_lines;        ///< line feeds among them
  Counter log_records;          ///< written to log files, the consolidated one included
  Counter log_bytes;            ///< in those records, their time stamps included
  Counter log_records_lost;     ///< that could not be written
  Counter connections;          ///< accepted from users and tools while descriptors lasted
  Counter refusals;             ///< numbered errors sent to users and tools
  std::array<Counter, kHighestRefusal> refusals_by_number;  ///< the same; that of 001 comes first
  Counter logins_accepted;                                  ///< by name and password, or by cookie
  Counter logins_refused;   ///< tries, of which one connection may make several
  Counter users_attached;   ///< to consoles
  Counter users_left;       ///< of their own accord or thrown off
  Counter bytes_not_shown;  ///< left out of the queues of users who read too slowly
  Counter slow_readers;     ///< users of whose output something was left out
  Counter tools_attached;   ///< to the command port
  Counter commands;         ///< lines that tools sent
  Counter events_posted;    ///< taken by the event manager's library
  Counter events_dropped;   ///< not taken
  Counter reloads;          ///< that have ended, whatever came of them
};

extern Counters counters;

/// Notes the time at which counting began, which "stats" tells as "started". Before the worker
/// threads start.
void StartCounting();

/// The time at which counting began.
time_t CountingSince();

/// Counts a reload and notes its result and time. The console output monitor only.
void NoteReload(ReloadResult result);

/// The result of the last reload and its time, 0 when there was none.
ReloadResult LastReload(time_t* at);

}  // namespace zevd
