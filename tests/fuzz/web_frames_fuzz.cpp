// Text frames of the WebSocket of a console. One line of the input is one frame.
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz.h"
#include "json_line.h"
#include "web_frames.h"

using namespace zevweb;

namespace {

// What was taken must say so itself; what was not taken comes with what to do about it.
void Check(const std::string& frame) {
  std::string problem;
  const auto request = ParseStreamRequest(frame, &problem);
  REQUIRE(request.has_value() == problem.empty());
  if (!request) {
    REQUIRE(problem.find("; ") != std::string::npos);
    return;
  }
  REQUIRE(frame.size() <= kMostRequestText);
  const zevctl::Json data = zevctl::ReadJson(frame);
  REQUIRE(data.is_object());
  const bool is_attach = request->what == StreamRequest::What::kAttach;
  REQUIRE(is_attach == (data["what"] == "attach"));
  if (!is_attach) return;
  REQUIRE(data["mode"] == request->mode);
  REQUIRE(std::string(ModeWord(request->mode)).size() == 2);
  REQUIRE(request->take == (data.contains("take") && data["take"] == true));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::SetUp();
  fuzz::Input input(data, size);
  while (!input.AtEnd()) Check(std::string(input.TakeLine()));
  return 0;
}
