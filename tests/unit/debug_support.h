// The daemon's debug output, captured and taken apart, and death tests that match it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "error.h"

namespace test {

using namespace zevd;

/// One message as zev_debug() wrote it. The line that reports repetitions has no thread name.
struct DebugLine {
  std::string stamp;   ///< "yy/mm/dd_HH:MM:SS"
  std::string thread;  ///< empty in the line that reports repetitions
  std::string text;    ///< the message with its newline
};

std::vector<DebugLine> ParseDebugOutput(std::string_view output);

/// The texts alone, in order.
std::vector<std::string> DebugMessages(std::string_view output);

/// The messages that do not begin with "Entering ".
std::vector<std::string> WithoutEntries(const std::vector<std::string>& messages);

/// The messages that are neither entry lines nor about posting events. What the daemon says about
/// the event manager depends on what it said before.
std::vector<std::string> Reports(const std::vector<std::string>& messages);

/// The messages that contain `part`.
std::vector<std::string> Containing(const std::vector<std::string>& messages,
                                    std::string_view part);

/// Redirects standard output and sets debug_level for as long as it lives. The first message never
/// counts as a repetition of an earlier one. When the test has failed, the captured output is shown
/// at the end.
class DebugCapture {
 public:
  explicit DebugCapture(int level = kInfo);
  ~DebugCapture();
  DebugCapture(const DebugCapture&) = delete;
  DebugCapture& operator=(const DebugCapture&) = delete;

  std::string Output() const;                 ///< everything so far, as written
  std::vector<DebugLine> Lines() const;       ///< everything so far, parsed
  std::vector<std::string> Messages() const;  ///< the texts of Lines()
  std::vector<std::string> NewMessages();     ///< the texts since the last call
  bool Has(std::string_view message) const;   ///< some text equals `message`
  int Count(std::string_view message) const;  ///< how many texts equal `message`

 private:
  int saved_stdout_;
  int saved_level_;
  int file_;
  off_t start_ = 0;
  size_t reported_ = 0;
};

/// Makes the first call of zev_debug(), which belongs to the main thread while there is no other.
/// For tests that start threads and have no fixture that has done it.
void StartDebugOutput();

// ---- Matchers -----------------------------------------------------------------------------------

/// For death tests: the texts of the debug lines that a dying process wrote.
MATCHER_P(DebugTextsAre, inner,
          "debug texts, of which " +
              ::testing::DescribeMatcher<std::vector<std::string>>(inner, negation)) {
  return ::testing::ExplainMatchResult(inner, DebugMessages(arg), result_listener);
}

/// The same without entry lines and lines about posting events.
MATCHER_P(DebugReportsAre, inner,
          "debug texts, of which " +
              ::testing::DescribeMatcher<std::vector<std::string>>(inner, negation)) {
  return ::testing::ExplainMatchResult(inner, Reports(DebugMessages(arg)), result_listener);
}

/// The exit trace, whatever its line number.
MATCHER_P2(IsExitTrace, code, file,
           "is the exit trace with code " + std::to_string(code) + " from file " + file) {
  const std::string start =
      "Exiting with code " + std::to_string(code) + " from file " + file + " line ";
  if (arg.compare(0, start.size(), start) != 0) return false;
  const std::string line = arg.substr(start.size());
  return line.size() > 1 && line.back() == '\n' &&
         line.find_first_not_of("0123456789") == line.size() - 1;
}

/// The line at level 2 that announces a daemon error event of the usual priority, however it is
/// worded.
MATCHER_P(AnnouncesDaemonError, text, "") {
  using ::testing::AllOf;
  using ::testing::HasSubstr;
  using ::testing::StartsWith;
  return ::testing::ExplainMatchResult(
      AllOf(StartsWith("PostJixEvent: "), HasSubstr("qor.zevd.daemon.error"), HasSubstr(text),
            HasSubstr("700")),
      arg, result_listener);
}

// ---- Death tests --------------------------------------------------------------------------------

/// In the child: standard output goes where standard error goes. What the program has not written
/// yet goes out first, or it would come after the debug output, which is not buffered.
void JoinStandardOutput();

/// In the child: standard output is matched as standard error is.
void SendDebugToStderr(int level);

/// Ends the child with status 0 when its expectations held. A test of something that changes the
/// process for good runs in a child.
[[noreturn]] void EndChild();
#define EXPECT_HOLDS_IN_CHILD(...) \
  EXPECT_EXIT(                     \
      {                            \
        __VA_ARGS__;               \
        ::test::EndChild();        \
      },                           \
      ::testing::ExitedWithCode(0), "")

/// For the rest of the test, children start the program afresh: those that have threads, or that
/// must be the first to do something. GoogleTest sets the flag back after each test.
void StartChildrenAfresh();

}  // namespace test
