#include "cookie.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "error.h"
#include "paths.h"
#include "safe_file.h"
#include "user.h"

namespace zevd {

namespace {

constexpr char kCookieAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr unsigned kAlphabetSize = sizeof kCookieAlphabet - 1;
constexpr mode_t kCookieMode = 0660;

/// Written before the threads start, then only read.
char* generated_cookie = nullptr;

constexpr char kGenerate[] = "GenerateCookie";

unsigned char RandomByte() {
  unsigned char byte = 0;
  while (getrandom(&byte, 1, 0) != 1) {
    if (errno == EINTR) continue;
    DEBUG_AS(kGenerate, kError, "getrandom() failed : %s\n", strerror(errno));
    TERMINATE("Terminated: Cannot draw cookie");
  }
  return byte;
}

// Every character is as likely as any other: bytes beyond the last whole round of the alphabet are
// drawn again.
char RandomCharacter() {
  constexpr unsigned kEnd = 256 / kAlphabetSize * kAlphabetSize;
  unsigned byte = RandomByte();
  while (byte >= kEnd) byte = RandomByte();
  return kCookieAlphabet[byte % kAlphabetSize];
}

void DrawCookie() {
  for (size_t i = 0; i < kCookieSize - 1; ++i) generated_cookie[i] = RandomCharacter();
  generated_cookie[kCookieSize - 1] = '\0';
}

void WarnIfOthersMayRead(int fd) {
  struct stat file {};
  if (fstat(fd, &file) != 0 || (file.st_mode & S_IROTH) == 0) return;
  DEBUG_AS(kGenerate, kError, "\"%s\" is readable by others (mode %04o), who then need no login.\n",
           kCookieFile, file.st_mode & 07777U);
}

[[noreturn]] void CannotOpen() {
  DEBUG_AS(kGenerate, kError, "fopen() failed : %s\n", strerror(errno));
  TERMINATE("Terminated: Cannot open cookie file");
}

[[noreturn]] void CannotWrite() {
  DEBUG_AS(kGenerate, kError, "fprintf() failed : %s\n", strerror(errno));
  TERMINATE("Terminated: Cannot write cookie file");
}

// An existing file keeps its owner, group and mode. It is emptied only once it is known which file
// it is.
FILE* OpenCookieFile() {
  bool is_new = false;
  const int fd = OpenOrMakeRegularFile(AT_FDCWD, kCookieFile, O_WRONLY, kCookieMode, &is_new);
  if (fd == -1) CannotOpen();
  if (is_new) {
    const char* failure = SetUpNewFile(kGenerate, fd, kCookieFile, kCookieMode);
    if (failure != nullptr) TERMINATE(failure);
  }
  WarnIfOthersMayRead(fd);
  if (ftruncate(fd, 0) != 0) CannotWrite();
  FILE* file = fdopen(fd, "w");
  if (file == nullptr) CannotOpen();
  return file;
}

void WriteCookieFile() {
  FILE* file = OpenCookieFile();
  const bool written = fprintf(file, "%s\n", generated_cookie) >= 0;
  if (fclose(file) != 0 || !written) CannotWrite();
}

// Takes the same time whichever character is wrong.
bool IsGeneratedCookie(const char* user_cookie) {
  const size_t length = strnlen(user_cookie, kCookieSize);
  unsigned difference = length != kCookieSize - 1 ? 1 : 0;
  for (size_t i = 0; i < kCookieSize - 1; ++i) {
    const char given = i < length ? user_cookie[i] : '\0';
    difference |= static_cast<unsigned char>(given ^ generated_cookie[i]);
  }
  return difference == 0;
}

}  // namespace

void CheckConfigDir() {
  ENTERING();
  struct stat directory {};
  if (stat(kConfigDir, &directory) != 0 || (directory.st_mode & S_IRWXO) == 0) return;
  zev_debug(kError, "%s: \"%s\" is open to others (mode %04o). Set its mode to 0750.\n", __func__,
            kConfigDir, directory.st_mode & 07777U);
}

void GenerateCookie() {
  ENTERING();
  delete[] generated_cookie;
  generated_cookie = new (std::nothrow) char[kCookieSize];
  if (generated_cookie == nullptr) {
    zev_debug(kError, "%s: malloc() failed : %s\n", __func__, strerror(errno));
    TERMINATE("Terminated: Out of memory");
  }
  DrawCookie();
  WriteCookieFile();
}

int DoCookieValidation(int /*sock*/, const char* user_cookie) {
  ENTERING();
  if (IsGeneratedCookie(user_cookie)) {
    zev_debug(kDetail, "%s: Authentication successful.\n", __func__);
    zev_debug(kDetail, "%s: user_cookie(%s) == generated_cookie(%s)\n", __func__, user_cookie,
              generated_cookie);
    return 0;
  }
  SetUserError(kAuthenticationFailed);
  zev_debug(kInfo, "%s: Authentication failed.\n", __func__);
  zev_debug(kInfo, "%s: user_cookie(%s) != generated_cookie(%s)\n", __func__, user_cookie,
            generated_cookie);
  return -1;
}

}  // namespace zevd
