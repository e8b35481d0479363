#include "refusal.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace zevctl {

namespace {

struct Row {
  int number;
  ExitStatus status;
  std::string_view advice;
};

constexpr std::array kRows = {
    Row{1, ExitStatus::kNotAdmitted, "Try again with the name and password that you have there."},
    Row{2, ExitStatus::kRefused, "Look for odd characters in the names that you gave."},
    Row{3, ExitStatus::kRefused, "Try again, and answer sooner."},
    Row{4, ExitStatus::kNoSuchConsole, "\"zevctl list\" shows the names."},
    Row{5, ExitStatus::kNotAccessible,
        "The daemon tries to connect to it every minute; --retry waits for it."},
    Row{6, ExitStatus::kInUse,
        "Watch it with --mode ro, or wait; \"zevctl who\" tells who has it."},
    Row{7, ExitStatus::kInUse, "Ask for --mode sh, or wait; \"zevctl who\" tells who is attached."},
    Row{8, ExitStatus::kRefused, "Try again."},
    Row{9, ExitStatus::kRefused, "Try again."},
    Row{11, ExitStatus::kNotAccessible,
        "It was taken out of the station's configuration; \"zevctl list\" shows what is left."},
    Row{12, ExitStatus::kNotAccessible, "\"zevctl enable\" lets the daemon connect to it."},
    Row{13, ExitStatus::kRefused, "Look at the station's memory and processes."},
    Row{14, ExitStatus::kNotAdmitted, "Ask to be added to the group qoruser."},
    Row{15, ExitStatus::kRefused, "\"zevctl ports\" shows the ports."},
    Row{16, ExitStatus::kRefused, "Wait, or use the main port."},
};

// A number the table does not have is a refusal all the same.
const Row& RowOf(int number) {
  static constexpr Row kOther = {0, ExitStatus::kRefused, "The daemon's messages tell more."};
  const auto* row = std::find_if(kRows.begin(), kRows.end(),
                                 [&](const Row& candidate) { return candidate.number == number; });
  return row == kRows.end() ? kOther : *row;
}

constexpr size_t kDigits = 3;
constexpr std::string_view kSeparator = " - ";

bool IsDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

}  // namespace

ExitStatus Refusal::status() const {
  return RowOf(number).status;
}

std::string_view Refusal::advice() const {
  return RowOf(number).advice;
}

std::string Refusal::Message() const {
  return "refused: " + text + " " + std::string(advice());
}

std::optional<Refusal> ParseRefusal(std::string_view bytes) {
  if (!bytes.ends_with("\r\n")) return {};
  bytes.remove_suffix(2);
  const bool one_line = bytes.find_first_of("\r\n") == std::string_view::npos;
  if (!one_line || bytes.size() <= kDigits + kSeparator.size()) return {};
  if (!std::all_of(bytes.begin(), bytes.begin() + kDigits, IsDigit)) return {};
  if (!bytes.substr(kDigits).starts_with(kSeparator)) return {};
  return Refusal{std::stoi(std::string(bytes.substr(0, kDigits))), std::string(bytes)};
}

}  // namespace zevctl
