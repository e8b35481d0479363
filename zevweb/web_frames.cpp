#include "web_frames.h"

#include <array>
#include <nlohmann/json.hpp>

#include "journal_text.h"
#include "output.h"

namespace zevweb {

namespace {

using zevctl::Json;

constexpr int kDeepest = 2;
constexpr std::array kModes = {"ro", "sh", "ex", "er"};

struct Word {
  std::string_view text;
  StreamRequest::What what;
};

constexpr std::array kWords = {
    Word{"attach", StreamRequest::What::kAttach},
    Word{"leave", StreamRequest::What::kLeave},
    Word{"break", StreamRequest::What::kBreak},
};

bool ReadAttach(const Json& data, StreamRequest* request, std::string* problem) {
  const auto mode = data.find("mode");
  const bool is_number = mode != data.end() && mode->is_number_integer();
  const int64_t number = is_number ? mode->get<int64_t>() : 0;
  if (number < 1 || number > static_cast<int64_t>(kModes.size())) {
    *problem = "\"mode\" is none; give a number from 1 to 4";
    return false;
  }
  request->mode = static_cast<int>(number);
  const auto take = data.find("take");
  if (take == data.end()) return true;
  if (!take->is_boolean()) {
    *problem = "\"take\" is neither true nor false; give one of them";
    return false;
  }
  request->take = take->get<bool>();
  return true;
}

}  // namespace

std::string OutputFrame(OutputKind kind, const std::optional<journal::Position>& position,
                        int64_t wall, std::string_view bytes) {
  const std::string place = position ? journal::PositionText(*position) : "";
  std::string frame = {static_cast<char>(kind), static_cast<char>(place.size())};
  frame += place;
  char time[sizeof wall];
  journal::PutNumber(time, wall);
  frame.append(time, sizeof time);
  frame += bytes;
  return frame;
}

Json RecordData(const journal::Record& record) {
  Json data = {{"kind", journal::KindWord(record.header.kind)},
               {"time", zevctl::StampJson(record.header.wall)},
               {"position", journal::PositionText(record.next)},
               {"text", zevctl::Utf8(zevctl::RecordText(record))}};
  zevctl::AddFields(record, &data);
  return data;
}

std::string EventPiece(const journal::Journal& journal, const journal::Record& record) {
  Json data = {{"console", record.console
                               ? Json(zevctl::Utf8(journal.consoles()[*record.console].name()))
                               : Json()}};
  data.update(RecordData(record));
  return "event: record\nid: " + journal::PositionText(record.next) +
         "\ndata: " + zevctl::JsonText(data) + "\n\n";
}

std::string TextFrame(std::string_view what, const Json& data) {
  Json frame = {{"what", what}};
  frame.update(data);
  return zevctl::JsonText(frame);
}

std::optional<StreamRequest> ParseStreamRequest(std::string_view text, std::string* problem) {
  if (text.size() > kMostRequestText) {
    *problem = "the frame is too long; send at most " + std::to_string(kMostRequestText) + " bytes";
    return {};
  }
  const Json data = zevctl::ReadJson(text, kDeepest);
  const auto what = data.is_object() ? data.find("what") : data.end();
  if (!data.is_object() || what == data.end() || !what->is_string()) {
    *problem = "the frame is no object with \"what\"; send one, such as {\"what\":\"leave\"}";
    return {};
  }
  for (const Word& word : kWords) {
    if (what->get_ref<const std::string&>() != word.text) continue;
    StreamRequest request;
    request.what = word.what;
    const bool is_attach = word.what == StreamRequest::What::kAttach;
    if (is_attach && !ReadAttach(data, &request, problem)) return {};
    return request;
  }
  *problem = "\"what\" is none of attach, leave and break; send one of them";
  return {};
}

const char* ModeWord(int mode) {
  return kModes.at(static_cast<size_t>(mode) - 1);
}

}  // namespace zevweb
