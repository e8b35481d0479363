#include "web_query.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <limits>

#include "exchange.h"
#include "moment.h"
#include "output.h"

namespace zevweb {

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr size_t kMostDigits = 9;
constexpr size_t kLongestMoment = 64;

bool Has(std::initializer_list<std::string_view> names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

[[noreturn]] void Refuse(std::string_view name, const std::string& what) {
  throw Problem(400, "the parameter \"" + zevctl::Printable(name) + "\" " + what);
}

std::string Listed(std::initializer_list<std::string_view> names) {
  std::string text;
  for (const std::string_view name : names) text += (text.empty() ? "" : ", ") + std::string(name);
  return text;
}

bool IsDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

/// Takes the digits behind the second out of a time of RFC 3339; nanoseconds.
std::optional<int64_t> TakeFraction(std::string* text) {
  const size_t point = text->find('.');
  if (point == std::string::npos) return {};
  size_t end = point + 1;
  while (end < text->size() && IsDigit((*text)[end])) ++end;
  const size_t digits = end - point - 1;
  if (digits == 0 || digits > kMostDigits) return {};
  std::string fraction = text->substr(point + 1, digits);
  fraction.resize(kMostDigits, '0');
  text->erase(point, end - point);
  return std::stoll(fraction);
}

}  // namespace

std::optional<int64_t> ParseWall(const std::string& text, time_t now, bool end_of_second) {
  constexpr time_t kLastSecond = std::numeric_limits<int64_t>::max() / kSecond - 1;
  if (text.size() > kLongestMoment) return {};
  std::string whole = text;
  const auto fraction = TakeFraction(&whole);
  const bool has_point = text.find('.') != std::string::npos;
  if (has_point && (!fraction || whole.find('T') == std::string::npos)) return {};
  const auto moment = zevctl::ParseMoment(whole, now);
  if (!moment) return {};
  const int64_t wall = std::clamp<int64_t>(*moment, -kLastSecond, kLastSecond) * kSecond;
  return wall + fraction.value_or(end_of_second ? kSecond - 1 : 0);
}

WebQuery::WebQuery(const Parameters& parameters, std::initializer_list<std::string_view> known,
                   std::initializer_list<std::string_view> repeated)
    : parameters_(parameters) {
  for (const auto& [name, value] : parameters) {
    if (!Has(known, name) && !Has(repeated, name)) {
      Refuse(name, known.size() == 0 ? "is not known here; leave it out"
                                     : "is not known here; there are " + Listed(known));
    }
    const auto count =
        std::count_if(parameters.begin(), parameters.end(),
                      [&, &key = name](const auto& other) { return other.first == key; });
    if (count > 1 && !Has(repeated, name)) Refuse(name, "is there twice; give it once");
  }
}

std::optional<std::string> WebQuery::Text(std::string_view name) const {
  for (const auto& [key, value] : parameters_) {
    if (key == name && !value.empty()) return value;
  }
  return {};
}

std::vector<std::string> WebQuery::All(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [key, value] : parameters_) {
    if (key == name && !value.empty()) values.push_back(value);
  }
  return values;
}

bool WebQuery::Flag(std::string_view name) const {
  const auto found = std::find_if(parameters_.begin(), parameters_.end(),
                                  [&](const auto& parameter) { return parameter.first == name; });
  if (found == parameters_.end()) return false;
  const std::string& value = found->second;
  if (value.empty() || value == "1" || value == "true") return true;
  if (value == "0" || value == "false") return false;
  Refuse(name, "is 1 or 0");
}

size_t WebQuery::Number(std::string_view name, size_t otherwise, size_t most) const {
  const auto text = Text(name);
  if (!text) return otherwise;
  size_t number = 0;
  const char* end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, number);
  if (error == std::errc() && stop == end && number <= most) return number;
  Refuse(name, "is a number from 0 to " + std::to_string(most));
}

std::optional<int64_t> WebQuery::Since(std::string_view name, const std::string& otherwise) const {
  const std::string text = Text(name).value_or(otherwise);
  if (text.empty()) return {};
  if (const auto wall = ParseWall(text, time(nullptr), false)) return wall;
  Refuse(name, std::string("is no time; write ") + zevctl::kMomentForms);
}

std::optional<int64_t> WebQuery::Until(std::string_view name) const {
  const auto text = Text(name);
  if (!text) return {};
  if (const auto wall = ParseWall(*text, time(nullptr), true)) return wall;
  Refuse(name, std::string("is no time; write ") + zevctl::kMomentForms);
}

}  // namespace zevweb
