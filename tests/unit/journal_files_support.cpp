#include "journal_files_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "errno_support.h"
#include "journal_encode.h"
#include "seal.h"
#include "seekable.h"

namespace test {

JournalFiles::JournalFiles() {
  WriteFile(directory_.path() / "id", "1122334455667788\n");
}

std::filesystem::path JournalFiles::File(uint64_t segment, const char* suffix) const {
  char digits[21];
  snprintf(digits, sizeof digits, "%020llu", static_cast<unsigned long long>(segment));
  return directory_.path() / (std::string(digits) + suffix);
}

void JournalFiles::Put(const SegmentBytes& segment) const {
  Overwrite(Raw(segment.header.segment), segment.bytes);
}

void JournalFiles::Seal(uint64_t segment) const {
  SegmentBytes bytes(segment);
  bytes.bytes = ReadFile(Raw(segment));
  const std::string index = journal::EncodeIndex(bytes.Index());
  const auto seal = journal::MakeSeal({}, SegmentBytes::kStation, segment, {}, index);
  WriteFile(Index(segment), index + journal::EncodeSeal(seal));
}

void JournalFiles::Compress(uint64_t segment) const {
  SegmentBytes bytes(segment);
  bytes.bytes = ReadFile(Raw(segment));
  const int fd = open(Compressed(segment).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
  if (fd < 0) ThrowErrno("open");
  journal::WriteSeekable(bytes, bytes.Index().blocks, fd);
  close(fd);
  std::filesystem::remove(Raw(segment));
}

void JournalFiles::Remove(uint64_t segment) const {
  for (const auto& file : {Raw(segment), Compressed(segment), Index(segment)}) {
    std::filesystem::remove(file);
  }
}

void Overwrite(const std::filesystem::path& path, std::string_view content) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
  if (fd < 0) ThrowErrno("open");
  const ssize_t count = pwrite(fd, content.data(), content.size(), 0);
  const bool is_done = count == static_cast<ssize_t>(content.size()) && ftruncate(fd, count) == 0;
  close(fd);
  if (!is_done) ThrowErrno("pwrite");
}

void EncodeHeaderOf(SegmentBytes& segment) {
  const auto header = journal::EncodeSegmentHeader(segment.header);
  std::copy(header.begin(), header.end(), segment.bytes.begin());
}

SegmentBytes SegmentOfRun(uint64_t run, uint64_t segment, uint64_t first_record) {
  SegmentBytes bytes(segment, first_record);
  bytes.header.run = run;
  EncodeHeaderOf(bytes);
  return bytes;
}

Strings ReadRest(journal::Cursor& cursor) {
  Strings payloads;
  for (journal::Record record; cursor.Next(&record);) payloads.emplace_back(record.payload);
  return payloads;
}

Strings ReadOutput(const journal::Journal& journal, journal::Query query) {
  query.kinds = journal::KindBit(journal::Kind::kOutput);
  return ReadRest(*journal.Read(query));
}

Strings Damages(const journal::Cursor& cursor) {
  Strings damages;
  for (const journal::Damage& damage : cursor.damages()) {
    damages.push_back(std::to_string(damage.position.segment) + ':' +
                      std::to_string(damage.position.offset) + '+' + std::to_string(damage.bytes) +
                      ' ' + damage.reason);
  }
  return damages;
}

journal::Position At(uint64_t segment, uint64_t offset) {
  return {SegmentBytes::kStation, segment, offset};
}

}  // namespace test
