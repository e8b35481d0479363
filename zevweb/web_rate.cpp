#include "web_rate.h"

#include <arpa/inet.h>

#include <algorithm>

namespace zevweb {

namespace {

constexpr size_t kMostKeys = 10'000;

}  // namespace

std::string RateKeyOf(const std::string& address) {
  in6_addr bytes{};
  if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1) return address;
  std::fill(bytes.s6_addr + 8, bytes.s6_addr + 16, uint8_t{0});
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(AF_INET6, &bytes, text, sizeof text);
  return text;
}

std::chrono::seconds WebRate::WaitOf(const std::string& key, Clock::time_point now) {
  const auto found = until_.find(key);
  if (found == until_.end()) return {};
  const auto full = found->second - pause_ * (burst_ - 1);
  if (full <= now) return {};
  return std::chrono::ceil<std::chrono::seconds>(full - now);
}

void WebRate::Note(const std::string& key, Clock::time_point now) {
  std::erase_if(until_, [&](const auto& entry) { return entry.second <= now; });
  if (until_.size() >= kMostKeys) {
    const auto end = [](const auto& entry) { return entry.second; };
    until_.erase(std::ranges::min_element(until_, {}, end));
  }
  Clock::time_point& until = until_[key];
  until = std::max(until, now) + pause_;
}

void WebRate::Forgive(const std::string& key) {
  const auto found = until_.find(key);
  if (found != until_.end()) found->second -= pause_;
}

}  // namespace zevweb
