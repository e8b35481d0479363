#include "history_json.h"

#include <nlohmann/json.hpp>

#include "journal_text.h"
#include "output.h"

namespace zevctl {

namespace {

using Json = nlohmann::ordered_json;

}  // namespace

Json HistoryData(const HistoryLine& line) {
  Json data;
  data["time"] = StampJson(line.wall);
  data["console"] = line.console.empty() ? Json() : Json(Utf8(line.console));
  data["kind"] = line.kind;
  data["text"] = Utf8(line.text);
  if (line.is_output) data["complete"] = line.is_complete;
  data["source"] = line.position ? "journal" : "log";
  data["position"] = line.position ? Json(journal::PositionText(*line.position)) : Json();
  if (line.record != nullptr) AddFields(*line.record, &data);
  return data;
}

}  // namespace zevctl
