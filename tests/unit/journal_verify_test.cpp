// Keeping and verifying: whatever is changed, missing or exchanged in a kept journal is found.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <vector>

#include "file_support.h"
#include "journal_support.h"
#include "placing.h"
#include "retention_limits.h"
#include "verify.h"
#include "work.h"

namespace journal {

namespace {

using ::test::ReadFile;
using ::test::SegmentBytes;
using ::test::WriteFile;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int64_t kDay = 86'400'000'000'000;

class KeptJournalTest : public ::testing::Test {
 protected:
  // The first segment is a hundred days old.
  void SetUp() override {
    std::filesystem::permissions(path(), std::filesystem::perms(0750));
    WriteFile(path() / "id", "1122334455667788\n");
    for (uint64_t number = 1; number <= 4; ++number) AddSegment();
  }

  std::filesystem::path path() const { return directory_.path(); }
  std::filesystem::path file(uint64_t segment, Form form) const {
    return path() / NameOf(segment, form);
  }

  SegmentBytes NextSegment() {
    SegmentBytes segment(++last_, next_record_);
    segment.SetWall(static_cast<int64_t>(last_ == 1 ? 0 : 99 + last_) * kDay);
    segment.Define(1, "web");
    segment.Output(1, "login: ");
    segment.Add(Kind::kAudit, 0, "");
    return segment;
  }

  void AddSegment() { AddSegment(NextSegment()); }

  void AddSegment(const SegmentBytes& segment) {
    WriteFile(file(segment.header.segment, Form::kRaw), segment.bytes);
    next_record_ = segment.next_record();
  }

  // One pass, on the day with this number.
  size_t Keep(zevkeep::Limits limits = {}, int64_t day = 110) {
    const SegmentStore store(path());
    zevkeep::Teller tell(false, [this](int priority, const std::string& text) {
      EXPECT_THAT(priority, ::testing::AnyOf(LOG_NOTICE, LOG_WARNING));
      told_.push_back(text);
    });
    zevkeep::Work work{store, tell};
    work.station = store.Station();
    zevkeep::RemoveTemporary(store);
    EXPECT_TRUE(LoadChain(work));
    SealSegments(work);
    CompressSegments(work);
    RemoveSegments(work, limits, day * kDay);
    return tell.problems();
  }

  Verification Verified() const { return Verify(SegmentStore(path())); }

  // Whether verifying finds that something is wrong.
  bool IsFound() const try { return !Verified().findings.empty(); } catch (const StoreError&) {
    return true;
  }

  std::vector<std::filesystem::path> Files() const {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(path())) files.push_back(entry);
    std::sort(files.begin(), files.end());
    return files;
  }

  static constexpr zevkeep::Limits kOld{1000, 50};

  std::vector<std::string> told_;
  uint64_t last_ = 0;
  uint64_t next_record_ = 1;

