// Where the journal's output ends and that of an attachment begins.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "journal/journal.h"

namespace zevweb {

/// How many bytes at the front of what an attachment has received the journal has before the place.
struct WebSeam {
  std::optional<size_t> exact;  ///< none as long as the journal does not have enough behind it
  size_t probable = 0;
};

/// `place`: up to which the journal's output has been shown.
WebSeam FindSeam(const journal::Journal& journal, size_t console, const journal::Position& place,
                 const std::string& received);

}  // namespace zevweb
