// Compressed logs: what is written is read again, from any place, and damage costs little.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "log_compressed.h"
#include "log_packing.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr size_t kFrameText = size_t{256} << 10;

std::string Contents(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Each at a time of its own, as damage is told once of each file.
void Write(const std::filesystem::path& path, const std::string& bytes) {
  static int times = 0;
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  std::filesystem::last_write_time(
      path, std::filesystem::file_time_type::clock::now() + std::chrono::seconds(++times));
}

class CompressedLogTest : public LogFilesTest {
 protected:
  /// Compresses the log "box" in the directory "a", and removes the original.
  void Compress() const {
    const Descriptor from(open(log("a", "box").c_str(), O_RDONLY | O_CLOEXEC));
    const Descriptor to(open(packed().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const auto size = static_cast<off_t>(std::filesystem::file_size(log("a", "box")));
    const off_t written = WriteCompressed(from.get(), size, to.get());
    EXPECT_EQ(static_cast<off_t>(std::filesystem::file_size(packed())), written);
    std::filesystem::remove(log("a", "box"));
  }

  std::filesystem::path packed() const { return dated() / "a" / "box.log.zst"; }

  std::string Read(off_t position, size_t size) const {
    const Descriptor file(open(packed().c_str(), O_RDONLY | O_CLOEXEC));
    CompressedLog text(file.get(), "box");
    std::string bytes(size, '\0');
    bytes.resize(text.ReadAt(position, bytes));
    return bytes;
  }

  /// A text of some frames that does not compress well, in lines.
  static std::string Text() {
    std::minstd_rand random(1);  // NOLINT(cert-msc51-cpp): the same text each time
    std::string text;
    for (int second = 0; text.size() < 3 * kFrameText; ++second) {
      std::string line(random() % 300, ' ');
      std::generate(line.begin(), line.end(),
                    [&] { return static_cast<char>('!' + random() % 90); });
      text += Stamped(second % 3600, line + "\n");
    }
    return text;
  }
};

TEST_F(CompressedLogTest, IsReadFromAnyPlace) {
  const std::string text = Text();
  Append("a", "box", text);
  Compress();
  EXPECT_LT(std::filesystem::file_size(packed()), text.size());
  EXPECT_TRUE(Read(0, text.size() + 1) == text);
  for (const size_t place : {size_t{1}, kFrameText - 1, kFrameText, 2 * kFrameText + 77}) {
    EXPECT_EQ(Read(static_cast<off_t>(place), 1000), text.substr(place, 1000));
  }
  EXPECT_EQ(Read(static_cast<off_t>(text.size()) - 5, 10), text.substr(text.size() - 5));
  EXPECT_EQ(Read(static_cast<off_t>(text.size()), 10), "");
}

TEST_F(CompressedLogTest, KeepsATextWithoutLineEnds) {
  const std::string text(kFrameText + 1000, 'x');
  Append("a", "box", text);
  Compress();
  EXPECT_TRUE(Read(0, text.size() + 1) == text);
}

TEST_F(CompressedLogTest, HasTheSameRecordsAsTheOriginal) {
  const std::string text = Text();
  Append("a", "box", text);
  Append("b", "box", Stamped(3600, "later\n"));
  const auto read = [this] {
    LogReaders readers = Open({"box"});
    return ReadAll(readers);
  };
  const auto read_since = [this](time_t since) {
    LogReaders readers = Open({"box"});
    for (const auto& reader : readers) reader->SkipBefore(since);
    return ReadAll(readers);
  };
  const Texts all = read();
  const Texts last = ReadLast({"box"}, 1500);
  const Texts since = read_since(kNow + 3 * kHour);
  Compress();
  EXPECT_TRUE(read() == all);
  EXPECT_TRUE(ReadLast({"box"}, 1500) == last);
  EXPECT_TRUE(read_since(kNow + 3 * kHour) == since);
  EXPECT_THAT(ReadLast({"box"}, 1), ElementsAre("later"));
}

TEST_F(CompressedLogTest, LosesOneFrameToDamage) {
  const std::string text = Text();
  Append("a", "box", text);
  Compress();
  std::string bytes = Contents(packed());
  bytes[bytes.size() / 2] = static_cast<char>(~bytes[bytes.size() / 2]);
  Write(packed(), bytes);
  ::testing::internal::CaptureStderr();
  LogReaders readers = Open({"box"});
  const Texts found = ReadAll(readers);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("zevctl: the compressed log of box is damaged at byte "));
  // Whole records are missing, in one place.
  Append("b", "box", text);
  std::filesystem::remove(packed());
  LogReaders whole = Open({"box"});
  const Texts expected = ReadAll(whole);
  ASSERT_LT(found.size(), expected.size());
  ASSERT_GT(found.size(), expected.size() / 2);
  const auto [in_found, in_expected] =
      std::mismatch(found.begin(), found.end(), expected.begin(), expected.end());
  EXPECT_GT(in_found - found.begin(), 100);
  EXPECT_TRUE(std::equal(in_found, found.end(), expected.end() - (found.end() - in_found)));
}

TEST_F(CompressedLogTest, HasItsLastRecordsDespiteDamageBeforeThem) {
  const std::string text = Text();
  Append("a", "box", text + Stamped(3600, "last\n"));
  Compress();
  std::string bytes = Contents(packed());
  bytes[bytes.size() / 2] = static_cast<char>(~bytes[bytes.size() / 2]);
  Write(packed(), bytes);
  ::testing::internal::CaptureStderr();
  EXPECT_THAT(ReadLast({"box"}, 1), ElementsAre("last"));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ::testing::internal::CaptureStderr();
  const Texts most = ReadLast({"box"}, 4000);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("is damaged"));
  EXPECT_EQ(most.back(), "last");
}

TEST_F(CompressedLogTest, IsReadAsFarAsItIsThere) {
  const std::string text = Stamped(0, "one\n");
  Append("a", "box", text);
  Compress();
  const std::string bytes = Contents(packed());
  for (size_t size = 0; size < bytes.size(); ++size) {
    Write(packed(), bytes.substr(0, size));
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(Read(0, 100), "") << size;
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(said.empty(), size == 0) << size << said;
    Write(packed(), bytes + bytes.substr(0, size));
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(Read(0, 100), text) << size;
    ::testing::internal::GetCapturedStderr();
  }
}

TEST_F(CompressedLogTest, ComplainsOnceOfEachFile) {
  Append("a", "box", "1\n");
  Compress();
  Write(packed(), "no archive");
  ::testing::internal::CaptureStderr();
  Read(0, 100);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("is damaged at byte 0"));
  ::testing::internal::CaptureStderr();
  Read(0, 100);
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
}

