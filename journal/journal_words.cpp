#include "journal_words.h"

#include <array>
#include <charconv>
#include <cstdio>

#include "journal.h"

namespace journal {

namespace {

constexpr size_t kStationDigits = 16;

// A whole number with nothing around it, written in the one way that PositionText() has for it.
std::optional<uint64_t> ParseDecimal(std::string_view text) {
  uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  const bool has_zeros = text.size() > 1 && text.front() == '0';
  if (error != std::errc() || stop != end || has_zeros) return {};
  return number;
}

struct KindName {
  Kind kind;
  const char* word;
};

constexpr std::array kKindNames = {
    KindName{Kind::kConsole, "console"},   KindName{Kind::kConsoleGone, "console-gone"},
    KindName{Kind::kOutput, "output"},     KindName{Kind::kInput, "input"},
    KindName{Kind::kAttached, "attached"}, KindName{Kind::kLeft, "left"},
    KindName{Kind::kMode, "mode"},         KindName{Kind::kConnected, "connected"},
    KindName{Kind::kLost, "lost"},         KindName{Kind::kDisabled, "disabled"},
    KindName{Kind::kEnabled, "enabled"},   KindName{Kind::kMessage, "message"},
    KindName{Kind::kBreak, "break"},       KindName{Kind::kEvent, "event"},
    KindName{Kind::kPaused, "paused"},     KindName{Kind::kNotLogged, "not-logged"},
    KindName{Kind::kGap, "gap"},           KindName{Kind::kClockStep, "clock-step"},
    KindName{Kind::kStarted, "started"},   KindName{Kind::kStopped, "stopped"},
    KindName{Kind::kAudit, "audit"},       KindName{Kind::kTorn, "torn"},
};

}  // namespace

std::string PositionText(const Position& position) {
  std::array<char, kStationDigits + 1> station{};
  snprintf(station.data(), station.size(), "%016llx",
           static_cast<unsigned long long>(position.station));
  return std::string(station.data()) + ':' + std::to_string(position.segment) + ':' +
         std::to_string(position.offset);
}

std::optional<uint64_t> ParseStation(std::string_view text) {
  if (text.size() != kStationDigits) return {};
  if (text.find_first_not_of("0123456789abcdef") != std::string_view::npos) return {};
  uint64_t station = 0;
  std::from_chars(text.data(), text.data() + text.size(), station, 16);
  return station;
}

std::optional<Position> ParsePosition(std::string_view text) {
  const size_t first = text.find(':');
  if (first == std::string_view::npos) return {};
  const size_t second = text.find(':', first + 1);
  if (second == std::string_view::npos) return {};
  const auto station = ParseStation(text.substr(0, first));
  const auto segment = ParseDecimal(text.substr(first + 1, second - first - 1));
  const auto offset = ParseDecimal(text.substr(second + 1));
  if (!station || !segment || !offset) return {};
  return Position{*station, *segment, *offset};
}

const char* KindWord(Kind kind) {
  for (const KindName& name : kKindNames) {
    if (name.kind == kind) return name.word;
  }
  return "unknown";
}

}  // namespace journal
