// Asking the password helper: what the daemon and the stand-in authentication library share. Each
// has a copy of its own with a count of its own.
//
// Any thread; no lock is held while a caller waits. A check that is given up, by a callback that
// does not return, ends its helper and gives its turn back.
#pragma once

#include <csignal>

/// The most helpers that run at once for one copy of this library.
inline constexpr int kHelpersAtOnce = 8;

/// What came of a check.
enum class PasswordCheck {
  kAccepted,
  kRefused,     ///< by the helper, or it did not answer in time and was ended
  kNoTurn,      ///< too many others were being checked for too long, or the peer hung up
  kNotStarted,  ///< the helper could not be started; errno says why
  kNotRead,     ///< the helper did not read the pair; errno says why
};

struct PasswordRequest {
  const char* name;
  const char* password;
  const char* rhost;  ///< the peer's address for the helper; empty when it has none
  int sock = -1;      ///< the peer's connection: whoever hangs up gives up the turn; -1 for none
  /// The signals that are blocked while the check waits; null for those of the caller.
  const sigset_t* blocked = nullptr;
  /// Called when a signal has ended a wait. Need not return: it may unwind.
  void (*interrupted)() = nullptr;
};

/// Waits for a turn, has `helper` check the pair, and waits for its answer, half a minute at most
/// each. At most kHelpersAtOnce helpers run at once, and one for the same name from the same
/// address; addresses take turns. After a refusal, the same name from the same address waits two
/// seconds, whichever connection it comes by. A name with white space is refused without a helper,
/// which would take the rest of the name for a part of the password.
PasswordCheck CheckPassword(const char* helper, const PasswordRequest& request);
