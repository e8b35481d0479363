// The archive interval in the suite configuration file, which other tools read and edit too.
#include "archive_time.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "error.h"
#include "paths.h"
#include "zev.h"

namespace {

constexpr char kFunction[] = "GetZevdArchIntFromConfFile";
constexpr char kKey[] = "ZEVD_ARCH_INT=";
constexpr int32_t kSecondsPerDay = 86400;

FILE* OpenOrExit(const char* path, const char* mode) {
  FILE* file = fopen(path, mode);
  if (file == nullptr) {
    zev_debug(kError, "%s: fopen( \"%s\", ...) failed : %s\n", kFunction, path, strerror(errno));
    EXIT_PROCESS(1);
  }
  return file;
}

/// Reads a file line by line, of any length and with any bytes.
class LineReader {
 public:
  explicit LineReader(FILE* file) : file_(file) {}
  ~LineReader() { free(line_); }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  bool Next() {
    length_ = getline(&line_, &room_, file_);
    return length_ >= 0;
  }
  bool IsSetting() const { return strncmp(line_, kKey, strlen(kKey)) == 0; }
  const char* Value() const { return line_ + strlen(kKey); }
  void CopyTo(FILE* out) const { fwrite(line_, 1, static_cast<size_t>(length_), out); }

 private:
  FILE* file_;
  char* line_ = nullptr;
  size_t room_ = 0;
  ssize_t length_ = 0;
};

void WriteSetting(FILE* file) {
  fprintf(file, "%s%d\n", kKey, static_cast<int>(log_archive_time / kSecondsPerDay));
}

// True when the file has the setting. Takes its value unless the command line's is waiting.
bool ReadSetting() {
  FILE* file = OpenOrExit(kSuiteConfigFile, "re");
  bool found = false;
  {
    LineReader lines(file);
    while (!found && lines.Next()) found = lines.IsSetting();
    if (found && USE_CMD_LINE_ARCH_TIME == 0) {
      log_archive_time = static_cast<int32_t>(static_cast<uint32_t>(atoi(lines.Value())) *
                                              static_cast<uint32_t>(kSecondsPerDay));
    }
  }
  fclose(file);
  return found;
}

[[noreturn]] void NoTemporaryFile() {
  zev_debug(kError, "%s: Cannot create temporary file\n", kFunction);
  EXIT_PROCESS(1);
}

void CopyWithNewSetting(FILE* from, FILE* to) {
  for (LineReader lines(from); lines.Next();) {
    if (lines.IsSetting()) {
      WriteSetting(to);
    } else {
      lines.CopyTo(to);
    }
  }
}

// Writes the changed lines to a temporary file; nothing is lost yet when that fails.
void WriteTemporaryFile(char* path) {
  FILE* from = OpenOrExit(kSuiteConfigFile, "re");
  const int fd = mkstemp(path);
  if (fd == -1) NoTemporaryFile();
  FILE* to = fdopen(fd, "w");
  if (to == nullptr) {
    zev_debug(kError, "%s: fdopen( \"%s\", ...) failed : %s\n", kFunction, kSuiteConfigFile,
              strerror(errno));
    EXIT_PROCESS(1);
  }
  CopyWithNewSetting(from, to);
  fclose(from);
  if (ferror(to) != 0 || fclose(to) != 0) {
    unlink(path);
    NoTemporaryFile();
  }
}

// The file is written in place, so that it keeps its inode, owner and mode.
void RewriteFile() {
  char path[] = "/tmp/qorconfXXXXXX";
  WriteTemporaryFile(path);
  FILE* to = OpenOrExit(kSuiteConfigFile, "we");
  FILE* from = OpenOrExit(path, "re");
  for (LineReader lines(from); lines.Next();) lines.CopyTo(to);
  fclose(from);
  fclose(to);
  unlink(path);
}

void CreateFile() {
  constexpr mode_t kMode = 0770;
  FILE* file = OpenOrExit(kSuiteConfigFile, "ae");
  struct stat root {};
  if (stat(kQorRoot, &root) == 0) {
    if (chown(kSuiteConfigFile, static_cast<uid_t>(-1), root.st_gid) != 0) {
      zev_debug(kError, "%s: chown( %s, ...) failed : %s\n", kFunction, kSuiteConfigFile,
                strerror(errno));
      EXIT_PROCESS(1);
    }
    if (chmod(kSuiteConfigFile, kMode) != 0) {
      zev_debug(kError, "%s: chmod( %s, ...) failed : %s\n", kFunction, kSuiteConfigFile,
                strerror(errno));
      EXIT_PROCESS(1);
    }
  }
  WriteSetting(file);
  fclose(file);
}

}  // namespace

void GetZevdArchIntFromConfFile() {
  ENTERING();
  struct stat existing {};
  if (stat(kSuiteConfigFile, &existing) != 0) {
    USE_CMD_LINE_ARCH_TIME = 0;
    CreateFile();
    return;
  }
  if (!ReadSetting() || USE_CMD_LINE_ARCH_TIME == 0) return;
  USE_CMD_LINE_ARCH_TIME = 0;
  RewriteFile();
}
