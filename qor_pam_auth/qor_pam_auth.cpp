// Checks one user name and password with PAM.
//
// Reads "name password" from standard input up to its end: the name ends at the first blank, all
// the rest is the password, blanks included. The environment variable QOR_RHOST is the address that
// the pair came from; PAM's modules may judge by it and log it. Ends with status 0 when the pair is
// valid and the account may be used, with 1 otherwise. Prints nothing; wipes what it read.
#include <security/pam_appl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kService[] = "qor";
constexpr size_t kInputSize = 8192;

char input[kInputSize];

struct Pair {
  const char* name;
  const char* password;
};

// The length of what was read, or 0 when it is empty, too long or cannot be read.
size_t ReadInput() {
  size_t length = 0;
  for (;;) {
    const ssize_t count = read(STDIN_FILENO, input + length, sizeof input - length);
    if (count == 0) return length;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return 0;
    length += static_cast<size_t>(count);
    if (length == sizeof input) return 0;
  }
}

// Splits the input in place. False when there is no name, no blank, or a NUL inside.
bool SplitPair(Pair* pair) {
  const size_t length = ReadInput();
  if (length == 0 || memchr(input, '\0', length) != nullptr) return false;
  char* blank = static_cast<char*>(memchr(input, ' ', length));
  if (blank == nullptr || blank == input) return false;
  *blank = '\0';
  input[length] = '\0';
  *pair = {input, blank + 1};
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

bool IsValid(const Pair& pair) {
  pam_handle_t* handle = nullptr;
  const pam_conv conversation = {Answer, const_cast<Pair*>(&pair)};
  if (pam_start(kService, pair.name, &conversation, &handle) != PAM_SUCCESS) return false;
  constexpr int kFlags = PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK;
  const char* rhost = getenv("QOR_RHOST");
  int status = PAM_SUCCESS;
  if (rhost != nullptr && rhost[0] != '\0') status = pam_set_item(handle, PAM_RHOST, rhost);
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
}

}  // namespace

int main() {
  ResetSignals();
  ProtectMemory();
  Pair pair{};
  const bool valid = SplitPair(&pair) && IsValid(pair);
  explicit_bzero(input, sizeof input);
  return valid ? 0 : 1;
}
