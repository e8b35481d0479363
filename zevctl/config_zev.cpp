#include "config_zev.h"

#include <nettle/sha2.h>

#include <array>
#include <cstdint>
#include <cstdio>

namespace zevctl {

namespace {

constexpr size_t kLongestLine = 8191;  // what the daemon reads at once, the line end included
constexpr char kMark[] =
    "# Written by \"zevctl config apply\" from consoles.toml; change that file. sha256=";

// ---- Reading ------------------------------------------------------------------------------------

/// One line, taken apart as the daemon does it: a field begins behind all blanks before it and ends
/// at the next one, which is skipped with it.
class LineReader {
 public:
  LineReader(std::string_view line, const std::string& file, size_t number, Findings& findings)
      : line_(line), file_(file), number_(number), findings_(findings) {}

  /// Nothing for a comment, an empty line, or a line that the daemon leaves out or takes wrongly.
  std::optional<ConfigConsole> Read() {
    if (IsSkipped()) return {};
    if (!CheckBytes()) return {};
    ConfigConsole console;
    for (size_t field = kFieldName; field < kConfigFieldCount; ++field) {
      const bool taken = field == kFieldOs ? TakeOs(console) : Take(console, field);
      if (!taken) return {};
    }
    CheckEnd();
    return console;
  }

 private:
  bool IsSkipped() const {
    const size_t first = line_.find_first_not_of(' ');
    return first == std::string_view::npos || line_[first] == '#' || line_[first] == '\n';
  }

  bool CheckBytes() {
    if (line_.size() > kLongestLine) {
      Error(kLongestLine, "the line is longer than 8191 bytes, and the daemon reads it as two",
            "shorten it");
      return false;
    }
    if (line_.find('\0') != std::string_view::npos) {
      Error(line_.find('\0'), "a NUL byte ends the line for the daemon", "remove it");
      return false;
    }
    if (line_.find('\r') != std::string_view::npos) {
      Error(line_.find('\r'), "a carriage return in the line",
            "save the file with plain line feeds as line ends");
      return false;
    }
    if (line_.find('\t') == std::string_view::npos) return true;
    Error(line_.find('\t'), "a tab, which does not separate fields", "use blanks");
    return false;
  }

  bool Take(ConfigConsole& console, size_t field) {
    while (at_ < line_.size() && line_[at_] == ' ') ++at_;
    if (at_ == line_.size() || line_[at_] == '\n') return Missing(field);
    const size_t end = line_.find_first_of(" \n", at_);
    return TakeUntil(console, field, end == std::string_view::npos ? line_.size() : end);
  }

  bool TakeUntil(ConfigConsole& console, size_t field, size_t end) {
    console.fields[field] = {std::string(line_.substr(at_, end - at_)), Here()};
    ended_by_newline_ = end < line_.size() && line_[end] == '\n';
    at_ = end < line_.size() ? end + 1 : end;
    if (!ended_by_newline_ || field == kFieldEventsFile) return true;
    at_ = end;
    return Missing(field + 1);
  }

  bool Missing(size_t field) {
    const std::string title = kConfigFieldTitles[field];
    Error(at_, "the " + title + " is missing, and the daemon leaves the line out",
          "a line has 13 fields; add field " + std::to_string(field + 1));
    return false;
  }

  // Here the daemon looks for quotes instead of blanks.
  bool TakeOs(ConfigConsole& console) {
    if (at_ == line_.size() || line_[at_] == '\n') return Missing(kFieldOs);
    if (line_[at_] == ' ') {
      Error(at_, "more than one blank before the OS type, which the daemon then takes for it",
            "leave exactly one");
      return false;
    }
    if (line_[at_] != '"') {
      Error(at_, "the OS type is not in quotes, and the daemon takes the rest of the line for it",
            "put it in double quotes");
      return false;
    }
    const size_t begin = at_ + 1;
    const size_t end = line_.find('"', begin);
    if (end == std::string_view::npos) {
      Error(at_, "the OS type has no closing quote", "add it");
      return false;
    }
    if (end == begin) {
      Error(at_, "the OS type is empty, and the daemon takes what follows for it",
            "write something between the quotes, such as \"-\"");
      return false;
    }
    console.fields[kFieldOs] = {std::string(line_.substr(begin, end - begin)), Here()};
    at_ = end + 1;
    return true;
  }

  void CheckEnd() {
    if (ended_by_newline_) {
      Error(at_ - 1, "the line does not end in a blank, and so its end belongs to the event file",
            "add a blank at the end of the line");
      return;
    }
    const size_t more = line_.find_first_not_of(" \n", at_);
    if (more == std::string_view::npos) return;
    findings_.Warning({file_, number_, more + 1}, "what follows field 13 is ignored", "remove it");
  }

  Place Here() const { return {file_, number_, at_ + 1}; }

  void Error(size_t at, const std::string& what, const std::string& mend) {
    findings_.Error({file_, number_, at + 1}, what, mend);
  }

  std::string_view line_;  // with its line end
  const std::string& file_;
  size_t number_;
  Findings& findings_;
  size_t at_ = 0;
  bool ended_by_newline_ = false;
};

// ---- Writing ------------------------------------------------------------------------------------

std::string Hash(std::string_view text) {
  sha256_ctx context;
  sha256_init(&context);
  sha256_update(&context, text.size(), reinterpret_cast<const uint8_t*>(text.data()));
  std::array<uint8_t, SHA256_DIGEST_SIZE> digest{};
  sha256_digest(&context, digest.size(), digest.data());
  std::string hash;
  for (const uint8_t byte : digest) {
    std::array<char, 3> digits{};
    snprintf(digits.data(), digits.size(), "%02x", byte);
    hash += digits.data();
  }
  return hash;
}

std::string_view NextLine(std::string_view& rest) {
  const size_t end = rest.find('\n');
  const std::string_view line = rest.substr(0, end == std::string_view::npos ? end : end + 1);
  rest.remove_prefix(line.size());
  return line;
}

bool HasConsoles(std::string_view text) {
  while (!text.empty()) {
    const std::string_view line = NextLine(text);
    const size_t first = line.find_first_not_of(" \n");
    if (first != std::string_view::npos && line[first] != '#') return true;
  }
  return false;
}

}  // namespace

std::vector<ConfigConsole> ReadZevConf(std::string_view text, const std::string& file,
                                       Findings& findings) {
  std::vector<ConfigConsole> consoles;
  for (size_t number = 1; !text.empty(); ++number) {
    auto console = LineReader(NextLine(text), file, number, findings).Read();
    if (console) consoles.push_back(std::move(*console));
  }
  return consoles;
}

std::string ZevConfLine(const ConfigConsole& console) {
  std::string line;
  for (size_t field = 0; field < kConfigFieldCount; ++field) {
    const std::string& text = console.fields[field].text;
    line += (field == 0 ? "" : " ") + (field == kFieldOs ? Quoted(text) : text);
  }
  return line;
}

std::string WriteZevConf(const std::vector<ConfigConsole>& consoles) {
  std::string rest;
  for (const ConfigConsole& console : consoles) rest += ZevConfLine(console) + " \n";
  return kMark + Hash(rest) + "\n" + rest;
}

ZevConfOrigin OriginOf(std::string_view text) {
  std::string_view rest = text;
  const std::string_view first = NextLine(rest);
  if (!first.starts_with(kMark)) {
    return HasConsoles(text) ? ZevConfOrigin::kForeign : ZevConfOrigin::kEmpty;
  }
  const bool same = first == kMark + Hash(rest) + "\n";
  return same ? ZevConfOrigin::kApplied : ZevConfOrigin::kEdited;
}

}  // namespace zevctl
