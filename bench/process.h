// A child process of the load generator, and what it uses.
#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "net.h"

namespace bench {

/// Leads a process group of its own and is killed with it; also when the load generator dies.
class Process {
 public:
  /// Everything it says goes to the file `output`. `inherited`, if any, becomes its descriptor 3.
  Process(const std::vector<std::string>& command, const std::string& output, int inherited = -1);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  pid_t pid() const { return pid_; }
  /// Throws, with the end of the output, when it has ended.
  void CheckRunning();
  /// Processor time of all its threads since its start.
  double CpuSeconds() const;
  double ResidentKib() const;

 private:
  pid_t pid_ = -1;
  std::string output_;
  bool ended_ = false;
};

/// The part of one core that a process used since the object was made, in percent.
class CpuShare {
 public:
  explicit CpuShare(const Process& process);
  double Percent() const;

 private:
  const Process& process_;
  double cpu_;
  double time_;
};

/// Seconds of a clock that only goes forward.
double Now();
void SleepUntil(double moment);
constexpr double kMicro = 1e6;
constexpr double kMilli = 1e3;

/// Looks every millisecond whether `condition` holds; throws when it does not within `seconds`.
template <typename Condition>
void WaitUntil(const std::string& what, Condition condition, double seconds = 60) {
  for (const double end = Now() + seconds; !condition();) {
    if (Now() > end) throw std::runtime_error("waited in vain for " + what);
    SleepUntil(Now() + 1 / kMilli);
  }
}

}  // namespace bench
