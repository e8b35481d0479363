// The user's end of telnet in the operators' client: text, answers and keys, however the bytes
// arrive, and the daemon's own offers at the start of a session.
//
// An input is a line with the sizes of the pieces, a line with the keys, and the bytes.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <string_view>

#include "fuzz.h"
#include "telnet.h"

using namespace zevd;

namespace {

constexpr uint8_t kSe = 240;
constexpr uint8_t kSb = 250;
constexpr uint8_t kWill = 251;
constexpr uint8_t kWont = 252;
constexpr uint8_t kDo = 253;
constexpr uint8_t kDont = 254;
constexpr uint8_t kIac = 255;

constexpr uint8_t kBinary = 0;
constexpr uint8_t kEcho = 1;
constexpr uint8_t kSuppressGoAhead = 3;
constexpr uint8_t kCompress = 86;

// The library abandons longer subnegotiations in its own way.
constexpr size_t kLongest = 8000;

std::string Command(uint8_t command, uint8_t option) {
  return {static_cast<char>(kIac), static_cast<char>(command), static_cast<char>(option)};
}

/// Telnet as RFC 854 and RFC 1143 have it for an end that never asks for anything.
class Model {
 public:
  std::string text;
  std::string answers;
  bool spoken = false;
  bool garbled = false;  // the result is left to the library

  bool Binary() { return ours_[kBinary]; }
  bool InCommand() const { return state_ != State::kText; }

  void Receive(uint8_t byte) {
    switch (state_) {
      case State::kText:
        if (byte == kIac) {
          state_ = State::kCommand;
        } else {
          text.push_back(static_cast<char>(byte));
        }
        break;
      case State::kCommand:
        TakeCommand(byte);
        break;
      case State::kOption:
        state_ = State::kText;
        Negotiate(byte);
        break;
      case State::kSubOption:
        option_ = byte;
        state_ = State::kSub;
        break;
      case State::kSub:
        if (byte == kIac) state_ = State::kSubCommand;
        break;
      case State::kSubCommand:
        TakeSubCommand(byte);
        break;
    }
  }

 private:
  enum class State { kText, kCommand, kOption, kSubOption, kSub, kSubCommand };

  void TakeCommand(uint8_t byte) {
    state_ = State::kText;
    if (byte == kIac) {
      text.push_back(static_cast<char>(byte));
      return;
    }
    command_ = byte;
    if (byte == kSb) {
      state_ = State::kSubOption;
    } else if (byte >= kWill) {
      state_ = State::kOption;
    } else {
      spoken = true;
    }
  }

  // A command in the middle of a subnegotiation ends it. When that one said that what follows is
  // compressed, the library loses the command and takes the next byte for one; with the options
  // that it knows more about, that depends on what was said.
  void TakeSubCommand(uint8_t byte) {
    constexpr uint8_t kKnownToTheLibrary[] = {24, 36, 39, 70, 93};
    spoken = true;
    if (byte == kIac) {
      state_ = State::kSub;
    } else if (byte == kSe) {
      state_ = State::kText;
    } else if (option_ == kCompress) {
      state_ = State::kCommand;
    } else {
      garbled = garbled || std::count(std::begin(kKnownToTheLibrary), std::end(kKnownToTheLibrary),
                                      option_) > 0;
      TakeCommand(byte);
    }
  }

  static bool OursIsHad(uint8_t option) { return option == kBinary || option == kSuppressGoAhead; }
  static bool TheirsIsHad(uint8_t option) { return OursIsHad(option) || option == kEcho; }

  void Negotiate(uint8_t option) {
    spoken = true;
    const bool theirs = command_ == kWill || command_ == kWont;
    const bool wanted = command_ == kWill || command_ == kDo;
    bool& state = (theirs ? theirs_ : ours_)[option];
    if (state == wanted) return;
    state = wanted && (theirs ? TheirsIsHad(option) : OursIsHad(option));
    const uint8_t yes = theirs ? kDo : kWill;
    const uint8_t no = theirs ? kDont : kWont;
    answers += Command(state ? yes : no, option);
  }

  State state_ = State::kText;
  uint8_t command_ = 0;
  uint8_t option_ = 0;  // of the subnegotiation
  std::map<uint8_t, bool> ours_;
  std::map<uint8_t, bool> theirs_;
};

std::string ExpectKeys(std::string_view keys, bool with_enters) {
  std::string wire;
  for (const char key : keys) {
    wire += key;
    if (key == static_cast<char>(kIac)) wire += key;
    if (key == '\r' && with_enters) wire += '\0';
  }
  return wire;
}

void CheckStream(std::string_view bytes, std::string_view sizes, std::string_view keys) {
  Model model;
  for (const char byte : bytes) model.Receive(static_cast<uint8_t>(byte));
  zevctl::TelnetStream stream;
  std::string text;
  for (const std::string_view piece : fuzz::Cut(bytes, sizes)) {
    stream.Receive(piece);
    text += stream.TakeText();
  }
  if (model.garbled) return;
  REQUIRE_EQUAL(text, model.text);
  REQUIRE_EQUAL(stream.TakeWire(), model.answers);
  // Whether half a command makes the other end speak telnet does not matter.
  if (model.InCommand()) return;
  stream.SendKeys(keys);
  REQUIRE_EQUAL(stream.TakeWire(), ExpectKeys(keys, model.spoken && !model.Binary()));
  stream.SendBreak();
  REQUIRE_EQUAL(stream.TakeWire(), std::string("\xFF\xF3"));
}

// How many of the bytes are whole commands and text.
size_t WholeLength(std::string_view bytes) {
  size_t end = 0;
  for (size_t i = 0; i < bytes.size();) {
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(bytes[at]); };
    if (byte(i) != kIac) {
      i += 1;
    } else {
      const bool has_option = i + 1 < bytes.size() && byte(i + 1) >= kWill && byte(i + 1) < kIac;
      i += has_option ? 3 : 2;
    }
    if (i <= bytes.size()) end = i;
  }
  return end;
}

// The daemon sends what the console offered, at most 64 bytes, then its own offers, then the rest.
void CheckOffers(std::string_view bytes, std::string_view sizes) {
  const std::string offers = Command(kWill, kEcho) + Command(kWill, kSuppressGoAhead);
  const std::string_view start = bytes.substr(0, bytes.size() % 65);
  const std::string session = std::string(start) + offers + std::string(bytes.substr(start.size()));
  const size_t place = session.find(offers);
  const std::string expected = session.substr(0, WholeLength(session.substr(0, place))) +
                               session.substr(place + offers.size());
  zevctl::OfferFilter filter;
  std::string passed;
  for (const std::string_view piece : fuzz::Cut(session, sizes)) passed += filter.Pass(piece);
  REQUIRE_EQUAL(passed, expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLongest) return 0;
  fuzz::Input input(data, size);
  const std::string_view sizes = input.TakeLine();
  const std::string_view keys = input.TakeLine();
  const std::string_view bytes = input.TakeRest();
  CheckStream(bytes, sizes, keys);
  CheckOffers(bytes, sizes);
  return 0;
}
