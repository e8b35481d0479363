// System calls of the tests' own, which must succeed.
#pragma once

#include <cerrno>
#include <system_error>

namespace test {

[[noreturn]] inline void ThrowErrno(const char* call) {
  throw std::system_error(errno, std::generic_category(), call);
}

/// The result of `call`; throws when it is -1.
inline int Check(int result, const char* call) {
  if (result == -1) ThrowErrno(call);
  return result;
}

}  // namespace test
