// Events as lines: the JSON objects that the daemon posts, and what people are shown of them.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace zevctl {

using Event = nlohmann::ordered_json;

/// The event of one line, made valid UTF-8; nothing when the line is not a JSON object, or is
/// nested so deeply that it must be meant to do harm.
std::optional<Event> ParseEvent(std::string_view line);

/// True when the event has a priority of at least `least`.
bool HasPriority(const Event& event, int least);

/// "TIME PRIORITY NAME: MESSAGE", where "-" stands for what is missing; " (N times)" follows when
/// the line stands for N equal events. Harmless on a terminal.
std::string EventAsText(const Event& event);

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
