// What was measured, and how it is shown.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace bench {

double Median(std::vector<double> values);

/// What a figure should come to.
struct Goal {
  enum class Kind {
    kNone,
    kRatioAtLeast,  // the daemon's figure divided by the yardstick's
    kRatioAtMost,
    kAtMost,     // the figure itself, in the unit of its row
    kNeverOver,  // the same for every single repeat
  };
  Kind kind = Kind::kNone;
  double limit = 0;
};

inline Goal RatioAtLeast(double limit) {
  return {Goal::Kind::kRatioAtLeast, limit};
}
inline Goal RatioAtMost(double limit) {
  return {Goal::Kind::kRatioAtMost, limit};
}
inline Goal AtMost(double limit) {
  return {Goal::Kind::kAtMost, limit};
}
inline Goal NeverOver(double limit) {
  return {Goal::Kind::kNeverOver, limit};
}

/// One figure: a sample for every repeat, of the daemon and of its yardstick in the same run. The
/// yardstick is the plain relay or whatever the scenario names.
struct Row {
  std::string scenario;
  std::string figure;
  std::string unit;
  std::vector<double> daemon;
  std::vector<double> yardstick;  // empty: it has nothing of the kind
  int digits = 1;
  Goal goal = {};
};

struct Failure {
  std::string scenario;
  std::string reason;
};

class Results {
 public:
  explicit Results(std::string machine) : machine_(std::move(machine)) {}

  void Add(Row row);
  /// Something that the reader has to know about a scenario, such as that it was scaled down.
  void Note(const std::string& text);
  void AddFailure(Failure failure) { failures_.push_back(std::move(failure)); }
  bool failed() const { return !failures_.empty(); }

  void PrintTable(std::ostream& out) const;
  void PrintMarkdown(std::ostream& out) const;
  void WriteJson(const std::string& path) const;

 private:
  void PrintRemarks(std::ostream& out, const char* prefix) const;

  std::string machine_;
  std::vector<Row> rows_;
  std::vector<std::string> notes_;
  std::vector<Failure> failures_;
};

}  // namespace bench
