#include "login.h"

#include <poll.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <optional>

#include "listener.h"
#include "output.h"
#include "prompt.h"

namespace zevctl {

namespace {

constexpr Milliseconds kConnectLimit{10000};
constexpr Milliseconds kAnswerLimit{30000};  // the check of a password can take ten seconds
constexpr Milliseconds kRefusalLimit{2000};  // from a refusal's text to the end of the connection

constexpr size_t kLongestRefusal = 8192;  // far more than any has

constexpr size_t kUserNameWidth = 32;  // the daemon keeps no more of a name
constexpr int kWrongPassword = 1;      // refusal 001

// The dialogue (docs/protocol.md); the telnet options ask to hide and to show what is typed.
constexpr std::string_view kNamePrompt = "username: ";
constexpr std::string_view kPasswordPrompt = "\xFF\xFB\x01password: ";
constexpr std::string_view kPasswordTaken = "\xFF\xFC\x01\r\n";

std::string LoginName() {
  const char* before_sudo = getuid() == 0 ? getenv("SUDO_USER") : nullptr;
  if (before_sudo != nullptr) return before_sudo;
  const passwd* entry = getpwuid(getuid());
  return entry != nullptr ? entry->pw_name : "unknown";
}

// The cookie, or nothing when the file cannot be read or has none.
std::optional<std::string> ReadCookie(const std::string& path) {
  std::ifstream file(path);
  std::string cookie;
  file >> cookie;
  return cookie.empty() ? std::nullopt : std::optional(cookie);
}

Failure Distrusted(const ListenerCheck& listener) {
  return {listener.status(), listener.Complaint()};
}

// A cookie counts only on the station itself. One that the user named must be usable.
std::optional<std::string> UsableCookie(const Settings& settings, const Socket& socket,
                                        const ListenerCheck& listener) {
  if (settings.tunnel) return {};
  auto cookie = socket.PeerIsLoopback() ? ReadCookie(settings.cookie_file) : std::nullopt;
  if (!cookie && settings.cookie_file_given) {
    throw Failure(ExitStatus::kNotAdmitted,
                  "the cookie in " + settings.cookie_file +
                      " cannot be used: the file must be readable and the daemon on 127.0.0.1");
  }
  if (cookie && !listener.AdmitsCookie()) throw Distrusted(listener);
  return cookie;
}

// What may come at each stage of the dialogue. After a password, the first prompt may come again.
struct Expected {
  std::string_view prompt;
  LoginStep step;
  LoginStage next_stage;
};

constexpr std::array kExpected = {
    Expected{kNamePrompt, LoginStep::kName, LoginStage::kBeforePassword},
    Expected{kPasswordPrompt, LoginStep::kPassword, LoginStage::kAfterPassword},
    Expected{kPasswordTaken, LoginStep::kWait, LoginStage::kBeforeName},
};

// True when the front of `received` can still become, or has become, the prompt.
bool MayBe(const std::string& received, std::string_view prompt) {
  const size_t length = std::min(received.size(), prompt.size());
  return prompt.substr(0, length) == std::string_view(received).substr(0, length);
}

// Reads what comes next; false at the end of the connection.
bool ReadMore(Socket& socket, std::string& received, Milliseconds limit) {
  std::array<char, 4096> chunk{};
  const size_t count = socket.Receive(chunk, limit);
  received.append(chunk.data(), count);
  return count > 0;
}

bool LooksLikeRefusal(const std::string& received) {
  return !received.empty() && received[0] >= '0' && received[0] <= '9';
}

// A refusal is followed by the end of the connection. Anything else that begins with a digit is not
// a refusal.
void ThrowIfRefused(Socket& socket, std::string& received) {
  if (!LooksLikeRefusal(received)) return;
  while (received.size() <= kLongestRefusal && WaitFor(socket.fd(), POLLIN, kRefusalLimit)) {
    if (ReadMore(socket, received, kRefusalLimit)) continue;
    const auto refusal = ParseRefusal(received);
    if (refusal) throw Refused(*refusal);
    return;
  }
}

// One connection attempt with one first line.
class Login {
 public:
  /// `distrusted`: thrown instead of answering when a name is asked for.
  Login(Socket socket, Credentials& credentials, std::string_view probe,
        const std::optional<Failure>& distrusted)
      : socket_(std::move(socket)),
        credentials_(credentials),
        probe_(probe),
        distrusted_(distrusted) {}

  Opening Run(const std::string& line) {
    socket_.Send(line + "\n" + std::string(probe_), kAnswerLimit);
    for (;;) {
      const LoginStep step = dialogue_.Next(received_);
      if (step == LoginStep::kOver) break;
      Answer(step);
    }
    ThrowIfRefused(socket_, received_);
    return {std::move(socket_), std::move(received_), {}};
  }

