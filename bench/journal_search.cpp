// How long it takes to find something in a journal: makes one, or searches one that was made.
//
//   zevd_journal_search make DIRECTORY GIB [compressed]   a day of 400 consoles, in sealed segments
//   zevd_journal_search search DIRECTORY                  each figure cold, then warm
//
// "Cold" means that the kernel has been made to forget the files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "journal/journal.h"
#include "journal_encode.h"
#include "journal_fields.h"
#include "seal.h"
#include "seekable.h"
#include "segment_index.h"
#include "segment_source.h"

namespace {

using journal::Journal;
using journal::Kind;
using journal::Query;
using journal::Record;

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kHour = 3600 * kSecond;
constexpr int64_t kBegin = 1'795'305'600 * kSecond;  // midnight
constexpr uint64_t kStation = 0x5A45564400000001;
constexpr uint64_t kSegmentSize = 64 << 20;
constexpr uint32_t kConsoles = 400;
constexpr uint32_t kQuietEach = 4;  // every fourth console prints little
constexpr int kQuietLess = 200;     // so many times less than another
constexpr int kTries = 5;

// ---- Making -------------------------------------------------------------------------------------

/// A day of the daemon's records.
class Day {
 public:
  Day(std::filesystem::path directory, uint64_t size, bool compresses)
      : directory_(std::move(directory)), size_(size), compresses_(compresses) {
    for (char& byte : text_) byte = static_cast<char>(' ' + random_() % 95);
    for (size_t end = 78; end + 1 < text_.size(); end += 80) text_.replace(end, 2, "\r\n");
  }

  void Make() {
    std::filesystem::create_directory(directory_);
    std::ofstream(directory_ / "id") << "5a45564400000001\n";
    while (written_ < size_) MakeSegment();
  }

 private:
  std::string PathOf(const char* suffix) const {
    char name[64];
    snprintf(name, sizeof name, "%020" PRIu64 "%s", segment_, suffix);
    return directory_ / name;
  }

  void Add(Kind kind, uint32_t console, std::string_view payload) {
    journal::RecordHeader header;
    header.number = number_++;
    header.wall = WallNow();
    header.console = console;
    header.kind = kind;
    char bytes[journal::kRecordHeaderSize];
    journal::EncodeRecordHeader(bytes, header, payload);
    bytes_.append(bytes, sizeof bytes);
    bytes_ += payload;
    builder_->AddRecord(header, payload);
  }

  // The day goes by as its bytes do.
  int64_t WallNow() const {
    const auto part = static_cast<double>(written_ + bytes_.size()) / static_cast<double>(size_);
    return kBegin + static_cast<int64_t>(part * 24 * static_cast<double>(kHour));
  }

  void Define(uint32_t console) {
    char room[256];
    journal::FieldWriter fields(room, sizeof room);
    fields.Add(journal::Field::kName, std::string_view("console" + std::to_string(console)));
    fields.Add(journal::Field::kAddress, "10.0.0.1");
    fields.AddNumber(journal::Field::kPort, console);
    Add(Kind::kConsole, console, {room, fields.length()});
  }

  // One turn of some console.
  void AddTurn() {
    const auto console = static_cast<uint32_t>(1 + random_() % kConsoles);
    if (console % kQuietEach == 0 && random_() % kQuietLess != 0) return;
    const size_t begin = random_() % (text_.size() / 2);
    Add(Kind::kOutput, console, std::string_view(text_).substr(begin, 80 + random_() % 2000));
  }

  void MakeSegment() {
    ++segment_;
    journal::SegmentHeader header{kStation, segment_, WallNow(), 0, 1, number_};
    const auto encoded = journal::EncodeSegmentHeader(header);
    bytes_.assign(encoded.begin(), encoded.end());
    builder_.emplace(header);
    for (uint32_t console = 1; console <= kConsoles; ++console) Define(console);
    while (bytes_.size() < kSegmentSize) AddTurn();
    Keep();
    written_ += bytes_.size();
    bytes_.clear();
  }

  void Keep() {
    const std::string index = journal::EncodeIndex(builder_->index());
    const journal::Seal seal = journal::MakeSeal({}, kStation, segment_, {}, index);
    Write(PathOf(".idx"), index + journal::EncodeSeal(seal));
    Write(PathOf(".seg"), bytes_);
    if (compresses_) Compress();
  }

  static void Write(const std::string& path, std::string_view bytes) {
    std::ofstream file(path, std::ios::binary);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file << bytes << std::flush;
  }

