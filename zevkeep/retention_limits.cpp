#include "retention_limits.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "segment_store.h"

namespace zevkeep {

namespace {

constexpr off_t kMostBytes = 1 << 20;

struct Key {
  std::string_view name;
  uint64_t Limits::*value;
  uint64_t most;
  const char* unit;
};
constexpr Key kKeys[] = {
    {"ZEVD_JOURNAL=", &Limits::mebibytes, uint64_t{1} << 40, "MiB"},
    {"ZEVD_JOURNAL_DAYS=", &Limits::days, 1'000'000, "days"},
};

uint64_t ValueOf(const Key& key, std::string_view text) {
  while (!text.empty() && strchr(" \t\r", text.back()) != nullptr) text.remove_suffix(1);
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > key.most) {
    throw SettingsError(std::string(key.name) + " is not followed by a number of " + key.unit +
                        "; write one up to " + std::to_string(key.most));
  }
  return value;
}

}  // namespace

Limits LimitsIn(std::string_view text) {
  Limits limits;
  bool found[std::size(kKeys)] = {};
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    for (size_t i = 0; i < std::size(kKeys); ++i) {
      if (found[i] || !line.starts_with(kKeys[i].name)) continue;
      found[i] = true;
      limits.*kKeys[i].value = ValueOf(kKeys[i], line.substr(kKeys[i].name.size()));
    }
  }
  return limits;
}

Limits ReadLimits(const std::string& path) {
  const journal::StoredFile file(
      open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file && errno == ENOENT) return {};
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0) {
    throw SettingsError(path + " cannot be read: " + strerror(errno));
  }
  if (!S_ISREG(info.st_mode) || info.st_size > kMostBytes) {
    throw SettingsError(path + " is no file of settings; put one in its place");
  }
  std::string text(static_cast<size_t>(info.st_size), '\0');
  journal::RawSegment source(file.get());
  text.resize(source.ReadAt(0, text));
  try {
    return LimitsIn(text);
  } catch (const SettingsError& error) {
    throw SettingsError(path + ": " + error.what());
  }
}

}  // namespace zevkeep
