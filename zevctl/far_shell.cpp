#include "far_shell.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <sstream>

#include "descriptor.h"
#include "far_words.h"

namespace zevctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMostOutput = size_t{64} << 20;
constexpr size_t kMostErrors = size_t{64} << 10;
constexpr int kForEver = -1;

std::string ThisProgram() {
  char path[PATH_MAX] = "";
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : "zevctl";
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

int StatusOf(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// One station's child, and what comes from it.
struct Child {
  FarResult result;
  pid_t pid = -1;
  Descriptor output;
  Descriptor errors;
};

Descriptor OpenPipe(Descriptor* writing) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) return Descriptor();
  *writing = Descriptor(ends[1]);
  return Descriptor(ends[0]);
}

Child StartChild(std::vector<std::string> line, const std::string& station) {
  Child child;
  child.result.station = station;
  Descriptor output;
  Descriptor errors;
  child.output = OpenPipe(&output);
  child.errors = OpenPipe(&errors);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, output.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&files, errors.get(), STDERR_FILENO);
  if (posix_spawnp(&child.pid, line[0].c_str(), &files, nullptr, Pointers(line).data(), environ) !=
      0) {
    child.pid = -1;
    child.result.errors = line[0] + " cannot be started";
  }
  posix_spawn_file_actions_destroy(&files);
  return child;
}

// Takes what is there; closes the descriptor at the end.
void Receive(Descriptor* from, std::string* text, size_t most) {
  char chunk[16384];
  const ssize_t count = read(from->get(), chunk, sizeof chunk);
  if (count < 0 && errno == EINTR) return;
  if (count <= 0) return from->Close();
  text->append(chunk, std::min(static_cast<size_t>(count), most - std::min(most, text->size())));
}

void TakeLines(Child& child, const TakeFarLine& take) {
  if (take == nullptr) return;
  std::string& text = child.result.output;
  size_t begin = 0;
  for (size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    take(child.result.station, std::string_view(text).substr(begin, end - begin));
  }
  text.erase(0, begin);
}

// Waits for anything of any of them. False when the time is over.
bool ReceiveOnce(std::vector<Child>& children, int milliseconds, const TakeFarLine& take) {
  std::vector<pollfd> waits;
  for (const Child& child : children) {
    waits.push_back({child.output.get(), POLLIN, 0});
    waits.push_back({child.errors.get(), POLLIN, 0});
  }
  const int count = poll(waits.data(), waits.size(), milliseconds);
  if (count <= 0) return count < 0;
  for (size_t i = 0; i < children.size(); ++i) {
    Child& child = children[i];
    if (waits[2 * i].revents != 0) {
      Receive(&child.output, &child.result.output, kMostOutput);
      TakeLines(child, take);
    }
    if (waits[2 * i + 1].revents != 0) {
      Receive(&child.errors, &child.result.errors, kMostErrors);
    }
  }
  return true;
}

bool AnyOpen(const std::vector<Child>& children) {
  return std::ranges::any_of(children, [](const Child& child) {
    return child.pid != -1 && (child.output || child.errors);
  });
}

std::vector<FarResult> RunAll(const FarMap& map, const FarShell& shell,
                              const std::vector<FarStation>& stations,
                              const std::vector<std::string>& words, int seconds,
                              const TakeFarLine& take) {
  std::vector<Child> children;
  children.reserve(stations.size());
  for (const FarStation& station : stations) {
    children.push_back(StartChild(FarLine(map, shell, station, words, false), station.name));
  }
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  bool in_time = true;
  while (in_time && AnyOpen(children)) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int wait = seconds == kForEver ? kForEver : static_cast<int>(std::max<int64_t>(left, 0));
    in_time = ReceiveOnce(children, wait, take);
  }
  std::vector<FarResult> results;
  for (Child& child : children) {
    const bool is_late = child.output || child.errors;
    if (child.pid != -1 && is_late) kill(child.pid, SIGKILL);
    if (child.pid != -1) child.result.status = StatusOf(child.pid);
    if (child.pid != -1 && is_late) child.result.errors = "it does not answer";
    results.push_back(std::move(child.result));
  }
  return results;
}

}  // namespace

std::vector<std::string> FarLine(const FarMap& map, const FarShell& shell,
                                 const FarStation& station, const std::vector<std::string>& words,
                                 bool with_terminal) {
  std::vector<std::string> line;
  if (station.name == map.station) {
    line.push_back(ThisProgram());
    line.insert(line.end(), words.begin(), words.end());
    return line;
  }
  std::istringstream stream(shell.command);
  for (std::string word; stream >> word;) line.push_back(word);
  const std::vector<const char*> options =
      with_terminal ? std::vector<const char*>{"-t",
                                               "-o",
                                               "ConnectTimeout=5",
                                               "-o",
                                               "ServerAliveInterval=2",
                                               "-o",
                                               "ServerAliveCountMax=3"}
                    : std::vector<const char*>{"-o", "BatchMode=yes", "-o", "ConnectTimeout=5"};
  line.insert(line.end(), options.begin(), options.end());
  line.push_back(station.address);
  line.push_back("zevctl " + QuotedForShell(words));
  return line;
}

std::vector<FarResult> RunFar(const FarMap& map, const FarShell& shell,
                              const std::vector<FarStation>& stations,
                              const std::vector<std::string>& words, int seconds) {
  return RunAll(map, shell, stations, words, seconds, nullptr);
}

std::vector<FarResult> FollowFar(const FarMap& map, const FarShell& shell,
                                 const std::vector<FarStation>& stations,
                                 const std::vector<std::string>& words, const TakeFarLine& take) {
  return RunAll(map, shell, stations, words, kForEver, take);
}

int RunFarHere(const FarMap& map, const FarShell& shell, const FarStation& station,
               const std::vector<std::string>& words) {
  const bool with_terminal = isatty(STDIN_FILENO) == 1;
  std::vector<std::string> line = FarLine(map, shell, station, words, with_terminal);
  pid_t pid = -1;
  const auto pointers = Pointers(line);
  if (posix_spawnp(&pid, line[0].c_str(), nullptr, nullptr, pointers.data(), environ) != 0) {
    return FarResult::kUnreached;
  }
  // The keys that end a program are the child's.
  const auto interrupt = signal(SIGINT, SIG_IGN);
  const auto quit = signal(SIGQUIT, SIG_IGN);
  const int status = StatusOf(pid);
  signal(SIGINT, interrupt);
  signal(SIGQUIT, quit);
  return status;
}

}  // namespace zevctl
