#include "web_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>

namespace zevweb {

namespace {

constexpr int kSignsInTime = 4;  // of life, in the time that the manager waits for one

std::string Take(const char* variable) {
  const char* value = getenv(variable);
  std::string text = value != nullptr ? value : "";
  unsetenv(variable);
  return text;
}

}  // namespace

WebManager::WebManager() : address_(Take("NOTIFY_SOCKET")) {
  const std::string interval = Take("WATCHDOG_USEC");
  Take("WATCHDOG_PID");
  const bool is_usable = !address_.empty() && (address_[0] == '/' || address_[0] == '@') &&
                         address_.size() < sizeof(sockaddr_un::sun_path);
  if (!is_usable) return;
  if (address_[0] == '@') address_[0] = '\0';
  socket_ = zevctl::Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  interval_ = std::chrono::microseconds(strtoll(interval.c_str(), nullptr, 10) / kSignsInTime);
}

void WebManager::Say(const std::string& text) {
  if (!socket_) return;
  sockaddr_un to = {AF_UNIX, ""};
  address_.copy(to.sun_path, sizeof to.sun_path - 1);
  const size_t length = offsetof(sockaddr_un, sun_path) + address_.size() + (address_[0] != '\0');
  sendto(socket_.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&to), static_cast<socklen_t>(length));
}

void WebManager::Feed() {
  const auto now = Clock::now();
  if (interval_.count() == 0 || now - fed_ < interval_) return;
  fed_ = now;
  Say("WATCHDOG=1");
}

}  // namespace zevweb
