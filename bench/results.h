// What was measured, and how it is shown.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace bench {

double Median(std::vector<double> values);

/// One figure: a sample for every repeat, of the daemon and of the plain relay in the same run.
struct Row {
  std::string scenario;
  std::string figure;
  std::string unit;
  std::vector<double> daemon;
  std::vector<double> relay;  // empty: a relay has nothing of the kind
  int digits = 1;
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
