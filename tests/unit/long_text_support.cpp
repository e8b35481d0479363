#include "long_text_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace test {

namespace {

constexpr size_t kLongest = size_t{5} << 20;

std::string Numbers(const char* between) {
  std::string text;
  for (size_t i = 0; text.size() < kLongest; ++i) text += std::to_string(100'000'000 + i) + between;
  return text;
}

std::string About(std::string_view text, size_t place) {
  const size_t from = place - std::min<size_t>(place, 20);
  return ::testing::PrintToString(std::string(text.substr(from, 60)));
}

}  // namespace

std::string LongText(size_t count) {
  static const std::string text = Numbers("");
  return text.substr(0, count);
}

std::string LongLines(size_t count) {
  static const std::string text = Numbers("\r\n");
  return text.substr(0, count);
}

::testing::AssertionResult AreSame(std::string_view actual, std::string_view expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  const auto parted =
      std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end()).first;
  const auto place = static_cast<size_t>(parted - actual.begin());
  return ::testing::AssertionFailure()
         << "of " << actual.size() << " and " << expected.size() << " bytes the first " << place
         << " are the same; there stands " << About(actual, place) << " instead of "
         << About(expected, place);
}

}  // namespace test
