#include "web_digest.h"

#include <openssl/evp.h>
#include <sys/random.h>

#include <array>
#include <cerrno>
#include <span>
#include <system_error>

namespace zevweb {

namespace {

constexpr size_t kBytes = 32;

std::string InHex(std::span<const unsigned char> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace

std::string RandomSecret() {
  std::array<unsigned char, kBytes> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::system_error(errno, std::generic_category(), "getrandom");
  }
  return InHex(bytes);
}

std::string Digest(std::string_view bytes) {
  std::array<unsigned char, kBytes> digest{};
  unsigned int size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("the system's library gives no SHA-256");
  }
  return InHex(digest);
}

}  // namespace zevweb
