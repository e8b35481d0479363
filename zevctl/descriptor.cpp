#include "descriptor.h"

#include <unistd.h>

#include <utility>

namespace zevctl {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.Release();
  }
  return *this;
}

void Descriptor::Close() {
  if (fd_ >= 0) close(Release());
}

int Descriptor::Release() {
  return std::exchange(fd_, -1);
}

}  // namespace zevctl
