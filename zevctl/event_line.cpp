#include "event_line.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "output.h"

namespace zevctl {

namespace {

constexpr char kConsoleEvents[] = "qor.zevd.console.";  // what their names begin with
constexpr int kDeepest = 32;  // printing and destroying an object take stack for every level

std::string TextOf(const Event& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return "-";
  return found->is_string() ? found->get<std::string>() : JsonText(*found);
}

std::optional<std::string> Variable(const Event& event, const char* name) {
  const auto vars = event.find("vars");
  if (vars == event.end() || !vars->is_object() || !vars->contains(name)) return {};
  return TextOf(*vars, name);
}

std::string WithoutLineEnd(std::string message) {
  if (message.ends_with('\n')) message.pop_back();
  if (message.ends_with('\r')) message.pop_back();
  return message;
}

// How many equal events the line stands for; empty when it does not say so.
std::string RepeatsOf(const Event& event) {
  const auto repeats = event.find("repeats");
  if (repeats == event.end() || !repeats->is_number_unsigned()) return {};
  return " (" + JsonText(*repeats) + " times)";
}

}  // namespace

std::optional<Event> ParseEvent(std::string_view line) {
  Event event = ReadJson(Utf8(line), kDeepest);
  if (!event.is_object()) return {};
  return event;
}

bool HasPriority(const Event& event, int least) {
  const auto priority = event.find("priority");
  return priority != event.end() && priority->is_number() && *priority >= least;
}

std::optional<std::string> ConsoleOf(const Event& event) {
  if (!TextOf(event, "name").starts_with(kConsoleEvents)) return {};
  return Variable(event, "name");
}

std::optional<std::string> MessageOf(const Event& event) {
  return Variable(event, "message");
}

void AddOrigin(Event& event, const std::string& console,
               const std::optional<std::string>& pattern) {
  event["console"] = console;
  event["pattern"] = pattern ? Event(*pattern) : Event(nullptr);
}

std::string EventColumns::Line(const Event& event) {
  const bool has_console = ConsoleOf(event).has_value();
  std::string text = TextOf(event, "time") + " " + Padded(TextOf(event, "priority"), priority_) +
                     " " + Padded(ConsoleOf(event).value_or("-"), console_) + " " +
                     TextOf(event, has_console ? "pattern" : "name");
  if (const auto message = MessageOf(event)) text += ": " + WithoutLineEnd(*message);
  text += RepeatsOf(event);
  std::replace(text.begin(), text.end(), '\t', ' ');
  return Printable(text);
}

// What is too wide for its column does not widen it.
std::string EventColumns::Padded(std::string text, size_t& width) {
  constexpr size_t kWidest = 32;
  text = Printable(text);
  if (text.size() <= kWidest) width = std::max(width, text.size());
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

std::string EventAsJson(const Event& event) {
  return JsonLine(event);
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
