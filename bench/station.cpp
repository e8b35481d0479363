#include "station.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace bench {

namespace {

const std::string kRoot = QOR_ROOT;
const std::string kDatedLogs = kRoot + "/logs/zev.dated/";
const std::string kCurrent = kDatedLogs + "current";
const std::string kJournal = kRoot + "/journal";
const std::string kHangPipe = kRoot + "/run/hang";
constexpr double kBetweenQuestions = 0.010;  // a long answer keeps the daemon from connecting
const std::string kLoopback = "127.0.0.1";
constexpr char kOffers[] = "\xff\xfb\x01\xff\xfb\x03";  // what ends the attaching

void Write(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) Fail(path);
}

// A console is reported as connected a moment before users can be attached to it.
template <typename Attach>
User RetryWhileRefused(Attach attach) {
  constexpr double kPatience = 10;
  constexpr double kPause = 0.010;
  for (const double end = Now() + kPatience;; SleepUntil(Now() + kPause)) {
    try {
      return attach();
    } catch (const ConnectionOver&) {
      if (Now() > end) throw;
    }
  }
}

std::string Cookie() {
  std::ifstream file(kRoot + "/config/.cookie");
  std::string cookie;
  file >> cookie;
  return cookie;
}

}  // namespace

Station::Station(const std::string& daemon, Farm& farm, std::vector<ConsolePlan> consoles,
                 bool security, const std::vector<std::string>& options)
    : farm_(farm),
      consoles_(std::move(consoles)),
      security_(security),
      port_(FreePorts(1).front()),
      lost_before_(farm.lost()) {
  WriteConfiguration();
  std::vector<std::string> command = {
      daemon, "-f", "-S", security ? "1" : "0", "-p", std::to_string(port_)};
  command.insert(command.end(), options.begin(), options.end());
  const double start = Now();
  daemon_ = std::make_unique<Process>(command, kRoot + "/zevd.out");
  WaitUntilConnected();
  start_seconds_ = Now() - start;
}

size_t Station::Reachable() const {
  return static_cast<size_t>(std::count_if(consoles_.begin(), consoles_.end(),
                                           [](const ConsolePlan& plan) { return plan.port == 0; }));
}

void Station::WaitUntilConnected() {
  const size_t reachable = Reachable();
  WaitUntil("the daemon to call every console", [&] {
    daemon_->CheckRunning();
    return farm_.connected() >= reachable && Listens();
  });
  Tool tool = NewTool();
  WaitUntil("every console to be connected", [&] {
    SleepUntil(Now() + kBetweenQuestions);
    return tool.AskForConsoles().connected == reachable;
  });
}

