#include "debug_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "errno_support.h"
#include "event.h"
#include "options.h"

using namespace zevd;

namespace test {

namespace {

// As main() does it.
[[maybe_unused]] const bool posts_daemon_errors = [] {
  PostDaemonErrorsToJix();
  return true;
}();

constexpr std::string_view kPrefix = "ZEV ";
constexpr std::string_view kStampShape = "00/00/00_00:00:00";

// True when a line of zev_debug() begins at `at`.
bool LineBeginsAt(std::string_view output, size_t at) {
  if (output.substr(at, kPrefix.size()) != kPrefix) return false;
  const std::string_view stamp = output.substr(at + kPrefix.size(), kStampShape.size());
  const auto fits = [](char actual, char shape) {
    return shape == '0' ? actual >= '0' && actual <= '9' : actual == shape;
  };
  return std::equal(stamp.begin(), stamp.end(), kStampShape.begin(), kStampShape.end(), fits);
}

size_t NextLine(std::string_view output, size_t from) {
  for (size_t at = output.find(kPrefix, from); at != std::string_view::npos;
       at = output.find(kPrefix, at + 1)) {
    if (LineBeginsAt(output, at)) return at;
  }
  return output.size();
}

DebugLine ParseLine(std::string_view line) {
  constexpr std::string_view kThreadStart = ":<";
  constexpr std::string_view kThreadEnd = ">: ";
  DebugLine parsed;
  parsed.stamp = line.substr(kPrefix.size(), kStampShape.size());
  line.remove_prefix(kPrefix.size() + kStampShape.size());
  if (line.substr(0, kThreadStart.size()) == kThreadStart) {
    const size_t end = line.find(kThreadEnd);
    parsed.thread = line.substr(kThreadStart.size(), end - kThreadStart.size());
    line.remove_prefix(end + kThreadEnd.size());
  } else {
    line.remove_prefix(strlen(": "));
  }
  parsed.text = line;
  return parsed;
}

// Makes sure that the next message differs from the last, and that its repetitions are reported.
void EndRepetitions() {
  static std::atomic<int> number{0};
  debug_level = std::max(debug_level, static_cast<int>(kError));
  zev_debug(kError, "-- output %d --\n", ++number);
}

}  // namespace

std::vector<DebugLine> ParseDebugOutput(std::string_view output) {
  std::vector<DebugLine> lines;
  for (size_t at = NextLine(output, 0); at < output.size();) {
    const size_t next = NextLine(output, at + 1);
    lines.push_back(ParseLine(output.substr(at, next - at)));
    at = next;
  }
  return lines;
}

std::vector<std::string> DebugMessages(std::string_view output) {
  std::vector<std::string> messages;
  for (DebugLine& line : ParseDebugOutput(output)) messages.push_back(std::move(line.text));
  return messages;
}

namespace {

using Predicate = bool (*)(const std::string&);

std::vector<std::string> Without(const std::vector<std::string>& messages, Predicate unwanted) {
  std::vector<std::string> others;
  std::remove_copy_if(messages.begin(), messages.end(), std::back_inserter(others), unwanted);
  return others;
}

bool IsEntry(const std::string& text) {
  return text.rfind("Entering ", 0) == 0;
}

bool IsAboutEvents(const std::string& text) {
  return text.rfind("ConnectToJix: ", 0) == 0 || text.rfind("PostJixEvent: ", 0) == 0;
}

}  // namespace

std::vector<std::string> WithoutEntries(const std::vector<std::string>& messages) {
  return Without(messages, IsEntry);
}

std::vector<std::string> Reports(const std::vector<std::string>& messages) {
  return Without(messages,
                 [](const std::string& text) { return IsEntry(text) || IsAboutEvents(text); });
}

std::vector<std::string> Containing(const std::vector<std::string>& messages,
                                    std::string_view part) {
  std::vector<std::string> found;
  std::copy_if(messages.begin(), messages.end(), std::back_inserter(found),
               [&](const std::string& text) { return text.find(part) != std::string::npos; });
  return found;
}

DebugCapture::DebugCapture(int level)
    : saved_stdout_(Check(dup(STDOUT_FILENO), "dup")),
      saved_level_(debug_level),
      file_(Check(memfd_create("debug output", MFD_CLOEXEC), "memfd_create")) {
  fflush(stdout);
  dup2(file_, STDOUT_FILENO);
  EndRepetitions();
  start_ = lseek(file_, 0, SEEK_CUR);
  debug_level = level;
}

DebugCapture::~DebugCapture() {
  fflush(stdout);
  const std::string output = ::testing::Test::HasFailure() ? Output() : "";
  dup2(saved_stdout_, STDOUT_FILENO);
  close(saved_stdout_);
  close(file_);
  debug_level = saved_level_;
  fwrite(output.data(), 1, output.size(), stdout);
}

std::string DebugCapture::Output() const {
  struct stat file {};
  fstat(file_, &file);
  std::string output(static_cast<size_t>(file.st_size - start_), '\0');
  const ssize_t count = pread(file_, output.data(), output.size(), start_);
  output.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  return output;
}

std::vector<DebugLine> DebugCapture::Lines() const {
  return ParseDebugOutput(Output());
}

std::vector<std::string> DebugCapture::Messages() const {
  return DebugMessages(Output());
}

std::vector<std::string> DebugCapture::NewMessages() {
  std::vector<std::string> messages = Messages();
  messages.erase(messages.begin(), messages.begin() + static_cast<ptrdiff_t>(reported_));
  reported_ += messages.size();
  return messages;
}

bool DebugCapture::Has(std::string_view message) const {
  return Count(message) > 0;
}

int DebugCapture::Count(std::string_view message) const {
  const std::vector<std::string> messages = Messages();
  return static_cast<int>(std::count(messages.begin(), messages.end(), message));
}

void StartDebugOutput() {
  zev_debug(kTrace, "Entering %s\n", "main");
}

void JoinStandardOutput() {
  fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
}

void SendDebugToStderr(int level) {
  fflush(stdout);
  const int nowhere = Check(open("/dev/null", O_WRONLY | O_CLOEXEC), "open");
  dup2(nowhere, STDOUT_FILENO);
  close(nowhere);
  EndRepetitions();
  dup2(STDERR_FILENO, STDOUT_FILENO);
  debug_level = level;
}

void EndChild() {
  fflush(stdout);
  // A child does not print its failures by itself; the parent shows what is written here.
  const ::testing::TestResult& result =
      *::testing::UnitTest::GetInstance()->current_test_info()->result();
  for (int i = 0; i < result.total_part_count(); ++i) {
    const ::testing::TestPartResult& part = result.GetTestPartResult(i);
    fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
  }
  exit(result.Failed() ? 1 : 0);
}

void StartChildrenAfresh() {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
}

}  // namespace test
