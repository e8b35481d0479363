#include "process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <fstream>
#include <iterator>

namespace bench {

namespace {

constexpr int kInheritedDescriptor = 3;
constexpr double kNano = 1e9;

double Seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / kNano;
}

// In the child between fork() and exec(): only what may be called there.
[[noreturn]] void Become(char* const* words, int output, int inherited) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  if (inherited == kInheritedDescriptor) {
    fcntl(inherited, F_SETFD, 0);
  } else if (inherited != -1) {
    dup2(inherited, kInheritedDescriptor);
  }
  execv(words[0], words);
  constexpr int kCannotRun = 127;
  _exit(kCannotRun);
}

std::string EndOf(const std::string& path) {
  constexpr size_t kShown = 2000;
  std::ifstream file(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return text.size() > kShown ? text.substr(text.size() - kShown) : text;
}

}  // namespace

Process::Process(const std::vector<std::string>& command, const std::string& output, int inherited)
    : output_(output) {
  std::vector<char*> words;
  words.reserve(command.size() + 1);
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  const Descriptor file(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (file.get() == -1) Fail(output);
  pid_ = fork();
  if (pid_ == -1) Fail("fork");
  if (pid_ == 0) Become(words.data(), file.get(), inherited);
  setpgid(pid_, pid_);  // whoever of the two comes first
}

Process::~Process() {
  kill(-pid_, SIGKILL);
  if (!ended_) waitpid(pid_, nullptr, 0);
}

void Process::CheckRunning() {
  ended_ = ended_ || waitpid(pid_, nullptr, WNOHANG) == pid_;
  if (ended_) throw std::runtime_error("the process has ended: " + EndOf(output_));
}

double Process::CpuSeconds() const {
  clockid_t clock{};
  timespec used{};
  if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &used) != 0) {
    throw std::runtime_error("no processor time of process " + std::to_string(pid_));
  }
  return Seconds(used);
}

double Process::ResidentKib() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  for (std::string word; status >> word;) {
    if (word != "VmRSS:") continue;
    double kib = 0;
    status >> kib;
    return kib;
  }
  throw std::runtime_error("no memory of process " + std::to_string(pid_));
}

CpuShare::CpuShare(const Process& process)
    : process_(process), cpu_(process.CpuSeconds()), time_(Now()) {}

double CpuShare::Percent() const {
  constexpr double kPercent = 100;
  return kPercent * (process_.CpuSeconds() - cpu_) / (Now() - time_);
}

double Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return Seconds(now);
}

void SleepUntil(double moment) {
  timespec until{};
  until.tv_sec = static_cast<time_t>(moment);
  until.tv_nsec = static_cast<long>((moment - static_cast<double>(until.tv_sec)) * kNano);
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

}  // namespace bench
