// What is wrong with consoles and with the record of them, judged by what is known of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zevctl {

/// As programs that watch services count: their exit status.
enum class HealthLevel : int { kFine = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

/// "ok", "warning", "critical" or "unknown".
const char* WordOf(HealthLevel level);

/// What is known of a console. Times are wall times of the journal, in nanoseconds.
struct ConsoleFacts {
  std::string name;
  std::optional<size_t> id;  ///< of the Console in the journal
  std::string state;         ///< the daemon's word; empty when it is not known
  std::optional<int64_t> since;
  std::optional<int64_t> last_output;
  std::optional<int64_t> usual_pause;  ///< known where the silence is long enough to matter
  uint64_t recent_bytes = 0;           ///< printed within kRecent
  bool is_hidden = false;              ///< its output is not recorded now: exclusive with revoke
  std::string hidden_by;
  std::optional<int64_t> hidden_since;
  std::optional<bool> is_logged;      ///< by its flag
  bool is_log_missing = false;        ///< there is no log, although it has printed something
  std::optional<int64_t> log_behind;  ///< a line since then is not in the log

  bool IsUp() const { return state == "connected" || state == "in-use"; }
};

/// What stands for the station instead of a console.
struct StationFacts {
  std::string no_daemon;            ///< why the daemon does not answer; empty when it does
  bool is_journal_refused = false;  ///< as the daemon says, like the next one
  bool is_journal_stopped = false;
  std::optional<int64_t> journal_stands_since;
  uint64_t lost_records = 0;  ///< in gaps of the journal
  std::optional<int64_t> last_gap;
};

struct HealthFacts {
  std::vector<ConsoleFacts> consoles;  ///< those that are wanted, by name
  StationFacts station;
  std::vector<std::string> notes;  ///< what could not be looked at, and why
  bool knows_consoles = false;     ///< from the daemon or the journal
  bool from_daemon = false;        ///< the states are the daemon's, not the journal's
  bool from_journal = false;       ///< there is a journal that can be read
  bool journal_is_off = false;     ///< as the daemon says
  int64_t now = 0;                 ///< up to when silence counts
};

/// Where the line is drawn.
struct HealthRules {
  static constexpr int64_t kSecond = 1'000'000'000;
  static constexpr int64_t kRecent = 300 * kSecond;  ///< for flooding
  static constexpr int64_t kShortestSilence = 3600 * kSecond;
  static constexpr int64_t kTimesUsual = 10;

  int64_t now = 0;
  std::optional<int64_t> silence;      ///< as long for every console
  uint64_t flood = uint64_t{1} << 20;  ///< bytes within kRecent

  /// The silence from which on the usual pause of a console is asked for.
  int64_t LeastSilence() const { return silence.value_or(kShortestSilence); }
};

struct Problem {
  HealthLevel level = HealthLevel::kWarning;
  std::string kind;
  std::string console;  ///< empty for the station
  std::string what;
  std::string mend;
  std::optional<int64_t> since;
};

std::vector<Problem> ProblemsOf(const ConsoleFacts& facts, const HealthRules& rules);
std::vector<Problem> ProblemsOf(const StationFacts& facts);

/// The worst of them.
HealthLevel LevelOf(const std::vector<Problem>& problems);

}  // namespace zevctl
