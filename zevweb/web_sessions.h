// Who has logged in with name and password, and until when that counts.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace zevweb {

struct WebSession {
  std::string name;
  std::string address;  ///< of the browser, at the login
  time_t begun = 0;
  time_t used = 0;
};

/// The sessions, and the file that has them outlive this program. The secret in the browser's
/// cookie is kept nowhere here, its digest alone is. Any thread may use it.
class WebSessions {
 public:
  /// `file`: where the sessions are kept; those in it go on.
  WebSessions(std::string file, int64_t hours, int64_t idle_minutes);

  /// Begins a session. The secret goes into the browser's cookie.
  std::string Begin(const std::string& name, const std::string& address);

  /// The session of this secret, which counts as used now; nothing when it has ended.
  std::optional<WebSession> Find(std::string_view secret);

  void End(std::string_view secret);
  void EndAllOf(const std::string& name);

  /// Forgets what has ended, and writes the file if anything has changed.
  void Keep();

  int64_t seconds() const { return seconds_; }

 private:
  void Load();
  bool HasEnded(const WebSession& session, time_t now) const;

  const std::string file_;
  const int64_t seconds_;
  const int64_t idle_seconds_;
  std::mutex mutex_;
  std::mutex file_mutex_;
  std::map<std::string, WebSession> by_digest_;
  bool is_changed_ = false;
};

/// The name of the session's cookie. Browsers take one that begins like this only over an encrypted
/// connection, and from no other host.
std::string SessionCookieName(bool is_secure);

}  // namespace zevweb
