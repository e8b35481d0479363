// Somebody's echo while users attach and leave, tools ask, and files are read and begun anew; and
// while users attach to a console with much to show them.
#include <poll.h>

#include <algorithm>
#include <functional>
#include <stdexcept>

#include "context.h"
#include "log_check.h"
#include "loop.h"

namespace bench {

namespace {

constexpr size_t kCalm = 0;  // the console of the one who types
constexpr double kBetweenKeys = 0.005;
constexpr size_t kKeysInARow = 20;
constexpr double kWorstFirstEcho = 20;  // these are goals, in milliseconds
constexpr double kWorstInRotation = 50;
constexpr double kWorstAnswer = 50;
constexpr double kWorstBesideRing = 20;

double Worst(const std::vector<double>& times) {
  return *std::max_element(times.begin(), times.end()) * kMilli;
}

/// Who or what keeps the daemon busy; the function is called again and again.
struct Disturbance {
  const char* name;
  std::function<void()> (*begin)(Station& station);
  double worst_first_echo;  // the goal
};

std::function<void()> Nothing(Station& /*station*/) {
  constexpr double kPause = 0.010;
  return [] { SleepUntil(Now() + kPause); };
}

// One console after the other.
std::function<void()> Enable(Station& station) {
  auto tool = std::make_shared<Tool>(station.NewTool());
  return [tool, consoles = station.consoles(), next = size_t{0}]() mutable {
    tool->Have("enable " + Station::NameOf(next++ % consoles));
  };
}

std::function<void()> Reload(Station& station) {
  constexpr double kPause = 0.200;
  return [&station] {
    station.Reload();
    SleepUntil(Now() + kPause);
  };
}

std::function<void()> Rotate(Station& station) {
  constexpr double kInterval = 1;
  return [&station] {
    const double next = Now() + kInterval;
    station.Rotate();
    SleepUntil(next);
  };
}

constexpr Disturbance kDisturbances[] = {
    {"users attach", Nothing, kWorstFirstEcho},
    {"all consoles are enabled", Enable, kWorstFirstEcho},
    {"5 reloads a second", Reload, kWorstFirstEcho},
    {"a rotation a second", Rotate, kWorstInRotation},
};

/// Users who attach, type one key and leave, one after the other, each at the next console. They
/// leave the calm one alone.
class Visitors {
 public:
  explicit Visitors(const Station& station) : station_(station), loop_([this] { Visit(); }) {}
  size_t count() const { return loop_.turns(); }
  void Check() const { loop_.Check(); }
  /// Seconds from each one's call to the first echo.
  std::vector<double> Finish() {
    loop_.Finish();
    return times_;
  }

 private:
  void Visit() {
    const size_t others = station_.consoles() - 1;
    const double start = Now();
    station_.Attach(1 + times_.size() % others).Echo();
    times_.push_back(Now() - start);
  }

  const Station& station_;
  std::vector<double> times_;  // of the loop's thread
  Loop loop_;
};

/// A tool that asks "console" again and again.
class Asker {
 public:
  explicit Asker(const Station& station) : tool_(station.NewTool()), loop_([this] { Ask(); }) {}
  std::vector<double> Finish() {
    loop_.Finish();
    return times_;
  }

 private:
  void Ask() {
    constexpr double kPause = 0.020;
    const double start = Now();
    tool_.AskForConsoles();
    times_.push_back(Now() - start);
    SleepUntil(Now() + kPause);
  }

