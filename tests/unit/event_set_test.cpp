// Event sets: loading the station's event files, and finding sets by name.
#include "event_set.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "debug_support.h"
#include "event_set_support.h"
#include "failure_support.h"
#include "lists.h"
#include "paths.h"

using namespace zevd;

namespace {

using test::EventSetTest;
using test::kEventDirectory;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

MATCHER(AnnouncesABadEventFile, "") {
  return ::testing::ExplainMatchResult(
      AllOf(StartsWith("PostJixEvent: "), HasSubstr("qor.zevd.daemon.error"),
            HasSubstr("Warning: bad event file"), HasSubstr("500")),
      arg, result_listener);
}

// ---- Loading ------------------------------------------------------------------------------------

TEST_F(EventSetTest, IsTheStationsEventsDirectory) {
  EXPECT_STREQ(kEventsDir, QOR_ROOT "/events");
}

TEST_F(EventSetTest, EveryFileBecomesASetOfItsName) {
  WriteEvents("disk", "a 1 0 x\nb 2 0 y\n");
  WriteEvents("fan", "a 1 0 x\n");
  WriteEvents(".hidden", "");
  WriteEvents("with a blank", "a 1 0 x\nb 2 0 y\nc 3 0 z\n");
  const test::DebugCapture capture(0);
  EXPECT_EQ(LoadEventFiles(ev_list), 0);
  EXPECT_THAT(SetNames(), UnorderedElementsAre("disk", "fan", ".hidden", "with a blank"));
  EXPECT_EQ(Patterns("disk"), 2);
  EXPECT_EQ(Patterns("fan"), 1);
  EXPECT_EQ(Patterns(".hidden"), 0);
  EXPECT_EQ(Patterns("with a blank"), 3);
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(EventSetTest, EmptyDirectoryLoadsNothingAndSucceeds) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(LoadEventFiles(ev_list), 0);
  EXPECT_THAT(SetNames(), IsEmpty());
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(EventSetTest, SubdirectoryIsAnEmptySet) {
  std::filesystem::create_directories(std::filesystem::path(kEventDirectory) / "old" / "older");
  WriteEvents("old/disk", "a 1 0 x\n");
  const test::DebugCapture capture(0);
  EXPECT_EQ(LoadEventFiles(ev_list), 0);
  EXPECT_THAT(SetNames(), ElementsAre("old"));
  EXPECT_EQ(Patterns("old"), 0);
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(EventSetTest, LinkIsFollowed) {
  test::WriteFile("root/elsewhere", "a 1 0 x\n");
  std::filesystem::create_symlink("../elsewhere",
                                  std::filesystem::path(kEventDirectory) / "linked");
  EXPECT_EQ(LoadEventFiles(ev_list), 0);
  EXPECT_EQ(Patterns("linked"), 1);
}

TEST_F(EventSetTest, NameIsCutTo64Characters) {
  const std::string name(70, 'n');
  WriteEvents(name, "a 1 0 x\n");
  EXPECT_EQ(LoadEventFiles(ev_list), 0);
  EXPECT_THAT(SetNames(), ElementsAre(std::string(64, 'n')));
}

TEST_F(EventSetTest, MalformedLinesDoNotFailTheFile) {
  WriteEvents("disk", "a 1 0 x\nbad\nb 1 0 (\nc 1 0 y\n");
  const test::DebugCapture capture(0);
  EXPECT_EQ(LoadEventFiles(ev_list), 0);
  EXPECT_EQ(Patterns("disk"), 2);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("ParseRegExFile: Priority missing in line 2 of root/events/disk\n",
                          "ParseRegExFile: regcomp() failed for pattern ( : Unmatched ( or \\(\n"));
}

TEST_F(EventSetTest, MissingDirectoryIsReportedWithItsEvent) {
  std::filesystem::remove(kEventDirectory);
  const test::DebugCapture capture(kDetail);
  EXPECT_EQ(LoadEventFiles(ev_list), -1);
  EXPECT_THAT(test::Reports(capture.Messages()),
              ElementsAre("LoadEventFiles: opendir( root/events ) failed: "
                          "No such file or directory\n"));
  EXPECT_THAT(capture.Messages(),
              Contains(test::AnnouncesDaemonError("events directory not found")));
}

TEST_F(EventSetTest, UnreadableEntryIsReportedWithItsEventAndStopsTheLoad) {
  MakeUnreadable("broken");
  const test::DebugCapture capture(kDetail);
  EXPECT_EQ(LoadEventFiles(ev_list), -1);
  EXPECT_THAT(test::Reports(capture.Messages()),
              ElementsAre("ParseRegExFile: fopen( \"root/events/broken\", ...) failed : "
                          "No such file or directory\n",
                          "LoadEventFiles: LoadEventFile() failed for file broken\n"));
  EXPECT_THAT(capture.Messages(), Contains(AnnouncesABadEventFile()));
}

TEST_F(EventSetTest, FilesBeforeAnUnreadableEntryStayAndThoseAfterItAreNotLoaded) {
  // The directory has an order of its own, which the broken entry is part of.
  for (const char* name : {"a", "b", "c", "d", "e", "f"}) WriteEvents(name, "");
  MakeUnreadable("broken");
  std::vector<std::string> before;
  for (const auto& entry : std::filesystem::directory_iterator(kEventDirectory)) {
    if (entry.path().filename() == "broken") break;
    before.push_back(entry.path().filename());
  }
  EXPECT_EQ(LoadEventFiles(ev_list), -1);
  EXPECT_EQ(SetNames(), before);
}

TEST_F(EventSetTest, FailedLoadLeavesNoDescriptorBehind) {
  MakeUnreadable("broken");
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = descriptors();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(LoadEventFiles(ev_list), -1);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(EventSetTest, RunningOutOfMemoryAnywhereStopsTheLoad) {
  WriteEvents("disk", "a 1 0 x\n");
  int failed = 0;
  for (int failing = 1;; ++failing) {
    EmptyEventSetList(ev_list);
    const test::DebugCapture capture(kDetail);
    const test::FailAllocation failure(failing);
    const int result = LoadEventFiles(ev_list);
    if (!failure.reached()) {
      EXPECT_EQ(result, 0);
      break;
    }
    ++failed;
    EXPECT_EQ(result, -1) << failing;
    EXPECT_THAT(SetNames(), IsEmpty());
    EXPECT_THAT(capture.Messages(), Contains(test::AnnouncesDaemonError("Out of memory")));
    EXPECT_THAT(capture.Messages(), Contains(AnnouncesABadEventFile()));
    EXPECT_TRUE(capture.Has("LoadEventFiles: LoadEventFile() failed for file disk\n"));
  }
  EXPECT_GE(failed, 5);
  EXPECT_EQ(Patterns("disk"), 1);
}

TEST_F(EventSetTest, SetAndElementThatCannotBeMadeAreReported) {
  WriteEvents("disk", "");
  std::vector<std::string> reports;
  for (int failing = 1;; ++failing) {
    const test::DebugCapture capture(0);
    const test::FailAllocation failure(failing);
    LoadEventFile("disk", ev_list);
    if (!failure.reached()) break;
    const std::vector<std::string> reported = test::Reports(capture.Messages());
    reports.insert(reports.end(), reported.begin(), reported.end());
  }
  EXPECT_THAT(reports, Contains("LoadEventFile: NewEventSetNode() failed.\n"));
  EXPECT_THAT(reports, Contains("NewEventSetNode: malloc() failed : Cannot allocate memory\n"));
  EXPECT_THAT(reports, Contains("LoadEventFile: AddEventSetToList() failed.\n"));
  EXPECT_THAT(reports, Contains("AddEventSetToList: malloc() failed : Cannot allocate memory\n"));
}

// ---- Finding ------------------------------------------------------------------------------------

TEST_F(EventSetTest, NamesAreComparedExactly) {
  WriteEvents("disk", "");
  LoadEventFiles(ev_list);
  EXPECT_NE(FindEventNode("disk", ev_list), nullptr);
  for (const char* other : {"Disk", "dis", "disks", "", "disk\n", " disk"}) {
    EXPECT_EQ(FindEventNode(other, ev_list), nullptr) << other;
  }
}

TEST_F(EventSetTest, FirstOfSeveralOfOneNameIsFound) {
  EventSetNode* first = NewEventSetNode("disk", NewRegExList("re_list"));
  EventSetNode* second = NewEventSetNode("disk", NewRegExList("re_list"));
  AddEventSetToList(first, ev_list);
  AddEventSetToList(second, ev_list);
  EXPECT_EQ(FindEventNode("disk", ev_list), first);
}

}  // namespace
