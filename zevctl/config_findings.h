// What is wrong in configuration files: where, what, and how to mend it. Every reader and check
// adds to one list, so that one run names everything.
#pragma once

#include <string>
#include <vector>

namespace zevctl {

/// Lines and columns count from 1; 0 stands for the whole file.
struct Place {
  std::string file;
  size_t line = 0;
  size_t column = 0;

  /// "FILE:LINE:COLUMN", without what is 0.
  std::string InWords() const;
};

/// An error would cost a console, or make it other than it was meant. A warning is about what works
/// and is seldom meant.
enum class Severity { kError, kWarning };

struct Finding {
  Place place;
  Severity severity = Severity::kError;
  std::string what;
  std::string mend;

  /// "FILE:LINE:COLUMN: error: WHAT; MEND"
  std::string InWords() const;
};

class Findings {
 public:
  void Add(const Finding& finding);
  void Error(const Place& place, const std::string& what, const std::string& mend);
  void Warning(const Place& place, const std::string& what, const std::string& mend);

  void Add(const Findings& others);

  size_t errors() const { return errors_; }
  bool empty() const { return list_.empty(); }

  /// By file, line and column; each once.
  std::vector<Finding> Sorted() const;

 private:
  std::vector<Finding> list_;
  size_t errors_ = 0;
};

/// "word" in double quotes, for messages.
std::string Quoted(const std::string& word);

}  // namespace zevctl