  void Compress() {
    const int from = open(PathOf(".seg").c_str(), O_RDONLY | O_CLOEXEC);
    const int to = open(PathOf(".seg.zst").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (from < 0 || to < 0) throw std::system_error(errno, std::generic_category());
    journal::RawSegment source(from);
    journal::WriteSeekable(source, builder_->index().blocks, to);
    close(from);
    close(to);
    std::filesystem::remove(PathOf(".seg"));
  }

  std::filesystem::path directory_;
  uint64_t size_;
  bool compresses_;
  std::mt19937 random_{1};
  std::string text_ = std::string(8000, ' ');
  uint64_t written_ = 0;
  uint64_t segment_ = 0;
  uint64_t number_ = 1;
  std::string bytes_;
  std::optional<journal::SegmentIndexBuilder> builder_;
};

// ---- Searching ----------------------------------------------------------------------------------

void Forget(const std::filesystem::path& directory) {
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const int fd = open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    fdatasync(fd);
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    close(fd);
  }
}

// Bytes that this process has asked the kernel for.
uint64_t BytesRead() {
  std::ifstream file("/proc/self/io");
  std::string word;
  uint64_t count = 0;
  file >> word >> count;
  return count;
}

class Measure {
 public:
  explicit Measure(const char* what) : what_(what) {}
  ~Measure() {
    const std::chrono::duration<double, std::milli> time = Clock::now() - begin_;
    const double read = static_cast<double>(BytesRead() - read_) / (1 << 20);
    printf("%-46s %9.2f ms %9.2f MiB read %9" PRIu64 " found\n", what_, time.count(), read, found);
  }
  Measure(const Measure&) = delete;
  Measure& operator=(const Measure&) = delete;

  uint64_t found = 0;

 private:
  using Clock = std::chrono::steady_clock;
  const char* what_;
  uint64_t read_ = BytesRead();
  Clock::time_point begin_ = Clock::now();
};

uint64_t CountOf(const Journal& journal, const Query& query, uint64_t most) {
  const auto cursor = journal.Read(query);
  uint64_t count = 0;
  for (Record record; count < most && cursor->Next(&record);) ++count;
  return count;
}

Query HourOf(const Journal& journal, const char* console, int hour) {
  Query query;
  query.consoles = journal.Find(console);
  if (query.consoles.empty()) throw std::runtime_error("the journal was made by something else");
  query.kinds = journal::KindBit(Kind::kOutput);
  query.since = kBegin + hour * kHour;
  query.until = *query.since + kHour;
  return query;
}

void SearchOnce(const Journal& journal, const std::filesystem::path& directory, bool is_cold,
                const char* what, const Query& query, uint64_t most) {
  if (is_cold) Forget(directory);
  Measure measure(what);
  measure.found = CountOf(journal, query, most);
}

void Search(const std::filesystem::path& directory, bool is_cold) {
  printf("%s\n", is_cold ? "cold:" : "warm:");
  if (is_cold) Forget(directory);
  std::optional<Measure> opening("open, with all indexes");
  const Journal journal(directory);
  opening.reset();
  constexpr uint64_t kAll = ~uint64_t{0};
  Query time;
  time.since = kBegin + 13 * kHour + kHour / 3;
  SearchOnce(journal, directory, is_cold, "first record from a time on", time, 1);
  SearchOnce(journal, directory, is_cold, "first record of a quiet console in an hour",
             HourOf(journal, "console4", 14), 1);
  SearchOnce(journal, directory, is_cold, "a quiet console's hour", HourOf(journal, "console4", 14),
             kAll);
  SearchOnce(journal, directory, is_cold, "a busy console's hour", HourOf(journal, "console5", 14),
             kAll);
  Query last = HourOf(journal, "console5", 0);
  last.since.reset();
  last.until.reset();
  last.backward = true;
  SearchOnce(journal, directory, is_cold, "a console's last 200", last, 200);
  Query nothing;
  nothing.since = kBegin + 48 * kHour;
  SearchOnce(journal, directory, is_cold, "a time that is not there", nothing, kAll);
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() >= 3 && words[0] == "make") {
    const bool compresses = words.size() > 3 && words[3] == "compressed";
    const double gibibytes = std::stod(words[2]);
    Day(words[1], static_cast<uint64_t>(gibibytes * (1 << 30)), compresses).Make();
    return 0;
  }
  if (words.size() == 2 && words[0] == "search") {
    Search(words[1], true);
    for (int i = 0; i < kTries; ++i) Search(words[1], false);
    return 0;
  }
  fprintf(stderr, "usage: %s make DIRECTORY GIB [compressed] | search DIRECTORY\n", argv[0]);
  return 2;
} catch (const std::exception& error) {
  fprintf(stderr, "%s: %s\n", argv[0], error.what());
  return 1;
}