 private:
  test::TemporaryDirectory directory_;
};

TEST_F(KeptJournalTest, IsSealedCompressedAndRemoved) {
  EXPECT_EQ(0u, Keep(kOld));
  EXPECT_THAT(Files(), SizeIs(8));  // id, chain, and two of each segment
  EXPECT_FALSE(exists(file(1, Form::kIndex)));
  EXPECT_TRUE(exists(file(2, Form::kCompressed)));
  EXPECT_TRUE(exists(file(4, Form::kRaw)));
  const Verification result = Verified();
  EXPECT_THAT(result.findings, IsEmpty());
  EXPECT_EQ(3u, result.segments);
  EXPECT_EQ(3u, result.sealed);
  EXPECT_EQ(9u, result.records);
  EXPECT_EQ(4u, result.last_seal.segment);
  ASSERT_THAT(told_, SizeIs(5));
  EXPECT_EQ("sealed station=\"1122334455667788\" segment=\"4\" hash=\"" +
                HashText(result.last_seal.hash) + "\"",
            told_[3]);
  EXPECT_THAT(told_[4], HasSubstr("removed station=\"1122334455667788\" segment=\"1\""));
}

TEST_F(KeptJournalTest, AnyByteThatIsChangedIsFound) {
  Keep(kOld);
  for (const auto& name : Files()) {
    const std::string bytes = ReadFile(name);
    for (size_t i = 0; i < bytes.size(); ++i) {
      for (const int bits : {0x01, 0x20, 0xFF}) {
        std::string changed = bytes;
        changed[i] = static_cast<char>(changed[i] ^ bits);
        WriteFile(name, changed);
        EXPECT_TRUE(IsFound()) << name.filename() << ", byte " << i << ", bits " << bits;
      }
    }
    WriteFile(name, bytes);
  }
  EXPECT_FALSE(IsFound());
}

TEST_F(KeptJournalTest, AnyFileThatIsCutIsFound) {
  Keep(kOld);
  for (const auto& name : Files()) {
    const std::string bytes = ReadFile(name);
    for (size_t size = 0; size < bytes.size(); ++size) {
      WriteFile(name, bytes.substr(0, size));
      EXPECT_TRUE(IsFound()) << name.filename() << ", " << size << " bytes";
    }
    WriteFile(name, bytes + '\0');
    EXPECT_TRUE(IsFound()) << name.filename() << ", longer";
    WriteFile(name, bytes);
  }
}

TEST_F(KeptJournalTest, AnyFileThatIsMissingIsFound) {
  Keep(kOld);
  for (const auto& name : Files()) {
    const std::string bytes = ReadFile(name);
    std::filesystem::remove(name);
    EXPECT_TRUE(IsFound()) << name.filename();
    WriteFile(name, bytes);
  }
}

TEST_F(KeptJournalTest, AnySegmentThatIsMissingIsFound) {
  Keep(kOld);
  for (uint64_t number = 2; number <= 4; ++number) {
    const Form form = number == 4 ? Form::kRaw : Form::kCompressed;
    const std::string records = ReadFile(file(number, form));
    const std::string index = ReadFile(file(number, Form::kIndex));
    std::filesystem::remove(file(number, form));
    std::filesystem::remove(file(number, Form::kIndex));
    const auto findings = Verified().findings;
    ASSERT_THAT(findings, SizeIs(1));
    EXPECT_EQ("segment " + std::to_string(number) + " is missing", findings[0].problem);
    WriteFile(file(number, form), records);
    WriteFile(file(number, Form::kIndex), index);
  }
}

TEST_F(KeptJournalTest, SegmentsThatAreExchangedAreFound) {
  Keep(kOld);
  for (const Form form : {Form::kCompressed, Form::kIndex}) {
    std::filesystem::rename(file(2, form), path() / "kept");
    std::filesystem::rename(file(3, form), file(2, form));
    std::filesystem::rename(path() / "kept", file(3, form));
  }
  EXPECT_TRUE(IsFound());
}

// As whoever may write to the directory could do, who does not know of the next seal.
TEST_F(KeptJournalTest, ASegmentThatIsSealedAnewBreaksTheChain) {
  Keep(kOld);
  const SegmentStore store(path());
  SealedIndex sealed = store.ReadIndex(SegmentBytes::kStation, 3);
  sealed.index.next_record++;
  const std::string bytes = EncodeIndex(sealed.index);
  const Seal seal =
      MakeSeal(sealed.seal.previous, SegmentBytes::kStation, 3, sealed.seal.raw, bytes);
  WriteFile(file(3, Form::kIndex), bytes + EncodeSeal(seal));
  const auto findings = Verified().findings;
  ASSERT_THAT(findings, SizeIs(2));
  EXPECT_THAT(findings[0].problem, HasSubstr("does not tell what the segment has"));
  EXPECT_THAT(findings[1].problem, HasSubstr("does not continue the chain"));
}

TEST_F(KeptJournalTest, ASegmentOfAnotherStationIsFound) {
  Keep(kOld);
  SegmentBytes foreign(3, 7);
  foreign.header.station = 1;
  SegmentBytes own = NextSegment();
  std::string bytes = own.bytes;
  bytes[20] ^= 1;
  WriteFile(file(5, Form::kRaw), bytes);
  EXPECT_TRUE(IsFound());
  AddSegment(own);
  EXPECT_FALSE(IsFound());
}

TEST_F(KeptJournalTest, AHoleInTheRunningNumbersIsFound) {
  Keep(kOld);
  SegmentBytes segment = NextSegment();
  segment.SkipNumbers(2);
  segment.Output(1, "more");
  AddSegment(segment);
  auto findings = Verified().findings;
  ASSERT_THAT(findings, SizeIs(1));
  EXPECT_THAT(findings[0].problem, HasSubstr("numbers of its records have a hole"));
  next_record_ += 3;
  AddSegment();
  findings = Verified().findings;
  ASSERT_THAT(findings, SizeIs(2));
  EXPECT_THAT(findings[1].problem, HasSubstr("begins with the running number"));
}

TEST_F(KeptJournalTest, ATornEndOfTheNewestSegmentIsLeftToTheDaemon) {
  Keep(kOld);
  SegmentBytes segment = NextSegment();
  segment.bytes.resize(segment.bytes.size() - 1);
  AddSegment(segment);
  EXPECT_FALSE(IsFound());
  EXPECT_EQ(0u, Keep(kOld));
  EXPECT_FALSE(exists(file(5, Form::kIndex)));
  // Nobody cuts it off any more once there is a newer one.
  --next_record_;
  AddSegment();
  EXPECT_EQ(1u, Keep(kOld));
  EXPECT_TRUE(exists(file(5, Form::kIndex)));
  const auto findings = Verified().findings;
  ASSERT_THAT(findings, SizeIs(1));
  EXPECT_EQ(39, static_cast<int>(segment.bytes.size() - *findings[0].offset));
  EXPECT_THAT(findings[0].problem, HasSubstr("39 bytes were no records when it was sealed"));
}

TEST_F(KeptJournalTest, ASegmentThatHasJustBeenBegunIsLeftAlone) {
  for (const size_t size : {0U, 1U, 63U}) {
    WriteFile(file(5, Form::kRaw), NextSegment().bytes.substr(0, size));
    EXPECT_EQ(0u, Keep(kOld));
    EXPECT_FALSE(exists(file(5, Form::kIndex)));
    EXPECT_FALSE(IsFound());
  }
}

TEST_F(KeptJournalTest, AChainThatIsDamagedIsMadeAnewAndTold) {
  Keep(kOld);
  const std::string chain = ReadFile(path() / kChainName);
  for (size_t i = 0; i < chain.size(); ++i) {
    std::string changed = chain;
    changed[i] = changed[i] == '0' ? '1' : '0';
    if (changed == chain) continue;
    WriteFile(path() / kChainName, changed);
    EXPECT_EQ(1u, Keep(kOld)) << i;
    EXPECT_EQ(chain, ReadFile(path() / kChainName)) << i;
    EXPECT_EQ(changed, ReadFile(path() / kBadChainName)) << i;
    EXPECT_THAT(told_.back(), HasSubstr("chain made anew")) << i;
    EXPECT_TRUE(IsFound());
    std::filesystem::remove(path() / kBadChainName);
    ASSERT_FALSE(IsFound()) << i;
  }
}

TEST_F(KeptJournalTest, APassThatWasEndedIsFinished) {
  Keep(kOld);
  const std::string before = ReadFile(file(2, Form::kCompressed));
  const std::string chain = ReadFile(path() / kChainName);
  // Between the compressed form and the removal of the other.
  SegmentBytes segment = NextSegment();
  AddSegment(segment);
  WriteFile(path() / ".zevkeep.tmp", "half a file");
  AddSegment();
  Keep(kOld);
  WriteFile(file(5, Form::kRaw), segment.bytes);
  EXPECT_FALSE(IsFound());
  EXPECT_EQ(0u, Keep(kOld));
  EXPECT_FALSE(exists(file(5, Form::kRaw)));
  EXPECT_FALSE(exists(path() / ".zevkeep.tmp"));
  // Between a seal and what is told of it.
  const std::string now = ReadFile(path() / kChainName);
  WriteFile(path() / kChainName,
            ChainText({ParseChain(now)->removed, {5, Verified().last_seal.hash}}));
  std::string earlier =
      ChainText({ParseChain(now)->removed,
                 {5, SegmentStore(path()).ReadIndex(SegmentBytes::kStation, 5).seal.hash}});
  WriteFile(path() / kChainName, earlier);
  told_.clear();
  EXPECT_FALSE(IsFound());
  EXPECT_EQ(0u, Keep(kOld));
  ASSERT_THAT(told_, SizeIs(1));
  EXPECT_THAT(told_[0], HasSubstr("sealed station=\"1122334455667788\" segment=\"6\""));
  EXPECT_EQ(now, ReadFile(path() / kChainName));
}

TEST_F(KeptJournalTest, NoLimitRemovesTheNewestOrWhatIsNotSealed) {
  Keep({1000, 1}, 10000);
  EXPECT_TRUE(exists(file(4, Form::kRaw)));
  EXPECT_EQ(1u, Verified().segments);
  EXPECT_FALSE(IsFound());
}

TEST_F(KeptJournalTest, WithoutTheJournalsSizeNothingIsRemoved) {
  Keep({0, 1}, 10000);
  EXPECT_EQ(4u, Verified().segments);
}

TEST_F(KeptJournalTest, AnotherVersionStopsSealing) {
  SegmentBytes segment = NextSegment();
  PutNumber(&segment.bytes[kSegmentVersionAt], static_cast<uint16_t>(kFormatVersion + 1));
  AddSegment(segment);
  AddSegment();
  EXPECT_EQ(1u, Keep());
  EXPECT_FALSE(exists(file(5, Form::kIndex)));
  EXPECT_FALSE(exists(file(6, Form::kIndex)));
}

TEST(KeeperSettingsTest, TheFirstLineOfAKeyCounts) {
  const auto limits =
      zevkeep::LimitsIn("#\nZEVD_JOURNAL=12 \nZEVD_JOURNAL=13\nZEVD_JOURNAL_DAYS=7");
  EXPECT_EQ(12u, limits.mebibytes);
  EXPECT_EQ(7u, limits.days);
  EXPECT_EQ(0u, zevkeep::LimitsIn("").mebibytes);
  EXPECT_EQ(0u, zevkeep::LimitsIn(" ZEVD_JOURNAL=12\n").mebibytes);
}

TEST(KeeperSettingsTest, WhatIsNoNumberIsRefused) {
  for (const char* text : {"", "x", "-1", "1x", "1 2", "99999999999999999999", "1099511627777"}) {
    EXPECT_THROW(zevkeep::LimitsIn(std::string("ZEVD_JOURNAL=") + text + "\n"),
                 zevkeep::SettingsError)
        << text;
  }
  EXPECT_THROW(zevkeep::LimitsIn("ZEVD_JOURNAL_DAYS=1000001\n"), zevkeep::SettingsError);
}

}  // namespace

}  // namespace journal
