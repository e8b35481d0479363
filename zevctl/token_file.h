// The tokens with which machines read from zevweb: the file web.tokens in the configuration
// directory. It holds no token, only what tells whether one is right.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

inline constexpr char kTokenFile[] = "web.tokens";

struct Token {
  std::string name;
  time_t made = 0;
  std::optional<time_t> expires;
  std::string hash;  ///< SHA-256 of the secret, as 64 hexadecimal digits

  bool HasExpired(time_t now) const { return expires && *expires <= now; }
};

/// True for 1 to 64 letters, digits, '.', '_' and '-'.
bool IsTokenName(std::string_view name);

/// A new secret: "zev_" and 256 random bits. Throws Failure(kFailed).
std::string MakeTokenSecret();

/// What the file keeps of a secret.
std::string TokenHash(std::string_view secret);

/// What the file's text says; lines that it should not have are left out, and the number of the
/// first of them goes to `bad_line` (0 for none).
std::vector<Token> ParseTokens(std::string_view text, size_t* bad_line);

/// The text of a file with these tokens.
std::string TokenText(const std::vector<Token>& tokens);

}  // namespace zevctl
