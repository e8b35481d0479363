#include "fleet_child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>

#include "descriptor.h"
#include "fleet_clock.h"

namespace zevfleet {

namespace {

constexpr size_t kMostOutput = size_t{64} << 10;

std::string BesideThisProgram() {
  char path[PATH_MAX] = "";
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return "zevctl";
  std::string found(path, static_cast<size_t>(length));
  found = found.substr(0, found.rfind('/') + 1) + "zevctl";
  return access(found.c_str(), X_OK) == 0 ? found : "zevctl";
}

// In the child, between fork() and the new program: nothing but what signal-safety(7) allows.
[[noreturn]] void Become(char* const* words, int output, int input, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);  // it has ended before that
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execvp(words[0], words);
  _exit(127);
}

// False when the time is over first.
bool ReadAll(int fd, int64_t deadline, std::string& output) {
  char chunk[4096];
  for (;;) {
    const int64_t left = (deadline - BootNow()) / kMillisecond;
    pollfd input = {fd, POLLIN, 0};
    if (left <= 0 || poll(&input, 1, static_cast<int>(left)) == 0) return false;
    const ssize_t count = read(fd, chunk, sizeof chunk);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return true;
    output.append(chunk, std::min(static_cast<size_t>(count), kMostOutput - output.size()));
  }
}

}  // namespace

ChildResult RunZevctl(std::vector<std::string> words, int seconds) {
  words.insert(words.begin(), BesideThisProgram());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  int ends[2] = {-1, -1};
  const zevctl::Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!nothing || pipe2(ends, O_CLOEXEC) != 0) return {};
  zevctl::Descriptor reading(ends[0]);
  zevctl::Descriptor writing(ends[1]);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) Become(pointers.data(), writing.get(), nothing.get(), parent);
  if (child == -1) return {};
  writing.Close();
  ChildResult result;
  const bool in_time = ReadAll(reading.get(), BootNow() + seconds * kSecond, result.output);
  if (!in_time) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  if (in_time && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  while (result.output.ends_with('\n')) result.output.pop_back();
  return result;
}

}  // namespace zevfleet
