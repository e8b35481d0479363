// Compressed segments: every byte can be read from any place, and any damage is told.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <random>
#include <string>

#include "file_support.h"
#include "journal_support.h"
#include "seekable.h"

namespace journal {

namespace {

using ::test::SegmentBytes;
using ::testing::SizeIs;

class SeekableTest : public ::testing::Test {
 protected:
  std::filesystem::path path() const { return directory_.path() / "segment.zst"; }

  std::string Compress(SegmentBytes& segment) const {
    const int to = open(path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const uint64_t written = WriteSeekable(segment, segment.Index().blocks, to);
    close(to);
    std::string file = test::ReadFile(path());
    EXPECT_EQ(file.size(), written);
    return file;
  }

  /// Everything that a compressed file unpacks to. Throws SeekableError.
  std::string Unpack(std::string_view file) const {
    test::WriteFile(path(), file);
    const int fd = open(path().c_str(), O_RDONLY | O_CLOEXEC);
    try {
      SeekableSegment segment(fd);
      std::string bytes(segment.Size(), '\0');
      EXPECT_EQ(bytes.size(), segment.ReadAt(0, bytes));
      close(fd);
      return bytes;
    } catch (...) {
      close(fd);
      throw;
    }
  }

  static SegmentBytes Small() {
    SegmentBytes segment;
    segment.Define(1, "web");
    segment.Output(1, "login: ");
    segment.Output(1, std::string(200, 'x'));
    return segment;
  }

  static SegmentBytes Large() {
    SegmentBytes segment;
    std::minstd_rand random(1);  // NOLINT(cert-msc51-cpp): the same bytes each time
    for (int i = 0; i < 30; ++i) {
      std::string text(50000, '\0');
      for (char& one : text) one = static_cast<char>('a' + random() % 8);
      segment.Output(1, text);
    }
    return segment;
  }

 private:
  test::TemporaryDirectory directory_;
};

TEST_F(SeekableTest, GivesBackTheSegment) {
  SegmentBytes segment = Large();
  const std::string file = Compress(segment);
  EXPECT_LT(file.size(), segment.bytes.size());
  EXPECT_EQ(segment.bytes, Unpack(file));
}

TEST_F(SeekableTest, EachFrameIsABlock) {
  SegmentBytes segment = Large();
  Compress(segment);
  const auto blocks = segment.Index().blocks;
  const int fd = open(path().c_str(), O_RDONLY | O_CLOEXEC);
  SeekableSegment compressed(fd);
  ASSERT_THAT(compressed.frames(), SizeIs(blocks.size()));
  for (size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_EQ(blocks[i].offset, compressed.frames()[i].offset);
    EXPECT_EQ(blocks[i].length, compressed.frames()[i].length);
  }
  close(fd);
}

TEST_F(SeekableTest, ReadsFromAnyPlace) {
  SegmentBytes segment = Large();
  Compress(segment);
  const int fd = open(path().c_str(), O_RDONLY | O_CLOEXEC);
  SeekableSegment compressed(fd);
  std::minstd_rand random(2);  // NOLINT(cert-msc51-cpp): the same places each time
  for (int i = 0; i < 200; ++i) {
    const size_t offset = random() % (segment.bytes.size() + 100);
    std::string room(random() % 400000, '\0');
    room.resize(compressed.ReadAt(offset, room));
    const size_t begin = std::min(offset, segment.bytes.size());
    EXPECT_EQ(segment.bytes.substr(begin, room.size()), room);
    EXPECT_TRUE(!room.empty() || offset >= segment.bytes.size());
  }
  close(fd);
}

TEST_F(SeekableTest, AnySegmentThatIsAllDamageIsKeptToo) {
  SegmentBytes segment;
  segment.bytes = "no segment at all";
  EXPECT_EQ(segment.bytes, Unpack(Compress(segment)));
  segment.bytes.clear();
  EXPECT_EQ("", Unpack(Compress(segment)));
}

TEST_F(SeekableTest, AnyByteThatIsChangedIsTold) {
  SegmentBytes segment = Small();
  const std::string file = Compress(segment);
  for (size_t i = 0; i < file.size(); ++i) {
    for (const int bits : {0x01, 0x10, 0x80, 0xFF}) {
      std::string changed = file;
      changed[i] = static_cast<char>(changed[i] ^ bits);
      EXPECT_THROW(Unpack(changed), SeekableError) << "byte " << i << ", bits " << bits;
    }
  }
}

TEST_F(SeekableTest, AnyCutIsTold) {
  SegmentBytes segment = Small();
  const std::string file = Compress(segment);
  for (size_t size = 0; size < file.size(); ++size) {
    EXPECT_THROW(Unpack(file.substr(0, size)), SeekableError) << size;
  }
  EXPECT_THROW(Unpack(file + '\0'), SeekableError);
}

TEST_F(SeekableTest, ADamagedFrameLeavesTheOthersReadable) {
  SegmentBytes segment = Large();
  std::string file = Compress(segment);
  file[10] = static_cast<char>(file[10] ^ 1);
  test::WriteFile(path(), file);
  const int fd = open(path().c_str(), O_RDONLY | O_CLOEXEC);
  SeekableSegment compressed(fd);
  EXPECT_THROW(compressed.Unpack(0), SeekableError);
  const Frame& second = compressed.frames().at(1);
  EXPECT_EQ(segment.bytes.substr(second.offset, second.length), compressed.Unpack(1));
  close(fd);
}

}  // namespace

}  // namespace journal