TEST_F(CompressedLogTest, SurvivesAnyDamagedByte) {
  const std::string text = Stamped(0, "one\n") + Stamped(0, "two\n");
  Append("a", "box", text);
  Compress();
  const std::string bytes = Contents(packed());
  for (size_t place = 0; place < bytes.size(); ++place) {
    for (const int change : {1, 0x20, 0x80, 0xff}) {
      std::string damaged = bytes;
      damaged[place] = static_cast<char>(damaged[place] ^ change);
      Write(packed(), damaged);
      ::testing::internal::CaptureStderr();
      const std::string found = Read(0, 1000);
      const std::string said = ::testing::internal::GetCapturedStderr();
      // Some bits mean nothing to the format.
      EXPECT_TRUE(found == text || (found.empty() && !said.empty())) << place << " " << change;
    }
  }
}

TEST_F(CompressedLogTest, IsNotReadBesideItsOriginal) {
  Append("a", "box", Stamped(0, "1\n"));
  const auto time = std::filesystem::last_write_time(log("a", "box"));
  Compress();
  Append("a", "box", Stamped(0, "1\n"));
  std::filesystem::last_write_time(log("a", "box"), time);
  std::filesystem::last_write_time(packed(), time);
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1"));
  // The directory's name came round again, and the daemon began another log.
  Write(log("a", "box"), Stamped(9, "2\n"));
  std::filesystem::last_write_time(log("a", "box"), time + std::chrono::hours(1));
  readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1", "2"));
}

TEST_F(CompressedLogTest, IsComparedWithItsOriginal) {
  Append("a", "box", Text());
  std::filesystem::copy(log("a", "box"), dated() / "copy");
  Compress();
  const Descriptor file(open(packed().c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor copy(open((dated() / "copy").c_str(), O_RDWR | O_CLOEXEC));
  const auto size = static_cast<off_t>(std::filesystem::file_size(dated() / "copy"));
  EXPECT_TRUE(HasSameText(file.get(), "box", copy.get(), size));
  EXPECT_FALSE(HasSameText(file.get(), "box", copy.get(), size - 1));
  ASSERT_EQ(pwrite(copy.get(), "\x01", 1, size / 2), 1);
  EXPECT_FALSE(HasSameText(file.get(), "box", copy.get(), size));
}

TEST_F(CompressedLogTest, CannotBeMadeOfMoreThanThereIs) {
  Append("a", "box", "text\n");
  const Descriptor from(open(log("a", "box").c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor to(open(packed().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  EXPECT_THROW(WriteCompressed(from.get(), 6, to.get()), Failure);
  EXPECT_THROW(WriteCompressed(from.get(), 5, from.get()), Failure);
}

}  // namespace

}  // namespace zevctl
