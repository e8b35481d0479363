// What is shown before a session that ends while it is looked at.
#include <gmock/gmock.h>

#include <chrono>
#include <string>

#include "attach_history.h"
#include "journal_files_support.h"
#include "journal_support.h"
#include "socket_support.h"

namespace zevctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

// Without a record of the session, both waits would last as long as they may: a second, and half a
// second.
TEST(AttachHistory, WaitsForNothingOnceTheSessionHasEnded) {
  test::SegmentBytes bytes;
  bytes.Define(1, "web");
  bytes.Output(1, "before\r\n");
  const test::JournalFiles files;
  files.Put(bytes);
  const test::Listener listener;
  const auto none = [](const sockaddr&) {};
  Opening opening{Socket::Connect("127.0.0.1", listener.port(), milliseconds(5000), none), "x", ""};
  listener.Accept().Reset();

  const Settings settings;
  AttachHistory history(settings, files.path(), 10);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const auto begin = steady_clock::now();
  history.Show("web", opening);
  const auto taken = steady_clock::now() - begin;
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("has not noted this session"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "before\n");
  EXPECT_LT(taken, milliseconds(1000));
}

}  // namespace
}  // namespace zevctl
