// The first lines of an answer, with what every answer tells the browser to be strict about.
#pragma once

#include <optional>
#include <string>

#include "exchange.h"

namespace zevweb {

struct AnswerForm {
  bool is_chunked = false;
  bool closes = false;           ///< the connection ends with this answer
  std::optional<size_t> length;  ///< of the body, when it is known
};

std::string AnswerHead(const Response& response, const AnswerForm& form);

}  // namespace zevweb