bool Station::Listens() const {
  try {
    ConnectTo(kLoopback, port_);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

User Station::Attach(size_t console, int receive_buffer) const {
  return RetryWhileRefused([&] {
    User user = Call(console, receive_buffer);
    user.Expect(kOffers);
    return user;
  });
}

User Station::Call(size_t console, int receive_buffer) const {
  User user(ConnectTo(kLoopback, port_, receive_buffer));
  user.Send(NameOf(console) + " user=bench\n");
  return user;
}

User Station::AttachToMappedPort(size_t console) const {
  return RetryWhileRefused([&] {
    User user(CallMappedPort(console));
    user.Expect("in shared mode.\r\n\n");
    return user;
  });
}

Descriptor Station::CallMappedPort(size_t console) const {
  return ConnectTo(kLoopback, consoles_.at(console).mapped_port);
}

Tool Station::NewTool() const {
  return Tool(CallCommandPort());
}

Descriptor Station::CallCommandPort() const {
  Descriptor sock = ConnectTo(kLoopback, port_);
  SendAll(sock, (security_ ? "token " + Cookie() + " " : "") + "@@@@ user=bench\n");
  return sock;
}

void Station::AddConsole() {
  consoles_.emplace_back();
  WriteConfiguration();
}

void Station::Reload() const {
  kill(daemon_->pid(), SIGHUP);
}

// The directory in use is given an old name: within a minute, the daemon would go on in a directory
// of the same name. An interval of 0 days has passed whenever the daemon looks.
void Station::Rotate() {
  constexpr int kNever = 1000;
  const std::string old = kDatedLogs + "old-" + std::to_string(++rotations_);
  std::filesystem::rename(std::filesystem::read_symlink(kCurrent), old);
  std::filesystem::create_symlink(old, kCurrent + ".new");
  std::filesystem::rename(kCurrent + ".new", kCurrent);
  SetArchiveInterval(0);
  Reload();
  const auto has_moved = [&] {
    std::error_code none_now;  // the daemon is just replacing the link
    const auto target = std::filesystem::read_symlink(kCurrent, none_now);
    return !none_now && target != old;
  };
  WaitUntil("a rotation", has_moved);
  SetArchiveInterval(kNever);
  Reload();
}

void Station::SetArchiveInterval(int days) {
  WriteSettings("ZEVD_ARCH_INT=" + std::to_string(days) + "\n");
}

void Station::WriteSettings(const std::string& text) {
  const std::string path = kRoot + "/config/qor.conf";
  Write(path + ".new", text);
  std::filesystem::rename(path + ".new", path);
}

void Station::KeepJournal(bool keep) const {
  constexpr int kMebibytes = 1'000;
  WriteSettings("ZEVD_JOURNAL=" + std::to_string(keep ? kMebibytes : 0) + "\n");
  Reload();
  WaitUntil(keep ? "a journal" : "the journal's end", [&] { return KeepsJournal() == keep; });
}

// While it keeps a journal, the daemon has its newest segment open.
bool Station::KeepsJournal() const {
  const std::string descriptors = "/proc/" + std::to_string(daemon_->pid()) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator(descriptors)) {
    std::error_code closed_now;
    if (read_symlink(entry.path(), closed_now).extension() == ".seg") return true;
  }
  return false;
}

uintmax_t Station::JournalSize() {
  uintmax_t size = 0;
  if (!std::filesystem::exists(kJournal)) return size;
  for (const auto& entry : std::filesystem::directory_iterator(kJournal)) size += entry.file_size();
  return size;
}

void Station::CheckWhole() {
  daemon_->CheckRunning();
  if (farm_.lost() != lost_before_) {
    throw std::runtime_error(std::to_string(farm_.lost() - lost_before_) + " consoles were lost");
  }
}

std::string Station::NameOf(size_t console) {
  std::string digits = std::to_string(console);
  constexpr size_t kWidth = 5;
  return "c" + std::string(kWidth - std::min(kWidth, digits.size()), '0') + digits;
}

std::string Station::LogOf(size_t console) {
  return kCurrent + "/" + NameOf(console) + ".log";
}

std::string Station::ConsolidatedLog() {
  return kCurrent + "/consolidated.log";
}

void Station::ClearRoot() {
  for (const auto& entry : std::filesystem::directory_iterator(kRoot)) remove_all(entry.path());
  for (const char* name : {"bin", "config", "events", "logs", "run"}) {
    std::filesystem::create_directory(kRoot + "/" + name);
  }
  Write(kRoot + "/config/models", "A|A200\n");
}

void Station::WriteEventFile(const std::string& name, const std::string& lines) {
  Write(kRoot + "/events/" + name, lines);
}

// The helpers wait for somebody to open the pipe for writing.
void Station::WriteHangingHelper() {
  const std::string helper = kRoot + "/bin/qor_pam_auth";
  Write(helper, "#!/bin/sh\nexec cat " + kHangPipe + "\n");
  std::filesystem::permissions(helper, std::filesystem::perms::owner_all);
  if (mkfifo(kHangPipe.c_str(), S_IRUSR | S_IWUSR) != 0) Fail(kHangPipe);
}

void Station::EndHangingHelpers() {
  const Descriptor pipe(open(kHangPipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
}

std::string Station::ConfigurationLine(size_t console) const {
  const ConsolePlan& plan = consoles_[console];
  const auto flag = [](bool value) { return value ? std::string(" 1") : std::string(" 0"); };
  return NameOf(console) + " " + Farm::AddressOf(console) + " " +
         std::to_string(plan.port == 0 ? farm_.port() : plan.port) + " 23 " +
         std::to_string(plan.mapped_port) + " A200 sys1 \"Unix\"" + flag(plan.logging) +
         flag(!plan.event_file.empty()) + flag(true) + flag(plan.login) + " " +
         (plan.event_file.empty() ? "\"\"" : plan.event_file) + " \n";
}

void Station::WriteConfiguration() const {
  std::string text;
  for (size_t console = 0; console < consoles_.size(); ++console) {
    text += ConfigurationLine(console);
  }
  const std::string path = kRoot + "/config/zev.conf";
  Write(path + ".new", text);
  std::filesystem::rename(path + ".new", path);
}

}  // namespace bench
