#include "web_sessions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "descriptor.h"
#include "output.h"
#include "web_digest.h"

namespace zevweb {

namespace {

constexpr size_t kMostSessions = 10'000;
constexpr size_t kDigestDigits = 64;

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

// Readers see the old file or the new one. A crash may lose sessions, and costs a login.
bool Replace(const std::string& file, std::string_view bytes) {
  const std::string next = file + ".new";
  unlink(next.c_str());
  const zevctl::Descriptor opened(
      open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  return opened && WriteAll(opened.get(), bytes) && rename(next.c_str(), file.c_str()) == 0;
}

}  // namespace

WebSessions::WebSessions(std::string file, int64_t hours, int64_t idle_minutes)
    : file_(std::move(file)), seconds_(hours * 3600), idle_seconds_(idle_minutes * 60) {
  Load();
}

bool WebSessions::HasEnded(const WebSession& session, time_t now) const {
  return now - session.begun >= seconds_ || now - session.used >= idle_seconds_ ||
         session.begun > now;
}

std::string WebSessions::Begin(const std::string& name, const std::string& address) {
  std::string secret = RandomSecret();
  const time_t now = time(nullptr);
  {
    const std::lock_guard lock(mutex_);
    if (by_digest_.size() >= kMostSessions) {
      const auto used = [](const auto& entry) { return entry.second.used; };
      by_digest_.erase(std::ranges::min_element(by_digest_, {}, used));
    }
    by_digest_[Digest(secret)] = {name, address, now, now};
    is_changed_ = true;
  }
  Keep();
  return secret;
}

std::optional<WebSession> WebSessions::Find(std::string_view secret) {
  if (secret.size() != kDigestDigits) return {};
  const std::string digest = Digest(secret);
  const time_t now = time(nullptr);
  const std::lock_guard lock(mutex_);
  const auto found = by_digest_.find(digest);
  if (found == by_digest_.end() || HasEnded(found->second, now)) return {};
  if (found->second.used != now) is_changed_ = true;
  found->second.used = now;
  return found->second;
}

void WebSessions::End(std::string_view secret) {
  {
    const std::lock_guard lock(mutex_);
    if (by_digest_.erase(Digest(secret)) == 0) return;
    is_changed_ = true;
  }
  Keep();
}

void WebSessions::EndAllOf(const std::string& name) {
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(by_digest_, [&](const auto& entry) { return entry.second.name == name; });
    is_changed_ = true;
  }
  Keep();
}

void WebSessions::Keep() {
  const std::lock_guard file_lock(file_mutex_);
  std::ostringstream text;
  {
    const std::lock_guard lock(mutex_);
    const time_t now = time(nullptr);
    std::erase_if(by_digest_, [&](const auto& entry) { return HasEnded(entry.second, now); });
    if (!std::exchange(is_changed_, false)) return;
    for (const auto& [digest, session] : by_digest_) {
      text << digest << ' ' << session.begun << ' ' << session.used << ' ' << session.address << ' '
           << session.name << '\n';
    }
  }
  if (!Replace(file_, text.str())) {
    zevctl::Announce("zevweb: cannot write " + file_ + ": " + strerror(errno) +
                     "; sessions will end with this program");
  }
}

void WebSessions::Load() {
  std::ifstream stream(file_);
  const time_t now = time(nullptr);
  for (std::string line; std::getline(stream, line);) {
    std::istringstream words(line);
    std::string digest;
    WebSession session;
    words >> digest >> session.begun >> session.used >> session.address >> std::ws;
    std::getline(words, session.name);
    const bool is_whole = words && digest.size() == kDigestDigits && !session.name.empty();
    if (is_whole && !HasEnded(session, now)) by_digest_[digest] = session;
  }
}

std::string SessionCookieName(bool is_secure) {
  return is_secure ? "__Host-zevweb" : "zevweb";
}

}  // namespace zevweb
