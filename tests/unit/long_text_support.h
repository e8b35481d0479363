// Output that is too long to look at when it is not what it should be.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace test {

/// So many bytes of numbers that grow, so that what is lost or doubled shows. Without line ends.
std::string LongText(size_t count);

/// The same with a CR and a LF after each number.
std::string LongLines(size_t count);

/// Whether two texts are the same. A failure tells where they part.
::testing::AssertionResult AreSame(std::string_view actual, std::string_view expected);

}  // namespace test
