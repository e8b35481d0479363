#include "log_rename.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <string>

#include "load_steps.h"
#include "log.h"
#include "log_directory.h"
#include "support.h"

using namespace zevd;

namespace {

/// Answers in place of the system when it gives an error number other than 0.
thread_local std::function<int(unsigned flags)> before_renaming;

}  // namespace

// This takes the place of the C library's.
extern "C" int renameat2(int from_dir, const char* from, int to_dir, const char* to,
                         unsigned flags) noexcept {
  const int error = before_renaming ? before_renaming(flags) : 0;
  if (error == 0) {
    return static_cast<int>(syscall(SYS_renameat2, from_dir, from, to_dir, to, flags));
  }
  errno = error;
  return -1;
}

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class LogRenameTest : public test::RelayTest {
 protected:
  LogRenameTest() : logs_(std::filesystem::absolute("root/logs").string()) {
    log_dir = logs_.c_str();
    OpenConsolidatedLogFile();
  }
  ~LogRenameTest() override {
    before_renaming = nullptr;
    for (ConsoleNode* cnode : Nodes(*a_cons_list)) CloseLogFile(cnode);
    CloseConsolidatedLogFile();
  }

  static ConsoleNode* Add(const char* name) {
    ConsoleNode* cnode = test::AddConsole(a_cons_list, name);
    cnode->logging = 1;
    return cnode;
  }
  static ConsoleNode* AddLogged(const char* name) {
    ConsoleNode* cnode = Add(name);
    EXPECT_EQ(OpenLogFile(cnode), 0);
    Print(cnode, std::string("from ") + name + "\n");
    return cnode;
  }
  static void Print(ConsoleNode* cnode, const std::string& text) {
    WriteLogFile(cnode, text.data(), static_cast<int>(text.size()));
  }

  std::string Path(const std::string& name) const {
    return logs_ + "/zev.dated/current/" + name + ".log";
  }
  // The lines without their stamps.
  std::string Log(const std::string& name) const {
    static const std::regex stamp("../../.._..:..:.. ");
    return std::regex_replace(test::ReadFile(Path(name)), stamp, "");
  }
  void ExpectLogs(const std::map<std::string, std::string>& expected) const {
    for (const auto& [name, lines] : expected) EXPECT_EQ(Log(name), lines) << name;
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(Path(name)); }

  test::StationRoot root_;
  std::string logs_;
  LogRenames renames_;
};

TEST_F(LogRenameTest, OpenLogIsMovedAndGoesOn) {
  ConsoleNode* cnode = AddLogged("a");
  const int fd = cnode->log_fd;
  Print(cnode, "half a ");
  renames_.Rename(cnode, "b");
  EXPECT_STREQ(cnode->cname, "b");
  EXPECT_EQ(cnode->log_fd, fd);
  Print(cnode, "line\n");
  EXPECT_EQ(Log("b"), "from a\nhalf a line\n");
  EXPECT_FALSE(Exists("a"));
}

