#include "security.h"

#include <arpa/inet.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <tqauth.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "error.h"
#include "fixed_text.h"
#include "paths.h"
#include "user_conn.h"
#include "util.h"

// ---- The cookie ---------------------------------------------------------------------------------

namespace {

constexpr char kCookieAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr size_t kAlphabetSize = sizeof kCookieAlphabet - 1;
constexpr mode_t kCookieMode = 0660;

/// Written before the threads start, then only read.
char* generated_cookie = nullptr;

constexpr char kGenerate[] = "GenerateCookie";

void DrawCookie() {
  timeval now{};
  gettimeofday(&now, nullptr);
  srandom(static_cast<unsigned>(now.tv_usec));
  for (size_t i = 0; i < kCookieSize - 1; ++i) {
    generated_cookie[i] = kCookieAlphabet[static_cast<size_t>(random()) % kAlphabetSize];
  }
  generated_cookie[kCookieSize - 1] = '\0';
}

// A file that the daemon makes is for the suite's group; an existing one keeps what it has.
void SetUpNewCookieFile() {
  struct stat root {};
  if (stat(kQorRoot, &root) != 0) return;
  if (chown(kCookieFile, static_cast<uid_t>(-1), root.st_gid) != 0) {
    zev_debug(kError, "%s: chown( %s, ...) failed : %s\n", kGenerate, kCookieFile, strerror(errno));
    TERMINATE("Terminated: Cannot chown cookie file");
  }
  if (chmod(kCookieFile, kCookieMode) != 0) {
    zev_debug(kError, "%s: chmod( %s, ...) failed : %s\n", kGenerate, kCookieFile, strerror(errno));
    TERMINATE("Terminated: Cannot chmod cookie file");
  }
}

void WriteCookieFile() {
  struct stat existing {};
  const bool existed = stat(kCookieFile, &existing) == 0;
  FILE* file = fopen(kCookieFile, "we");
  if (file == nullptr) {
    zev_debug(kError, "GenerateCookie: fopen() failed : %s\n", strerror(errno));
    TERMINATE("Terminated: Cannot open cookie file");
  }
  if (!existed) SetUpNewCookieFile();
  const bool written = fprintf(file, "%s\n", generated_cookie) >= 0;
  if (fclose(file) != 0 || !written) {
    zev_debug(kError, "%s: fprintf() failed : %s\n", kGenerate, strerror(errno));
    TERMINATE("Terminated: Cannot write cookie file");
  }
}

}  // namespace

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
  if (strcmp(user_cookie, generated_cookie) == 0) {
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

// ---- Telling clients apart ----------------------------------------------------------------------

namespace {

constexpr time_t kFirstLineWait = 15;  // seconds
constexpr size_t kPeekSize = 8192;
constexpr char kSeparators[] = " \t\n\r";

/// A buffer for what a person types; nothing of it stays in memory.
template <size_t N>
struct WipedText {
  char text[N] = {};
  WipedText() = default;
  ~WipedText() { explicit_bzero(text, sizeof text); }
  WipedText(const WipedText&) = delete;
  WipedText& operator=(const WipedText&) = delete;
};

// Looks at what the client has sent. The number of bytes, or what recv() returned with errno set;
// the socket's own time-out is as before afterwards.
ssize_t PeekFirstLine(int sock, char* buf, size_t size) {
  timeval saved{};
  socklen_t length = sizeof saved;
  getsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &saved, &length);
  const timeval limit = {kFirstLineWait, 0};
  setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  errno = 0;
  const ssize_t count = recv(sock, buf, size, MSG_PEEK);
  const int error = errno;
  setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &saved, sizeof saved);
  errno = error;
  return count;
}

int NothingReceived() {
  if (errno == EAGAIN) {
    SetUserError(kTimedOut);
    return -2;
  }
  SetUserError(kReadError);
  return -1;
}

bool IsLoopback(const sockaddr_in& address) {
  return address.sin_addr.s_addr == htonl(INADDR_LOOPBACK);
}

}  // namespace

