// What is written to the system log, and what happens when that takes nothing.
#include "audit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "daemon_support.h"
#include "debug_support.h"
#include "file_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr char kLog[] = "root/log";

/// A system log that the test reads.
class AuditTest : public test::DaemonTest {
 protected:
  AuditTest() {
    Listen();
    OpenAudit(kLog);
  }
  ~AuditTest() override { close(sock_); }

  void Listen() {
    std::filesystem::remove(kLog);
    sock_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, ""};
    strcpy(address.sun_path, kLog);
    EXPECT_EQ(bind(sock_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }

  // The next entry, or the empty text when there is none.
  std::string Next() const {
    char text[16384];
    const ssize_t count = recv(sock_, text, sizeof text, MSG_DONTWAIT);
    return {text, count < 0 ? 0 : static_cast<size_t>(count)};
  }

  test::StationRoot root_;
  int sock_ = -1;
};

TEST_F(AuditTest, EntryHasAllKeysInOrder) {
  const Identity identity = {"anna", "root", "192.0.2.1", "10.0.0.9"};
  Audit({"attach", "accepted", &identity, "box", "er", "because"});
  EXPECT_THAT(Next(),
              EndsWith("]: what=\"attach\" result=\"accepted\" user=\"anna\" given_user=\"root\" "
                       "from=\"192.0.2.1\" given_from=\"10.0.0.9\" console=\"box\" mode=\"er\" "
                       "reason=\"because\""));
  Audit({"security", "off"});
  EXPECT_THAT(Next(), EndsWith("]: what=\"security\" result=\"off\" user=\"\" given_user=\"\" "
                               "from=\"\" given_from=\"\" console=\"\" mode=\"\" reason=\"\""));
}

// authpriv is 10; info is 6 and notice 5 (RFC 3164, section 4.1.1).
TEST_F(AuditTest, HeadNamesFacilitySeverityTimeAndProgram) {
  Audit({"attach", "accepted"});
  EXPECT_THAT(Next(), StartsWith("<86>"));
  Audit({"login", "refused"});
  const std::string entry = Next();
  EXPECT_THAT(entry, StartsWith("<85>"));
  EXPECT_THAT(entry.substr(4), MatchesRegex("[A-Z][a-z][a-z] [ 0-9][0-9] "
                                            "[0-9][0-9]:[0-9][0-9]:[0-9][0-9] zevd.*"));
  EXPECT_THAT(entry, HasSubstr(" zevd[" + std::to_string(getpid()) + "]: what="));
}

TEST_F(AuditTest, ForeignBytesAreWrittenAsNumbers) {
  Identity identity{};
  CopyText(identity.given_user, "\" x\\\x1b\xC3\xA9\x7f\t");
  Audit({"login", "refused", &identity});
  EXPECT_THAT(Next(), HasSubstr("given_user=\"\\x22 x\\x5C\\x1B\\xC3\\xA9\\x7F\\x09\""));
}

TEST_F(AuditTest, ReasonEndsWithItsLineAndTextsAreCut) {
  Audit({"login", "refused", nullptr, nullptr, nullptr, "001 - Authentication failed.\r\n"});
  EXPECT_THAT(Next(), EndsWith("reason=\"001 - Authentication failed.\""));
  const std::string longest(256, '\x01');
  const std::string longer = longest + "x";
  Audit({"msg", "done", nullptr, longer.c_str(), longer.c_str(), longer.c_str()});
  std::string written;
  for (int i = 0; i < 256; ++i) written += "\\x01";
  EXPECT_THAT(Next(), EndsWith("console=\"" + written + "\" mode=\"" + written + "\" reason=\"" +
                               written + "\""));
}

TEST_F(AuditTest, LossesAreCountedAndReported) {
  test::DebugCapture debug;
  close(sock_);
  std::filesystem::remove(kLog);
  for (int i = 0; i < 3; ++i) Audit({"attach", "accepted"});
  EXPECT_THAT(debug.NewMessages(),
              ElementsAre("Audit: The system log accepts no entries : No such file or "
                          "directory\n"));
  Listen();
  Audit({"leave", "done"});
  EXPECT_THAT(Next(), EndsWith("]: what=\"audit\" result=\"lost\" reason=\"3 entries were lost\""));
  EXPECT_THAT(Next(), HasSubstr("what=\"leave\""));
  EXPECT_THAT(debug.NewMessages(),
              ElementsAre("Audit: The system log accepts entries again: 3 entries were lost\n"));
  Audit({"leave", "done"});
  EXPECT_THAT(Next(), HasSubstr("what=\"leave\""));
  EXPECT_THAT(debug.NewMessages(), IsEmpty());
}

TEST_F(AuditTest, DoesNotWaitForALogThatNobodyReads) {
  const test::DebugCapture debug;
  int written = 0;
  while (debug.Messages().empty()) {
    Audit({"attach", "accepted"});
    ASSERT_LT(++written, 100000);
  }
  EXPECT_THAT(debug.Messages(), ElementsAre("Audit: The system log accepts no entries : Resource "
                                            "temporarily unavailable\n"));
}

}  // namespace
