// The terminal and the streams of a session: raw keys, signals as events, and output that never
// blocks.
#pragma once

#include <termios.h>

#include <csignal>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

#include "descriptor.h"

namespace zevctl {

/// Passes every key on as it is typed, and shows output as it comes, from Enter() until Leave() or
/// the end of the object. Does nothing where the descriptor is not a terminal, or while the program
/// is in the background.
class RawMode {
 public:
  explicit RawMode(int fd);
  ~RawMode() { Leave(); }
  RawMode(const RawMode&) = delete;
  RawMode& operator=(const RawMode&) = delete;

  bool is_terminal() const { return is_terminal_; }
  void Enter() const;
  void Leave() const;

 private:
  int fd_;
  termios saved_{};  // filled while is_terminal_ is set
  bool is_terminal_;
};

/// While one exists, the signals that would end the program, and the one that continues it after a
/// stop, are not delivered but read from a descriptor. Signals that were ignored when the program
/// started stay ignored.
class SignalWatch {
 public:
  /// `more`: further signals to be watched.
  explicit SignalWatch(std::initializer_list<int> more = {});
  ~SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  int fd() const { return descriptor_.get(); }

  /// The next signal's number; 0 when there is none.
  int Take() const;

 private:
  sigset_t saved_{};
  Descriptor descriptor_;
};

/// Output that waits to be written. Write() never blocks once poll() has found the descriptor
/// writable.
class OutputQueue {
 public:
  explicit OutputQueue(int fd);

  /// The descriptor to poll.
  int fd() const { return nonblocking_ ? nonblocking_.get() : fd_; }

  bool empty() const { return written_ == pending_.size(); }

  /// True when nothing should be added until some of it is written.
  bool Full() const { return pending_.size() - written_ >= kLimit; }

  void Add(std::string_view bytes);

  /// Drops everything.
  void Clear();

  /// Writes some of it. Returns 0, also when nothing can be written yet, or the errno value of a
  /// failure.
  int Write();

 private:
  static constexpr size_t kLimit = 1 << 20;  // bytes

  int fd_;
  Descriptor nonblocking_;
  std::string pending_;
  size_t written_ = 0;
};

}  // namespace zevctl
