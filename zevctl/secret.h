// A password in memory.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

namespace zevctl {

/// A line that nobody else may read. It stays in one place, which is never copied, also not when
/// the object moves, and which is wiped at its end.
class Secret {
 public:
  static constexpr size_t kLongest = 1023;  ///< the daemon takes no longer line

  Secret();

  /// False when there is no room.
  bool Append(char byte);

  /// Wipes what there is.
  void Clear();

  std::string_view Text() const { return {place_->bytes.data(), place_->size}; }

  /// The text and a line end.
  std::string_view Line() const { return {place_->bytes.data(), place_->size + 1}; }

 private:
  struct Place {
    std::array<char, kLongest + 1> bytes{'\n'};  // a line end behind the text
    size_t size = 0;
  };
  struct Wiper {
    void operator()(Place* place) const;
  };

  std::unique_ptr<Place, Wiper> place_;
};

}  // namespace zevctl
