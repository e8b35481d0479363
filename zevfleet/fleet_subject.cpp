#include "fleet_subject.h"

#include <algorithm>
#include <array>

namespace zevfleet {

namespace {

// Names of consoles have up to 63 bytes. The server takes a line of 4096, with two subjects on it.
constexpr size_t kMostName = 128;

bool IsPlain(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '-' || byte == '_';
}

bool IsPrintable(char byte) {
  return byte > ' ' && byte <= '~' && byte != '%';
}

template <typename Test>
void AddEscaped(std::string_view text, Test may_stay, std::string* escaped) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  for (const char byte : text) {
    if (may_stay(byte)) {
      *escaped += byte;
    } else {
      const auto value = static_cast<unsigned char>(byte);
      *escaped += {'%', kDigits[value >> 4], kDigits[value & 0xF]};
    }
  }
}

}  // namespace

const char* TopicWord(Topic topic) {
  constexpr std::array kWords = {"out", "event", "state", "audit"};
  return kWords[static_cast<size_t>(topic)];
}

std::string SubjectWord(std::string_view name) {
  std::string word;
  AddEscaped(name.substr(0, kMostName), IsPlain, &word);
  return name.empty() || name.size() > kMostName ? word + "%" : word;
}

std::string SubjectOf(const std::string& site, const std::string& station, std::string_view console,
                      Topic topic) {
  return site + "." + station + "." + SubjectWord(console) + "." + TopicWord(topic);
}

std::string HeaderText(std::string_view text) {
  std::string escaped;
  AddEscaped(text.substr(0, kMostName), IsPrintable, &escaped);
  return escaped;
}

}  // namespace zevfleet
