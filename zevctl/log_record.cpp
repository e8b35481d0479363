#include "log_record.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace zevctl {

namespace {

constexpr size_t kPieceSize = 1024;  // the daemon's buffer for one line
constexpr size_t kLongestName = 64;
constexpr std::string_view kStampShape = "00/00/00_00:00:00 ";
constexpr size_t kStampSize = kStampShape.size() - 1;

// In seconds: how much later than the unfinished line the empty record after it may be.
constexpr time_t kClosingTime = 1;

bool FitsShape(char byte, char shape) {
  return shape == '0' ? isdigit(static_cast<unsigned char>(byte)) != 0 : byte == shape;
}

bool HasStampAt(std::string_view bytes, size_t position) {
  if (bytes.size() < position + kStampShape.size()) return false;
  return std::equal(kStampShape.begin(), kStampShape.end(),
                    bytes.begin() + static_cast<ptrdiff_t>(position),
                    [](char shape, char byte) { return FitsShape(byte, shape); });
}

// What precedes the text.
struct Header {
  size_t stamp = 0;          // with the blank; 0 when there is none
  std::string_view console;  // empty when there is none
  size_t size() const { return stamp + (console.empty() ? 0 : console.size() + 1); }
};

Header ParseHeader(std::string_view bytes, LogKind kind) {
  Header header;
  if (!HasStampAt(bytes, 0)) return header;
  header.stamp = kStampShape.size();
  if (kind == LogKind::kConsole) return header;
  const std::string_view rest = bytes.substr(header.stamp, kLongestName + 1);
  const size_t end = rest.find_first_of(" \r\n");
  if (end != std::string_view::npos && rest[end] == ' ') header.console = rest.substr(0, end);
  return header;
}

// Position of the first LF or CR; the size when there is none.
size_t FindLineEnd(std::string_view bytes) {
  const void* newline = memchr(bytes.data(), '\n', bytes.size());
  const size_t end = newline == nullptr
                         ? bytes.size()
                         : static_cast<size_t>(static_cast<const char*>(newline) - bytes.data());
  const void* other = memchr(bytes.data(), '\r', end);
  return other == nullptr ? end
                          : static_cast<size_t>(static_cast<const char*>(other) - bytes.data());
}

int TwoDigits(std::string_view text, size_t position) {
  return (text[position] - '0') * 10 + (text[position + 1] - '0');
}

tm LocalTime(std::string_view stamp, int daylight_saving) {
  tm local{};
  local.tm_year = 100 + TwoDigits(stamp, 0);
  local.tm_mon = TwoDigits(stamp, 3) - 1;
  local.tm_mday = TwoDigits(stamp, 6);
  local.tm_hour = TwoDigits(stamp, 9);
  local.tm_min = TwoDigits(stamp, 12);
  local.tm_sec = TwoDigits(stamp, 15);
  local.tm_isdst = daylight_saving;
  return local;
}

time_t ToTime(std::string_view stamp, int daylight_saving) {
  tm local = LocalTime(stamp, daylight_saving);
  return mktime(&local);
}

// Length, with its header, of a line that was unfinished when the log was closed: then the line
// ends with the header of an empty record. 0 when it is another line.
size_t ClosedPieceLength(std::string_view line, const Header& header) {
  const size_t text_size = line.size() - header.size();
  if (header.stamp == 0 || text_size <= header.size() || text_size > kPieceSize + header.size()) {
    return 0;
  }
  const size_t start = line.size() - header.size();
  if (!HasStampAt(line, start)) return 0;
  if (line.substr(start + header.stamp) !=
      line.substr(header.stamp, header.size() - header.stamp)) {
    return 0;
  }
  const time_t passed = ToTime(line.substr(start), -1) - ToTime(line, -1);
  return passed >= 0 && passed <= kClosingTime ? start : 0;
}

// Length of the first record of bytes without a line end.
size_t UnfinishedLength(std::string_view bytes, const Header& header, bool at_end) {
  if (bytes.size() >= kLongestRecord) return kLongestRecord;
  const bool holds_piece = header.stamp > 0 && bytes.size() >= header.size() + kPieceSize;
  return at_end && holds_piece ? header.size() + kPieceSize : 0;
}

}  // namespace

size_t RecordLength(std::string_view bytes, LogKind kind, bool at_end) {
  bytes = bytes.substr(0, kLongestRecord);
  const Header header = ParseHeader(bytes, kind);
  const std::string_view text = bytes.substr(header.size());
  const size_t line_end = FindLineEnd(text);
  if (header.stamp > 0 && line_end > kPieceSize && HasStampAt(text, kPieceSize)) {
    return header.size() + kPieceSize;
  }
  if (line_end == text.size()) return UnfinishedLength(bytes, header, at_end);
  const std::string_view line = bytes.substr(0, header.size() + line_end);
  const size_t piece = text[line_end] == '\n' ? ClosedPieceLength(line, header) : 0;
  return piece > 0 ? piece : line.size() + 1;
}

time_t StampClock::Resolve(std::string_view stamp) {
  stamp = stamp.substr(0, kStampSize);
  if (stamp == latest_) return time_;
  time_t time = ToTime(stamp, -1);
  if (!latest_.empty() && time < time_) {
    tm other = LocalTime(stamp, 0);
    const time_t later = mktime(&other);
    if (other.tm_isdst == 0 && later >= time_) time = later;
  }
  latest_ = stamp;
  time_ = time;
  return time;
}

Record MakeRecord(std::string_view bytes, LogKind kind, std::optional<time_t> time,
                  StampClock& clock) {
  const Header header = ParseHeader(bytes, kind);
  if (header.stamp > 0) time = clock.Resolve(bytes);
  const size_t ends = !bytes.empty() && (bytes.back() == '\n' || bytes.back() == '\r') ? 1 : 0;
  const std::string_view line = bytes.substr(0, bytes.size() - ends);
  return {time, header.console, bytes, line.substr(header.stamp), line.substr(header.size())};
}

}  // namespace zevctl
