// An event file tried out on lines: which of its patterns match each line, which one wins as in the
// daemon, and what each of them costs.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "event_file.h"

namespace zevctl {

/// What all lines together have shown of one pattern.
struct PatternFigures {
  uint64_t tried = 0;  ///< lines on which the system's matcher ran; the others cannot match
  uint64_t matched = 0;
  uint64_t wins = 0;      ///< lines of which no earlier pattern took the event
  uint64_t events = 0;    ///< those of them that nobody was watching
  double total_cost = 0;  ///< microseconds of processor time, as the next one
  double worst_cost = 0;
  std::string left_out;  ///< why it is not matched any more; empty for nearly all

  double MeanCost() const { return tried == 0 ? 0 : total_cost / static_cast<double>(tried); }
};

/// What the patterns say of one line.
struct Verdict {
  std::vector<size_t> matches;   ///< by their places, ascending
  std::optional<size_t> winner;  ///< the one whose event the daemon posts
};

class Rehearsal {
 public:
  /// Keeps a copy of the file. Make it before a journal is opened (pattern_process.h). Throws
  /// Failure(kFailed).
  explicit Rehearsal(EventFile file);
  ~Rehearsal();
  Rehearsal(const Rehearsal&) = delete;
  Rehearsal& operator=(const Rehearsal&) = delete;

  /// `is_attended`: somebody was attached, and the daemon posts no event then.
  Verdict Judge(const std::string& line, bool is_attended);

  const EventFile& file() const { return file_; }

  /// By the pattern's place in the file.
  const std::vector<PatternFigures>& figures();

 private:
  class EasyPatterns;
  class HardPatterns;

  EventFile file_;
  std::vector<PatternFigures> figures_;
  std::unique_ptr<EasyPatterns> easy_;
  std::unique_ptr<HardPatterns> hard_;  ///< null when there is none
};

}  // namespace zevctl
