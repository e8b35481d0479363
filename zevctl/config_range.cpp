#include "config_range.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <sstream>
#include <string_view>

namespace zevctl {

namespace {

constexpr size_t kMostTexts = 65535;  // no station has more ports
constexpr size_t kMostDigits = 9;

struct Found {
  size_t begin;  ///< of the opening bracket
  size_t end;    ///< behind the closing one
};

// The next range; an address of IPv6 or a test of a shell is none.
std::optional<Found> NextRange(const std::string& text, size_t from) {
  for (size_t open = text.find('[', from); open != std::string::npos;
       open = text.find('[', open + 1)) {
    const size_t close = text.find_first_not_of("0123456789-,", open + 1);
    if (close == std::string::npos) return {};
    const std::string_view inside = std::string_view(text).substr(open + 1, close - open - 1);
    const bool several = inside.find_first_of("-,") != std::string_view::npos;
    if (text[close] == ']' && several) return Found{open, close + 1};
  }
  return {};
}

std::string Padded(size_t number, size_t width) {
  std::string text = std::to_string(number);
  if (text.size() < width) text.insert(0, width - text.size(), '0');
  return text;
}

size_t Number(std::string_view digits) {
  size_t number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

// "7" or "01-40". The mistake, or nothing.
std::string AddNumbers(const std::string& item, std::vector<std::string>& numbers) {
  const size_t dash = item.find('-');
  const std::string first = item.substr(0, dash);
  const std::string last = dash == std::string::npos ? first : item.substr(dash + 1);
  if (first.empty() || last.empty() || last.find('-') != std::string::npos ||
      std::max(first.size(), last.size()) > kMostDigits) {
    return "has an item that is neither a number nor two with a dash";
  }
  const bool padded = first.size() > 1 && first[0] == '0';
  if (padded && first.size() != last.size()) return "begins and ends with different widths";
  const size_t from = Number(first);
  const size_t to = Number(last);
  if (to < from) return "ends before it begins";
  if (numbers.size() + (to - from) >= kMostTexts) return "stands for more than 65535 texts";
  for (size_t n = from; n <= to; ++n) numbers.push_back(Padded(n, padded ? first.size() : 0));
  return {};
}

std::string ReadRange(const std::string& inside, std::vector<std::string>& numbers) {
  const std::string range = "the range [" + inside + "] ";
  std::istringstream items(inside);
  for (std::string item; std::getline(items, item, ',');) {
    const std::string mistake = AddNumbers(item, numbers);
    if (!mistake.empty()) return range + mistake;
  }
  if (inside.back() == ',') return range + "ends with a comma";
  return {};
}

// Every text goes on with what is between two ranges, and with its number of the range.
std::string Append(RangeText& result, const std::vector<std::string>& numbers) {
  if (!result.has_range) result.texts.resize(numbers.size(), result.texts.front());
  result.has_range = true;
  if (result.texts.size() != numbers.size()) return "its ranges are not equally long";
  for (size_t i = 0; i < numbers.size(); ++i) result.texts[i] += numbers[i];
  return {};
}

void AppendText(RangeText& result, const std::string& text) {
  for (std::string& each : result.texts) each += text;
}

}  // namespace

RangeText Expand(const std::string& text) {
  RangeText result;
  result.texts.resize(1);
  size_t done = 0;
  for (auto range = NextRange(text, 0); range; range = NextRange(text, done)) {
    AppendText(result, text.substr(done, range->begin - done));
    std::vector<std::string> numbers;
    result.mistake =
        ReadRange(text.substr(range->begin + 1, range->end - range->begin - 2), numbers);
    if (result.mistake.empty()) result.mistake = Append(result, numbers);
    if (!result.mistake.empty()) return result;
    done = range->end;
  }
  AppendText(result, text.substr(done));
  return result;
}

}  // namespace zevctl
