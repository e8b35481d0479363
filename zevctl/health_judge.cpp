#include "health_judge.h"

#include <algorithm>

#include "journal_text.h"
#include "output.h"

namespace zevctl {

namespace {

/// The problems of one console, as they are found.
class Judge {
 public:
  Judge(const ConsoleFacts& facts, const HealthRules& rules) : facts_(facts), rules_(rules) {}

  std::vector<Problem> All() {
    State();
    Silence();
    Flood();
    Log();
    Recording();
    return std::move(problems_);
  }

 private:
  void Add(HealthLevel level, const char* kind, const std::string& what, const std::string& mend,
           std::optional<int64_t> since) {
    problems_.push_back({level, kind, facts_.name, what, mend, since});
  }

  // A command about this console, for the reader to copy.
  std::string Command(const std::string& command) const {
    return "\"zevctl " + command + " " + facts_.name + "\"";
  }

  void State() {
    if (facts_.state.empty() || facts_.IsUp()) return;
    if (facts_.state == "disabled") {
      return Add(HealthLevel::kWarning, "disabled", "it is disabled, and nothing is recorded",
                 Command("enable") + " has it watched again", facts_.since);
    }
    Add(HealthLevel::kCritical, "down", "it is " + facts_.state,
        "see whether its port answers; " + Command("reconnect") + " tries at once", facts_.since);
  }

  void Silence() {
    if (!facts_.IsUp() || !facts_.last_output) return;
    const int64_t silence = rules_.now - *facts_.last_output;
    if (silence <= Limit()) return;
    std::string what = "it has printed nothing for " + DurationText(silence);
    if (facts_.usual_pause && !rules_.silence) {
      what += "; its pauses are usually " + DurationText(*facts_.usual_pause);
    }
    Add(HealthLevel::kWarning, "silent", what,
        "see whether it lives: " + Command("attach") + " and press Enter", facts_.last_output);
  }

  // A console of which nothing is usual may be as silent as it likes.
  int64_t Limit() const {
    if (rules_.silence) return *rules_.silence;
    if (!facts_.usual_pause) return INT64_MAX;
    return std::max(HealthRules::kShortestSilence, HealthRules::kTimesUsual * *facts_.usual_pause);
  }

  void Flood() {
    if (facts_.recent_bytes < rules_.flood) return;
    Add(HealthLevel::kWarning, "flooding",
        "it has printed " + CountText(facts_.recent_bytes, "byte") + " in " +
            DurationText(HealthRules::kRecent),
        "see what it prints: " + Command("log -n 50"), {});
  }

  void Log() {
    if (facts_.is_logged == false) {
      return Add(HealthLevel::kWarning, "no-log", "its logging flag is 0",
                 "set the flag to 1 in zev.conf and reload the daemon if it shall have a log", {});
    }
    if (facts_.is_log_missing) {
      Add(HealthLevel::kCritical, "no-log", "it prints and has no log file",
          "see the daemon's output for why the log cannot be opened", facts_.last_output);
    } else if (facts_.log_behind) {
      Add(HealthLevel::kCritical, "no-log", "it prints and its log is not written",
          "see whether the disk is full: \"df\"", facts_.log_behind);
    }
  }

  void Recording() {
    if (!facts_.is_hidden) return;
    const std::string who = facts_.hidden_by.empty() ? "somebody" : facts_.hidden_by;
    Add(HealthLevel::kWarning, "not-recorded",
        who + " holds it exclusively with revoke, and nothing is recorded",
        "ask " + who + " to leave it or to use another mode", facts_.hidden_since);
  }

  const ConsoleFacts& facts_;
  const HealthRules& rules_;
  std::vector<Problem> problems_;
};

}  // namespace

const char* WordOf(HealthLevel level) {
  constexpr const char* kWords[] = {"ok", "warning", "critical", "unknown"};
  return kWords[static_cast<int>(level)];
}

std::vector<Problem> ProblemsOf(const ConsoleFacts& facts, const HealthRules& rules) {
  return Judge(facts, rules).All();
}

std::vector<Problem> ProblemsOf(const StationFacts& facts) {
  std::vector<Problem> problems;
  if (!facts.no_daemon.empty()) {
    problems.push_back({HealthLevel::kCritical,
                        "daemon",
                        "",
                        facts.no_daemon,
                        "see whether it runs: \"systemctl status zevd\"",
                        {}});
  }
  if (facts.is_journal_refused) {
    problems.push_back({HealthLevel::kCritical,
                        "journal",
                        "",
                        "the daemon does not keep the journal that it is to keep",
                        "see the daemon's output for the reason, mend that and reload the "
                        "daemon: \"systemctl reload zevd\"",
                        {}});
  }
  if (facts.is_journal_stopped || facts.journal_stands_since) {
    problems.push_back({HealthLevel::kCritical, "journal", "",
                        "consoles print, and the journal is not written",
                        "see whether the disk is full: \"df\"", facts.journal_stands_since});
  }
  if (facts.last_gap) {
    problems.push_back({HealthLevel::kWarning, "gap", "",
                        CountText(facts.lost_records, "record") +
                            (facts.lost_records == 1 ? " is" : " are") + " missing in the journal",
                        "see whether the disk is slow or was full; \"zevctl audit --what gap\" "
                        "lists the gaps",
                        facts.last_gap});
  }
  return problems;
}

HealthLevel LevelOf(const std::vector<Problem>& problems) {
  HealthLevel worst = HealthLevel::kFine;
  for (const Problem& problem : problems) worst = std::max(worst, problem.level);
  return worst;
}

}  // namespace zevctl
