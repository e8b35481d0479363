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

constexpr size_t kColumns = 7;
using Cells = std::array<std::string, kColumns>;
const Cells kHeadings = {"scenario", "figure",       "unit",          "daemon",
                         "relay",    "daemon/relay", "daemon, spread"};
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

// Nothing when the relay has no such figure, or one too small for its clock.
bool HasRatio(const Row& row) {
  return !row.relay.empty() && Median(row.relay) > 0;
}

Cells CellsOf(const Row& row) {
  const double daemon = Median(row.daemon);
  return {
      row.scenario,
      row.figure,
      row.unit,
      Number(daemon, row.digits),
      row.relay.empty() ? "-" : Number(Median(row.relay), row.digits),
      HasRatio(row) ? Ratio(daemon / Median(row.relay)) : "-",
      Number(Smallest(row.daemon), row.digits) + " .. " + Number(Largest(row.daemon), row.digits)};
}

nlohmann::json Json(const std::vector<double>& samples) {
  if (samples.empty()) return nullptr;
  return {{"median", Median(samples)},
          {"min", Smallest(samples)},
          {"max", Largest(samples)},
          {"samples", samples}};
}

nlohmann::json Json(const Row& row) {
  nlohmann::json json = {{"scenario", row.scenario}, {"figure", row.figure},
                         {"unit", row.unit},         {"daemon", Json(row.daemon)},
                         {"relay", Json(row.relay)}, {"ratio", nullptr}};
  if (HasRatio(row)) json["ratio"] = Median(row.daemon) / Median(row.relay);
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
  std::cerr << "  " << cells[1] << ": " << cells[3] << " " << cells[2] << ", relay " << cells[4]
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
  out << "|---|---|---|---:|---:|---:|---:|\n";
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
