#include "journal_settings.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "error.h"
#include "paths.h"
#include "safe_file.h"
#include "suite_config.h"

namespace zevd {

namespace {

constexpr char kJournal[] = "Journal";
constexpr uint64_t kMostMebibytes = uint64_t{1} << 40;
constexpr uint64_t kMostDays = 1'000'000;

bool TakeNumber(std::string_view text, uint64_t most, uint64_t* number) {
  uint64_t value = 0;
  const auto [stop, error] = std::from_chars(text.begin(), text.end(), value);
  if (error != std::errc() || stop != text.end() || value > most) return false;
  *number = value;
  return true;
}

bool TakeInput(std::string_view text, JournalInput* input) {
  if (text != "length" && text != "all") return false;
  *input = text == "all" ? JournalInput::kAll : JournalInput::kLength;
  return true;
}

/// One row for each key.
struct KeyRow {
  const char* key;
  const char* wanted;
  bool (*take)(std::string_view value, JournalSettings* settings);
};

constexpr KeyRow kKeys[] = {
    {"ZEVD_JOURNAL=", "a number of MiB, or 0 for no journal",
     [](std::string_view value, JournalSettings* settings) {
       return TakeNumber(value, kMostMebibytes, &settings->mebibytes);
     }},
    {"ZEVD_JOURNAL_DAYS=", "a number of days",
     [](std::string_view value, JournalSettings* settings) {
       return TakeNumber(value, kMostDays, &settings->days);
     }},
    {"ZEVD_JOURNAL_INPUT=", "\"length\" or \"all\"",
     [](std::string_view value, JournalSettings* settings) {
       return TakeInput(value, &settings->input);
     }},
};

// Without the line's end and the blanks before it.
std::string_view Trimmed(const char* value) {
  std::string_view text = value;
  const size_t last = text.find_last_not_of(" \t\r\n");
  return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

// False when the value is bad, which is reported.
bool Take(const KeyRow& row, const char* value, JournalSettings* settings) {
  const std::string_view text = Trimmed(value);
  if (row.take(text, settings)) return true;
  DEBUG_AS(kJournal, kError, "%s%.*s is not %s: the settings of the journal stay as they were.\n",
           row.key, static_cast<int>(text.size()), text.data(), row.wanted);
  return false;
}

bool TakeLines(FILE* file, JournalSettings* settings) {
  bool is_set[std::size(kKeys)] = {};
  SuiteConfigLines lines(file);
  while (lines.Next()) {
    for (size_t i = 0; i < std::size(kKeys); ++i) {
      const char* value = is_set[i] ? nullptr : lines.ValueOf(kKeys[i].key);
      if (value == nullptr) continue;
      is_set[i] = true;
      if (!Take(kKeys[i], value, settings)) return false;
    }
  }
  return true;
}

}  // namespace

bool ReadJournalSettings(JournalSettings* settings) {
  ENTERING();
  const int fd = OpenRegularFile(AT_FDCWD, kSuiteConfigFile, O_RDONLY);
  FILE* file = fd == -1 ? nullptr : fdopen(fd, "r");
  if (file == nullptr) {
    DEBUG_AS(kJournal, kError, "fopen( \"%s\", ...) failed : %s\n", kSuiteConfigFile,
             strerror(errno));
    if (fd != -1) close(fd);
    return false;
  }
  JournalSettings read;
  const bool is_good = TakeLines(file, &read);
  fclose(file);
  if (is_good) *settings = read;
  return is_good;
}

}  // namespace zevd
