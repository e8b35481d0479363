// The fleet that this station is in, as the map of zevfleet has it.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <string>

#include "exchange.h"

namespace zevweb {

/// The map's file, read once for all who ask while it stays the same. Any thread may use it.
class WebFleet {
 public:
  explicit WebFleet(std::string file) : file_(std::move(file)) {}

  /// The answer's text. Throws Problem(503), and zevctl::Failure for a file that is no map.
  std::shared_ptr<const std::string> Text();

 private:
  const std::string file_;
  std::mutex mutex_;
  // Guarded by the mutex: the answer, and what it was made of.
  std::shared_ptr<const std::string> text_;
  struct stat made_of_ {};
  time_t stale_from_ = 0;  // when the answer is not right any more; 0 for never
};

/// {"fleet": null} for a station that is in none.
Response ShowFleet(WebFleet& fleet, const Request& request);

}  // namespace zevweb
