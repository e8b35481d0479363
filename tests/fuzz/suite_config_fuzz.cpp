// The suite configuration file: the setting is taken or replaced, and every other byte, which is
// somebody else's, stays as it is.
//
// An input is a line with the options ('w': the command line has given a value; then its days as a
// letter) and the file.
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "archive_time.h"
#include "fuzz.h"
#include "options.h"

using namespace zevd;

namespace {

constexpr char kFile[] = "root/config/qor.conf";
constexpr std::string_view kKey = "ZEVD_ARCH_INT=";
constexpr int32_t kSecondsPerDay = 86400;

std::vector<std::string> Lines(std::string_view content) {
  std::vector<std::string> lines;
  while (!content.empty()) {
    const size_t end = content.find('\n');
    lines.emplace_back(content.substr(0, end == std::string_view::npos ? end : end + 1));
    content.remove_prefix(lines.back().size());
  }
  return lines;
}

bool IsSetting(const std::string& line) {
  return line.substr(0, kKey.size()) == kKey;
}

/// The file and the interval afterwards.
struct Outcome {
  std::string content;
  int32_t seconds;
  int pending;
};

Outcome Expect(std::string_view content, int32_t seconds, bool given) {
  Outcome outcome{"", seconds, given ? 1 : 0};
  bool found = false;
  for (const std::string& line : Lines(content)) {
    if (!IsSetting(line)) {
      outcome.content += line;
      continue;
    }
    const auto days = static_cast<uint32_t>(atoi(line.c_str() + kKey.size()));
    if (!given && !found) outcome.seconds = static_cast<int32_t>(days * kSecondsPerDay);
    outcome.content +=
        given ? std::string(kKey) + std::to_string(seconds / kSecondsPerDay) + "\n" : line;
    found = true;
  }
  if (found) outcome.pending = 0;
  return outcome;
}

struct stat Status() {
  struct stat status {};
  REQUIRE(stat(kFile, &status) == 0);
  return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::SetUp();
  fuzz::Input input(data, size);
  const std::string_view options = input.TakeLine();
  const bool given = fuzz::Has(options, 'w');
  const std::string_view content = input.TakeRest();
  fuzz::WriteFile(kFile, content);
  const int32_t seconds = (options.empty() ? 7 : options.back()) * 70000;
  const Outcome expected = Expect(content, seconds, given);

  log_archive_time = seconds;
  USE_CMD_LINE_ARCH_TIME = given ? 1 : 0;
  const struct stat before = Status();
  GetZevdArchIntFromConfFile();
  REQUIRE_EQUAL(fuzz::ReadFile(kFile), expected.content);
  REQUIRE_EQUAL(log_archive_time, expected.seconds);
  REQUIRE_EQUAL(USE_CMD_LINE_ARCH_TIME, expected.pending);
  const struct stat after = Status();
  REQUIRE_EQUAL(after.st_ino, before.st_ino);
  REQUIRE_EQUAL(after.st_mode, before.st_mode);
  return 0;
}
