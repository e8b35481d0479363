#include "security.h"

#include <grp.h>
#include <password_check.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <tqauth.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "audit.h"
#include "cancellation.h"
#include "clock.h"
#include "cookie.h"
#include "counters.h"
#include "error.h"
#include "fixed_text.h"
#include "mutex.h"
#include "paths.h"
#include "security_steps.h"
#include "sockets.h"
#include "telnet_bytes.h"
#include "user.h"
#include "utf8.h"
#include "util.h"

namespace zevd {

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

// When a stopped process is continued, its wait is interrupted (signal(7)); it is resumed for the
// time that is left.
ssize_t PeekBefore(int sock, char* buf, size_t size, int64_t deadline) {
  for (;;) {
    const int64_t left = std::max<int64_t>(deadline - MonotonicMicroseconds(), 1);
    const timeval limit = {left / 1000000, left % 1000000};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    errno = 0;
    const ssize_t count = recv(sock, buf, size, MSG_PEEK);
    if (count >= 0 || errno != EINTR) return count;
  }
}

// Peeks at what the client has sent. Returns the number of bytes, or what recv() returned, with
// errno set. Leaves the socket's own time-out as it was.
ssize_t PeekFirstLine(int sock, char* buf, size_t size) {
  timeval saved{};
  socklen_t length = sizeof saved;
  getsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &saved, &length);
  const int64_t deadline = MonotonicMicroseconds() + kFirstLineWait * int64_t{1000000};
  const ssize_t count = PeekBefore(sock, buf, size, deadline);
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
  ReplaceControls(user_cookie);  // a wrong one is shown
  return 1;
}

namespace {

constexpr char kDecide[] = "DoAuthentication";
constexpr char kAccepted[] = "accepted";
constexpr char kByCookie[] = "by cookie";
constexpr char kByName[] = "by name and password";

void AuditLogin(const char* result, const Identity& identity, const char* cons_name,
                const char* reason) {
  Audit({"login", result, &identity, cons_name, nullptr, reason});
  (strcmp(result, kAccepted) == 0 ? counters.logins_accepted : counters.logins_refused).Add();
}

// When a refusal has no text, the connection itself has failed.
void AuditRefusedLogin(const Identity& identity, const char* cons_name) {
  AuditLogin("refused", identity, cons_name,
             u_err_msg == nullptr ? "The connection failed." : u_err_msg);
}

// A password that was typed in place of the name may be in this field.
void Wipe(Identity& identity) {
  explicit_bzero(identity.given_user, sizeof identity.given_user);
}

void FreeWiped(char* text) {
  if (text != nullptr) explicit_bzero(text, strlen(text));
  free(text);
}

/// The connection that the calling thread has the library authenticate, and whether the library has
/// reported a pair that it refused there.
thread_local const Identity* authenticated = nullptr;
thread_local bool refusal_told = false;

// Every failed try shows in the system log, whatever becomes of the connection.
void TellRefusal(int /*sock*/, const char* user) {
  Identity failed = *authenticated;
  CopyText(failed.given_user, user);
  refusal_told = true;
  AuditLogin("refused", failed, nullptr, UserErrorText(kAuthenticationFailed));
  Wipe(failed);
}

// The station's own library may lack the means to report refusals (tqauth.h).
char* AskLibrary(int sock, char** user, const Identity& identity) {
  authenticated = &identity;
  if (authenticate_tell_refusals != nullptr) authenticate_tell_refusals(TellRefusal);
  errno = 0;
  char* line = authenticate(sock, user);
  authenticated = nullptr;
  return line;
}

int Authenticate(int sock, const sockaddr_in& client_addr, char* buf, int size, Identity& identity,
                 bool* by_cookie) {
  char user_cookie[kCookieSize];
  const int kind = IsTokenAuthentication(sock, user_cookie);
  if (kind == -2) {
    DEBUG_AS(kDecide, kInfo, "Timed out waiting for input.\n");
    return -1;
  }
  if (kind == -1) {
    DEBUG_AS(kDecide, kInfo, "Error reading authentication data.\n");
    return -1;
  }
  *by_cookie = kind == 1 && IsLoopback(client_addr);
  if (!*by_cookie) return DoTqAuthValidation(sock, buf, size, identity);
  if (ReadLineWithTimeout(sock, buf, size, kFirstLineWait) != 0) return -1;
  return DoCookieValidation(sock, user_cookie);
}

}  // namespace

int DoAuthentication(int sock, const sockaddr_in& client_addr, char* buf, int size,
                     Identity& identity) {
  ENTERING();
  bool by_cookie = false;
  refusal_told = false;
  const int result = Authenticate(sock, client_addr, buf, size, identity, &by_cookie);
  if (result == 0) {
    AuditLogin(kAccepted, identity, nullptr, by_cookie ? kByCookie : kByName);
  } else if (!refusal_told || u_err_msg != UserErrorText(kAuthenticationFailed)) {
    AuditRefusedLogin(identity, nullptr);
  }
  return result;
}

