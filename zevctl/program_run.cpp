#include "program_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "descriptor.h"

namespace zevctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLimit{10};
constexpr size_t kMostOutput = size_t{256} * 1024;

/// What posix_spawn() does in the child before it starts the program.
class ChildFiles {
 public:
  explicit ChildFiles(int output) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO);
  }
  ~ChildFiles() { posix_spawn_file_actions_destroy(&actions_); }
  ChildFiles(const ChildFiles&) = delete;
  ChildFiles& operator=(const ChildFiles&) = delete;

  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

std::vector<std::string> EnglishEnvironment() {
  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!std::string(*variable).starts_with("LC_ALL=")) variables.emplace_back(*variable);
  }
  variables.emplace_back("LC_ALL=C");
  return variables;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

pid_t Start(std::vector<std::string> command, int output) {
  std::vector<std::string> environment = EnglishEnvironment();
  const ChildFiles files(output);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, command[0].c_str(), files.get(), nullptr,
                                 Pointers(command).data(), Pointers(environment).data());
  return error == 0 ? pid : -1;
}

// False when the time is over before the program has closed its output.
bool ReadAll(int fd, std::string& output) {
  const auto deadline = Clock::now() + kLimit;
  std::array<char, 4096> chunk{};
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd input = {fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&input, 1, static_cast<int>(left.count())) == 0) return false;
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return true;
    const size_t room = kMostOutput - output.size();
    output.append(chunk.data(), std::min(room, static_cast<size_t>(count)));
  }
}

int StatusOf(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

ProgramResult RunProgram(const std::vector<std::string>& command) {
  ProgramResult result;
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return result;
  const Descriptor reading(ends[0]);
  pid_t pid = -1;
  {
    const Descriptor writing(ends[1]);
    pid = Start(command, writing.get());
  }
  if (pid == -1) return result;
  const bool ended = ReadAll(reading.get(), result.output);
  if (!ended) kill(pid, SIGKILL);
  const int status = StatusOf(pid);
  result.status = ended ? status : -1;
  return result;
}

}  // namespace zevctl
