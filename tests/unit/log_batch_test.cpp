// Records of logs: alone and in batches, and what a full disk leaves of them.
#include "log_batch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "counters.h"
#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "log_support.h"
#include "random_patterns.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using test::Call;
using test::DebugCapture;
using test::Descriptor;
using test::FailCall;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Strings = std::vector<std::string>;

std::string InLog(const Strings& lines, const char* stamp = test::kLogStartStamp) {
  std::string records;
  for (const std::string& line : lines) records += stamp + (" " + line);
  return records;
}

std::string InConsolidated(const Strings& lines) {
  std::string records;
  for (const std::string& line : lines) records += test::kLogStartStamp + (" box " + line);
  return records;
}

/// Lines that differ, each of `length` bytes.
Strings Lines(size_t count, size_t length) {
  Strings lines;
  for (size_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    lines.push_back(number + std::string(length - 1 - number.size(), '.') + '\n');
  }
  return lines;
}

/// What has been counted since this was made.
class CountedSince {
 public:
  uint64_t written() const { return counters.log_records.Get() - written_; }
  uint64_t bytes() const { return counters.log_bytes.Get() - bytes_; }
  uint64_t lost() const { return counters.log_records_lost.Get() - lost_; }

 private:
  uint64_t written_ = counters.log_records.Get();
  uint64_t bytes_ = counters.log_bytes.Get();
  uint64_t lost_ = counters.log_records_lost.Get();
};

class WrittenRecordTest : public test::UtcTest {
 protected:
  /// A file as the daemon opens its logs.
  static int Open(const char* path) {
    return open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  }

  LogTargets Both() const { return {"box", log_.get(), consolidated_.get()}; }
  LogTargets LogOnly() const { return {"box", log_.get(), -1}; }

  void Add(const LogTargets& targets, const Strings& lines) {
    for (const std::string& line : lines)
      batch_->Add(targets, line.data(), static_cast<int>(line.size()));
  }

  void Write(const LogTargets& targets, const Strings& lines) {
    Add(targets, lines);
    batch_->Flush();
  }

  static std::string Log() { return test::ReadFile("log"); }
  static std::string Consolidated() { return test::ReadFile("consolidated"); }

  test::StationRoot root_;
  test::FakeClock clock_{test::kLogStart};
  Descriptor log_{Open("log")};
  Descriptor consolidated_{Open("consolidated")};
  std::unique_ptr<RecordBatch> batch_ = std::make_unique<RecordBatch>();
};

// ---- Single records -----------------------------------------------------------------------------

int WriteAlone(const LogTargets& targets, const std::string& line) {
  return WriteRecord(targets, line.data(), static_cast<int>(line.size()));
}

TEST_F(WrittenRecordTest, SingleRecordGoesIntoBothLogs) {
  const CountedSince counted;
  EXPECT_EQ(WriteAlone(Both(), "one\n"), 0);
  EXPECT_EQ(WriteAlone(LogOnly(), "two\n"), 0);
  EXPECT_EQ(Log(), InLog({"one\n", "two\n"}));
  EXPECT_EQ(Consolidated(), InConsolidated({"one\n"}));
  EXPECT_EQ(counted.written(), 3U);
  EXPECT_EQ(counted.bytes(), Log().size() + Consolidated().size());
}

TEST_F(WrittenRecordTest, SingleRecordThatIsNotInTheLogIsInNone) {
  const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  const CountedSince counted;
  const DebugCapture capture(0);
  EXPECT_EQ(WriteAlone({"box", full.get(), consolidated_.get()}, "lost\n"), -1);
  EXPECT_EQ(Consolidated(), "");
  EXPECT_EQ(WriteAlone({"box", log_.get(), full.get()}, "kept\n"), -1);
  EXPECT_EQ(Log(), InLog({"kept\n"}));
  EXPECT_EQ(counted.written(), 1U);
  EXPECT_EQ(counted.lost(), 2U);
  EXPECT_THAT(
      capture.Messages(),
      ElementsAre("WriteBuffer: write() failed for console \"box\" : No space left on device\n",
                  "WriteBuffer: write() failed for \"consolidated.log\" : "
                  "No space left on device\n"));
}

// ---- Batches ------------------------------------------------------------------------------------

TEST_F(WrittenRecordTest, BatchIsWrittenWithOneCallForEachLog) {
  const Strings lines = {"one\n", "two\r", "\n", "without an end"};
  const FailCall writes(Call::kWrite, EIO, 1, 0);
  const CountedSince counted;
  Add(Both(), lines);
  EXPECT_EQ(writes.calls(), 0);
  batch_->Flush();
  EXPECT_EQ(writes.calls(), 2);
  EXPECT_EQ(Log(), InLog(lines));
  EXPECT_EQ(Consolidated(), InConsolidated(lines));
  EXPECT_EQ(counted.written(), 8U);
  EXPECT_EQ(counted.bytes(), Log().size() + Consolidated().size());
  EXPECT_EQ(counted.lost(), 0U);
}

