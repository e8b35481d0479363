#include "log_printer.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "json_line.h"
#include "moment.h"
#include "output.h"

namespace zevctl {

namespace {

std::string_view WithoutEnd(std::string_view bytes, char end) {
  if (bytes.ends_with(end)) bytes.remove_suffix(1);
  return bytes;
}

std::string Padded(std::string text, size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text + " ";
}

}  // namespace

void LogPrinter::Take(const LogReader& log, const Record& record) {
  lines_.Tick();
  if (!filter_.TakesTimeOf(record)) return;
  const bool is_match = filter_.TakesBodyOf(record);
  found_ = found_ || is_match;
  lines_.Take(log.name(), is_match, 0, [&] { return TextOf(log, record, is_match); });
}

// Every record gets a line of its own, even when it has no line end or another one.
std::string LogPrinter::TextOf(const LogReader& log, const Record& record, bool is_match) const {
  if (style_.form == LogForm::kJson) {
    Json data;
    data["time"] = record.time ? Json(Rfc3339(*record.time)) : nullptr;
    data["console"] = Utf8(record.console.empty() ? log.name() : record.console);
    data["text"] = Utf8(record.text);
    if (style_.context > 0) data["match"] = is_match;
    return JsonLine(data) + "\n";
  }
  const std::string name =
      style_.name_width ? Padded(Harmless(log.name()), *style_.name_width) : "";
  const std::string_view bytes = WithoutEnd(record.bytes, '\n');
  if (style_.form == LogForm::kBytes) return name + std::string(bytes) + "\n";
  return name + Harmless(WithoutEnd(bytes, '\r')) + "\n";
}

}  // namespace zevctl
