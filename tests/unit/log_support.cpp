#include "log_support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "lists.h"
#include "log.h"
#include "options.h"

using namespace zevd;

namespace test {

thread_local bool fchmod_fails = false;
thread_local std::function<void()> before_fchmod;
thread_local std::function<void()> after_writev;

}  // namespace test

// These take the place of the C library's.

extern "C" int fchmod(int fd, mode_t mode) noexcept {
  if (test::before_fchmod) test::before_fchmod();
  if (test::fchmod_fails) {
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

extern "C" ssize_t writev(int fd, const iovec* parts, int count) {
  const ssize_t written = syscall(SYS_writev, fd, parts, count);
  if (test::after_writev) test::after_writev();
  return written;
}

namespace test {

UtcTest::UtcTest() {
  setenv("TZ", "UTC0", 1);
  tzset();
}

UtcTest::~UtcTest() {
  unsetenv("TZ");
  tzset();
}

LogTest::LogTest()
    : logs_(std::filesystem::absolute("root/logs").string()), saved_umask_(umask(007)) {
  log_dir = logs_.c_str();
  box_ = AddConsole(a_cons_list, "box");
  box_->logging = 1;
}

LogTest::~LogTest() {
  before_fchmod = nullptr;
  after_writev = nullptr;
  CloseLogFile(box_);
  CloseConsolidatedLogFile();
  umask(saved_umask_);
}

void LogTest::OpenLogs() {
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  ASSERT_EQ(OpenLogFile(box_), 0);
}

int LogTest::Print(std::string_view chunk) {
  return WriteLogFile(box_, chunk.data(), static_cast<int>(chunk.size()));
}

std::string LogTest::Pending() const {
  return {box_->log_buf.buf, static_cast<size_t>(box_->log_buf.count)};
}

std::string LogTest::Record(const std::string& line, const char* stamp) {
  return stamp + (" " + line);
}

std::string LogTest::ConsolidatedRecord(const std::string& line, const char* stamp) {
  return stamp + (" box " + line);
}

struct stat LogTest::FileStatus(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status;
}

}  // namespace test
