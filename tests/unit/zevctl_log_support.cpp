#include "zevctl_log_support.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace zevctl {

namespace fs = std::filesystem;

std::string Stamped(int seconds, const std::string& text) {
  char stamp[32];
  snprintf(stamp, sizeof stamp, "26/11/21_08:%02d:%02d ", seconds / 60, seconds % 60);
  return stamp + text;
}

Zone::Zone(const char* zone) {
  const char* before = getenv("TZ");
  if (before != nullptr) before_ = before;
  setenv("TZ", zone, 1);
  tzset();
}

Zone::~Zone() {
  before_ ? setenv("TZ", before_->c_str(), 1) : unsetenv("TZ");
  tzset();
}

LogFilesTest::LogFilesTest() {
  fs::create_directories(dated());
}

fs::path LogFilesTest::log(const std::string& in, const std::string& name) const {
  return dated() / in / (name + ".log");
}

void LogFilesTest::MakeCurrent(const std::string& name) {
  fs::create_directories(dated() / name);
  fs::remove(dated() / "current");
  fs::create_symlink(dated() / name, dated() / "current");
}

void LogFilesTest::Append(const std::string& in, const std::string& name,
                          const std::string& bytes) {
  fs::create_directories(dated() / in);
  std::ofstream(log(in, name), std::ios::app | std::ios::binary) << bytes;
}

std::vector<LogDirectory> LogFilesTest::Directories() const {
  return OpenLogDirectories(root());
}

LogReaders LogFilesTest::Open(const std::vector<std::string>& names) const {
  const auto directories = Directories();
  return OpenLogs(directories, WantedLogs(names, NamesIn(directories)));
}

Texts LogFilesTest::ReadAll(LogReaders& readers, Unfinished unfinished) {
  Texts texts;
  ReadInOrder(
      readers, [&](const LogReader&) { return unfinished; }, kEndOfTime,
      [&](const LogReader&, const Record& record) { texts.emplace_back(record.text); });
  return texts;
}

Texts LogFilesTest::ReadLast(const std::vector<std::string>& names, size_t count) const {
  LogReaders readers = Open(names);
  GoToLastRecords(readers, count);
  Texts texts = ReadAll(readers);
  if (texts.size() > count) texts.erase(texts.begin(), texts.end() - static_cast<ptrdiff_t>(count));
  return texts;
}

}  // namespace zevctl
