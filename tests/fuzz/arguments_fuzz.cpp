// The argument line of the main port: what a client asks for, or why it is refused.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fuzz.h"
#include "serv_conn.h"
#include "serv_conn_steps.h"

using namespace zevd;

namespace {

/// What the model expects of a line.
struct Expected {
  std::string mechanism;
  std::string cookie;
  std::string console;
  std::string user = "<unknown>";
  std::string address;
  int mode = 2;
  const char* error = nullptr;
  std::vector<std::string> messages;
};

constexpr char kInsufficient[] = "009 - Insufficient data.\r\n";
constexpr char kInvalid[] = "002 - Invalid argument.\r\n";

std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  std::string word;
  for (const char byte : line + " ") {
    if (byte != ' ' && byte != '\t' && byte != '\n' && byte != '\r') {
      word.push_back(byte);
    } else if (!word.empty()) {
      words.push_back(word);
      word.clear();
    }
  }
  return words;
}

void Refuse(Expected& expected, const char* error, const std::string& why) {
  expected.error = error;
  expected.messages.push_back("ParseConsoleArgs: " + why + "\n");
}

void ExpectMode(Expected& expected, const std::string& value) {
  const std::map<std::string, int> modes = {{"er", 4}, {"ex", 3}, {"sh", 2}, {"ro", 1}};
  const auto found = modes.find(value);
  if (found == modes.end()) {
    Refuse(expected, kInvalid, "Unrecognized mode \"" + value + "\".");
  } else {
    expected.mode = found->second;
  }
}

// The number of the well-formed character of `length` bytes at the front, or -1.
long CodePoint(const std::string& text, size_t length) {
  constexpr long kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  constexpr int kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const int lead_bits = 0xFF >> (length + 1);
  if (text.size() < length || (byte(0) & ~lead_bits) != kLead[length]) return -1;
  long number = byte(0) & lead_bits;
  for (size_t i = 1; i < length; ++i) {
    if (byte(i) >> 6 != 2) return -1;
    number = number * 64 + byte(i) % 64;
  }
  const bool surrogate = number >= 0xD800 && number <= 0xDFFF;
  return number < kSmallest[length] || number > 0x10FFFF || surrogate ? -1 : number;
}

std::string WithoutControls(std::string text) {
  std::string shown;
  while (!text.empty()) {
    long number = static_cast<uint8_t>(text[0]);
    size_t length = 1;
    for (size_t longer = 2; longer <= 4; ++longer) {
      if (CodePoint(text, longer) < 0) continue;
      number = CodePoint(text, longer);
      length = longer;
    }
    const bool control = number < 32 || (number >= 127 && number < 160);
    shown += control ? "?" : text.substr(0, length);
    text.erase(0, length);
  }
  return shown;
}

void ExpectOption(Expected& expected, const std::string& word) {
  const std::string key = word.substr(0, 5);
  const std::string value = word.substr(key.size());
  if (key == "mode=") {
    ExpectMode(expected, value);
  } else if (key == "user=") {
    expected.user = WithoutControls(value.substr(0, 32));
  } else if (key == "addr=") {
    expected.address = WithoutControls(value.substr(0, 64));
  } else {
    Refuse(expected, kInvalid, "Invalid argument \"" + word + "\".");
  }
}

// Number of the word that names the console.
size_t ExpectToken(Expected& expected, const std::vector<std::string>& words) {
  if (words.empty() || words[0] != "token") return 0;
  expected.mechanism = "token";
  if (words.size() > 1) expected.cookie = words[1].substr(0, 16);
  return 2;
}

Expected Expect(const std::string& line) {
  Expected expected;
  const std::vector<std::string> words = Words(line);
  const size_t name = ExpectToken(expected, words);
  if (words.size() <= name) {
    constexpr const char* kWhy[] = {"No console arguments found.", "Cookie not specified.",
                                    "Console name not specified."};
    Refuse(expected, kInsufficient, kWhy[words.size()]);
    return expected;
  }
  expected.console = words[name].substr(0, 64);
  for (size_t i = name + 1; i < words.size() && expected.error == nullptr; ++i) {
    ExpectOption(expected, words[i]);
  }
  return expected;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::SetUp();
  const std::string line = fuzz::UpToNul({reinterpret_cast<const char*>(data), size});
  const Expected expected = Expect(line);
  // Exactly as long as the line, so that a read past its end is seen.
  const auto buf = std::make_unique<char[]>(line.size() + 1);
  line.copy(buf.get(), line.size());
  ConsoleArgs args;
  u_err_msg = nullptr;
  fuzz::DebugRecorder recorder(2);
  REQUIRE_EQUAL(ParseConsoleArgs(buf.get(), &args), expected.error == nullptr ? 0 : -1);
  REQUIRE_EQUAL(recorder.Output(), fuzz::AsDebugOutput(expected.messages));
  REQUIRE_EQUAL(std::string(u_err_msg == nullptr ? "" : u_err_msg),
                std::string(expected.error == nullptr ? "" : expected.error));
  REQUIRE_EQUAL(std::string(args.auth_mechanism), expected.mechanism);
  REQUIRE_EQUAL(std::string(args.user_cookie), expected.cookie);
  REQUIRE_EQUAL(std::string(args.cons_name), expected.console);
  REQUIRE_EQUAL(std::string(args.user_name), expected.user);
  REQUIRE_EQUAL(std::string(args.addr), expected.address);
  REQUIRE_EQUAL(static_cast<int>(args.mode), expected.mode);
  return 0;
}
