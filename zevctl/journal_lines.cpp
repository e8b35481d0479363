#include "journal_lines.h"

#include <algorithm>
#include <tuple>
#include <vector>

namespace zevctl {

namespace {

using journal::Kind;

constexpr unsigned char kIac = 255;
constexpr unsigned char kFirstCommand = 240;
constexpr unsigned char kWill = 251;  // WONT, DO and DONT follow

}  // namespace

// ---- One console's bytes ------------------------------------------------------------------------

bool LineBytes::Take(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  switch (telnet_) {
    case Telnet::kOption:
      telnet_ = Telnet::kNone;
      return false;
    case Telnet::kCommand:
      telnet_ = code >= kWill && code < kIac ? Telnet::kOption : Telnet::kNone;
      if (code >= kFirstCommand && code < kIac) return false;
      TakeText(static_cast<char>(kIac));  // it was no command
      return code != kIac && TakeText(byte);
    case Telnet::kNone:
      break;
  }
  if (code != kIac) return TakeText(byte);
  telnet_ = Telnet::kCommand;
  return false;
}

bool LineBytes::TakeText(char byte) {
  if (byte == '\0') return false;
  if (byte == '\r') {
    if (text_.empty()) return false;
    return after_cr_ = true;
  }
  const bool ends_no_line = byte == '\n' && after_cr_;
  after_cr_ = false;
  if (byte == '\n') return !ends_no_line;
  text_.push_back(byte);
  return false;
}

bool TellsOfLoss(Kind kind) {
  return kind == Kind::kGap || kind == Kind::kPaused || kind == Kind::kTorn;
}

// ---- Lines of many consoles ---------------------------------------------------------------------

void LineAssembler::Take(const journal::Record& record) {
  if (record.header.kind != Kind::kOutput) {
    if ((journal::KindBit(record.header.kind) & kInterruptions) == 0) return;
    if (!record.console) return Finish();
    const auto place = lines_.find(*record.console);
    if (place != lines_.end()) HandOverRest(place);
    return;
  }
  if (!record.console) return;
  Line& line = LineOf(record);
  line.wall = record.header.wall;
  line.position = record.position;
  for (const char byte : record.payload) {
    if (line.bytes.Take(byte)) {
      HandOver(*record.console, line, true);
    } else if (line.bytes.text().size() >= kLongestPrintedLine) {
      HandOver(*record.console, line, false);
    }
  }
}

LineAssembler::Line& LineAssembler::LineOf(const journal::Record& record) {
  const auto [place, is_new] = lines_.try_emplace(*record.console);
  Line& line = place->second;
  if (!is_new || !head_) return line;
  for (const char byte : head_(record)) {
    if (line.bytes.Take(byte)) line.bytes.Clear();
  }
  return line;
}

void LineAssembler::HandOver(size_t console, Line& line, bool is_complete) {
  handle_({console, line.bytes.text(), line.wall, line.position, is_complete});
  line.bytes.Clear();
}

void LineAssembler::HandOverRest(const std::map<size_t, Line>::iterator& place) {
  if (!place->second.bytes.text().empty()) HandOver(place->first, place->second, false);
  place->second.bytes = {};
}

void LineAssembler::Finish() {
  using Place = std::map<size_t, Line>::iterator;
  std::vector<Place> places;
  for (auto place = lines_.begin(); place != lines_.end(); ++place) places.push_back(place);
  std::stable_sort(places.begin(), places.end(), [](const Place& a, const Place& b) {
    return a->second.position < b->second.position;
  });
  for (const Place& place : places) HandOverRest(place);
}

}  // namespace zevctl
