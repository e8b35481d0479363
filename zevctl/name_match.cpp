#include "name_match.h"

#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <numeric>
#include <utility>

#include "exit_status.h"
#include "output.h"

namespace zevctl {

namespace {

using Names = std::vector<std::string>;

constexpr size_t kMostNearest = 3;
constexpr size_t kMostCandidates = 8;

char Folded(char byte) {
  if (byte == '-') return '_';
  return static_cast<char>(tolower(static_cast<unsigned char>(byte)));
}

std::string FoldedName(std::string_view name) {
  std::string folded(name);
  std::transform(folded.begin(), folded.end(), folded.begin(), Folded);
  return folded;
}

// Where the brackets end that begin at `start`; npos when they are never closed, which makes the
// first one an ordinary character.
size_t EndOfBrackets(std::string_view pattern, size_t start) {
  size_t first = start + 1;
  if (first < pattern.size() && (pattern[first] == '!' || pattern[first] == '^')) ++first;
  return pattern.find(']', first + 1);
}

// Between brackets, '-' stands for a range.
std::string FoldedPattern(std::string_view pattern) {
  std::string folded;
  while (!pattern.empty()) {
    const size_t end = pattern[0] == '[' ? EndOfBrackets(pattern, 0) : std::string_view::npos;
    const size_t length = end == std::string_view::npos ? 1 : end + 1;
    folded += length == 1 ? FoldedName(pattern.substr(0, 1)) : std::string(pattern, 0, length);
    pattern.remove_prefix(length);
  }
  return folded;
}

bool Globs(const std::string& pattern, const std::string& name) {
  return fnmatch(pattern.c_str(), name.c_str(), FNM_CASEFOLD) == 0;
}

template <typename Condition>
Names Those(const Names& names, Condition condition) {
  Names found;
  std::copy_if(names.begin(), names.end(), std::back_inserter(found), condition);
  return found;
}

// Each once: consoles whose names differ in case are one to the daemon.
Names Distinct(Names names) {
  std::sort(names.begin(), names.end(), ComesBefore);
  const auto end =
      std::unique(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return strcasecmp(a.c_str(), b.c_str()) == 0;
      });
  names.erase(end, names.end());
  return names;
}

[[noreturn]] void ThrowAmbiguous(const std::string& typed, Names candidates) {
  const bool shortened = candidates.size() > kMostCandidates;
  if (shortened) candidates.resize(kMostCandidates);
  std::string text;
  for (const std::string& name : candidates) text += (text.empty() ? "" : ", ") + Printable(name);
  throw Failure(ExitStatus::kNoSuchConsole, "\"" + Printable(typed) + "\" may mean " + text +
                                                (shortened ? ", ..." : "") +
                                                "; type more of the name");
}

// The number of letters that were left out, added, changed, or swapped with the next one.
size_t Distance(std::string_view a, std::string_view b) {
  std::vector<size_t> before_last;
  std::vector<size_t> last(b.size() + 1);
  std::iota(last.begin(), last.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    std::vector<size_t> row(b.size() + 1, i);
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t changed = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({changed, last[j] + 1, row[j - 1] + 1});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) row[j] = std::min(row[j], before_last[j - 2] + 1);
    }
    before_last = std::exchange(last, std::move(row));
  }
  return last.back();
}

// A word is near to everything if much may be wrong with it.
size_t LimitFor(size_t length) {
  constexpr size_t kLettersPerMistake = 3;
  constexpr size_t kMost = 3;
  return length < 2 ? 0 : std::clamp<size_t>(length / kLettersPerMistake, 1, kMost);
}

// A word that was not typed to its end is as near as one with a single mistake.
size_t MistakesIn(const std::string& typed, const std::string& word) {
  return typed.size() > 1 && word.starts_with(typed) ? 1 : Distance(typed, word);
}

}  // namespace

bool IsSameName(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return Folded(x) == Folded(y); });
}

bool NameMatches(const std::string& name, const std::string& pattern) {
  return IsSameName(name, pattern) || Globs(pattern, name) ||
         Globs(FoldedPattern(pattern), FoldedName(name));
}

bool NameBeginsWith(std::string_view name, std::string_view start) {
  return IsSameName(name.substr(0, start.size()), start);
}

bool ComesBefore(const std::string& a, const std::string& b) {
  const auto lower = [](std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char byte) { return static_cast<char>(tolower(byte)); });
    return text;
  };
  const int order = strverscmp(lower(a).c_str(), lower(b).c_str());
  return order != 0 ? order < 0 : a < b;
}

FoundNames FindNames(const Names& names, const std::string& pattern) {
  const auto equals = [&](const std::string& name) {
    return strcasecmp(name.c_str(), pattern.c_str()) == 0;
  };
  const auto is_same = [&](const std::string& name) { return IsSameName(name, pattern); };
  const auto matches = [&](const std::string& name) { return NameMatches(name, pattern); };
  Names found = Those(names, equals);
  if (found.empty()) found = Those(names, is_same);
  if (!found.empty()) return {found, true};
  return {Those(names, matches), false};
}

std::string FindOneName(const Names& names, const std::string& typed) {
  FoundNames found = FindNames(names, typed);
  const auto begins = [&](const std::string& name) { return NameBeginsWith(name, typed); };
  const Names beginning = found.by_name || typed.empty() ? Names() : Distinct(Those(names, begins));
  const Names candidates = beginning.empty() ? Distinct(found.names) : beginning;
  if (candidates.size() == 1) return candidates.front();
  if (!candidates.empty()) ThrowAmbiguous(typed, candidates);
  throw Failure(ExitStatus::kNoSuchConsole, NoSuchConsole(typed, names));
}

Names NearestWords(std::string_view word, const Names& words) {
  const std::string typed = FoldedName(word);
  std::vector<std::pair<size_t, std::string>> near;
  for (const std::string& candidate : words) {
    const size_t mistakes = MistakesIn(typed, FoldedName(candidate));
    if (mistakes <= LimitFor(typed.size())) near.emplace_back(mistakes, candidate);
  }
  std::sort(near.begin(), near.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first < b.first : ComesBefore(a.second, b.second);
  });
  near.erase(std::unique(near.begin(), near.end()), near.end());
  if (near.size() > kMostNearest) near.resize(kMostNearest);
  Names nearest;
  for (auto& [mistakes, candidate] : near) nearest.push_back(std::move(candidate));
  return nearest;
}

std::string NoSuchConsole(const std::string& typed, const Names& names) {
  const Names nearest = NearestWords(typed, names);
  return "no console is named \"" + Printable(typed) + "\"" +
         (nearest.empty() ? "" : "; did you mean " + Alternatives(nearest) + "?") +
         (nearest.empty() ? "; " : " ") + "\"zevctl list\" shows the names";
}

std::string Alternatives(const Names& words) {
  std::string text;
  for (size_t i = 0; i < words.size(); ++i) {
    const char* const separator = i + 1 == words.size() ? " or " : ", ";
    text += (i == 0 ? "" : separator) + Printable(words[i]);
  }
  return text;
}

}  // namespace zevctl
