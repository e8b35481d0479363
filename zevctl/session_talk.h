// What a session says to the person at the terminal, and what it asks.
#pragma once

#include <optional>
#include <string>

#include "company.h"
#include "escape.h"
#include "notes.h"
#include "session_options.h"
#include "socket.h"

namespace zevctl {

/// From the greeting on: who comes and goes, what the escapes tell, and the two questions before a
/// change of the session.
class SessionTalk {
 public:
  SessionTalk(const SessionOptions& options, Notes& notes, const Settings& settings,
              Credentials& credentials);

  /// The descriptor to poll for input; -1 for none.
  int fd() const { return company_.fd(); }

  /// Takes what has come on it.
  void Read();

  /// When to call Pass() at the latest.
  std::optional<Clock::time_point> Due() const;

  /// Does what it is time for.
  void Pass();

  /// The console has printed this.
  void Follow(std::string_view text);

  /// Acts on an escape that is about the session itself and not about the connection.
  void Act(EscapeAction action);

  /// True while the next key is the answer to a question.
  bool asking() const { return question_ != Question::kNone; }

  /// Takes the answer. A session that is to change ends and begins anew.
  std::optional<SessionChange> Answer(char key);

  /// Something was typed that a read-only user cannot send.
  void TypedInVain();

 private:
  enum class Question { kNone, kMode, kTakeOver };

  std::string Greeting() const;
  bool MayGreet(Clock::time_point now) const;
  void Greet();
  void TellNews();

  void Want(EscapeAction action);
  void Tell(EscapeAction action);
  void TellWho();
  void AskMode();
  void AskTakeOver();
  void ShowRecent();

  std::optional<SessionChange> ChangeMode(char key);
  std::optional<SessionChange> TakeOver(char key);

  const SessionOptions& options_;
  Notes& notes_;
  Company company_;
  RecentOutput recent_;
  const Clock::time_point attached_ = Clock::now();
  Clock::time_point active_ = attached_;  // when the console last printed something
  bool greeted_ = false;
  bool news_told_ = false;  // those who were here at the first look
  bool told_in_vain_ = false;
  EscapeAction wanted_ = EscapeAction::kNone;  // what a new look at the console is for
  Clock::time_point wanted_until_{};
  Question question_ = Question::kNone;
  bool clears_ = false;  // what the take-over takes
};

}  // namespace zevctl
