// Ownership of a file descriptor.
#pragma once

namespace zevctl {

/// Owns a descriptor and closes it at its end. False while it owns none.
class Descriptor {
 public:
  Descriptor() = default;

  /// A negative number stands for no descriptor, as system calls return it.
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { Close(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void Close();

 private:
  int Release();

  int fd_ = -1;
};

}  // namespace zevctl
