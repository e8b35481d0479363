// The consoles at which users have just typed, so that an echo need not wait for the pause of the
// output monitor (cons_mon.cpp).
#pragma once

#include <cstdint>

namespace zevd {

class TypedConsoles {
 public:
  /// How long after a key an answer counts as its echo, in milliseconds.
  static constexpr int64_t kEchoTime = 100;

  /// Before the threads start. False when the system has no descriptor left (errno tells).
  [[nodiscard]] bool Open();

  /// A user has typed at the console with this socket, which stays open meanwhile. Any thread.
  void Typed(int sock) const;

  /// Sleeps for so many microseconds, but only until a console answers at which a user has just
  /// typed. The output monitor only.
  void Pause(int64_t microseconds) const;

 private:
  bool AnyAnswers() const;

  int descriptor_ = -1;  // epoll; a console is on it until it prints something unasked
};

extern TypedConsoles typed_consoles;

}  // namespace zevd
