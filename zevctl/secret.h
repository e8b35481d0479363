// A password in memory.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

namespace zevctl {

/// A line that nobody else may read. Its bytes stay in one place in memory: moving the object does
/// not copy them, and its end wipes them.
class Secret {
 public:
  static constexpr size_t kLongest = 1023;  ///< in bytes; the daemon takes no longer line

  Secret();

  /// Adds a byte at the end; false when there is no room.
  bool Append(char byte);

  /// Wipes the text, which is empty then.
  void Clear();

  std::string_view Text() const { return {place_->bytes.data(), place_->size}; }

  /// The text and a line end.
  std::string_view Line() const { return {place_->bytes.data(), place_->size + 1}; }

 private:
  struct Place {
    std::array<char, kLongest + 1> bytes{'\n'};  // the text and a line end
    size_t size = 0;
  };
  struct Wiper {
    void operator()(Place* place) const;
  };

  std::unique_ptr<Place, Wiper> place_;
};

}  // namespace zevctl
