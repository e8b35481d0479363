// Which directories and files are read as a journal, and which are not.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>

#include "journal/journal.h"
#include "journal_files_support.h"

namespace journal {

namespace {

using test::Damages;
using test::JournalFiles;
using test::ReadRest;
using test::SegmentBytes;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Cause = JournalError::Cause;

class JournalOpenTest : public ::testing::Test {
 protected:
  static SegmentBytes With(const char* text, uint64_t segment) {
    SegmentBytes bytes(segment, segment);
    bytes.Output(1, text);
    return bytes;
  }

  // Why it cannot be opened.
  std::optional<Cause> CauseOf(const std::string& path) {
    try {
      const Journal journal(path);
      return {};
    } catch (const JournalError& error) {
      text_ = error.what();
      return error.cause();
    }
  }

  JournalFiles files_;
  std::string text_;
};

TEST_F(JournalOpenTest, MissesADirectory) {
  EXPECT_EQ(CauseOf(files_.path() + "/none"), Cause::kMissing);
  EXPECT_EQ(CauseOf(""), Cause::kMissing);
}

TEST_F(JournalOpenTest, MissesSegments) {
  EXPECT_EQ(CauseOf(files_.path()), Cause::kMissing);
  for (const char* name : {"1.seg", "00000000000000000000.seg", "0000000000000000000x.seg",
                           "00000000000000000001.seg.tmp", "000000000000000000001.seg",
                           "99999999999999999999.seg", "00000000000000000001.idx"}) {
    test::WriteFile(files_.path() + "/" + name, "");
  }
  EXPECT_EQ(CauseOf(files_.path()), Cause::kMissing);
}

TEST_F(JournalOpenTest, FollowsNoLink) {
  files_.Put(With("one", 1));
  const std::string link = files_.path() + "/link";
  std::filesystem::create_directory_symlink(files_.path(), link);
  EXPECT_EQ(CauseOf(link), Cause::kForeign);
  EXPECT_EQ(CauseOf(link + "/"), Cause::kForeign);
  EXPECT_EQ(CauseOf(files_.path() + "/id"), Cause::kForeign);
  EXPECT_EQ(CauseOf(files_.path() + "/"), std::nullopt);
}

TEST_F(JournalOpenTest, RefusesADirectoryThatAnybodyMayWriteTo) {
  files_.Put(With("one", 1));
  ASSERT_EQ(chmod(files_.path().c_str(), 0777), 0);
  EXPECT_EQ(CauseOf(files_.path()), Cause::kForeign);
  ASSERT_EQ(chmod(files_.path().c_str(), 0770), 0);
  EXPECT_EQ(CauseOf(files_.path()), std::nullopt);
}

TEST_F(JournalOpenTest, ReadsNothingButRegularFiles) {
  files_.Put(With("one", 1));
  std::filesystem::create_symlink(files_.Raw(1), files_.Raw(2));
  ASSERT_EQ(mkfifo(files_.Raw(3).c_str(), 0640), 0);
  std::filesystem::create_directory(files_.Raw(4));
  files_.Put(With("five", 5));
  const Journal journal(files_.path());
  const auto cursor = journal.Read({});
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("one", "five"));
  EXPECT_THAT(Damages(*cursor), ElementsAre("2:0+0 is a link", "3:0+0 is no regular file",
                                            "4:0+0 is no regular file"));
}

TEST_F(JournalOpenTest, ReadsNothingOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  for (const uint64_t segment : {1U, 2U}) files_.Put(With("text", segment));
  ASSERT_EQ(chown(files_.path().c_str(), 12345, 12345), 0);
  for (const auto& file : {files_.Raw(1), std::filesystem::path(files_.path() + "/id")}) {
    ASSERT_EQ(chown(file.c_str(), 12345, 12345), 0);
  }
  ASSERT_EQ(chown(files_.Raw(2).c_str(), 23456, 23456), 0);
  const Journal journal(files_.path());
  const auto cursor = journal.Read({});
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("text"));
  EXPECT_THAT(Damages(*cursor), ElementsAre("2:0+0 belongs to another user than the journal"));
}

TEST_F(JournalOpenTest, TellsAnotherVersion) {
  SegmentBytes bytes = With("one", 1);
  bytes.bytes[kSegmentVersionAt] = 2;
  files_.Put(bytes);
  EXPECT_EQ(CauseOf(files_.path()), Cause::kVersion);
  EXPECT_THAT(text_, HasSubstr("another version"));
  files_.Put(With("two", 2));
  const Journal journal(files_.path());
  const auto cursor = journal.Read({});
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("two"));
  EXPECT_THAT(Damages(*cursor), ElementsAre("1:0+0 was written by another version"));
}

TEST_F(JournalOpenTest, TellsWhatIsNoJournal) {
  test::WriteFile(files_.Raw(1), std::string(100, 'x'));
  EXPECT_EQ(CauseOf(files_.path()), Cause::kForeign);
  SegmentBytes bytes = With("one", 2);
  bytes.header.station++;
  test::EncodeHeaderOf(bytes);
  files_.Put(bytes);
  EXPECT_EQ(CauseOf(files_.path()), Cause::kForeign);
  EXPECT_THAT(text_, HasSubstr("another station"));
  files_.Put(With("three", 3));
  EXPECT_EQ(CauseOf(files_.path()), std::nullopt);
}

TEST_F(JournalOpenTest, TellsASegmentUnderTheNameOfAnother) {
  files_.Put(With("one", 1));
  files_.Put(With("two", 2));
  std::filesystem::copy(files_.Raw(1), files_.Raw(3));
  const Journal journal(files_.path());
  const auto cursor = journal.Read({});
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("one", "two"));
  EXPECT_THAT(Damages(*cursor), ElementsAre("3:0+0 is another segment under this name"));
}

// Without its file "id" the first sound segment tells the station.
TEST_F(JournalOpenTest, KnowsItsStationWithoutAnId) {
  files_.Put(With("one", 1));
  for (const char* text : {"", "1122334455667788", "112233445566778\n", "x122334455667788\n"}) {
    test::WriteFile(files_.path() + "/id", text);
    EXPECT_EQ(Journal(files_.path()).station(), SegmentBytes::kStation) << text;
  }
  std::filesystem::remove(files_.path() + "/id");
  EXPECT_EQ(Journal(files_.path()).station(), SegmentBytes::kStation);
}

// What claims to be larger than any segment is not read through.
TEST_F(JournalOpenTest, ReadsNoFileWithoutEnd) {
  files_.Put(With("one", 1));
  files_.Put(With("two", 2));
  ASSERT_EQ(truncate(files_.Raw(1).c_str(), off_t{1} << 40), 0);
  test::WriteFile(files_.Index(2), "");
  ASSERT_EQ(truncate(files_.Index(2).c_str(), off_t{1} << 40), 0);
  const Journal journal(files_.path());
  const auto cursor = journal.Read({});
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("two"));
  EXPECT_THAT(Damages(*cursor), ElementsAre("1:0+0 is larger than any segment that is written"));
}

TEST_F(JournalOpenTest, LeavesNoDescriptorOpen) {
  const auto count = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = count();
  for (const uint64_t segment : {1U, 2U, 3U}) files_.Put(With("text", segment));
  files_.Seal(1);
  files_.Compress(1);
  {
    Journal journal(files_.path());
    const auto cursor = journal.Read({});
    EXPECT_EQ(ReadRest(*cursor).size(), 3U);
    journal.Refresh();
    EXPECT_LE(count(), before + 2);  // the directory, and the segment that was read last
  }
  EXPECT_EQ(count(), before);
}

}  // namespace

}  // namespace journal