TEST_F(LogRenameTest, LogGoesOnInTheFileOfTheNewName) {
  ConsoleNode* cnode = AddLogged("a");
  test::WriteFile(Path("b"), "earlier\n");
  Print(cnode, "half");
  const test::DebugCapture capture(0);
  renames_.Rename(cnode, "b");
  Print(cnode, "new\n");
  ExpectLogs({{"a", "from a\nhalf\n"}, {"b", "earlier\nnew\n"}});
  EXPECT_THAT(test::ReadFile(Path("consolidated")), HasSubstr(" a half"));
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(LogRenameTest, TwoConsolesSwapTheirNames) {
  ConsoleNode* a = AddLogged("a");
  ConsoleNode* b = AddLogged("b");
  renames_.Rename(a, "b");
  renames_.Rename(b, "a");
  Print(a, "now b\n");
  Print(b, "now a\n");
  ExpectLogs({{"a", "from a\nnow a\n"}, {"b", "from b\nnow b\n"}});
}

TEST_F(LogRenameTest, FileThatAnotherConsoleHasTakenUpIsNotMoved) {
  ConsoleNode* a = AddLogged("a");
  ConsoleNode* b = AddLogged("b");
  renames_.Rename(a, "b");  // goes on in the file that b has open
  renames_.Rename(b, "c");
  Print(a, "now b\n");
  Print(b, "now c\n");
  ExpectLogs({{"a", "from a\n"}, {"b", "from b\nnow b\n"}, {"c", "now c\n"}});
}

TEST_F(LogRenameTest, FilesFollowConsolesThatMoveUpOneByOne) {
  ConsoleNode* a = AddLogged("a");
  ConsoleNode* b = AddLogged("b");
  renames_.Rename(b, "c");
  renames_.Rename(a, "b");
  ExpectLogs({{"b", "from a\n"}, {"c", "from b\n"}});
  EXPECT_FALSE(Exists("a"));
}

TEST_F(LogRenameTest, OnlyTheFileThatTheConsoleHasOpenIsMoved) {
  ConsoleNode* cnode = AddLogged("a");
  std::filesystem::rename(Path("a"), Path("aside"));
  test::WriteFile(Path("a"), "somebody else's\n");
  renames_.Rename(cnode, "b");
  Print(cnode, "new\n");
  ExpectLogs({{"a", "somebody else's\n"}, {"b", "new\n"}, {"aside", "from a\n"}});
}

TEST_F(LogRenameTest, LogThatWasRemovedIsOpenedAnew) {
  ConsoleNode* cnode = AddLogged("a");
  std::filesystem::remove_all(logs_ + "/zev.dated");
  renames_.Rename(cnode, "b");
  Print(cnode, "new\n");
  EXPECT_EQ(Log("b"), "new\n");
}

// Posting an event changes the name of a console, which the next reload changes back.
TEST_F(LogRenameTest, LogThatHasTheNewNameAlreadyIsLeftAlone) {
  ConsoleNode* cnode = AddLogged("a-b");
  const int fd = cnode->log_fd;
  CopyText(cnode->cname, "a_b");
  Print(cnode, "half a ");
  renames_.Rename(cnode, "a-b");
  EXPECT_EQ(cnode->log_fd, fd);
  Print(cnode, "line\n");
  EXPECT_EQ(Log("a-b"), "from a-b\nhalf a line\n");
}

TEST_F(LogRenameTest, ClosedLogIsRenamedUnlessTheNameIsTaken) {
  ConsoleNode* cnode = Add("a");
  test::WriteFile(Path("a"), "earlier\n");
  const test::DebugCapture capture(0);
  renames_.Rename(cnode, "b");
  EXPECT_EQ(Log("b"), "earlier\n");
  EXPECT_EQ(cnode->log_fd, -1);
  test::WriteFile(Path("c"), "somebody else's\n");
  renames_.Rename(cnode, "c");
  ExpectLogs({{"b", "earlier\n"}, {"c", "somebody else's\n"}});
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(LogRenameTest, LogThatAnotherConsoleHasOpenStaysWhenAClosedOneIsRenamed) {
  AddLogged("a");
  ConsoleNode* namesake = Add("a");
  renames_.Rename(namesake, "b");
  EXPECT_EQ(Log("a"), "from a\n");
  EXPECT_FALSE(Exists("b"));
}

TEST_F(LogRenameTest, ConnectedConsoleWithoutALogGetsOne) {
  ConsoleNode* cnode = Add("x/y");
  cnode->status = kConnected;
  renames_.Rename(cnode, "xy");
  Print(cnode, "new\n");
  EXPECT_EQ(Log("xy"), "new\n");
}

TEST_F(LogRenameTest, NameThatIsAPathCostsTheLog) {
  for (const char* name : {"../b", "/etc/b", "x/y", "..", ".", "consolidated"}) {
    ConsoleNode* cnode = AddLogged("a");
    const std::string before = test::ReadFile(Path("consolidated"));
    const test::DebugCapture capture(0);
    renames_.Rename(cnode, name);
    EXPECT_EQ(cnode->log_fd, -1);
    EXPECT_STREQ(cnode->cname, name);
    EXPECT_THAT(capture.Messages(),
                ElementsAre("OpenLogFile: open() failed for \"" + logs_ + "//zev.dated/current/" +
                            name + ".log\" : Invalid argument\n"));
    EXPECT_EQ(Log("a"), "from a\n");
    EXPECT_EQ(test::ReadFile(Path("consolidated")), before);
    std::filesystem::remove(Path("a"));
  }
}

TEST_F(LogRenameTest, NameThatIsTakenAtTheLastMomentIsRespected) {
  ConsoleNode* cnode = AddLogged("a");
  before_renaming = [this](unsigned) {
    test::WriteFile(Path("b"), "quicker\n");
    return 0;
  };
  const test::DebugCapture capture(0);
  renames_.Rename(cnode, "b");
  Print(cnode, "new\n");
  ExpectLogs({{"a", "from a\n"}, {"b", "quicker\nnew\n"}});
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(LogRenameTest, FileSystemThatCannotPromiseThatRenamesAllTheSame) {
  ConsoleNode* cnode = AddLogged("a");
  before_renaming = [](unsigned flags) { return (flags & RENAME_NOREPLACE) != 0 ? EINVAL : 0; };
  renames_.Rename(cnode, "b");
  EXPECT_EQ(Log("b"), "from a\n");
  EXPECT_FALSE(Exists("a"));
}

TEST_F(LogRenameTest, LogThatCannotBeRenamedIsReportedAndOpenedAnew) {
  ConsoleNode* cnode = AddLogged("a");
  before_renaming = [](unsigned) { return EROFS; };
  const test::DebugCapture capture(0);
  renames_.Rename(cnode, "b");
  EXPECT_THAT(capture.Messages(),
              ElementsAre("UpdateConsole : rename() failed : Read-only file system\n"));
  Print(cnode, "new\n");
  ExpectLogs({{"a", "from a\n"}, {"b", "new\n"}});
}

TEST_F(LogRenameTest, WithoutMemoryToLookNothingIsMoved) {
  ConsoleNode* cnode = AddLogged("a");
  const test::DebugCapture capture(0);
  {
    const test::FailAllocation failure(1);
    renames_.Rename(cnode, "b");
    EXPECT_TRUE(failure.reached());
  }
  Print(cnode, "new\n");
  ExpectLogs({{"a", "from a\n"}, {"b", "new\n"}});
  EXPECT_EQ(test::Reports(capture.Messages()).at(0),
            "LookAtHolders: malloc() failed : Cannot allocate memory\n");
}

}  // namespace
