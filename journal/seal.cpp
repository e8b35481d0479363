#include "seal.h"

#include <nettle/sha2.h>

#include <algorithm>

#include "journal_format.h"

namespace journal {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

std::string_view Bytes(const Hash& hash) {
  return {reinterpret_cast<const char*>(hash.data()), hash.size()};
}

Hash HashOf(std::string_view bytes) {
  Hash hash{};
  std::copy(bytes.begin(), bytes.end(), hash.begin());
  return hash;
}

Hash ChainHash(const Seal& seal, uint64_t station, uint64_t segment, std::string_view index) {
  char numbers[2 * sizeof(uint64_t)];
  PutNumber(numbers, station);
  PutNumber(numbers + sizeof station, segment);
  Sha256 sha;
  sha.Add(Bytes(seal.previous));
  sha.Add({numbers, sizeof numbers});
  sha.Add(Bytes(seal.raw));
  sha.Add(index);
  return sha.Take();
}

}  // namespace

std::string HashText(const Hash& hash) {
  std::string text;
  for (const unsigned char byte : hash) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
  return text;
}

std::optional<Hash> ParseHash(std::string_view text) {
  Hash hash{};
  if (text.size() != 2 * hash.size()) return {};
  for (size_t i = 0; i < text.size(); ++i) {
    const size_t digit = std::string_view(kDigits).find(text[i]);
    if (digit == std::string_view::npos) return {};
    hash[i / 2] = static_cast<unsigned char>(size_t{hash[i / 2]} << 4 | digit);
  }
  return hash;
}

struct Sha256::Context {
  sha256_ctx sha;
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
  sha256_init(&context_->sha);
}

Sha256::~Sha256() = default;

void Sha256::Add(std::string_view bytes) {
  sha256_update(&context_->sha, bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
}

Hash Sha256::Take() {
  Hash hash{};
  sha256_digest(&context_->sha, hash.size(), hash.data());
  return hash;
}

Seal MakeSeal(const Hash& previous, uint64_t station, uint64_t segment, const Hash& raw,
              std::string_view index) {
  Seal seal{previous, raw, {}};
  seal.hash = ChainHash(seal, station, segment, index);
  return seal;
}

std::string EncodeSeal(const Seal& seal) {
  std::string bytes;
  for (const Hash& hash : {seal.previous, seal.raw, seal.hash}) bytes += Bytes(hash);
  return bytes;
}

std::optional<Seal> DecodeSeal(std::string_view bytes) {
  if (bytes.size() != kSealSize) return {};
  const size_t size = Hash().size();
  return Seal{HashOf(bytes.substr(0, size)), HashOf(bytes.substr(size, size)),
              HashOf(bytes.substr(2 * size, size))};
}

bool IsSealOf(const Seal& seal, uint64_t station, uint64_t segment, std::string_view index) {
  return seal.hash == ChainHash(seal, station, segment, index);
}

}  // namespace journal