  Tool tool_;
  std::vector<double> times_;  // of the loop's thread
  Loop loop_;
};

/// Milliseconds, the worst of each repeat.
struct Worsts {
  Samples echoes;
  std::vector<double> first_echoes;
  std::vector<double> answers;
};

// Types while the visitors come, and for some seconds at least.
Samples TypeBeside(const Context& context, Typists& typists, const Visitors& visitors) {
  const auto wanted = context.Choose<size_t>(500, 20);
  const double end = Now() + context.Choose(3.0, 0.5);
  Samples echoes;
  while (visitors.count() < wanted || Now() < end) {
    visitors.Check();
    Typists::Append(echoes, typists.TypeEvery(kBetweenKeys, kKeysInARow));
  }
  return echoes;
}

void DisturbOnce(const Context& context, const Disturbance& disturbance, Station& station,
                 Typists& typists, Worsts& worsts) {
  Visitors visitors(station);
  Asker asker(station);
  Loop disturbing(disturbance.begin(station));
  const Samples echoes = TypeBeside(context, typists, visitors);
  worsts.echoes.daemon.push_back(Worst(echoes.daemon));
  worsts.echoes.relay.push_back(Worst(echoes.relay));
  worsts.first_echoes.push_back(Worst(visitors.Finish()));
  worsts.answers.push_back(Worst(asker.Finish()));
  disturbing.Finish();
}

void MeasureBeside(Context& context, const Disturbance& disturbance, size_t consoles) {
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlainConsoles(consoles));
  Typists typists{station->Attach(kCalm), relayed.Attach(kCalm)};
  Worsts worsts;
  for (size_t i = 0; i < context.repeats(); ++i) {
    DisturbOnce(context, disturbance, *station, typists, worsts);
  }
  station->CheckWhole();
  const std::string beside = std::string(", ") + disturbance.name;
  context.results.Add({"churn",
                       "worst first echo" + beside,
                       "ms",
                       worsts.first_echoes,
                       {},
                       1,
                       NeverOver(disturbance.worst_first_echo)});
  context.results.Add(
      {"churn", "worst echo" + beside, "ms", worsts.echoes.daemon, worsts.echoes.relay});
  context.results.Add({"churn",
                       "worst answer to \"console\"" + beside,
                       "ms",
                       worsts.answers,
                       {},
                       1,
                       NeverOver(kWorstAnswer)});
}

// ---- A console with much to show ----------------------------------------------------------------

constexpr size_t kRing = 1'048'576;
constexpr size_t kFull = 1;  // the console
constexpr size_t kRingUsers = 50;

// True when he has been shown the whole ring before the moment, and was not thrown off.
bool IsShownRing(const Descriptor& user, double until) {
  constexpr int kLook = 100;  // milliseconds
  size_t received = 0;
  try {
    while (received < kRing - 1 && Now() < until) {
      pollfd readable = {user.get(), POLLIN, 0};
      if (poll(&readable, 1, kLook) > 0) received += ReceiveSome(user).size();
    }
  } catch (const ConnectionOver&) {
    return false;
  }
  return received >= kRing - 1;
}

// All attach at once, and all leave when the last has been shown the ring, or after some seconds.
size_t AttachToRing(const Station& station) {
  constexpr double kPatience = 5;
  std::vector<User> users;
  for (size_t i = 0; i < kRingUsers; ++i) users.push_back(station.Call(kFull));
  const double end = Now() + kPatience;
  return static_cast<size_t>(std::count_if(
      users.begin(), users.end(), [&](const User& user) { return IsShownRing(user.sock(), end); }));
}

struct RingSamples {
  Samples worst;
  std::vector<double> rings_per_second;
};

void TypeBesideRing(const Context& context, const Station& station, Typists& typists,
                    RingSamples& samples) {
  std::atomic<size_t> rings{0};
  const double start = Now();
  Loop waves([&] { rings += AttachToRing(station); });
  Samples echoes;
  while (waves.turns() < 2 || Now() < start + context.Choose(3.0, 0.5)) {
    waves.Check();
    Typists::Append(echoes, typists.TypeEvery(kBetweenKeys, kKeysInARow));
  }
  const size_t shown = rings;
  samples.rings_per_second.push_back(static_cast<double>(shown) / (Now() - start));
  samples.worst.daemon.push_back(Worst(echoes.daemon));
  samples.worst.relay.push_back(Worst(echoes.relay));
  waves.Finish();
}

void MeasureRing(Context& context) {
  Farm farm;
  RelayedFarm relayed;
  const auto station =
      NewStation(context, farm, PlainConsoles(2), false, {"-B", std::to_string(kRing)});
  const uint64_t lines = kRing / kConsoleLine.size() + 1;
  farm.Flood(kFull, 1, lines);
  WaitForLog(Station::LogOf(kFull), LogSize({}, 1, lines));
  Typists typists{station->Attach(kCalm), relayed.Attach(kCalm)};
  RingSamples samples;
  for (size_t i = 0; i < context.repeats(); ++i) {
    TypeBesideRing(context, *station, typists, samples);
  }
  station->CheckWhole();
  const std::string name = ", 50 attach to a ring of 1 MB";
  context.results.Add({"churn", "worst echo" + name, "ms", samples.worst.daemon,
                       samples.worst.relay, 1, NeverOver(kWorstBesideRing)});
  context.results.Add({"churn", "whole rings shown" + name, "1/s", samples.rings_per_second, {}});
}

}  // namespace

void RunChurn(Context& context) {
  const auto consoles = context.Choose<size_t>(1'000, 100);
  for (const Disturbance& disturbance : kDisturbances) {
    MeasureBeside(context, disturbance, consoles);
  }
  try {
    MeasureRing(context);
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string("50 attach to a ring of 1 MB: ") + error.what());
  }
}

}  // namespace bench
