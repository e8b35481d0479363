#include "chain.h"

#include <algorithm>
#include <charconv>

namespace journal {

namespace {

constexpr size_t kNumberDigits = 20;
constexpr size_t kHashDigits = 64;

std::string LinkText(const char* word, const Link& link) {
  const std::string number = std::to_string(link.segment);
  return std::string(word) + ' ' + std::string(kNumberDigits - number.size(), '0') + number + ' ' +
         HashText(link.hash) + '\n';
}

// Takes a line off the text; false when it is another one.
bool TakeLink(std::string_view& text, std::string_view word, Link& link) {
  const size_t number_at = word.size() + 1;
  const size_t hash_at = number_at + kNumberDigits + 1;
  const size_t size = hash_at + kHashDigits + 1;
  if (text.size() < size) return false;
  const std::string_view number = text.substr(number_at, kNumberDigits);
  const auto hash = ParseHash(text.substr(hash_at, kHashDigits));
  const auto [end, error] =
      std::from_chars(number.data(), number.data() + number.size(), link.segment);
  if (!hash || error != std::errc() || end != number.data() + number.size()) return false;
  link.hash = *hash;
  if (text.substr(0, size) != LinkText(std::string(word).c_str(), link)) return false;
  text.remove_prefix(size);
  return true;
}

}  // namespace

std::string ChainText(const Chain& chain) {
  return LinkText("removed", chain.removed) + LinkText("sealed", chain.sealed);
}

std::optional<Chain> ParseChain(std::string_view text) {
  Chain chain;
  if (!TakeLink(text, "removed", chain.removed) || !TakeLink(text, "sealed", chain.sealed)) {
    return {};
  }
  if (!text.empty()) return {};
  return chain;
}

}  // namespace journal
