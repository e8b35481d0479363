// A line of the past for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "history_part.h"

namespace zevctl {

/// An object with the line's members; see zevctl.1. Strings are valid UTF-8.
nlohmann::ordered_json HistoryData(const HistoryLine& line);

}  // namespace zevctl
