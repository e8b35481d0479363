// What the tests of the client's logs share: time zones, records, and a log directory.
#pragma once

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "log_directories.h"
#include "log_merge.h"
#include "log_reader.h"
#include "support.h"

namespace zevctl {

using Texts = std::vector<std::string>;

constexpr time_t kNow = 1795248000;  // 2026-11-21 08:00:00 UTC
constexpr time_t kHour = 3600;
constexpr time_t kDay = 24 * kHour;

constexpr char kStamp[] = "26/11/21_08:00:00 ";  // kNow in UTC

/// The text after the stamp of so many seconds after kNow.
std::string Stamped(int seconds, const std::string& text);

/// Local time is that of this zone as long as the object exists.
class Zone {
 public:
  explicit Zone(const char* zone);
  ~Zone();
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;

 private:
  std::optional<std::string> before_;
};

/// A log directory with dated directories, and what is read from it. Local time is UTC.
class LogFilesTest : public ::testing::Test {
 protected:
  LogFilesTest();

  std::string root() const { return directory_.path().string(); }
  std::filesystem::path dated() const { return directory_.path() / "zev.dated"; }
  std::filesystem::path log(const std::string& in, const std::string& name) const;

  /// Points the link "current" to the dated directory of that name, which is made if it is missing.
  void MakeCurrent(const std::string& name);

  /// Adds to the log of that name in the dated directory `in`; both are made if they are missing.
  void Append(const std::string& in, const std::string& name, const std::string& bytes);

  std::vector<LogDirectory> Directories() const;
  LogReaders Open(const std::vector<std::string>& names) const;

  /// The texts of the records from the readers' positions on.
  static Texts ReadAll(LogReaders& readers, Unfinished unfinished = Unfinished::kTake);

  /// The texts of the last records.
  Texts ReadLast(const std::vector<std::string>& names, size_t count) const;

 private:
  test::TemporaryDirectory directory_;
  Zone zone_{"UTC0"};
};

}  // namespace zevctl
