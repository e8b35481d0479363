// Which pattern an event comes from, as the files of the station tell.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "event_pattern.h"
#include "support.h"

namespace zevctl {

namespace {

class PatternNamesTest : public ::testing::Test {
 protected:
  PatternNamesTest() {
    std::filesystem::create_directories(directory_.path() / "config");
    std::filesystem::create_directories(directory_.path() / "events");
  }

  void Write(const std::string& file, const std::string& text) {
    std::ofstream(directory_.path() / file, std::ios::binary) << text;
  }

  void WriteConsole(const std::string& name, const std::string& event_file) {
    consoles_ += name + " 10.0.0.1 23 23 0 A200 rack \"any OS\" 1 1 1 1 " + event_file;
    Write("config/zev.conf", consoles_);
  }

  std::optional<std::string> Find(const std::string& console, int priority,
                                  const std::string& line) {
    return PatternNames(directory_.path()).Find(console, priority, line);
  }

  test::TemporaryDirectory directory_;
  std::string consoles_ = "# comment\n\n";
};

TEST_F(PatternNamesTest, AreThoseOfTheConsolesEventFile) {
  WriteConsole("lab1", "disk \n");
  WriteConsole("lab2", "net \n");
  WriteConsole("lab3", "\"\" \n");
  WriteConsole("lab4", "missing \n");
  Write("events/disk", "sda 300 0 disk\n");
  Write("events/net", "link 300 0 link\n");
  EXPECT_EQ(Find("lab1", 300, "Disk"), "sda");
  EXPECT_EQ(Find("lab2", 300, "Link"), "link");
  for (const char* console : {"lab3", "lab4", "lab5", ""}) {
    EXPECT_EQ(Find(console, 300, "Disk"), std::nullopt) << console;
  }
}

TEST_F(PatternNamesTest, AreFoundUnderTheNameThatAnEventGives) {
  WriteConsole("rack-1_a", "disk \n");
  Write("events/disk", "sda 300 0 disk\n");
  EXPECT_EQ(Find("rack_1_a", 300, "disk"), "sda");
}

TEST_F(PatternNamesTest, OfOnePriorityAreToldApartByMatching) {
  WriteConsole("lab1", "disk \n");
  Write("events/disk",
        "exact 300 1 Disk\n\nno pattern\nany 300 0 disk\nbad 300 0 (\nrest 300 0 .\n"
        "other 200 0 .\n");
  EXPECT_EQ(Find("lab1", 300, "Disk\n"), "exact");
  EXPECT_EQ(Find("lab1", 300, "disk\n"), "any");
  EXPECT_EQ(Find("lab1", 300, "else\n"), "rest");
  EXPECT_EQ(Find("lab1", 200, "else\n"), "other");
  EXPECT_EQ(Find("lab1", 300, ""), std::nullopt);
  EXPECT_EQ(Find("lab1", 100, "else\n"), std::nullopt);
}

TEST_F(PatternNamesTest, ThatAreHardToMatchAreNotTried) {
  WriteConsole("lab1", "disk \n");
  Write("events/disk", "first 300 0 one\nhard 300 0 (a*)*\\1\nlast 300 0 two\nonly 200 0 (a)\\1\n");
  EXPECT_EQ(Find("lab1", 300, "one\n"), "first");
  EXPECT_EQ(Find("lab1", 300, "two\n"), std::nullopt);
  EXPECT_EQ(Find("lab1", 200, "aa\n"), "only");
}

TEST_F(PatternNamesTest, AreLookedForInNoOtherDirectory) {
  WriteConsole("lab1", "../outside \n");
  WriteConsole("lab2", "disk\n");
  Write("outside", "outside 300 0 .\n");
  Write("events/disk", "disk 300 0 .\n");
  EXPECT_EQ(Find("lab1", 300, "disk\n"), std::nullopt);
  // The daemon does not find it either: the line does not end in a blank.
  EXPECT_EQ(Find("lab2", 300, "disk\n"), std::nullopt);
}

}  // namespace

}  // namespace zevctl
