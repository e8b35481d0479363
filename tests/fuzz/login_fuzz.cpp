// What the operators' client reads while it logs in: the daemon's prompts, however they arrive, and
// its refusals.
//
// An input is a line with the sizes of the pieces and the bytes.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz.h"
#include "login.h"

using namespace zevd;

namespace {

using zevctl::LoginStep;

/// Steps as letters, and what is left of the bytes.
struct Outcome {
  std::string steps;
  std::string left;
  bool over = false;
};

constexpr std::string_view kPrompts[] = {
    "username: ", "\xFF\xFB\x01password: ", "\xFF\xFC\x01\r\n"};

Outcome Expect(std::string_view bytes) {
  Outcome outcome;
  for (size_t stage = 0;; stage = (stage + 1) % 3) {
    const std::string_view prompt = kPrompts[stage];
    outcome.left = bytes;
    outcome.over = bytes.substr(0, prompt.size()) != prompt.substr(0, bytes.size());
    if (outcome.over || bytes.size() < prompt.size()) return outcome;
    outcome.steps += stage == 0 ? "N" : stage == 1 ? "P" : "";
    bytes.remove_prefix(prompt.size());
  }
}

// Takes steps until more must arrive or the dialogue is over.
void Advance(zevctl::LoginDialogue& dialogue, Outcome& outcome) {
  for (;;) {
    const LoginStep step = dialogue.Next(outcome.left);
    outcome.over = step == LoginStep::kOver;
    if (outcome.over || step == LoginStep::kWait) return;
    outcome.steps += step == LoginStep::kName ? "N" : "P";
  }
}

void CheckDialogue(std::string_view bytes, std::string_view sizes) {
  zevctl::LoginDialogue dialogue;
  Outcome outcome;
  for (const std::string_view piece : fuzz::Cut(bytes, sizes)) {
    outcome.left += piece;
    if (!outcome.over) Advance(dialogue, outcome);
  }
  const Outcome expected = Expect(bytes);
  REQUIRE_EQUAL(outcome.steps, expected.steps);
  REQUIRE_EQUAL(outcome.left, expected.left);
  REQUIRE_EQUAL(outcome.over, expected.over);
}

// Three digits, " - ", a text, CR LF, and nothing else.
bool IsRefusal(std::string_view bytes) {
  constexpr std::string_view kShape = "000 - ";
  if (bytes.size() < kShape.size() + 3) return false;
  for (size_t i = 0; i < kShape.size(); ++i) {
    const bool fits = kShape[i] == '0' ? bytes[i] >= '0' && bytes[i] <= '9' : bytes[i] == kShape[i];
    if (!fits) return false;
  }
  return bytes.find_first_of("\r\n") == bytes.size() - 2 &&
         bytes.substr(bytes.size() - 2) == "\r\n";
}

void CheckRefusal(std::string_view bytes) {
  const auto refusal = zevctl::ParseRefusal(bytes);
  REQUIRE_EQUAL(refusal.has_value(), IsRefusal(bytes));
  if (!refusal) return;
  REQUIRE_EQUAL(refusal->text + "\r\n", bytes);
  REQUIRE_EQUAL(std::string(3 - std::to_string(refusal->number).size(), '0') +
                    std::to_string(refusal->number),
                bytes.substr(0, 3));
  REQUIRE(refusal->Message().starts_with("refused: " + refusal->text));
  REQUIRE(static_cast<int>(refusal->status()) != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const std::string_view sizes = input.TakeLine();
  const std::string_view bytes = input.TakeRest();
  CheckDialogue(bytes, sizes);
  CheckRefusal(bytes);
  return 0;
}
