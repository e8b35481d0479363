#include "token_file.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "exit_status.h"
#include "journal/seal.h"

namespace zevctl {

namespace {

constexpr char kHead[] =
    "# Written by \"zevctl token\". Each line: name, when it was made and when it expires in\n"
    "# seconds since 1970, and the SHA-256 hash of the token.\n";
constexpr char kNever[] = "never";
constexpr size_t kLongestName = 64;
constexpr size_t kHashDigits = 64;
constexpr size_t kSecretBytes = 32;
constexpr size_t kWords = 4;

bool IsHash(std::string_view text) {
  const auto is_digit = [](char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'f');
  };
  return text.size() == kHashDigits && std::all_of(text.begin(), text.end(), is_digit);
}

std::optional<time_t> Seconds(std::string_view text) {
  int64_t seconds = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (error != std::errc() || stop != end || text.empty()) return {};
  return seconds;
}

std::vector<std::string_view> WordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  while (!line.empty()) {
    const size_t end = std::min(line.find(' '), line.size());
    if (end > 0) words.push_back(line.substr(0, end));
    line.remove_prefix(std::min(end + 1, line.size()));
  }
  return words;
}

std::optional<Token> ParseLine(std::string_view line) {
  const auto words = WordsOf(line);
  if (words.size() != kWords || !IsTokenName(words[0]) || !IsHash(words[3])) return {};
  const auto made = Seconds(words[1]);
  const auto expires = Seconds(words[2]);
  if (!made || (!expires && words[2] != kNever)) return {};
  return Token{std::string(words[0]), *made, expires, std::string(words[3])};
}

}  // namespace

bool IsTokenName(std::string_view name) {
  const auto is_plain = [](char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
           (byte >= 'A' && byte <= 'Z') || byte == '.' || byte == '_' || byte == '-';
  };
  return !name.empty() && name.size() <= kLongestName &&
         std::all_of(name.begin(), name.end(), is_plain);
}

std::string MakeTokenSecret() {
  std::array<uint8_t, kSecretBytes> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw Failure(ExitStatus::kFailed, "the system gives no random bytes; try again");
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string secret = "zev_";
  for (const uint8_t byte : bytes) {
    secret += kDigits[byte >> 4];
    secret += kDigits[byte & 15];
  }
  return secret;
}

std::string TokenHash(std::string_view secret) {
  journal::Sha256 hasher;
  hasher.Add(secret);
  return journal::HashText(hasher.Take());
}

std::vector<Token> ParseTokens(std::string_view text, size_t* bad_line) {
  std::vector<Token> tokens;
  *bad_line = 0;
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line[0] == '#') continue;
    if (auto token = ParseLine(line)) {
      tokens.push_back(std::move(*token));
    } else if (*bad_line == 0) {
      *bad_line = number;
    }
  }
  return tokens;
}

std::string TokenText(const std::vector<Token>& tokens) {
  std::string text = kHead;
  for (const Token& token : tokens) {
    text += token.name + " " + std::to_string(token.made) + " " +
            (token.expires ? std::to_string(*token.expires) : kNever) + " " + token.hash + "\n";
  }
  return text;
}

}  // namespace zevctl