TEST_F(WrittenRecordTest, BatchForOneLogIsWrittenWithOneCall) {
  const FailCall writes(Call::kWrite, EIO, 1, 0);
  Write(LogOnly(), {"one\n", "two\n"});
  EXPECT_EQ(writes.calls(), 1);
  EXPECT_EQ(Log(), InLog({"one\n", "two\n"}));
  EXPECT_EQ(Consolidated(), "");
}

TEST_F(WrittenRecordTest, EmptyBatchWritesNothing) {
  const FailCall writes(Call::kWrite, EIO, 1, 0);
  batch_->Flush();
  EXPECT_EQ(writes.calls(), 0);
  Write(Both(), {"one\n"});
  batch_->Flush();
  EXPECT_EQ(writes.calls(), 2);
  EXPECT_EQ(Log(), InLog({"one\n"}));
}

TEST_F(WrittenRecordTest, BatchIsUsedAgainForOtherLogs) {
  const Descriptor other(Open("other"));
  Write(Both(), {"one\n", "two\n"});
  Write({"other", other.get(), -1}, {"three\n"});
  Write({"other", other.get(), consolidated_.get()}, {"four\n"});
  EXPECT_EQ(Log(), InLog({"one\n", "two\n"}));
  EXPECT_EQ(test::ReadFile("other"), InLog({"three\n", "four\n"}));
  EXPECT_EQ(Consolidated(),
            InConsolidated({"one\n", "two\n"}) + test::kLogStartStamp + " other four\n");
}

TEST_F(WrittenRecordTest, StampIsTheTimeAtWhichARecordWasAdded) {
  Add(LogOnly(), {"one\n"});
  clock_.Advance(1);
  Add(LogOnly(), {"two\n"});
  clock_.Advance(1);
  batch_->Flush();
  EXPECT_EQ(Log(), InLog({"one\n"}) + InLog({"two\n"}, "11/03/13_07:06:41"));
}

TEST_F(WrittenRecordTest, BatchesOfRandomLinesAreLikeSingleRecords) {
  const Descriptor single(Open("single"));
  const Descriptor single_consolidated(Open("single consolidated"));
  test::Dice dice(test::Seed());
  for (int round = 0; round < 100; ++round) {
    const LogTargets targets = dice.OneIn(3) ? LogOnly() : Both();
    const int singly = targets.consolidated_fd == -1 ? -1 : single_consolidated.get();
    for (size_t records = dice.Below(200); records > 0; --records) {
      std::string line(dice.Below(dice.OneIn(4) ? 1025 : 30), 'x');
      for (char& byte : line) byte = static_cast<char>(dice.Below(256));
      batch_->Add(targets, line.data(), static_cast<int>(line.size()));
      WriteAlone({"box", single.get(), singly}, line);
    }
    batch_->Flush();
  }
  EXPECT_TRUE(Log() == test::ReadFile("single"));
  EXPECT_TRUE(Consolidated() == test::ReadFile("single consolidated"));
  EXPECT_GT(Log().size(), size_t{1} << 20);
}

TEST_F(WrittenRecordTest, MoreRecordsThanABatchHoldsAreWrittenMeanwhile) {
  const Strings lines(1024, "\n");
  const FailCall writes(Call::kWrite, EIO, 1, 0);
  Add(Both(), lines);
  EXPECT_EQ(writes.calls(), 0);
  Add(Both(), {"next\n"});
  EXPECT_EQ(writes.calls(), 2);
  EXPECT_EQ(Log(), InLog(lines));
  EXPECT_EQ(Consolidated(), InConsolidated(lines));
  batch_->Flush();
  EXPECT_EQ(Log(), InLog(lines) + InLog({"next\n"}));
  EXPECT_EQ(Consolidated(), InConsolidated(lines) + InConsolidated({"next\n"}));
}

TEST_F(WrittenRecordTest, MoreBytesThanABatchHoldsAreWrittenMeanwhile) {
  const Strings lines = Lines(100, RecordBatch::kLongestLine);
  Add(Both(), lines);
  const size_t written = Log().size() / InLog({lines[0]}).size();
  EXPECT_GE(written, 50U);
  EXPECT_LT(written, 100U);
  const Strings first(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(written));
  EXPECT_EQ(Log(), InLog(first));
  EXPECT_EQ(Consolidated(), InConsolidated(first));
  batch_->Flush();
  EXPECT_EQ(Log(), InLog(lines));
  EXPECT_EQ(Consolidated(), InConsolidated(lines));
}