int IsTokenAuthentication(int sock, char (&user_cookie)[kCookieSize]) {
  ENTERING();
  WipedText<kPeekSize + 1> seen;  // a hasty client's name and password may be in it
  const ssize_t count = PeekFirstLine(sock, seen.text, kPeekSize);
  if (count <= 0) return NothingReceived();
  seen.text[count] = '\0';
  char* rest = nullptr;
  const char* token = strtok_r(seen.text, kSeparators, &rest);
  if (token == nullptr) return -1;
  if (strcmp(token, "token") != 0) return 0;
  token = strtok_r(nullptr, kSeparators, &rest);
  if (token == nullptr) return -1;
  CopyText(user_cookie, token);
  return 1;
}

int DoAuthentication(int sock, const sockaddr_in& client_addr, char* buf, int size) {
  ENTERING();
  char user_cookie[kCookieSize];
  const int kind = IsTokenAuthentication(sock, user_cookie);
  if (kind == -2) {
    zev_debug(kInfo, "%s: Timed out waiting for input.\n", __func__);
    return -1;
  }
  if (kind == -1) {
    zev_debug(kInfo, "%s: Error reading authentication data.\n", __func__);
    return -1;
  }
  if (kind == 1 && IsLoopback(client_addr)) {
    if (ReadLineWithTimeout(sock, buf, size, kFirstLineWait) != 0) return -1;
    return DoCookieValidation(sock, user_cookie);
  }
  return DoTqAuthValidation(sock, buf, size);
}

int DoTqAuthValidation(int sock, char* buf, int size) {
  ENTERING();
  char* user = nullptr;
  const char* line = authenticate(sock, &user);
  if (line == nullptr) {
    SetUserError(kAuthenticationFailed);
    zev_debug(kInfo, "%s: Authentication failed.\n", __func__);
    free(user);
    return -1;
  }
  CopyText(buf, static_cast<size_t>(size), line);
  if (user == nullptr) {
    zev_debug(kDetail, "%s: Authentication successful.\n", __func__);
    return 0;
  }
  // Comes last, so it overrides whatever name the client gave itself.
  char option[1024];
  snprintf(option, sizeof option, " user=%s", user);
  const size_t length = strlen(buf);
  const size_t room = static_cast<size_t>(size) - length;
  if (strlen(option) < room) CopyText(buf + length, room, option);
  zev_debug(kDetail, "%s: Authentication successful for user \"%s\".\n", __func__, user);
  free(user);
  return 0;
}

// ---- The login dialogue -------------------------------------------------------------------------

