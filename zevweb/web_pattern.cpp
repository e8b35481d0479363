#include "web_pattern.h"

#include <string_view>

#include "exchange.h"
#include "exit_status.h"
#include "hard_pattern.h"

namespace zevweb {

namespace {

constexpr size_t kLongestPattern = 1000;
constexpr std::string_view kSpecial = "\\^$.[]()|*+?{}";

std::string Escaped(const std::string& text) {
  std::string pattern;
  for (const char byte : text) {
    if (kSpecial.find(byte) != std::string_view::npos) pattern += '\\';
    pattern += byte;
  }
  return pattern;
}

}  // namespace

std::unique_ptr<zevctl::Pattern> MakeWebPattern(const std::string& text, bool ignore_case,
                                                bool is_plain) {
  if (text.size() > kLongestPattern || text.find('\0') != std::string::npos) {
    throw Problem(400, "the pattern is too long or has a NUL in it; use at most " +
                           std::to_string(kLongestPattern) + " characters");
  }
  const std::string pattern = is_plain ? Escaped(text) : text;
  if (zevd::IsHardPattern(pattern.c_str())) {
    throw Problem(400,
                  "the pattern would take too long on each line; use one with fewer "
                  "repetitions and without back-references");
  }
  try {
    return std::make_unique<zevctl::Pattern>(pattern, ignore_case);
  } catch (const zevctl::Failure& failure) {
    throw Problem(400, failure.what());
  }
}

}  // namespace zevweb
