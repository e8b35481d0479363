// Text fields of records are fixed character arrays, which are filled with the functions here.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace zevd {

/// Sizes of the records' text fields, terminator included.
inline constexpr size_t kNameSize = 65;
inline constexpr size_t kUserNameSize = 33;

/// Copies at most size - 1 characters of `src` and always terminates `dst`.
inline void CopyText(char* dst, size_t size, const char* src) {
  const size_t length = std::min(strlen(src), size - 1);
  memcpy(dst, src, length);
  dst[length] = '\0';
}

template <size_t N>
void CopyText(char (&dst)[N], const char* src) {
  CopyText(dst, N, src);
}

}  // namespace zevd