namespace {

constexpr char kPrompt[] = "PromptForUserNameAndPasswd";
constexpr char kGroup[] = "qoruser";
constexpr size_t kBufferSize = 8192;
constexpr size_t kAnswerSize = 257;     // 256 characters are kept
constexpr int kFailuresBeforeLast = 3;  // the count is compared before it is raised: four tries

bool SendText(int sock, const char* text) {
  if (send(sock, text, strlen(text), 0) >= 0) return true;
  zev_debug(kError, "%s: send() failed : %s\n", kPrompt, strerror(errno));
  return false;
}

bool SendWelcome(int sock, const char* cons_name) {
  char host[kNameSize];
  if (gethostname(host, sizeof host) != 0) CopyText(host, "<unknown>");
  host[sizeof host - 1] = '\0';
  char text[kBufferSize];
  snprintf(text, sizeof text, "\r\nWelcome to zevd running on \"%s\".\r\n\n", host);
  if (!SendText(sock, text)) return false;
  snprintf(text, sizeof text,
           "In order to connect to console \"%s\", you must first provide\r\n"
           "a valid username/password combination on \"%s\".\r\n\n",
           cons_name, host);
  if (!SendText(sock, text)) return false;
  snprintf(text, sizeof text, "Please enter your username and password on \"%s\".\r\n\n", host);
  return SendText(sock, text);
}

bool IsTelnetSequence(const char* text) {
  return static_cast<unsigned char>(text[0]) == 255;
}

// An empty line is kept as it arrived, line end included.
void CutLineEnd(char* text) {
  const size_t length = strcspn(text, "\r\n");
  if (length > 0) text[length] = '\0';
}

// Asks until a name is given. False when the connection fails.
bool AskUserName(int sock, char (&user_name)[kAnswerSize]) {
  WipedText<kBufferSize> input;  // a password typed too early is wiped too
  do {
    if (!SendText(sock, "username: ")) return false;
    do {
      if (ReadCharAtATimeWithTimeout(sock, input.text, kBufferSize, 1, 0) != 0) return false;
    } while (IsTelnetSequence(input.text));
    input.text[strcspn(input.text, "\r\n")] = '\0';
  } while (input.text[0] == '\0');
  CopyText(user_name, input.text);
  return true;
}

bool AskPassword(int sock, char (&password)[kAnswerSize]) {
  WipedText<kBufferSize> input;
  if (!SendText(sock, "password: ")) return false;
  if (ReadCharAtATimeWithTimeout(sock, input.text, kBufferSize, 0, 0) != 0) return false;
  CutLineEnd(input.text);
  CopyText(password, input.text);
  return SendText(sock, "\r\n");
}

int Admit(const char* user_name) {
  if (strcmp(user_name, "root") == 0 || IsInQORUserGroup(user_name) != 0) return 0;
  SetUserError(kNotAuthorized);
  zev_debug(kInfo, "%s: User \"%s\" is not in the qoruser group.\n", kPrompt, user_name);
  return -1;
}

// True when the user may try again.
bool ReportFailedTry(int sock, const char* user_name, const char* cons_name, int failures) {
  zev_debug(kInfo, "%s: Login failed (username=\"%s\", console=\"%s\")\n", kPrompt, user_name,
            cons_name);
  if (failures == kFailuresBeforeLast) {
    SetUserError(kAuthenticationFailed);
    SendText(sock, "\r\n");
    return false;
  }
  return SendText(sock, "\nInvalid username/password combination. Please try again.\r\n\n");
}

}  // namespace

int PromptForUserNameAndPasswd(int sock, const char* cons_name) {
  ENTERING();
  if (!SendWelcome(sock, cons_name)) return -1;
  SetTelnetOptions(sock);
  for (int failures = 0;; ++failures) {
    WipedText<kAnswerSize> user_name;
    WipedText<kAnswerSize> password;
    if (!AskUserName(sock, user_name.text)) return -1;
    if (!AskPassword(sock, password.text)) return -1;
    if (AuthenticateOnLinux(user_name.text, password.text) == 0) return Admit(user_name.text);
    if (!ReportFailedTry(sock, user_name.text, cons_name, failures)) return -1;
  }
}

int AuthenticateOnLinux(const char* username, const char* password) {
  ENTERING();
  WipedText<2 * kAnswerSize> buffer;  // outlives the stream, which would keep a copy otherwise
  FILE* helper = popen(kPasswordHelper, "we");
  if (helper == nullptr) {
    zev_debug(kError, "%s: popen( %s, ...) failed : %s\n", __func__, kPasswordHelper,
              strerror(errno));
    return 1;
  }
  setvbuf(helper, buffer.text, _IOFBF, sizeof buffer.text);
  // The pair fits into the buffer: only when that is written does it show whether anybody reads it.
  if (fprintf(helper, "%s %s", username, password) < 0 || fflush(helper) != 0) {
    zev_debug(kError, "%s: fprintf() failed : %s\n", __func__, strerror(errno));
    pclose(helper);
    return 1;
  }
  return pclose(helper) == 0 ? 0 : 1;
}

int IsInQORUserGroup(const char* username) {
  ENTERING();
  static std::mutex group_database_mutex;  // the walk has one position for the whole process
  const std::lock_guard lock(group_database_mutex);
  bool member = false;
  setgrent();
  for (const group* entry = getgrent(); entry != nullptr && !member; entry = getgrent()) {
    if (strcmp(entry->gr_name, kGroup) != 0) continue;
    for (char** name = entry->gr_mem; *name != nullptr && !member; ++name) {
      member = strcmp(*name, username) == 0;
    }
  }
  endgrent();
  return member ? 1 : 0;
}
