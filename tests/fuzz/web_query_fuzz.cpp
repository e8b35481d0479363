// The parameters of a request over HTTP: numbers, flags, places, times and patterns. One line of
// the input is one parameter, NAME=VALUE.
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "exchange.h"
#include "fuzz.h"
#include "web_pattern.h"
#include "web_place.h"
#include "web_query.h"

using namespace zevweb;

namespace {

constexpr size_t kMost = 5000;
constexpr size_t kUsual = 200;

/// What a function gave, or the status of the problem that it threw.
template <typename Work>
std::string Outcome(Work work) {
  try {
    return work();
  } catch (const Problem& problem) {
    REQUIRE(std::string(problem.what()).size() > 10);
    return "problem " + std::to_string(problem.status());
  }
}

std::string Text(const std::optional<std::string>& value) {
  return value ? "text " + *value : "none";
}

// ---- The model ----------------------------------------------------------------------------------

bool IsDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string WithoutZeros(const std::string& digits) {
  const size_t first = digits.find_first_not_of('0');
  return first == std::string::npos ? "0" : digits.substr(first);
}

std::string ExpectedNumber(const std::string& text) {
  if (text.empty()) return std::to_string(kUsual);
  if (!IsDigits(text)) return "problem 400";
  const std::string digits = WithoutZeros(text);
  if (digits.size() > 4 || std::stoul(digits) > kMost) return "problem 400";
  return digits;
}

std::string ExpectedFlag(const std::optional<std::string>& text) {
  if (!text || *text == "0" || *text == "false") return "no";
  return text->empty() || *text == "1" || *text == "true" ? "yes" : "problem 400";
}

/// The parameters by their names, or nothing when they are to be refused.
std::optional<std::map<std::string, std::string>> ExpectedParameters(
    const WebQuery::Parameters& parameters) {
  std::map<std::string, std::string> known;
  for (const auto& [name, value] : parameters) {
    if (name == "console") continue;
    if (name.size() != 1 || std::string("nfpt").find(name) == std::string::npos) return {};
    if (!known.emplace(name, value).second) return {};
  }
  return known;
}

std::optional<std::string> Found(const std::map<std::string, std::string>& known,
                                 const std::string& name) {
  const auto found = known.find(name);
  return found == known.end() ? std::nullopt : std::optional(found->second);
}

// ---- What has no model: it must hold what it promises -------------------------------------------

void CheckPlace(const std::string& text) {
  const auto place = ParsePlace(text);
  if (!place) return;
  const auto again = ParsePlace(PlaceText(*place));
  REQUIRE(again.has_value());
  REQUIRE(*again == *place);
}

void CheckTime(const std::string& text) {
  const auto begin = ParseWall(text, fuzz::kNow, false);
  const auto end = ParseWall(text, fuzz::kNow, true);
  REQUIRE(begin.has_value() == end.has_value());
  if (begin) REQUIRE(*begin == *end || *begin + 999'999'999 == *end);
}

void CheckPattern(const std::string& text) {
  const std::string plain = Outcome([&] {
    return std::string(MakeWebPattern(text, false, true)->Matches(text) ? "found" : "missed");
  });
  const bool is_fit = text.size() <= 1000 && text.find('\0') == std::string::npos;
  REQUIRE_EQUAL(plain, std::string(is_fit ? "found" : "problem 400"));
  Outcome([&] {
    MakeWebPattern(text, true, false)->Matches(std::string(200, 'a') + text);
    return std::string();
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::SetUp();
  fuzz::Input input(data, size);
  WebQuery::Parameters parameters;
  while (!input.AtEnd() && parameters.size() < 100) {
    const std::string line(input.TakeLine());
    const size_t equals = std::min(line.find('='), line.size());
    parameters.emplace_back(line.substr(0, equals), line.substr(std::min(equals + 1, line.size())));
  }
  for (const auto& [name, value] : parameters) {
    CheckPlace(value);
    CheckTime(value);
    CheckPattern(value);
  }
  const auto known = ExpectedParameters(parameters);
  std::optional<WebQuery> query;
  const std::string made = Outcome([&] {
    query.emplace(parameters, std::initializer_list<std::string_view>{"n", "f", "p", "t"},
                  std::initializer_list<std::string_view>{"console"});
    return std::string("made");
  });
  REQUIRE_EQUAL(made, std::string(known ? "made" : "problem 400"));
  if (!known) return 0;
  const auto text = Found(*known, "t");
  REQUIRE_EQUAL(Text(query->Text("t")), Text(text && !text->empty() ? text : std::nullopt));
  REQUIRE_EQUAL(Outcome([&] { return std::to_string(query->Number("n", kUsual, kMost)); }),
                ExpectedNumber(Found(*known, "n").value_or("")));
  REQUIRE_EQUAL(Outcome([&] { return std::string(query->Flag("f") ? "yes" : "no"); }),
                ExpectedFlag(Found(*known, "f")));
  return 0;
}
