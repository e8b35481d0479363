// Opening a connection to the daemon's main port: the first line, and the proof of the user's right
// by cookie or by name and password.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "exit_status.h"
#include "refusal.h"
#include "secret.h"
#include "settings.h"
#include "socket.h"

namespace zevctl {

/// The daemon refused with a numbered text.
class Refused : public Failure {
 public:
  explicit Refused(const Refusal& refusal) : Refused(refusal, refusal.Message()) {}
  Refused(Refusal refusal, const std::string& message)
      : Failure(refusal.status(), message), refusal_(std::move(refusal)) {}

  const Refusal& refusal() const { return refusal_; }
  int number() const { return refusal_.number; }

 private:
  Refusal refusal_;
};

/// Name and password of the person, asked for on the terminal when they are first needed, and kept
/// for further connections of this run. They are never taken from the command line, where others
/// could read them.
class Credentials {
 public:
  /// `name` is offered as the answer to the question for the name.
  explicit Credentials(std::string name) : offered_(std::move(name)) {}

  /// For connections during which nobody may be asked: they fail when a login is wanted.
  static Credentials Unasked() { return Credentials("", false); }

  /// Of a person who has been asked elsewhere, and is not asked again.
  static Credentials Given(std::string name, Secret password) {
    return {std::move(name), std::move(password)};
  }

  Credentials(const Credentials&) = delete;
  Credentials& operator=(const Credentials&) = delete;

  /// Both throw Failure(kNotAdmitted) when there is no terminal or no answer.
  const std::string& Name();
  const Secret& Password();

  /// To be called when name or password was wrong: both are asked for again.
  void Forget();

  /// True when both are known and need not be asked for.
  bool Known() const { return !name_.empty() && password_.has_value(); }

  /// True when the daemon has wanted the password.
  bool WasWanted() const { return was_wanted_; }

  /// False while nobody may be asked: then what is not known is missing.
  bool MayAsk() const { return may_ask_; }

  /// Whether this station's cookie was of use when it was last tried. The cookie of this machine
  /// means nothing to a daemon at the far end of a tunnel.
  void NoteCookie(bool useful) { cookie_useful_ = useful; }
  bool cookie_useful() const { return cookie_useful_; }

 private:
  friend class Unasking;

  Credentials(std::string name, bool may_ask) : offered_(std::move(name)), may_ask_(may_ask) {}
  Credentials(std::string name, Secret password)
      : may_ask_(false), name_(std::move(name)), password_(std::move(password)) {}

  std::string offered_;
  bool may_ask_ = true;
  bool cookie_useful_ = true;
  bool was_wanted_ = false;
  std::string name_;
  std::optional<Secret> password_;
};

/// While one exists, nobody is asked for these credentials: they serve as far as they are known.
class Unasking {
 public:
  explicit Unasking(Credentials& credentials)
      : credentials_(credentials), before_(std::exchange(credentials.may_ask_, false)) {}
  ~Unasking() { credentials_.may_ask_ = before_; }
  Unasking(const Unasking&) = delete;
  Unasking& operator=(const Unasking&) = delete;

 private:
  Credentials& credentials_;
  bool before_;
};

/// What the other end asks for next during a login.
enum class LoginStep { kWait, kName, kPassword, kOver };

enum class LoginStage { kBeforeName, kBeforePassword, kAfterPassword };

/// The dialogue of the daemon's login, as bytes in and steps out.
class LoginDialogue {
 public:
  /// Takes prompts off the front of what was received. kWait: more must arrive first; kOver: what
  /// is left is not part of the dialogue.
  LoginStep Next(std::string& received);

 private:
  LoginStage stage_ = LoginStage::kBeforeName;
};

/// A connection whose first line was accepted, as far as can be seen, and what was received after
/// that.
struct Opening {
  Socket socket;
  std::string received;  ///< at least one byte
  std::string shown;     ///< what the terminal shows already of the line that goes on
};

/// A connection to the main port on which nothing has been sent.
struct Contact {
  Socket socket;
  std::string proof;                  ///< what the cookie puts before the first line; may be empty
  std::optional<Failure> distrusted;  ///< why no name and password may be sent
};

/// Connects within the limit, and looks at the listener (listener.h) where the connection stays on
/// this machine. Throws Failure.
Contact Reach(const Settings& settings, Milliseconds limit, bool with_cookie);

/// The name under which the user appears to others: that of --user, or else the login name.
std::string UserName(const Settings& settings);

/// The words of the first line that say who comes: user=NAME and, where one is given, addr=ADDRESS.
std::string Introduction(const Settings& settings);

/// Connects, sends the line (given without its end; the cookie goes in front where it can be used),
/// and logs in where asked. Where the connection stays on this machine, neither cookie nor password
/// is sent unless the listener is the station's (listener.h). `probe` is sent right after the line
/// and again after every password: bytes that the daemon answers once the connection is open and
/// that a login ignores. Throws Refused or Failure.
Opening OpenMainPort(const Settings& settings, Credentials& credentials, const std::string& line,
                     std::string_view probe = {});

}  // namespace zevctl
