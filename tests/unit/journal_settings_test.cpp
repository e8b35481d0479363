#include "journal_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "debug_support.h"
#include "file_support.h"

namespace {

using test::DebugCapture;
using zevd::JournalInput;
using zevd::JournalSettings;
using zevd::ReadJournalSettings;

class JournalSettingsTest : public ::testing::Test {
 protected:
  bool Read(const std::string& content) {
    test::WriteFile("root/config/qor.conf", content);
    return ReadJournalSettings(&settings_);
  }

  test::StationRoot root_;
  JournalSettings settings_{7, 8, JournalInput::kLength};
};

TEST_F(JournalSettingsTest, WhatIsNotSetIsOff) {
  ASSERT_TRUE(Read("ZEVD_ARCH_INT=7\n"));
  EXPECT_EQ(settings_.mebibytes, 0U);
  EXPECT_EQ(settings_.days, 0U);
  EXPECT_EQ(settings_.input, JournalInput::kNone);
}

TEST_F(JournalSettingsTest, AllKeysAreRead) {
  ASSERT_TRUE(
      Read("ZEVD_JOURNAL_INPUT=all\r\n ZEVD_JOURNAL=1\nZEVD_JOURNAL=500 \n"
           "ZEVD_JOURNAL_DAYS=90"));
  EXPECT_EQ(settings_.mebibytes, 500U);
  EXPECT_EQ(settings_.days, 90U);
  EXPECT_EQ(settings_.input, JournalInput::kAll);
}

TEST_F(JournalSettingsTest, OneBadValueLeavesAllAsTheyWere) {
  for (const char* bad :
       {"ZEVD_JOURNAL=+1", "ZEVD_JOURNAL=1.5", "ZEVD_JOURNAL= 1", "ZEVD_JOURNAL=1099511627777",
        "ZEVD_JOURNAL_DAYS=1000001", "ZEVD_JOURNAL_INPUT=", "ZEVD_JOURNAL_INPUT=All"}) {
    const DebugCapture debug;
    EXPECT_FALSE(Read("ZEVD_ARCH_INT=7\n" + std::string(bad) + "\n")) << bad;
    EXPECT_EQ(settings_.mebibytes, 7U);
    EXPECT_EQ(settings_.days, 8U);
    EXPECT_EQ(settings_.input, JournalInput::kLength);
    EXPECT_THAT(
        debug.Messages(),
        ::testing::Contains(::testing::StartsWith("Journal: " + std::string(bad) + " is not ")));
  }
}

TEST_F(JournalSettingsTest, AFileThatCannotBeReadChangesNothing) {
  const DebugCapture debug;
  EXPECT_FALSE(ReadJournalSettings(&settings_));
  EXPECT_EQ(settings_.mebibytes, 7U);
  EXPECT_TRUE(
      debug.Has("Journal: fopen( \"root/config/qor.conf\", ...) failed : No such file or "
                "directory\n"));
}

}  // namespace
