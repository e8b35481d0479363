// Why a session ended, or was refused, and what the user can do about it.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "login.h"
#include "session.h"
#include "session_options.h"
#include "settings.h"

namespace zevctl {

struct EndReason {
  std::string text;
  bool wanted = false;  ///< somebody cut the user off: attaching again would defeat that
};

/// Why the daemon ended a session that began at `begun`: from its last words, or else from what it
/// tells about the console now, which takes some seconds at most.
EndReason ReasonOf(const SessionResult& result, const SessionOptions& options, time_t begun,
                   const Settings& settings, Credentials& credentials);

enum class Cause { kTakenOver, kTerminated, kDisabledBy, kDisabled, kDeleted };

/// What the daemon said about the end of a session.
struct LastWords {
  std::optional<Cause> cause;  ///< nothing when it said nothing
  std::string who;             ///< who did it, such as "ann@10.0.0.5"
};

/// Looks at the daemon's last message to the user. `received` is the end of what came.
LastWords ParseLastWords(std::string_view received);

/// The refusal of a console that others hold, with who they are and since when, as far as the
/// daemon tells that within some seconds.
std::string WithHolders(const Refusal& refusal, const SessionOptions& options,
                        const Settings& settings, Credentials& credentials);

}  // namespace zevctl