// ---- Writes that fail ---------------------------------------------------------------------------

TEST_F(WrittenRecordTest, RecordsThatCannotBeWrittenTogetherAreWrittenAlone) {
  const Strings lines = Lines(20, 10);
  for (const int failing : {1, 2}) {  // of the log, and of the consolidated one
    SCOPED_TRACE(failing);
    ASSERT_EQ(ftruncate(log_.get(), 0) + ftruncate(consolidated_.get(), 0), 0);
    const CountedSince counted;
    const DebugCapture capture(0);
    const FailCall failure(Call::kWrite, ENOSPC, failing, 1);
    Write(Both(), lines);
    EXPECT_EQ(failure.calls(), failing == 1 ? 1 + 40 : 2 + 20);
    EXPECT_EQ(Log(), InLog(lines));
    EXPECT_EQ(Consolidated(), InConsolidated(lines));
    EXPECT_EQ(counted.written(), 40U);
    EXPECT_EQ(counted.bytes(), Log().size() + Consolidated().size());
    EXPECT_EQ(counted.lost(), 0U);
    EXPECT_THAT(capture.Messages(), IsEmpty());
  }
}

TEST_F(WrittenRecordTest, RecordThatIsNotInTheLogIsNotInTheConsolidatedOne) {
  const Strings lines = Lines(5, 10);
  const CountedSince counted;
  const DebugCapture capture(0);
  const FailCall failure(Call::kWrite, ENOSPC, 1, 2);  // all together, and the first alone
  Write(Both(), lines);
  const Strings rest(lines.begin() + 1, lines.end());
  EXPECT_EQ(Log(), InLog(rest));
  EXPECT_EQ(Consolidated(), InConsolidated(rest));
  EXPECT_EQ(counted.written(), 8U);
  EXPECT_EQ(counted.lost(), 1U);
  EXPECT_THAT(
      capture.Messages(),
      ElementsAre("WriteBuffer: write() failed for console \"box\" : No space left on device\n"));
}

TEST_F(WrittenRecordTest, ConsolidatedLogMayLackARecordOfTheLog) {
  const Strings lines = Lines(5, 10);
  const CountedSince counted;
  const DebugCapture capture(0);
  const FailCall failure(Call::kWrite, ENOSPC, 2, 2);
  Write(Both(), lines);
  EXPECT_EQ(Log(), InLog(lines));
  EXPECT_EQ(Consolidated(), InConsolidated({lines.begin() + 1, lines.end()}));
  EXPECT_EQ(counted.written(), 9U);
  EXPECT_EQ(counted.lost(), 1U);
  EXPECT_THAT(capture.Messages(), ElementsAre("WriteBuffer: write() failed for "
                                              "\"consolidated.log\" : No space left on device\n"));
}

TEST_F(WrittenRecordTest, RestIsGivenUpAfterManyFailuresInARow) {
  const CountedSince counted;
  const DebugCapture capture(0);
  {
    const FailCall failure(Call::kWrite, ENOSPC);
    Write(Both(), Lines(200, 10));
    EXPECT_EQ(failure.calls(), 1 + 64);
  }
  EXPECT_EQ(counted.lost(), 200U);
  EXPECT_EQ(counted.written(), 0U);
  EXPECT_EQ(Log() + Consolidated(), "");
  Write(Both(), {"next\n"});  // the next batch is tried again
  EXPECT_EQ(Log(), InLog({"next\n"}));
  EXPECT_EQ(Consolidated(), InConsolidated({"next\n"}));
}

TEST_F(WrittenRecordTest, OneRecordLessThanManyFailuresGivesNothingUp) {
  const Strings lines = Lines(80, 10);
  const CountedSince counted;
  const DebugCapture capture(0);
  const FailCall failure(Call::kWrite, ENOSPC, 1, 1 + 63);
  Write(LogOnly(), lines);
  EXPECT_EQ(Log(), InLog({lines.begin() + 63, lines.end()}));
  EXPECT_EQ(counted.lost(), 63U);
}

// ---- Disks that are full ------------------------------------------------------------------------

