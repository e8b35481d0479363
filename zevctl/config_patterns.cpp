#include "config_patterns.h"

#include <dirent.h>
#include <regex.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "config_file.h"
#include "hard_pattern.h"

namespace zevctl {

namespace {

constexpr size_t kLongestLine = 8191;
constexpr size_t kLongestName = 64;
constexpr std::array kParts = {"name", "priority", "case indicator", "pattern"};

/// One line: four parts, each of which begins behind the blanks before it.
class PatternLine {
 public:
  PatternLine(std::string_view line, Place place, Findings& findings)
      : line_(line), place_(std::move(place)), findings_(findings) {}

  void Check() {
    if (line_.find_first_not_of(" \r") == std::string_view::npos) return;
    if (line_.size() >= kLongestLine) {
      return Error(kLongestLine, "the line is longer than 8191 bytes, and is read as two",
                   "shorten it");
    }
    for (size_t part = 0; part < kParts.size(); ++part) {
      if (!Take(part)) return;
    }
    CheckPriority();
    CheckCase();
    CheckPattern();
  }

 private:
  bool Take(size_t part) {
    const bool is_last = part + 1 == kParts.size();
    // A second blank before the pattern belongs to it.
    at_ = std::min(line_.find_first_not_of(is_last ? "\r" : " \r", at_), line_.size());
    if (at_ == line_.size()) {
      Error(
          at_,
          std::string("the ") + kParts.at(part) + " is missing, and the daemon leaves the line out",
          line_.find('\t') == std::string_view::npos
              ? "a line has four parts: name, priority, case indicator, pattern"
              : "separate the parts by single blanks, not tabs");
      return false;
    }
    const size_t end = std::min(line_.find_first_of(is_last ? "\r" : " \r", at_), line_.size());
    parts_.at(part) = line_.substr(at_, end - at_);
    starts_.at(part) = at_;
    at_ = std::min(end + 1, line_.size());
    return true;
  }

  void CheckPriority() {
    const std::string_view text = parts_[1];
    if (text.find_first_not_of("0123456789") == std::string_view::npos) return;
    Error(starts_[1], "the priority " + Quoted(std::string(text)) + " is no number",
          "write a number, such as 300");
  }

  void CheckCase() {
    if (parts_[2] == "0" || parts_[2] == "1") return;
    Error(starts_[2], "the case indicator is " + Quoted(std::string(parts_[2])),
          "write 0 if upper and lower case are the same, else 1");
  }

  // A hard pattern is not compiled here: that alone may take all memory.
  void CheckPattern() {
    const std::string pattern(parts_[3]);
    if (zevd::IsHardPattern(pattern.c_str())) {
      findings_.Warning(At(starts_[3]),
                        "the pattern is costly: a process of its own has to match the whole file",
                        "write it without back-references, large counts and choices after .*");
      return;
    }
    regex_t compiled;
    const int flags = REG_EXTENDED | REG_NOSUB | (parts_[2] == "0" ? REG_ICASE : 0);
    const int error = regcomp(&compiled, pattern.c_str(), flags);
    if (error != 0) {
      std::array<char, 256> reason{};
      regerror(error, &compiled, reason.data(), reason.size());
      return Error(starts_[3], std::string("the pattern does not compile: ") + reason.data(),
                   "correct it; until then the daemon leaves it out");
    }
    regfree(&compiled);
    CheckDollar(pattern);
  }

  // A line is matched together with its line end.
  void CheckDollar(const std::string& pattern) {
    if (!pattern.ends_with('$') || pattern.ends_with("\\$") || pattern.ends_with(".$")) return;
    findings_.Warning(At(starts_[3] + pattern.size() - 1),
                      "a pattern that ends in $ never matches a whole line",
                      "leave the $ out, or write .$");
  }

  Place At(size_t at) const { return {place_.file, place_.line, at + 1}; }

  void Error(size_t at, const std::string& what, const std::string& mend) {
    findings_.Error(At(at), what, mend);
  }

  std::string_view line_;
  Place place_;
  Findings& findings_;
  size_t at_ = 0;
  std::array<std::string_view, kParts.size()> parts_{};
  std::array<size_t, kParts.size()> starts_{};
};

void CheckEventFile(const std::string& path, const std::string& name, Findings& findings) {
  const ReadFile file = ReadWhole(path);
  if (file.kind == FileKind::kFailed || file.kind == FileKind::kMissing) {
    findings.Error({path}, "cannot be opened: " + file.reason,
                   "remove it; as long as it is there, the daemon loads no further event file");
    return;
  }
  if (file.kind == FileKind::kOther) {
    findings.Warning({path}, "is no plain file and gives no patterns", "move it elsewhere");
    return;
  }
  if (name.size() > kLongestName) {
    findings.Error({path}, "the daemon cuts the name after 64 bytes", "shorten it");
  }
  CheckPatterns(file.text, path, findings);
}

}  // namespace

void CheckPatterns(std::string_view text, const std::string& file, Findings& findings) {
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size());
    PatternLine(text.substr(0, end), {file, number, 0}, findings).Check();
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

std::set<std::string> CheckEventFiles(const std::string& directory, Findings& findings) {
  std::set<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(directory.c_str()), closedir);
  if (opened == nullptr) {
    findings.Error({directory}, std::string("the event files cannot be read: ") + strerror(errno),
                   "make the directory, or name another one with --events-dir");
    return names;
  }
  for (const dirent* entry = readdir(opened.get()); entry != nullptr;
       entry = readdir(opened.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    std::string path = directory;
    CheckEventFile(path.append("/").append(name), name, findings);
    names.insert(name);
  }
  return names;
}

}  // namespace zevctl
