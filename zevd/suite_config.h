// The lines of the suite configuration file (qor.conf), which other programs read and edit too.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdio>

namespace zevd {

/// Reads the file line by line, of any length and with any bytes. A setting is a line that begins
/// with its key, "=" included; the first one counts.
class SuiteConfigLines {
 public:
  explicit SuiteConfigLines(FILE* file) : file_(file) {}
  ~SuiteConfigLines();
  SuiteConfigLines(const SuiteConfigLines&) = delete;
  SuiteConfigLines& operator=(const SuiteConfigLines&) = delete;

  bool Next();

  /// What follows the key, with the line's end; null when the line has another key or none.
  const char* ValueOf(const char* key) const;

  void CopyTo(FILE* out) const;

 private:
  FILE* file_;
  char* line_ = nullptr;
  size_t room_ = 0;
  ssize_t length_ = 0;
};

}  // namespace zevd