/// The tests run in children, in which no file grows beyond a size.
class FullDiskTest : public WrittenRecordTest {
 protected:
  static void LimitFiles(size_t size) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {size, size};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(99);
  }

  // Puts into a file what leaves room for so many bytes.
  static std::string FillUpTo(const Descriptor& file, size_t room) {
    constexpr size_t kLimit = 20'000;
    LimitFiles(kLimit);
    std::string filling(kLimit - room, '#');
    if (write(file.get(), filling.data(), filling.size()) != static_cast<ssize_t>(filling.size()))
      _exit(98);
    return filling;
  }

  void ExpectWholeRecordsInTheLog() {
    const Strings lines = Lines(10, 30);
    const size_t record = InLog({lines[0]}).size();
    const std::string filling = FillUpTo(log_, 3 * record + record / 2);
    const CountedSince counted;
    const DebugCapture capture(0);
    Write(Both(), lines);
    const Strings first(lines.begin(), lines.begin() + 3);
    EXPECT_EQ(Log(), filling + InLog(first));
    EXPECT_EQ(Consolidated(), InConsolidated(first));
    EXPECT_EQ(counted.written(), 6U);
    EXPECT_EQ(counted.lost(), 7U);
    EXPECT_EQ(counted.bytes(), InLog(first).size() + Consolidated().size());
    EXPECT_THAT(capture.Messages(),
                ::testing::Contains("WriteBuffer: write() failed for console \"box\" : "
                                    "No space left on device\n"));
  }

  void ExpectWholeRecordsInTheConsolidatedLog() {
    const Strings lines = Lines(10, 30);
    const size_t record = InConsolidated({lines[0]}).size();
    const std::string filling = FillUpTo(consolidated_, 4 * record + 1);
    const CountedSince counted;
    const DebugCapture capture(0);
    Write(Both(), lines);
    EXPECT_EQ(Log(), InLog(lines));
    EXPECT_EQ(Consolidated(), filling + InConsolidated({lines.begin(), lines.begin() + 4}));
    EXPECT_EQ(counted.written(), 14U);
    EXPECT_EQ(counted.lost(), 6U);
    EXPECT_THAT(capture.Messages(),
                ::testing::Contains("WriteBuffer: write() failed for \"consolidated.log\" : "
                                    "No space left on device\n"));
  }

  void ExpectEveryCutToLeaveWholeRecords() {
    const Strings lines = Lines(3, 12);
    const size_t record = InLog({lines[0]}).size();
    std::string expected = FillUpTo(log_, 3 * record);
    const DebugCapture capture(0);
    for (size_t room = 3 * record; room > 0; --room) {
      SCOPED_TRACE(room);
      Write(LogOnly(), lines);
      const auto whole = static_cast<ptrdiff_t>(room / record);
      EXPECT_EQ(Log(), expected + InLog({lines.begin(), lines.begin() + whole}));
      EXPECT_EQ(ftruncate(log_.get(), static_cast<off_t>(expected.size())), 0);
      expected += '#';
      EXPECT_EQ(write(log_.get(), "#", 1), 1);
    }
  }

  // Long records find no room, and short ones between them do. There are more long ones than may
  // fail in a row.
  void ExpectShortRecordsToGoOn(bool consolidated) {
    const Strings short_ones = Lines(33, 5);
    const std::string long_one(780, 'l');
    Strings all;
    for (const std::string& line : short_ones) all.insert(all.end(), {long_one, long_one, line});
    const std::string filling = FillUpTo(log_, InLog(short_ones).size());
    const CountedSince counted;
    const DebugCapture capture(0);
    Write(consolidated ? Both() : LogOnly(), all);
    EXPECT_EQ(Log(), filling + InLog(short_ones));
    EXPECT_EQ(Consolidated(), consolidated ? InConsolidated(short_ones) : "");
    EXPECT_EQ(counted.lost(), 66U);
  }
};

TEST_F(FullDiskTest, RecordCutByAFullDiskIsTakenBack) {
  EXPECT_HOLDS_IN_CHILD(ExpectWholeRecordsInTheLog());
}

TEST_F(FullDiskTest, RecordCutInTheConsolidatedLogIsTakenBack) {
  EXPECT_HOLDS_IN_CHILD(ExpectWholeRecordsInTheConsolidatedLog());
}

TEST_F(FullDiskTest, RecordsThatFitAreWrittenAfterManyThatDoNot) {
  for (const bool consolidated : {false, true}) {
    EXPECT_HOLDS_IN_CHILD(ExpectShortRecordsToGoOn(consolidated));
    ASSERT_EQ(ftruncate(log_.get(), 0) + ftruncate(consolidated_.get(), 0), 0);
  }
}

TEST_F(FullDiskTest, BatchMayBeCutAnywhere) {
  EXPECT_HOLDS_IN_CHILD(ExpectEveryCutToLeaveWholeRecords());
}

}  // namespace
