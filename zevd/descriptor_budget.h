// How many more callers, and connections to consoles, the daemon can take without running out of
// descriptors.
#pragma once

#include <cstdint>

#include "clock.h"

namespace zevd {

/// One look at the descriptors of this process.
struct DescriptorUse {
  int open;    ///< -1 when the system did not tell
  int wanted;  ///< what others are about to open
};

/// Open descriptors of this process; -1, with errno set, when the system does not tell.
int CountDescriptors();

/// True for an errno value by which the system says that no descriptor is free.
bool OutOfDescriptors(int error);

/// Milliseconds between two reports of a shortage: one that lasts is reported again, but does not
/// fill the output.
inline constexpr int64_t kShortageReportInterval = 60'000;

/// One descriptor that is kept open so that there is one more when all others are in use.
class ReserveDescriptor {
 public:
  /// Opens it unless it is open. False when no descriptor is free for it.
  bool Hold();

  /// Closes it.
  void Release();

 private:
  int fd_ = -1;
};

enum class Caller {
  kStation,   ///< on the main port, from the station itself (127.0.0.1)
  kStranger,  ///< any other
};

/// Refuses callers before the limit is reached, so that they cannot keep a log from being opened, a
/// console from being connected or a password from being checked. The last places are kept for the
/// station's own operators and tools. The thread user_conn only.
class DescriptorBudget {
 public:
  /// True when one more connection, which must have been accepted already, leaves what the daemon
  /// needs for itself. `look()` gives a DescriptorUse; it is called only now and then. A look that
  /// fails means that there is no room.
  template <typename Look>
  bool Admits(Caller caller, Look look) {
    if (admitted_unseen_ > 0) {
      --admitted_unseen_;
      return true;
    }
    return HasRoom(caller, look());
  }

  /// Has the next call look again.
  void Forget() { admitted_unseen_ = 0; }

 private:
  bool HasRoom(Caller caller, const DescriptorUse& use);

  int admitted_unseen_ = 0;
  Throttle report_{kShortageReportInterval};
};

/// Has a console wait until there are descriptors for its connection and its log. The thread
/// cons_conn only.
class AttemptBudget {
 public:
  /// True when one more attempt may begin. `wanted` in `look()` counts the logs of the consoles for
  /// which one is in progress. After a refusal a second passes before the next look.
  template <typename Look>
  bool Admits(Look look) {
    if (begun_unseen_ > 0) {
      --begun_unseen_;
      return true;
    }
    return TimeToNextLook() == 0 && HasRoom(look());
  }

  /// To be called when an attempt that was admitted found no descriptor; `error` is the errno
  /// value.
  void Exhausted(int error);

  /// Milliseconds until the next look; 0 when no attempt has to wait for it.
  int64_t TimeToNextLook() const;

 private:
  bool HasRoom(const DescriptorUse& use);
  void Pause();

  int begun_unseen_ = 0;
  int64_t next_look_ = 0;  ///< milliseconds of the monotonic clock
  Throttle report_{kShortageReportInterval};
};

}  // namespace zevd
