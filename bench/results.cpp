#include "results.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "net.h"

namespace bench {

namespace {

constexpr size_t kColumns = 9;
using Cells = std::array<std::string, kColumns>;
const Cells kHeadings = {"scenario", "figure",         "unit", "daemon", "yardstick",
                         "ratio",    "daemon, spread", "goal", "met"};
constexpr size_t kFirstNumber = 3;  // columns from here on are set flush right

std::string Number(double value, int digits) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(digits) << value;
  return text.str();
}

// Three significant digits, as ratios lie far apart.
std::string Ratio(double value) {
  constexpr double kFine = 10;
  constexpr double kCoarse = 100;
  if (value >= kCoarse) return Number(value, 0);
  if (value >= kFine) return Number(value, 1);
  if (value >= 1) return Number(value, 2);
  std::ostringstream text;
  text << std::setprecision(2) << value;
  return text.str();
}

double Smallest(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

double Largest(const std::vector<double>& values) {
  return *std::max_element(values.begin(), values.end());
}

// Nothing when the yardstick has no such figure, or one too small for its clock.
bool HasRatio(const Row& row) {
  return !row.yardstick.empty() && Median(row.yardstick) > 0;
}

double RatioOf(const Row& row) {
  return Median(row.daemon) / Median(row.yardstick);
}

bool IsOfRatio(const Goal& goal) {
  return goal.kind == Goal::Kind::kRatioAtLeast || goal.kind == Goal::Kind::kRatioAtMost;
}

// "0.3x" is a ratio, "20" is in the unit of the row.
std::string Text(const Goal& goal) {
  if (goal.kind == Goal::Kind::kNone) return "";
  std::ostringstream text;
  text << (goal.kind == Goal::Kind::kRatioAtLeast ? ">= " : "<= ") << goal.limit;
  if (IsOfRatio(goal)) text << "x";
  if (goal.kind == Goal::Kind::kNeverOver) text << " always";
  return text.str();
}

bool IsMet(const Row& row) {
  switch (row.goal.kind) {
    case Goal::Kind::kRatioAtLeast:
      return HasRatio(row) && RatioOf(row) >= row.goal.limit;
    case Goal::Kind::kRatioAtMost:
      return HasRatio(row) && RatioOf(row) <= row.goal.limit;
    case Goal::Kind::kAtMost:
      return Median(row.daemon) <= row.goal.limit;
    case Goal::Kind::kNeverOver:
      return Largest(row.daemon) <= row.goal.limit;
    case Goal::Kind::kNone:
      break;
  }
  return true;
}

std::string Verdict(const Row& row) {
  if (row.goal.kind == Goal::Kind::kNone) return "";
  return IsMet(row) ? "yes" : "no";
}

Cells CellsOf(const Row& row) {
  const double daemon = Median(row.daemon);
  return {
      row.scenario,
      row.figure,
      row.unit,
      Number(daemon, row.digits),
      row.yardstick.empty() ? "-" : Number(Median(row.yardstick), row.digits),
      HasRatio(row) ? Ratio(RatioOf(row)) : "-",
      Number(Smallest(row.daemon), row.digits) + " .. " + Number(Largest(row.daemon), row.digits),
      Text(row.goal),
      Verdict(row)};
}

nlohmann::json Json(const std::vector<double>& samples) {
  if (samples.empty()) return nullptr;
  return {{"median", Median(samples)},
          {"min", Smallest(samples)},
          {"max", Largest(samples)},
          {"samples", samples}};
}

nlohmann::json Json(const Row& row) {
  nlohmann::json json = {{"scenario", row.scenario},
                         {"figure", row.figure},
                         {"unit", row.unit},
                         {"daemon", Json(row.daemon)},
                         {"yardstick", Json(row.yardstick)},
                         {"ratio", nullptr}};
  if (HasRatio(row)) json["ratio"] = RatioOf(row);
  if (row.goal.kind != Goal::Kind::kNone) {
    json["goal"] = Text(row.goal);
    json["met"] = IsMet(row);
  }
  return json;
}

void PrintCells(std::ostream& out, const Cells& cells, const std::array<size_t, kColumns>& widths) {
  for (size_t i = 0; i < kColumns; ++i) {
    out << (i < kFirstNumber ? std::left : std::right) << std::setw(static_cast<int>(widths[i]))
        << cells[i] << (i + 1 < kColumns ? "  " : "\n");
  }
}

void PrintMarkdownCells(std::ostream& out, const Cells& cells) {
  for (const std::string& cell : cells) out << "| " << cell << ' ';
  out << "|\n";
}

}  // namespace

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void Results::Add(Row row) {
  const Cells cells = CellsOf(row);
  std::cerr << "  " << cells[1] << ": " << cells[3] << " " << cells[2] << ", yardstick " << cells[4]
            << "\n";
  rows_.push_back(std::move(row));
}

void Results::Note(const std::string& text) {
  if (std::find(notes_.begin(), notes_.end(), text) != notes_.end()) return;
  std::cerr << "  note: " << text << "\n";
  notes_.push_back(text);
}

void Results::PrintTable(std::ostream& out) const {
  out << machine_ << "\n\n";
  std::vector<Cells> table = {kHeadings};
  for (const Row& row : rows_) table.push_back(CellsOf(row));
  std::array<size_t, kColumns> widths{};
  for (const Cells& cells : table) {
    for (size_t i = 0; i < kColumns; ++i) widths[i] = std::max(widths[i], cells[i].size());
  }
  for (const Cells& cells : table) PrintCells(out, cells, widths);
  PrintRemarks(out, "");
}

void Results::PrintMarkdown(std::ostream& out) const {
  out << machine_ << "\n\n";
  PrintMarkdownCells(out, kHeadings);
  out << "|---|---|---|---:|---:|---:|---:|---:|---|\n";
  for (const Row& row : rows_) PrintMarkdownCells(out, CellsOf(row));
  PrintRemarks(out, "- ");
}

void Results::PrintRemarks(std::ostream& out, const char* prefix) const {
  if (!notes_.empty() || !failures_.empty()) out << '\n';
  for (const std::string& note : notes_) out << prefix << "note: " << note << '\n';
  for (const Failure& failure : failures_) {
    out << prefix << "FAILED: " << failure.scenario << ": " << failure.reason << '\n';
  }
}

void Results::WriteJson(const std::string& path) const {
  nlohmann::json json = {
      {"machine", machine_}, {"rows", nlohmann::json::array()}, {"notes", notes_}};
  json["failures"] = nlohmann::json::array();
  for (const Row& row : rows_) json["rows"].push_back(Json(row));
  for (const Failure& failure : failures_) {
    json["failures"].push_back({{"scenario", failure.scenario}, {"reason", failure.reason}});
  }
  std::ofstream file(path);
  file << json.dump(2) << '\n';
  file.close();
  if (!file) Fail(path);
}

}  // namespace bench
