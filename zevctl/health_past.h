// What the journal tells of the station's health.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "health_judge.h"
#include "journal/journal.h"

namespace zevctl {

class HealthPast {
 public:
  HealthPast(std::unique_ptr<journal::Journal> journal, const HealthRules& rules);

  /// The consoles that are not gone, with their states as the journal last told.
  std::vector<ConsoleFacts> LastKnown() const;

  /// Adds what the journal alone tells.
  void Complete(HealthFacts* facts) const;

  /// From now on the newest record is the present: without a daemon, all consoles are silent.
  void EndWithNewestRecord() { rules_.now = end_.value_or(rules_.now); }

  /// Up to when silence counts.
  int64_t now() const { return rules_.now; }

  /// When the console printed a whole line that a log which was last written at `written` should
  /// have; nothing when there is none.
  std::optional<int64_t> LineAfter(const ConsoleFacts& console, int64_t written) const;

 private:
  std::optional<int64_t> NewestRecord(const journal::Query& query) const;
  void AddStates(std::vector<ConsoleFacts>* consoles) const;
  void AddSilence(ConsoleFacts* facts) const;
  void AddFlood(std::vector<ConsoleFacts>* consoles) const;
  void AddGaps(HealthFacts* facts) const;
  void AddStandstill(HealthFacts* facts) const;

  std::unique_ptr<journal::Journal> journal_;
  HealthRules rules_;
  std::optional<int64_t> end_;  ///< wall time of the newest record
};

}  // namespace zevctl
