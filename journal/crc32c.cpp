#include "crc32c.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

namespace journal {

namespace {

constexpr uint32_t kPolynomial = 0x82F63B78;  // with its bits reversed
constexpr size_t kStep = 8;

using Tables = std::array<std::array<uint32_t, 256>, kStep>;

constexpr Tables MakeTables() {
  Tables tables{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t sum = byte;
    for (int bit = 0; bit < 8; ++bit) sum = (sum & 1) != 0 ? sum >> 1 ^ kPolynomial : sum >> 1;
    tables[0][byte] = sum;
  }
  for (size_t step = 1; step < kStep; ++step) {
    for (size_t byte = 0; byte < 256; ++byte) {
      const uint32_t sum = tables[step - 1][byte];
      tables[step][byte] = sum >> 8 ^ tables[0][sum & 0xFF];
    }
  }
  return tables;
}

constexpr Tables kTables = MakeTables();

// Eight bytes at a time: each table tells what a byte does to the sum when so many follow it.
uint32_t ByTables(const unsigned char* bytes, size_t size, uint32_t sum) {
  for (; size >= kStep; bytes += kStep, size -= kStep) {
    uint32_t next = 0;
    for (size_t i = 0; i < kStep; ++i) {
      const uint32_t folded = i < 4 ? (sum >> (8 * i) & 0xFF) : 0;
      next ^= kTables[kStep - 1 - i][bytes[i] ^ folded];
    }
    sum = next;
  }
  for (; size > 0; ++bytes, --size) sum = sum >> 8 ^ kTables[0][(sum ^ *bytes) & 0xFF];
  return sum;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) uint32_t ByInstruction(const unsigned char* bytes, size_t size,
                                                         uint32_t sum) {
  uint64_t wide = sum;
  for (; size >= kStep; bytes += kStep, size -= kStep) {
    uint64_t word = 0;
    memcpy(&word, bytes, sizeof word);
    wide = _mm_crc32_u64(wide, word);
  }
  sum = static_cast<uint32_t>(wide);
  for (; size > 0; ++bytes, --size) sum = _mm_crc32_u8(sum, *bytes);
  return sum;
}

const bool kHasInstruction = __builtin_cpu_supports("sse4.2") != 0;
#endif

}  // namespace

uint32_t Crc32c(const void* bytes, size_t size, uint32_t before) {
#if defined(__x86_64__)
  if (kHasInstruction) {
    return ~ByInstruction(static_cast<const unsigned char*>(bytes), size, ~before);
  }
#endif
  return Crc32cByTables(bytes, size, before);
}

uint32_t Crc32cByTables(const void* bytes, size_t size, uint32_t before) {
  return ~ByTables(static_cast<const unsigned char*>(bytes), size, ~before);
}

}  // namespace journal
