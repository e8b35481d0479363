#include "event_line.h"

#include <algorithm>

#include "output.h"

namespace zevctl {

namespace {

constexpr int kDeepest = 32;  // printing and destroying an object take stack for every level

std::string TextOf(const Event& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return "-";
  return found->is_string() ? found->get<std::string>() : found->dump();
}

// The event's message; nothing when it has none.
std::optional<std::string> MessageOf(const Event& event) {
  const auto vars = event.find("vars");
  if (vars == event.end() || !vars->is_object() || !vars->contains("message")) return {};
  std::string message = TextOf(*vars, "message");
  if (message.ends_with('\n')) message.pop_back();
  if (message.ends_with('\r')) message.pop_back();
  return message;
}

// How many equal events the line stands for; empty when it does not say so.
std::string RepeatsOf(const Event& event) {
  const auto repeats = event.find("repeats");
  if (repeats == event.end() || !repeats->is_number_unsigned()) return {};
  return " (" + repeats->dump() + " times)";
}

}  // namespace

std::optional<Event> ParseEvent(std::string_view line) {
  bool too_deep = false;
  const auto watch_depth = [&](int depth, Event::parse_event_t, const Event&) {
    too_deep = too_deep || depth > kDeepest;
    return !too_deep;
  };
  Event event = Event::parse(Utf8(line), watch_depth, /*allow_exceptions=*/false);
  if (too_deep || !event.is_object()) return {};
  return event;
}

bool HasPriority(const Event& event, int least) {
  const auto priority = event.find("priority");
  return priority != event.end() && priority->is_number() && *priority >= least;
}

std::string EventAsText(const Event& event) {
  std::string text =
      TextOf(event, "time") + " " + TextOf(event, "priority") + " " + TextOf(event, "name");
  if (const auto message = MessageOf(event)) text += ": " + *message;
  text += RepeatsOf(event);
  std::replace(text.begin(), text.end(), '\t', ' ');
  return Printable(text);
}

std::string EventAsJson(const Event& event) {
  return EscapedJson(event.dump());
}

void LineCutter::Add(std::string_view bytes, const Handler& line, const TooLongHandler& too_long) {
  while (!bytes.empty()) {
    const size_t end = bytes.find('\n');
    if (!dropping_) begun_ += bytes.substr(0, end);
    if (begun_.size() > kLongestLine) {
      begun_ = {};
      dropping_ = true;
      too_long();
    }
    if (end == std::string_view::npos) return;
    if (!dropping_) line(begun_);
    begun_.clear();
    dropping_ = false;
    bytes.remove_prefix(end + 1);
  }
}

void LineCutter::Finish(const Handler& line) {
  if (!begun_.empty()) line(begun_);
  begun_.clear();
}

}  // namespace zevctl
