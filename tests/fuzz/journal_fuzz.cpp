// Journals as readers see them: whatever their files hold, reading ends, each record that is found
// has a sound checksum, both directions and all queries find the same records, and a journal that
// grows piece by piece gives what the whole of it gives.
//
// An input is a line of letters, one for each file: 'r' the next segment, 'i' the index of the
// segment before, 'z' the next segment compressed, 'd' the file "id"; a line with the sizes of the
// files; a line with the sizes of the pieces in which the last segment grows; the files.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ios>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "journal/journal.h"
#include "journal_encode.h"

using namespace zevd;

namespace {

using journal::Cursor;
using journal::Journal;
using journal::JournalError;
using journal::Query;
using journal::Record;

constexpr char kDirectory[] = "journal";
constexpr size_t kMostFiles = 12;

struct File {
  std::string path;
  std::string_view bytes;
};

// What a test compares of a record.
struct Found {
  journal::Position position;
  journal::Position next;
  journal::RecordHeader header;
  std::optional<size_t> console;
  std::string payload;
};

std::string PathOf(uint64_t segment, const char* suffix) {
  char name[64];
  snprintf(name, sizeof name, "%s/%020llu%s", kDirectory, static_cast<unsigned long long>(segment),
           suffix);
  return name;
}

// As many of the bytes as the next number of a line says.
std::string_view TakePart(std::string_view& sizes, std::string_view& bytes) {
  size_t size = 0;
  const auto [stop, error] = std::from_chars(sizes.data(), sizes.data() + sizes.size(), size);
  sizes.remove_prefix(static_cast<size_t>(stop - sizes.data()));
  if (!sizes.empty()) sizes.remove_prefix(1);
  if (error != std::errc()) size = bytes.size();
  const std::string_view part = bytes.substr(0, size);
  bytes.remove_prefix(part.size());
  return part;
}

std::vector<File> TakeFiles(std::string_view letters, std::string_view sizes,
                            std::string_view bytes) {
  std::vector<File> files;
  uint64_t segment = 0;
  for (const char letter : letters.substr(0, kMostFiles)) {
    const char* suffix = letter == 'r' ? ".seg" : letter == 'z' ? ".seg.zst" : ".idx";
    if (letter == 'r' || letter == 'z') ++segment;
    const std::string path = letter == 'd' ? "journal/id" : PathOf(segment, suffix);
    files.push_back({path, TakePart(sizes, bytes)});
  }
  return files;
}

std::unique_ptr<Journal> Open() {
  try {
    return std::make_unique<Journal>(kDirectory);
  } catch (const JournalError& error) {
    REQUIRE(*error.what() != '\0');
    return nullptr;
  }
}

void CheckSound(const Record& record) {
  char header[journal::kRecordHeaderSize];
  journal::EncodeRecordHeader(header, record.header, record.payload);
  std::string bytes(header, sizeof header);
  bytes += record.payload;
  const auto decoded = journal::DecodeRecord(bytes);
  REQUIRE(decoded && decoded->checksum == record.header.checksum);
  REQUIRE_EQUAL(record.header.length, bytes.size());
  REQUIRE_EQUAL(record.next.offset - record.position.offset, bytes.size());
}

void ReadRest(Cursor& cursor, std::vector<Found>* found) {
  for (Record record; cursor.Next(&record);) {
    CheckSound(record);
    found->push_back(
        {record.position, record.next, record.header, record.console, std::string(record.payload)});
  }
}

std::vector<Found> Read(const Journal& journal, const Query& query) {
  std::vector<Found> found;
  const auto cursor = journal.Read(query);
  ReadRest(*cursor, &found);
  for (const auto& damage : cursor->damages()) REQUIRE(!damage.reason.empty());
  return found;
}

std::vector<std::string> Places(const std::vector<Found>& found) {
  std::vector<std::string> places;
  places.reserve(found.size());
  for (const Found& one : found) places.push_back(journal::PositionText(one.position));
  return places;
}

// The records of all that a query wants.
std::vector<Found> Wanted(std::vector<Found> all, const Query& query) {
  std::erase_if(all, [&](const Found& one) {
    const bool is_wanted_console = query.consoles.empty() || one.console == query.consoles.front();
    const bool is_in_time = (!query.since || one.header.wall >= *query.since) &&
                            (!query.until || one.header.wall <= *query.until);
    const bool is_behind = !query.from || one.position >= *query.from;
    return !is_wanted_console || !is_in_time || !is_behind;
  });
  return all;
}

void CheckQuery(const Journal& journal, const std::vector<Found>& all, Query query) {
  REQUIRE_EQUAL(Places(Read(journal, query)), Places(Wanted(all, query)));
}

void CheckQueries(const Journal& journal, const std::vector<Found>& all) {
  for (size_t id = 0; id < std::min<size_t>(journal.consoles().size(), 4); ++id) {
    Query query;
    query.consoles = {id};
    CheckQuery(journal, all, query);
  }
  for (size_t place = 0; place < all.size(); place += 1 + all.size() / 8) {
    Query query;
    query.from = all[place].position;
    CheckQuery(journal, all, query);
    query.from = all[place].next;
    CheckQuery(journal, all, query);
    query.from.reset();
    query.since = all[place].header.wall;
    CheckQuery(journal, all, query);
    query.until = query.since;
    CheckQuery(journal, all, query);
  }
}

void CheckWhole(const std::vector<File>& files) {
  const auto journal = Open();
  if (!journal) return;
  const std::vector<Found> all = Read(*journal, {});
  for (size_t i = 1; i < all.size(); ++i) REQUIRE(all[i - 1].next <= all[i].position);
  Query query;
  query.backward = true;
  std::vector<Found> reversed = Read(*journal, query);
  std::reverse(reversed.begin(), reversed.end());
  REQUIRE_EQUAL(Places(reversed), Places(all));
  for (const auto& console : journal->consoles()) {
    const auto ids = journal->Find(console.name());
    REQUIRE(std::count(ids.begin(), ids.end(), console.id) == 1);
  }
  // An index with a good checksum may say that something is not where it is.
  const bool has_index = std::any_of(files.begin(), files.end(),
                                     [](const File& file) { return file.path.ends_with(".idx"); });
  if (!has_index) CheckQueries(*journal, all);
}

// The last file comes piece by piece: a reader who was there from the start finds all of it.
void CheckGrowing(const std::vector<File>& files, std::string_view sizes) {
  const auto whole = Open();
  if (!whole || !files.back().path.ends_with(".seg")) return;
  const std::vector<Found> all = Read(*whole, {});
  fuzz::WriteFile(files.back().path.c_str(), "");
  const auto journal = Open();
  REQUIRE(journal != nullptr);
  const auto cursor = journal->Read({});
  std::vector<Found> found;
  ReadRest(*cursor, &found);
  std::ofstream growing(files.back().path, std::ios::binary | std::ios::app);
  for (const std::string_view piece : fuzz::Cut(files.back().bytes, sizes)) {
    growing << piece << std::flush;
    REQUIRE(growing.good());
    journal->Refresh();
    ReadRest(*cursor, &found);
  }
  REQUIRE_EQUAL(Places(found), Places(all));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::SetUp();
  fuzz::Input input(data, size);
  const std::string_view letters = input.TakeLine();
  const std::string_view lengths = input.TakeLine();
  const std::string_view pieces = input.TakeLine();
  const std::vector<File> files = TakeFiles(letters, lengths, input.TakeRest());
  if (files.empty()) return 0;
  std::filesystem::remove_all(kDirectory);
  std::filesystem::create_directory(kDirectory);
  for (const File& file : files) fuzz::WriteFile(file.path.c_str(), file.bytes);
  CheckWhole(files);
  CheckGrowing(files, pieces.substr(0, 64));
  return 0;
}
