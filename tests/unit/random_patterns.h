// Random extended regular expressions, each with a text that it is meant to match, for comparisons
// of the daemon's matching with the system's own.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace test {

/// What the generators draw from; the same seed gives the same patterns everywhere.
class Dice {
 public:
  explicit Dice(unsigned seed) : engine_(seed) {}
  size_t Below(size_t bound) { return engine_() % bound; }
  bool OneIn(size_t count) { return Below(count) == 0; }
  template <typename Choices>
  const auto& Choose(const Choices& choices) {
    return choices[Below(std::size(choices))];
  }

 private:
  std::mt19937 engine_;
};

/// ZEVD_TEST_SEED of the environment, or always the same.
unsigned Seed();

struct RandomPattern {
  std::string pattern;
  std::string sample;  ///< matches, unless an anchor stands in the middle of it
  bool any_case = false;
};

RandomPattern MakePattern(Dice& dice);

/// A line made of pieces of the samples, of changed samples, and of nothing in particular.
std::string MakeLine(const std::vector<RandomPattern>& patterns, Dice& dice);

}  // namespace test
