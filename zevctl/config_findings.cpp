#include "config_findings.h"

#include <algorithm>
#include <tuple>

namespace zevctl {

namespace {

auto Order(const Finding& finding) {
  return std::tie(finding.place.file, finding.place.line, finding.place.column, finding.what);
}

}  // namespace

std::string Place::InWords() const {
  std::string text = file;
  if (line != 0) text += ":" + std::to_string(line);
  if (column != 0) text += ":" + std::to_string(column);
  return text;
}

std::string Finding::InWords() const {
  const std::string kind = severity == Severity::kError ? "error: " : "warning: ";
  return place.InWords() + ": " + kind + what + "; " + mend;
}

void Findings::Add(const Finding& finding) {
  list_.push_back(finding);
  if (finding.severity == Severity::kError) ++errors_;
}

void Findings::Add(const Findings& others) {
  list_.insert(list_.end(), others.list_.begin(), others.list_.end());
  errors_ += others.errors_;
}

void Findings::Error(const Place& place, const std::string& what, const std::string& mend) {
  Add({place, Severity::kError, what, mend});
}

void Findings::Warning(const Place& place, const std::string& what, const std::string& mend) {
  Add({place, Severity::kWarning, what, mend});
}

std::vector<Finding> Findings::Sorted() const {
  std::vector<Finding> sorted = list_;
  std::stable_sort(sorted.begin(), sorted.end(), [](const Finding& one, const Finding& other) {
    return Order(one) < Order(other);
  });
  const auto end = std::unique(
      sorted.begin(), sorted.end(),
      [](const Finding& one, const Finding& other) { return Order(one) == Order(other); });
  sorted.erase(end, sorted.end());
  return sorted;
}

std::string Quoted(const std::string& word) {
  return "\"" + word + "\"";
}

}  // namespace zevctl
