// A console whose output is logged, at a time that the test sets.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>
#include <functional>
#include <string>
#include <string_view>

#include "failure_support.h"
#include "file_support.h"
#include "relay_support.h"

namespace test {

// ---- Calls that are intercepted -----------------------------------------------------------------

// These affect the calling thread alone.
extern thread_local bool fchmod_fails;
extern thread_local std::function<void()> before_fchmod;  ///< while a new log is being set up
extern thread_local std::function<void()> after_writev;   ///< when a record has been written

// ---- Fixtures -----------------------------------------------------------------------------------

inline constexpr time_t kLogStart = 1'300'000'000;
inline constexpr char kLogStartStamp[] = "11/03/13_07:06:40";
inline constexpr char kLogDirectoryName[] = "13-Mar-07:06";

/// Dated directories are named in local time.
class UtcTest : public RelayTest {
 protected:
  UtcTest();
  ~UtcTest() override;
};

/// A logged console "box", and a log directory below the station's root.
class LogTest : public UtcTest {
 protected:
  LogTest();
  ~LogTest() override;

  std::string Dated(const std::string& rest = "") const { return logs_ + "/zev.dated" + rest; }
  std::string Current(const std::string& name) const { return Dated("/current/" + name); }
  std::string Log() const { return ReadFile(Current("box.log")); }
  std::string Consolidated() const { return ReadFile(Current("consolidated.log")); }

  /// Does what the daemon does when the console has connected.
  void OpenLogs();

  int Print(std::string_view chunk);
  std::string Pending() const;

  /// A record of the console's log, and of the consolidated log.
  static std::string Record(const std::string& line, const char* stamp = kLogStartStamp);
  static std::string ConsolidatedRecord(const std::string& line,
                                        const char* stamp = kLogStartStamp);

  static struct stat FileStatus(const std::string& path);
  static mode_t Mode(const std::string& path) { return FileStatus(path).st_mode & 07777U; }

  StationRoot root_;
  FakeClock clock_{kLogStart};
  std::string logs_;
  ConsoleNode* box_;

 private:
  mode_t saved_umask_;
};

}  // namespace test
