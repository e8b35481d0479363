// A console that prints as fast as it is read, while one of its users reads slowly: what the others
// have of it.
#include <algorithm>
#include <filesystem>
#include <optional>

#include "context.h"
#include "log_check.h"
#include "shown_output.h"

namespace bench {

namespace {

constexpr double kMegabyte = 1e6;
constexpr double kKilobyte = 1e3;
constexpr size_t kCalm = 0;  // the console of the one who types
constexpr size_t kNoisy = 1;
constexpr uint64_t kEndless = 1'000'000'000;
constexpr int kSmallBuffer = 16'384;  // of the slow user, as of one at the end of a slow line
constexpr double kBetweenKeys = 0.005;

/// One window of time, or a list of what several brought.
struct Window {
  double logged;             // megabytes a second
  double shown;              // the same, to the fast user
  double worst_daemon_echo;  // milliseconds
  double worst_relay_echo;
};

double Worst(const std::vector<double>& times) {
  return *std::max_element(times.begin(), times.end()) * kMilli;
}

Window Watch(Typists& typists, const FastReaders& fast, double seconds) {
  const std::string log = Station::LogOf(kNoisy);
  const auto megabytes = [](uint64_t bytes) { return static_cast<double>(bytes) / kMegabyte; };
  const double start = Now();
  const uintmax_t logged = std::filesystem::file_size(log);
  const uint64_t shown = fast.shown();
  const Samples echoes =
      typists.TypeEvery(kBetweenKeys, static_cast<size_t>(seconds / kBetweenKeys));
  const double passed = Now() - start;
  return {megabytes(std::filesystem::file_size(log) - logged) / passed,
          megabytes(fast.shown() - shown) / passed, Worst(echoes.daemon), Worst(echoes.relay)};
}

// The user is still there, however much of what he was sent he has not read yet.
void CheckAttached(const Station& station, size_t users) {
  if (station.NewTool().AskForUsers(Station::NameOf(kNoisy)) != users) {
    throw std::runtime_error("the slow user was disconnected");
  }
}

// Nobody reads slowly when the rate is 0.
Window ReadBeside(const Context& context, double slow_rate) {
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlainConsoles(2));
  WaitForLog(Station::LogOf(kNoisy), LogSize({}, 1, 0));
  std::vector<Descriptor> user;
  user.push_back(station->Attach(kNoisy).Leave());
  const FastReaders fast(std::move(user));
  std::optional<SlowReader> slow;
  if (slow_rate > 0) slow.emplace(station->Attach(kNoisy, kSmallBuffer).Leave(), slow_rate);
  Typists typists{station->Attach(kCalm), relayed.Attach(kCalm)};
  farm.Flood(kNoisy, 1, kEndless);
  SleepUntil(Now() + context.Choose(3.0, 0.5));  // the buffers between have filled up
  const Window window = Watch(typists, fast, context.Choose(4.0, 0.5));
  farm.EndFlood(kNoisy, 1);
  fast.Check();
  if (slow) slow->Check();
  CheckAttached(*station, slow ? 2 : 1);
  station->CheckWhole();
  return window;
}

struct Windows {
  std::vector<double> logged;
  std::vector<double> shown;
  Samples echoes;

  void Add(const Window& window) {
    logged.push_back(window.logged);
    shown.push_back(window.shown);
    echoes.daemon.push_back(window.worst_daemon_echo);
    echoes.relay.push_back(window.worst_relay_echo);
  }
};

// `undisturbed` is empty when these are it.
void AddRows(Context& context, const std::string& beside, const Windows& windows,
             const Windows& undisturbed) {
  const std::string name = "slow-readers";
  context.results.Add(
      {name, "into the log, " + beside, "MB/s", windows.logged, undisturbed.logged});
  context.results.Add(
      {name, "shown to a fast user, " + beside, "MB/s", windows.shown, undisturbed.shown});
  context.results.Add({name, "worst echo at another console, " + beside, "ms",
                       windows.echoes.daemon, windows.echoes.relay});
}

Windows Measure(const Context& context, double slow_rate) {
  Windows windows;
  for (size_t i = 0; i < context.Choose<size_t>(3, 1); ++i) {
    windows.Add(ReadBeside(context, slow_rate));
  }
  return windows;
}

}  // namespace

// One rate after the other: what fails at one of them is measured at the others.
void RunSlowReaders(Context& context) {
  const Windows undisturbed = Measure(context, 0);
  AddRows(context, "nobody slow", undisturbed, {});
  for (const int kilobytes : {3, 20, 50, 300}) {
    const std::string beside = "one reads " + std::to_string(kilobytes) + " KB/s";
    try {
      AddRows(context, beside, Measure(context, kilobytes * kKilobyte), undisturbed);
    } catch (const std::exception& error) {
      context.results.AddFailure({"slow-readers, " + beside, error.what()});
    }
  }
}

}  // namespace bench
