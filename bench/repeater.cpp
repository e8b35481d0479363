#include "repeater.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <string_view>

#include "user.h"

namespace bench {

namespace {

constexpr int kListener = 3;
constexpr size_t kChunk = 65536;

Descriptor Accept() {
  Descriptor user(accept4(kListener, nullptr, nullptr, SOCK_CLOEXEC));
  if (user.get() == -1) Fail("accept");
  SetNoDelay(user.get());
  return user;
}

}  // namespace

void LiveAsRepeater(uint16_t port, size_t users) {
  fcntl(kListener, F_SETFL, fcntl(kListener, F_GETFL) & ~O_NONBLOCK);
  std::vector<Descriptor> socks;
  for (size_t i = 0; i < users; ++i) socks.push_back(Accept());
  const Descriptor console = ConnectTo(Farm::AddressOf(0), port);
  std::vector<char> chunk(kChunk);
  for (;;) {
    const ssize_t count = TEMP_FAILURE_RETRY(recv(console.get(), chunk.data(), chunk.size(), 0));
    if (count < 0 && errno == EAGAIN) continue;  // the console was silent for long
    if (count < 0) Fail("recv");
    if (count == 0) throw ConnectionOver();
    const std::string_view text(chunk.data(), static_cast<size_t>(count));
    for (const Descriptor& sock : socks) SendAll(sock, text);
  }
}

Repeater::Repeater(const Farm& farm, size_t users)
    : listener_(ListenOn()),
      users_(users),
      process_(
          {"/proc/self/exe", kRepeaterWord, std::to_string(farm.port()), std::to_string(users)},
          QOR_ROOT "/repeater.out", listener_.get()) {}

std::vector<Descriptor> Repeater::Call() const {
  std::vector<User> users;
  for (size_t i = 0; i < users_; ++i) users.emplace_back(ConnectTo("127.0.0.1", PortOf(listener_)));
  std::vector<Descriptor> socks;
  for (User& user : users) {
    user.Expect(std::string(kGreeting));
    socks.push_back(user.Leave());
  }
  return socks;
}

}  // namespace bench
