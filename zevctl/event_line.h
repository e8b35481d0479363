// Events as lines: the JSON objects that the daemon posts, and what people are shown of them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "json_line.h"

namespace zevctl {

using Event = Json;

/// The event of one line, made valid UTF-8; nothing when the line is not a JSON object, or is
/// nested so deeply that it must be meant to do harm.
std::optional<Event> ParseEvent(std::string_view line);

/// True when the event has a priority of at least `least`.
bool HasPriority(const Event& event, int least);

/// The console that an event is about; nothing when it is about none.
std::optional<std::string> ConsoleOf(const Event& event);

/// The event's message as it came.
std::optional<std::string> MessageOf(const Event& event);

/// Adds the keys "console" and "pattern" to the event of a console. `pattern`: the name of the
/// pattern, if it is known; null stands for one that is not.
void AddOrigin(Event& event, const std::string& console, const std::optional<std::string>& pattern);

/// Events as lines for people, in columns that become wider as they must.
class EventColumns {
 public:
  /// "TIME PRIORITY CONSOLE PATTERN: MESSAGE", where "-" stands for what is missing. An event that
  /// is about no console has its own name in place of the pattern's. " (N times)" follows when the
  /// line stands for N equal events. Harmless on a terminal.
  std::string Line(const Event& event);

 private:
  static std::string Padded(std::string text, size_t& width);

  size_t priority_ = 0;
  size_t console_ = 0;
};

/// The object on one line.
std::string EventAsJson(const Event& event);

/// Cuts what comes over one connection into lines.
class LineCutter {
 public:
  /// In bytes, without the line end. Longer lines are dropped; those of the daemon are far shorter.
  static constexpr size_t kLongestLine = 65536;

  using Handler = std::function<void(std::string_view line)>;
  using TooLongHandler = std::function<void()>;

  /// Hands over every complete line without its end. `too_long` is called once for each line that
  /// is too long.
  void Add(std::string_view bytes, const Handler& line, const TooLongHandler& too_long);

  /// To be called when the connection has ended: what is left is a line.
  void Finish(const Handler& line);

 private:
  std::string begun_;
  bool dropping_ = false;
};

}  // namespace zevctl
