// Records of the journal for people and for programs.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "journal/journal.h"

namespace zevctl {

/// A wall time of the journal in local time: "2026-11-22 03:12:05.123".
std::string StampText(int64_t wall);

/// The same in the form of RFC 3339, in UTC, with nanoseconds.
std::string StampJson(int64_t wall);

/// How long it was, in words such as "2 minutes" or "1 hour 59 minutes": two units at most.
std::string DurationText(int64_t nanoseconds);

/// What a record other than output tells, in words: "the connection was lost: Connection refused".
/// Not printable by itself: names and texts in it are as they were given.
std::string RecordText(const journal::Record& record);

/// Adds the members that the record's fields have to an object.
void AddFields(const journal::Record& record, nlohmann::ordered_json* data);

}  // namespace zevctl
