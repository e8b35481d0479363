// The archive interval in the suite configuration file, which other tools read and edit too.
#include "archive_time.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "error.h"
#include "options.h"
#include "paths.h"
#include "safe_file.h"
#include "suite_config.h"

namespace zevd {

namespace {

constexpr char kFunction[] = "GetZevdArchIntFromConfFile";
constexpr char kKey[] = "ZEVD_ARCH_INT=";
constexpr int32_t kSecondsPerDay = 86400;

[[noreturn]] void Fail(const char* call, const char* path, int error) {
  DEBUG_AS(kFunction, kError, "%s( \"%s\", ...) failed : %s\n", call, path, strerror(error));
  EXIT_PROCESS(1);
}

// The stream takes the descriptor over. The message is that of a file that cannot be opened.
FILE* StreamOrExit(int fd, const char* mode) {
  FILE* file = fd == -1 ? nullptr : fdopen(fd, mode);
  if (file == nullptr) Fail("fopen", kSuiteConfigFile, errno);
  return file;
}

// False, with errno set, when not everything could be written.
bool CloseWritten(FILE* file) {
  const bool lost = fflush(file) != 0 || ferror(file) != 0;
  const int error = errno;
  const bool closed = fclose(file) == 0;
  if (lost) errno = error;
  return closed && !lost;
}

void WriteSetting(FILE* file) {
  fprintf(file, "%s%d\n", kKey, static_cast<int>(log_archive_time / kSecondsPerDay));
}

// True when the file has the setting. Takes its value, unless that of the command line is still to
// be written.
bool ReadSetting(FILE* file) {
  bool found = false;
  {
    SuiteConfigLines lines(file);
    const char* value = nullptr;
    while (value == nullptr && lines.Next()) value = lines.ValueOf(kKey);
    found = value != nullptr;
    if (found && USE_CMD_LINE_ARCH_TIME == 0) {
      log_archive_time = static_cast<int32_t>(static_cast<uint32_t>(atoi(value)) *
                                              static_cast<uint32_t>(kSecondsPerDay));
    }
  }
  fclose(file);
  return found;
}

[[noreturn]] void NoTemporaryFile() {
  DEBUG_AS(kFunction, kError, "Cannot create temporary file\n");
  EXIT_PROCESS(1);
}

void CopyWithNewSetting(FILE* from, FILE* to) {
  SuiteConfigLines lines(from);
  while (lines.Next()) {
    if (lines.ValueOf(kKey) != nullptr) {
      WriteSetting(to);
    } else {
      lines.CopyTo(to);
    }
  }
}

// Writes the changed lines to a temporary file; when that fails, nothing is lost yet. The stream
// stays open, because the path may lead to another file later.
FILE* WriteTemporaryFile(char* path) {
  FILE* from = StreamOrExit(OpenRegularFile(AT_FDCWD, kSuiteConfigFile, O_RDONLY), "r");
  const int fd = mkostemp(path, O_CLOEXEC);
  if (fd == -1) NoTemporaryFile();
  FILE* to = fdopen(fd, "w+");
  if (to == nullptr) Fail("fdopen", kSuiteConfigFile, errno);
  CopyWithNewSetting(from, to);
  const bool complete = feof(from) != 0;
  fclose(from);
  if (fflush(to) != 0 || ferror(to) != 0 || !complete) {
    unlink(path);
    NoTemporaryFile();
  }
  rewind(to);
  return to;
}

FILE* OpenForRewriting(const char* temporary) {
  const int fd = OpenRegularFile(AT_FDCWD, kSuiteConfigFile, O_WRONLY);
  FILE* file = fd == -1 ? nullptr : fdopen(fd, "w");
  if (file != nullptr && ftruncate(fd, 0) == 0) return file;
  const int error = errno;
  unlink(temporary);
  Fail("fopen", kSuiteConfigFile, error);
}

// The file is written in place, so that it keeps its inode, owner and mode. When that fails half
// way, the temporary file is left: it has the only whole copy of everybody's settings.
void RewriteFile() {
  char path[] = "/tmp/qorconfXXXXXX";
  FILE* from = WriteTemporaryFile(path);
  FILE* to = OpenForRewriting(path);
  SuiteConfigLines lines(from);
  while (lines.Next()) lines.CopyTo(to);
  const bool complete = feof(from) != 0;
  fclose(from);
  if (!CloseWritten(to) || !complete) {
    const int error = errno;
    DEBUG_AS(kFunction, kError, "The lines of \"%s\" are in \"%s\"\n", kSuiteConfigFile, path);
    Fail("write", kSuiteConfigFile, error);
  }
  unlink(path);
}

void GiveStationOwnership(int fd) {
  constexpr mode_t kMode = 0770;
  if (SetUpNewFile(kFunction, fd, kSuiteConfigFile, kMode) != nullptr) EXIT_PROCESS(1);
}

// A new file to which the setting cannot be written is removed: an empty one would be taken for a
// file that is not to have it.
void CreateFile() {
  constexpr mode_t kModeOfAStream = 0666;
  bool is_new = false;  // another tool may have been quicker: its file gets the line too
  const int fd = OpenOrMakeRegularFile(AT_FDCWD, kSuiteConfigFile, O_WRONLY | O_APPEND,
                                       kModeOfAStream, &is_new);
  FILE* file = StreamOrExit(fd, "a");
  GiveStationOwnership(fd);
  WriteSetting(file);
  if (CloseWritten(file)) return;
  const int error = errno;
  unlink(kSuiteConfigFile);
  Fail("write", kSuiteConfigFile, error);
}

}  // namespace

void GetZevdArchIntFromConfFile() {
  ENTERING();
  const int fd = OpenRegularFile(AT_FDCWD, kSuiteConfigFile, O_RDONLY);
  if (fd == -1 && errno == ENOENT) {
    USE_CMD_LINE_ARCH_TIME = 0;
    CreateFile();
    return;
  }
  if (!ReadSetting(StreamOrExit(fd, "r")) || USE_CMD_LINE_ARCH_TIME == 0) return;
  USE_CMD_LINE_ARCH_TIME = 0;
  RewriteFile();
}

}  // namespace zevd
