// Event files: which patterns a file gives, what is said about its lines, and which pattern a
// record matches, compared with the system's own matcher run over the lines one by one. Every
// pattern that matches must be one that the daemon would have tried, also after an earlier match.
// A file with a hard pattern is for the matcher; what is hard, the harness takes from the daemon: a
// pattern that is not, and yet takes all time or memory, shows as an input that does.
//
// An input is a line with the record and the file.
#include <regex.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "hard_pattern.h"
#include "lists.h"
#include "literal_filter.h"

using namespace zevd;

namespace {

constexpr char kName[] = "file";
constexpr char kPath[] = "root/events/file";
constexpr size_t kLongestPiece = 8191;
constexpr size_t kLongestRecord = 8192;

/// One line that gives a pattern.
struct Pattern {
  std::string name;
  int priority;
  std::string indicator;
  std::string text;
};

/// What the model expects of a file.
struct Expected {
  std::vector<Pattern> patterns;
  std::vector<std::string> messages;
  bool for_matcher = false;  ///< the system's matcher cannot be asked
};

std::optional<std::string> TakeField(std::string_view& line, const char* ends) {
  line.remove_prefix(std::min(line.find_first_not_of(ends), line.size()));
  if (line.empty()) return {};
  const std::string field(line.substr(0, line.find_first_of(ends)));
  line.remove_prefix(std::min(field.size() + 1, line.size()));
  return field;
}

/// A compiled expression of the system's.
class Compiled {
 public:
  explicit Compiled(const Pattern& pattern)
      : error_(regcomp(&expression_, pattern.text.c_str(),
                       REG_EXTENDED | (pattern.indicator == "0" ? REG_ICASE : 0))) {}
  ~Compiled() {
    if (error_ == 0) regfree(&expression_);
  }
  Compiled(const Compiled&) = delete;
  Compiled& operator=(const Compiled&) = delete;

  bool Good() const { return error_ == 0; }
  bool Matches(const std::string& text) const {
    return regexec(&expression_, text.c_str(), 0, nullptr, 0) == 0;
  }
  std::string Reason() const {
    char reason[256];
    regerror(error_, &expression_, reason, sizeof reason);
    return reason;
  }

 private:
  regex_t expression_;
  int error_;
};

void ExpectLine(std::string_view line, size_t number, Expected& expected) {
  constexpr const char* kWords = " \n\r";
  const auto name = TakeField(line, kWords);
  const auto priority = TakeField(line, kWords);
  const auto indicator = TakeField(line, kWords);
  const auto text = TakeField(line, "\n\r");
  if (!name) return;
  if (!text) {
    const char* missing = !priority ? "Priority" : !indicator ? "Case indicator" : "Pattern";
    expected.messages.push_back(std::string("ParseRegExFile: ") + missing + " missing in line " +
                                std::to_string(number) + " of " + kPath + "\n");
    return;
  }
  if (IsHardPattern(text->c_str())) expected.for_matcher = true;
  if (expected.for_matcher) return;
  const Pattern pattern{*name, atoi(priority->c_str()), *indicator, *text};
  const Compiled compiled(pattern);
  if (compiled.Good()) {
    expected.patterns.push_back(pattern);
  } else {
    expected.messages.push_back("ParseRegExFile: regcomp() failed for pattern " + pattern.text +
                                " : " + compiled.Reason() + "\n");
  }
}

Expected Expect(std::string_view content) {
  Expected expected;
  size_t number = 0;
  for (const std::string& line : fuzz::Lines(content, kLongestPiece))
    ExpectLine(line, ++number, expected);
  return expected;
}

void CheckPatterns(const RegExList& list, const std::vector<Pattern>& expected) {
  REQUIRE_EQUAL(static_cast<size_t>(list.count), expected.size());
  size_t index = 0;
  for (const RegExNode* node : Nodes(list)) {
    const Pattern& pattern = expected.at(index++);
    REQUIRE_EQUAL(std::string(node->jix_name), pattern.name);
    REQUIRE_EQUAL(node->priority, pattern.priority);
    REQUIRE_EQUAL(node->case_sensitive, atoi(pattern.indicator.c_str()));
    REQUIRE_EQUAL(std::string(node->pattern), pattern.text);
  }
}

const Pattern* FirstMatch(const std::vector<Pattern>& patterns, std::string_view record) {
  const std::string text = fuzz::UpToNul(record.substr(0, kLongestRecord));
  for (const Pattern& pattern : patterns) {
    if (Compiled(pattern).Matches(text)) return &pattern;
  }
  return nullptr;
}

void CheckMatch(const RegExList& list, const std::vector<Pattern>& patterns,
                std::string_view record) {
  const Pattern* expected = FirstMatch(patterns, record);
  char* text = nullptr;
  int priority = 0;
  const int found =
      MatchPattern(record.data(), static_cast<int>(record.size()), &list, &text, &priority);
  REQUIRE_EQUAL(found, expected == nullptr ? 0 : 1);
  if (expected == nullptr) return;
  const std::string found_text = text;
  free(text);
  REQUIRE_EQUAL(found_text, expected->text);
  REQUIRE_EQUAL(priority, expected->priority);
}

// Beside a pattern that is never found, so that there is something to tell apart.
bool IsTried(const Pattern& pattern, const std::string& text) {
  const char* const patterns[] = {"no such text", pattern.text.c_str()};
  LiteralFilter filter;
  REQUIRE(filter.Build(patterns, std::size(patterns)));
  return filter.Candidates(text).Contains(1);
}

void CheckCandidates(const std::vector<Pattern>& patterns, std::string_view record) {
  const std::string text = fuzz::UpToNul(record.substr(0, kLongestRecord));
  for (const Pattern& pattern : patterns) {
    if (Compiled(pattern).Matches(text)) REQUIRE(IsTried(pattern, text));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::Lists lists;
  fuzz::Input input(data, size);
  const std::string record = std::string(input.TakeLine()) + "\n";
  const std::string_view content = input.TakeRest();
  fuzz::WriteFile(kPath, content);
  const Expected expected = Expect(content);
  {
    fuzz::DebugRecorder recorder(0);
    REQUIRE_EQUAL(LoadEventFiles(ev_list), 0);
    if (!expected.for_matcher)
      REQUIRE_EQUAL(recorder.Output(), fuzz::AsDebugOutput(expected.messages));
  }
  const EventSetNode* events = FindEventNode(kName, ev_list);
  REQUIRE(events != nullptr);
  REQUIRE_EQUAL(ev_list->count, 1);
  REQUIRE_EQUAL(events->re_list->matcher_set != 0, expected.for_matcher);
  if (expected.for_matcher) return 0;
  CheckPatterns(*events->re_list, expected.patterns);
  CheckMatch(*events->re_list, expected.patterns, record);
  CheckMatch(*events->re_list, expected.patterns,
             std::string_view(record).substr(0, record.size() - 1));
  CheckCandidates(expected.patterns, record);
  return 0;
}
