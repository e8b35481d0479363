#include "event_pattern.h"

#include <fcntl.h>
#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "descriptor.h"
#include "hard_pattern.h"
#include "tokens.h"

namespace zevctl {

namespace {

constexpr std::chrono::seconds kReadAgain{2};
constexpr off_t kLargestFile = 64 << 20;

// What is in a regular file; empty when it cannot be read. Opening a pipe must not wait.
std::string Contents(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  std::string text(static_cast<size_t>(std::min(info.st_size, kLargestFile)), '\0');
  const ssize_t count = pread(file.get(), text.data(), text.size(), 0);
  text.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return text;
}

// The lines of a text, with their ends.
std::vector<std::string_view> LinesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size() - 1);
    lines.push_back(text.substr(0, end + 1));
    text.remove_prefix(end + 1);
  }
  return lines;
}

// The daemon gives a console this name when it posts an event.
std::string NameInEvents(std::string_view name) {
  std::string changed(name);
  std::replace(changed.begin(), changed.end(), '-', '_');
  return changed;
}

}  // namespace

/// A line of an event file. It is compiled when it is first needed.
class PatternNames::Pattern {
 public:
  Pattern(std::string name, int priority, bool any_case, std::string expression)
      : name_(std::move(name)),
        priority_(priority),
        any_case_(any_case),
        expression_(std::move(expression)) {}
  ~Pattern() {
    if (state_ == State::kReady) regfree(&compiled_);
  }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  const std::string& name() const { return name_; }
  int priority() const { return priority_; }

  // Nothing when that would take long to find out.
  std::optional<bool> Matches(const std::string& line) {
    if (state_ == State::kNew) Compile();
    if (state_ == State::kHard) return {};
    return state_ == State::kReady && regexec(&compiled_, line.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  enum class State { kNew, kReady, kBad, kHard };

  void Compile() {
    const int flags = REG_EXTENDED | REG_NOSUB | (any_case_ ? REG_ICASE : 0);
    if (zevd::IsHardPattern(expression_.c_str())) {
      state_ = State::kHard;
    } else if (regcomp(&compiled_, expression_.c_str(), flags) == 0) {
      state_ = State::kReady;
    } else {
      state_ = State::kBad;
    }
  }

  std::string name_;
  int priority_;
  bool any_case_;
  std::string expression_;
  State state_ = State::kNew;
  regex_t compiled_{};
};

PatternNames::PatternNames(std::string root) : root_(std::move(root)) {}

PatternNames::~PatternNames() = default;

std::optional<std::string> PatternNames::Find(const std::string& console, int priority,
                                              const std::string& line) {
  const Patterns* patterns = PatternsOf(console);
  if (patterns == nullptr) return {};
  std::vector<Pattern*> possible;
  for (const auto& pattern : *patterns) {
    if (pattern->priority() == priority) possible.push_back(pattern.get());
  }
  if (possible.size() == 1) return possible.front()->name();
  for (Pattern* pattern : possible) {
    const auto matches = pattern->Matches(line);
    if (!matches) return {};
    if (*matches) return pattern->name();
  }
  return {};
}

// Null when the console's event file is not known.
const PatternNames::Patterns* PatternNames::PatternsOf(const std::string& console) {
  if (!read_ || Clock::now() - *read_ >= kReadAgain) ReadConsoles();
  const auto file = files_.find(console);
  if (file == files_.end()) return nullptr;
  const auto known = patterns_.find(file->second);
  if (known != patterns_.end()) return &known->second;
  Patterns patterns = PatternsIn(Contents(root_ + "/events/" + file->second));
  return &patterns_.emplace(file->second, std::move(patterns)).first->second;
}

// The event file is the last of the fields, of which one is in quotes.
void PatternNames::ReadConsoles() {
  constexpr int kFieldsBeforeQuote = 6;
  constexpr int kFieldsAfterQuote = 4;
  files_.clear();
  patterns_.clear();
  const std::string text = Contents(root_ + "/config/zev.conf");
  for (const std::string_view line : LinesOf(text)) {
    Tokens tokens(line);
    const std::string_view name = tokens.Next(" ");
    if (name.empty() || name[0] == '#' || name[0] == '\n') continue;
    for (int i = 0; i < kFieldsBeforeQuote; ++i) tokens.Next(" ");
    tokens.Next("\"");
    for (int i = 0; i < kFieldsAfterQuote; ++i) tokens.Next(" ");
    const std::string_view file = tokens.Next(" ");
    const bool is_name = !file.empty() && file != "\"\"" && file.find('/') == file.npos;
    if (is_name) files_.emplace(NameInEvents(name), file);
  }
  read_ = Clock::now();
}

PatternNames::Patterns PatternNames::PatternsIn(const std::string& text) {
  constexpr std::string_view kWordEnds = " \n\r";
  Patterns patterns;
  for (const std::string_view line : LinesOf(text)) {
    Tokens tokens(line);
    const std::string_view name = tokens.Next(kWordEnds);
    const std::string priority(tokens.Next(kWordEnds));
    const std::string_view case_indicator = tokens.Next(kWordEnds);
    const std::string_view expression = tokens.Next("\n\r");
    if (expression.empty()) continue;
    patterns.push_back(std::make_unique<Pattern>(std::string(name), atoi(priority.c_str()),
                                                 case_indicator == "0", std::string(expression)));
  }
  return patterns;
}

}  // namespace zevctl