int DoTqAuthValidation(int sock, char* buf, int size, Identity& identity) {
  ENTERING();
  char* user = nullptr;
  const char* line = AskLibrary(sock, &user, identity);
  if (line == nullptr) {
    SetUserError(errno == EUSERS ? kTimedOut : kAuthenticationFailed);
    zev_debug(kInfo, "%s: Authentication failed.\n", __func__);
    if (user != nullptr) CopyText(identity.given_user, user);
    FreeWiped(user);
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
  CopyText(identity.user, user);
  FreeWiped(user);
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
  if (TEMP_FAILURE_RETRY(send(sock, text, strlen(text), 0)) >= 0) return true;
  DEBUG_AS(kPrompt, kError, "send() failed : %s\n", strerror(errno));
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
  return static_cast<unsigned char>(text[0]) == telnet::kIac;
}

// Kept: an empty line stays as it arrived, line end included.
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

// A name as it may be shown: what a stranger types goes to the helper as it is, and nowhere else.
struct ShownName {
  char text[kAnswerSize];
  explicit ShownName(const char* name) {
    CopyText(text, name);
    ReplaceControls(text);
  }
};

int Admit(const char* user_name, const char* cons_name, Identity& identity) {
  CopyText(identity.user, user_name);
  if (strcmp(user_name, "root") == 0 || IsInQORUserGroup(user_name) != 0) {
    AuditLogin(kAccepted, identity, cons_name, kByName);
    return 0;
  }
  SetUserError(kNotAuthorized);
  DEBUG_AS(kPrompt, kInfo, "User \"%s\" is not in the qoruser group.\n", ShownName(user_name).text);
  AuditRefusedLogin(identity, cons_name);
  return -1;
}

// True when the user may try again.
bool ReportFailedTry(int sock, const char* user_name, const char* cons_name, int failures) {
  DEBUG_AS(kPrompt, kInfo, "Login failed (username=\"%s\", console=\"%s\")\n",
           ShownName(user_name).text, cons_name);
  if (failures == kFailuresBeforeLast) {
    SetUserError(kAuthenticationFailed);
    SendText(sock, "\r\n");
    return false;
  }
  return SendText(sock, "\nInvalid username/password combination. Please try again.\r\n\n");
}

// Every failed try shows in the system log, whatever becomes of the connection.
void AuditFailedTry(const char* user_name, const char* cons_name, const Identity& identity,
                    const char* reason) {
  Identity failed = identity;
  CopyText(failed.given_user, user_name);
  AuditLogin("refused", failed, cons_name, reason);
  Wipe(failed);
}

}  // namespace

int PromptForUserNameAndPasswd(int sock, const char* cons_name, Identity& identity) {
  ENTERING();
  if (!SendWelcome(sock, cons_name)) return -1;
  SetTelnetOptions(sock);
  for (int failures = 0;; ++failures) {
    WipedText<kAnswerSize> user_name;
    WipedText<kAnswerSize> password;
    if (!AskUserName(sock, user_name.text)) return -1;
    if (!AskPassword(sock, password.text)) return -1;
    const int result = AuthenticateOnLinux(user_name.text, password.text, identity.from, sock);
    if (result == 0) return Admit(user_name.text, cons_name, identity);
    const UserError reason = result < 0 ? kTimedOut : kAuthenticationFailed;
    AuditFailedTry(user_name.text, cons_name, identity, UserErrorText(reason));
    if (result < 0 || !ReportFailedTry(sock, user_name.text, cons_name, failures)) return -1;
  }
}

namespace {

// A helper may take long, as a client may: the calling thread can be cancelled meanwhile.
PasswordCheck Check(const char* username, const char* password, const char* rhost, int sock) {
  const sigset_t while_waiting = BlockedWhileWaiting();
  return CheckPassword(kPasswordHelper,
                       {username, password, rhost, sock, &while_waiting, EndIfCancelled});
}

}  // namespace

int AuthenticateOnLinux(const char* username, const char* password, const char* rhost, int sock) {
  ENTERING();
  switch (Check(username, password, rhost, sock)) {
    case PasswordCheck::kAccepted:
      return 0;
    case PasswordCheck::kRefused:
      return 1;
    case PasswordCheck::kNoTurn:
      SetUserError(kTimedOut);
      return -1;
    case PasswordCheck::kNotStarted:
      zev_debug(kError, "%s: popen( %s, ...) failed : %s\n", __func__, kPasswordHelper,
                strerror(errno));
      return 1;
    case PasswordCheck::kNotRead:
      zev_debug(kError, "%s: fprintf() failed : %s\n", __func__, strerror(errno));
      return 1;
  }
  return 1;
}

int IsInQORUserGroup(const char* username) {
  ENTERING();
  static Mutex group_database_mutex;  // getgrent() has one position for the whole process
  const MutexLock lock(group_database_mutex);
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

}  // namespace zevd
