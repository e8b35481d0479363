// The subjects under which a station's records are published: SITE.STATION.CONSOLE.TOPIC.
#pragma once

#include <string>
#include <string_view>

namespace zevfleet {

/// What a subject ends with.
enum class Topic {
  kOut,    ///< what a console printed
  kEvent,  ///< what a pattern found in it
  kState,  ///< what happened to a console or the station
  kAudit,  ///< who did what
};

/// "out", "event", "state" or "audit"; the same words stand in the settings.
const char* TopicWord(Topic topic);

/// A name as one word of a subject: bytes other than letters, digits, "-" and "_" become %XX. "%"
/// for an empty name. Of a name longer than any console's the start, and "%" at the end: a subject
/// must not grow with what somebody has typed.
std::string SubjectWord(std::string_view name);

/// `site` and `station` are plain names (IsPlainName()); `console` may be any name, and is empty
/// for the station itself.
std::string SubjectOf(const std::string& site, const std::string& station, std::string_view console,
                      Topic topic);

/// A text in bytes that a header may have: others than printable ASCII, blanks, and "%" itself,
/// become %XX.
std::string HeaderText(std::string_view text);

}  // namespace zevfleet
