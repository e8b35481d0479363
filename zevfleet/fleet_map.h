// The map of the fleet that this station publishes for its operators and its page: who has which
// console, which stations there are, and how old that knowledge is. docs/fleet.md describes the
// file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "fleet_options.h"
#include "fleet_view.h"

namespace zevfleet {

struct MapNote {
  int64_t as_of = 0;       ///< seconds since the epoch: when etcd last confirmed it; 0 for never
  bool connected = false;  ///< it is as of now
  std::string problem;     ///< in words; empty for none
};

/// The map as JSON text.
std::string MapText(const FleetOptions& options, const FleetView& view, const MapNote& note);

/// The map of one view, each second anew: what has not changed is not put together again.
class FleetMap {
 public:
  explicit FleetMap(const FleetOptions& options) : options_(options) {}

  std::string Text(const FleetView& view, const MapNote& note);

 private:
  const FleetOptions& options_;
  std::optional<uint64_t> version_;  // of the view, as of which these are
  std::string stations_;
  std::string consoles_;
};

/// The map that was published last, as one that is not as of now; an empty one where there is none.
std::string OldMapText(const FleetOptions& options, const std::string& problem);

/// Puts the text in place of the file's. Throws zevctl::Failure.
void PublishMap(const FleetOptions& options, const std::string& text);

}  // namespace zevfleet
