// Checks one user name and password with PAM.
//
// Reads "name password" from standard input up to its end: the name ends at the first blank, all
// the rest is the password, blanks included. The environment variable QOR_RHOST is the address that
// the pair came from; PAM's modules may judge by it and log it. Ends with status 0 when the pair is
// valid and the account may be used, with 1 otherwise. Prints nothing; wipes what it read.
//
// PAM's modules need rights for this that the daemon does not have. Started without them, the
// program asks the password service (password_socket.h); that is this program with the option
// --service and an accepted connection as its standard input, which answers one caller. Where there
// is no service, the program does what it can by itself.
#include <security/pam_appl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "password_socket.h"

namespace {

constexpr char kService[] = "qor";
constexpr size_t kLongestPair = 8191;
constexpr unsigned kReadLimit = 10;  // seconds in which a caller of the service must send the pair

char input[kLongestAddress + 1 + kLongestPair + 1];  // for the service, and a terminator

struct Pair {
  const char* name;
  const char* password;
};

// The length of what was read, or 0 when it is empty, longer than `longest` or cannot be read.
size_t ReadInput(size_t longest) {
  size_t length = 0;
  for (;;) {
    const ssize_t count = read(STDIN_FILENO, input + length, longest + 1 - length);
    if (count == 0) return length;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return 0;
    length += static_cast<size_t>(count);
    if (length > longest) return 0;
  }
}

// Splits the text, which has room for a terminator, in place. False when there is no name, no
// blank, or a NUL inside.
bool SplitPair(char* text, size_t length, Pair* pair) {
  if (length == 0 || memchr(text, '\0', length) != nullptr) return false;
  char* blank = static_cast<char*>(memchr(text, ' ', length));
  if (blank == nullptr || blank == text) return false;
  *blank = '\0';
  text[length] = '\0';
  *pair = {text, blank + 1};
  return true;
}

// PAM frees the array and the texts.
int Answer(int count, const pam_message** messages, pam_response** responses, void* data) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  auto* answers =
      static_cast<pam_response*>(calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (answers == nullptr) return PAM_BUF_ERR;
  const auto* pair = static_cast<const Pair*>(data);
  for (int i = 0; i < count; ++i) {
    const int style = messages[i]->msg_style;
    if (style == PAM_PROMPT_ECHO_OFF) answers[i].resp = strdup(pair->password);
    if (style == PAM_PROMPT_ECHO_ON) answers[i].resp = strdup(pair->name);
  }
  *responses = answers;
  return PAM_SUCCESS;
}

bool IsValid(const Pair& pair, const char* rhost) {
  pam_handle_t* handle = nullptr;
  const pam_conv conversation = {Answer, const_cast<Pair*>(&pair)};
  if (pam_start(kService, pair.name, &conversation, &handle) != PAM_SUCCESS) return false;
  constexpr int kFlags = PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK;
  int status = PAM_SUCCESS;
  if (rhost[0] != '\0') status = pam_set_item(handle, PAM_RHOST, rhost);
  if (status == PAM_SUCCESS) status = pam_authenticate(handle, kFlags);
  if (status == PAM_SUCCESS) status = pam_acct_mgmt(handle, kFlags);
  pam_end(handle, status);
  return status == PAM_SUCCESS;
}

// A password belongs neither on the swap device nor in a core file.
void ProtectMemory() {
  mlock(input, sizeof input);
  constexpr rlimit kNoCore = {0, 0};
  setrlimit(RLIMIT_CORE, &kNoCore);
}

// A daemon passes on the signals that it blocks or ignores. This program must end when it is told
// to, and the modules of PAM wait for programs that they start.
void ResetSignals() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGCHLD, SIG_DFL);
  signal(SIGALRM, SIG_DFL);
}

const char* AddressFromEnvironment() {
  const char* address = getenv("QOR_RHOST");
  return address == nullptr ? "" : address;
}

bool CheckInput() {
  const size_t length = ReadInput(kLongestPair);
  if (length == 0) return false;
  const char* address = AddressFromEnvironment();
  if (geteuid() != 0) {
    const Verdict verdict = AskPasswordService(address, input, length);
    if (verdict != Verdict::kNoService) return verdict == Verdict::kAccepted;
  }
  Pair pair{};
  return SplitPair(input, length, &pair) && IsValid(pair, address);
}

// The input is an address, a NUL and the pair. What it takes PAM is not the caller's doing.
bool CheckRequest() {
  alarm(kReadLimit);
  const size_t length = ReadInput(kLongestAddress + 1 + kLongestPair);
  alarm(0);
  char* end = static_cast<char*>(memchr(input, '\0', length));
  if (end == nullptr) return false;
  Pair pair{};
  const size_t used = static_cast<size_t>(end + 1 - input);
  return SplitPair(end + 1, length - used, &pair) && IsValid(pair, input);
}

bool Tell(char byte) {
  return send(STDIN_FILENO, &byte, 1, MSG_NOSIGNAL) == 1;
}

// Answers the caller at standard input. A caller who sends too slowly ends the program (SIGALRM).
bool Serve() {
  if (!MayAsk(STDIN_FILENO) || !Tell(kReadyByte)) return false;
  const bool valid = CheckRequest();
  explicit_bzero(input, sizeof input);
  return Tell(valid ? kAcceptedByte : kRefusedByte);
}

}  // namespace

int main(int argc, char** argv) {
  ResetSignals();
  ProtectMemory();
  const bool serves = argc == 2 && strcmp(argv[1], "--service") == 0;
  const bool done = serves ? Serve() : CheckInput();
  explicit_bzero(input, sizeof input);
  return done ? 0 : 1;
}