 private:
  void Answer(LoginStep step) {
    if (step == LoginStep::kName) {
      if (distrusted_) throw Failure(*distrusted_);
      if (asked_) TryAgain();
      asked_ = true;
      socket_.Send(credentials_.Name() + "\n", kAnswerLimit);
    } else if (step == LoginStep::kPassword) {
      SendPassword();
    } else if (!ReadMore(socket_, received_, kAnswerLimit)) {
      throw Failure(ExitStatus::kNoDaemon,
                    "the daemon closed the connection without an answer; try again, and look at "
                    "its messages if that goes on");
    }
  }

  void TryAgain() {
    if (!credentials_.MayAsk()) {
      throw Failure(ExitStatus::kNotAdmitted,
                    "the daemon does not accept the name and password; attach again to type them");
    }
    Tell("zevctl: Name or password is wrong. Try again.\n");
    credentials_.Forget();
  }

  void SendPassword() {
    socket_.Send(credentials_.Password().Line(), kAnswerLimit);
    socket_.Send(probe_, kAnswerLimit);
  }

  Socket socket_;
  Credentials& credentials_;
  std::string_view probe_;
  const std::optional<Failure>& distrusted_;
  LoginDialogue dialogue_;
  std::string received_;
  bool asked_ = false;
};

Opening OpenOnce(const Settings& settings, Credentials& credentials, const std::string& line,
                 std::string_view probe, bool with_cookie, bool* used_cookie) {
  Contact contact = Reach(settings, kConnectLimit, with_cookie);
  *used_cookie = !contact.proof.empty();
  const auto& distrusted = contact.distrusted;
  Opening opening =
      Login(std::move(contact.socket), credentials, probe, distrusted).Run(contact.proof + line);
  // No secret was asked for. But the user may type one at a console, so the warning is given all
  // the same.
  if (distrusted && credentials.MayAsk()) Warn(distrusted->what());
  return opening;
}

[[noreturn]] void ThrowCookieRefused(const Settings& settings) {
  throw Failure(ExitStatus::kNotAdmitted, "refused: the cookie in " + settings.cookie_file +
                                              " is not that of the daemon at this address; leave "
                                              "--cookie-file out, or see --host and --port");
}

}  // namespace

Contact Reach(const Settings& settings, Milliseconds limit, bool with_cookie) {
  std::optional<ListenerCheck> listener;
  Socket socket = Socket::Connect(settings.host, settings.port, limit,
                                  [&](const sockaddr& address) { listener.emplace(address); });
  listener->Finish(socket.fd());
  const auto cookie = with_cookie ? UsableCookie(settings, socket, *listener) : std::nullopt;
  std::optional<Failure> distrusted;
  if (!listener->AdmitsPassword(settings.tunnel)) distrusted = Distrusted(*listener);
  return {std::move(socket), cookie ? "token " + *cookie + " " : "", std::move(distrusted)};
}

const std::string& Credentials::Name() {
  if (!name_.empty()) return name_;
  const auto answer = may_ask_ ? Ask("User name [" + Printable(offered_) + "]: ") : std::nullopt;
  if (!answer) {
    throw Failure(ExitStatus::kNotAdmitted,
                  "the daemon asks for a name and a password, and there is no terminal to ask you "
                  "on; where the cookie file is readable, no login is needed");
  }
  name_ = answer->empty() ? offered_ : *answer;
  return name_;
}

const Secret& Credentials::Password() {
  was_wanted_ = true;
  if (!password_ && may_ask_) password_ = AskSecret("Password: ");
  if (!password_) {
    throw Failure(ExitStatus::kNotAdmitted, "no password was given; try again and type it");
  }
  return *password_;
}

void Credentials::Forget() {
  name_.clear();
  password_.reset();
}

LoginStep LoginDialogue::Next(std::string& received) {
  const Expected& expected = kExpected[static_cast<size_t>(stage_)];
  if (received.empty()) return LoginStep::kWait;
  if (!MayBe(received, expected.prompt)) return LoginStep::kOver;
  if (received.size() < expected.prompt.size()) return LoginStep::kWait;
  received.erase(0, expected.prompt.size());
  stage_ = expected.next_stage;
  return expected.step == LoginStep::kWait ? Next(received) : expected.step;
}

std::string UserName(const Settings& settings) {
  std::string name = settings.user.empty() ? LoginName() : settings.user;
  if (name.size() > kUserNameWidth) name.resize(kUserNameWidth);
  return name;
}

std::string Introduction(const Settings& settings) {
  const std::string user = "user=" + UserName(settings);
  return settings.from.empty() ? user : user + " addr=" + settings.from;
}

Opening OpenMainPort(const Settings& settings, Credentials& credentials, const std::string& line,
                     std::string_view probe) {
  bool used_cookie = false;
  try {
    Opening opening = OpenOnce(settings, credentials, line, probe, true, &used_cookie);
    credentials.NoteCookie(true);
    return opening;
  } catch (const Refused& refused) {
    if (!used_cookie || refused.number() != kWrongPassword) throw;
    if (settings.cookie_file_given) ThrowCookieRefused(settings);
  }
  credentials.NoteCookie(false);
  // The cookie of this machine means nothing to a daemon at the far end of a tunnel, but a login
  // may do.
  return OpenOnce(settings, credentials, line, probe, false, &used_cookie);
}

}  // namespace zevctl
