// Consoles that print as fast as they are read, through the daemon and through the bare logger.
#include <functional>

#include "context.h"
#include "log_check.h"
#include "logger.h"

namespace bench {

namespace {

constexpr double kGigabyte = 1e9;
constexpr double kMegabyte = 1e6;
constexpr LogForm kOwn = {.consolidated = false, .carriage_returns = false};
constexpr LogForm kConsolidated = {.consolidated = true, .carriage_returns = false};
constexpr LogForm kBare = {.consolidated = false, .carriage_returns = true};

/// One who logs what consoles print: the daemon or the bare logger.
class Subject {
 public:
  virtual ~Subject() = default;
  virtual const Process& process() = 0;
  /// Waits until the logs hold so many numbered lines of each console, to the byte.
  virtual void WaitFor(uint64_t lines_each) = 0;
  /// Looks at every line. `from` is a time before the first.
  virtual void CheckLines(const std::string& from) = 0;
};

class DaemonSubject : public Subject {
 public:
  DaemonSubject(const Context& context, Farm& farm, size_t consoles)
      : consoles_(consoles), station_(NewStation(context, farm, PlainConsoles(consoles))) {}
  const Process& process() override { return station_->daemon(); }
  void WaitFor(uint64_t lines_each) override {
    for (size_t i = 0; i < consoles_; ++i) {
      WaitForLog(Station::LogOf(i), LogSize(kOwn, 1, lines_each));
    }
    WaitForLog(Station::ConsolidatedLog(), LogSize(kConsolidated, consoles_, lines_each));
    station_->CheckWhole();
  }
  void CheckLines(const std::string& from) override {
    const std::string to = StampNow();
    for (size_t i = 0; i < consoles_; ++i) CheckLog(Station::LogOf(i), kOwn, i, 1, from, to);
    CheckLog(Station::ConsolidatedLog(), kConsolidated, 0, consoles_, from, to);
  }

 private:
  size_t consoles_;
  std::unique_ptr<Station> station_;
};

class LoggerSubject : public Subject {
 public:
  LoggerSubject(const Context& /*context*/, Farm& farm, size_t consoles)
      : consoles_(consoles), logger_(EmptyRoot(farm), consoles) {
    WaitUntil("the logger", [&] { return farm.connected() == consoles; });
  }
  const Process& process() override { return logger_.process(); }
  void WaitFor(uint64_t lines_each) override {
    for (size_t i = 0; i < consoles_; ++i) {
      WaitForLog(Logger::LogOf(i), LogSize(kBare, 1, lines_each));
    }
    logger_.process().CheckRunning();
  }
  void CheckLines(const std::string& from) override {
    const std::string to = StampNow();
    for (size_t i = 0; i < consoles_; ++i) CheckLog(Logger::LogOf(i), kBare, i, 1, from, to);
  }

 private:
  static uint16_t EmptyRoot(const Farm& farm) {
    Station::ClearRoot();
    return farm.port();
  }
  size_t consoles_;
  Logger logger_;
};

/// What it took to take in one flood.
struct Cost {
  double seconds;
  double cpu;
};

enum class Look { kAtSizes, kAtLines };

template <typename SubjectType>
Cost FloodOnce(const Context& context, size_t consoles, uint64_t lines_each, Look look) {
  const std::string from = StampNow();
  Farm farm;
  SubjectType subject(context, farm, consoles);
  subject.WaitFor(0);
  const double cpu = subject.process().CpuSeconds();
  const double start = Now();
  farm.Flood(0, consoles, lines_each);
  subject.WaitFor(lines_each);
  const Cost cost = {Now() - start, subject.process().CpuSeconds() - cpu};
  if (look == Look::kAtLines) subject.CheckLines(from);
  return cost;
}

double Bytes(size_t consoles, uint64_t lines_each) {
  return static_cast<double>(consoles * lines_each * kConsoleLine.size());
}

// As many lines as last for some seconds, and make a gigabyte at most.
template <typename SubjectType>
uint64_t LinesForARun(const Context& context, size_t consoles) {
  const uint64_t few = context.Choose<uint64_t>(50'000, 5'000) / consoles;
  const double seconds = context.Choose(3.0, 0.2);
  const double most = context.Choose(1.0, 0.05) * kGigabyte;
  const Cost cost = FloodOnce<SubjectType>(context, consoles, few, Look::kAtSizes);
  const double bytes = std::min(most, seconds * Bytes(consoles, few) / cost.seconds);
  return static_cast<uint64_t>(bytes / Bytes(consoles, 1));
}

struct Costs {
  std::vector<double> megabytes_per_second;
  std::vector<double> cpu_per_gigabyte;
};

// Each repeat has a new root, so that the logs of one at a time are kept.
template <typename SubjectType>
Costs Measure(const Context& context, size_t consoles) {
  const uint64_t lines = LinesForARun<SubjectType>(context, consoles);
  const double bytes = Bytes(consoles, lines);
  Costs costs;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const Cost cost =
        FloodOnce<SubjectType>(context, consoles, lines, i == 0 ? Look::kAtLines : Look::kAtSizes);
    costs.megabytes_per_second.push_back(bytes / kMegabyte / cost.seconds);
    costs.cpu_per_gigabyte.push_back(cost.cpu / (bytes / kGigabyte));
  }
  return costs;
}

struct Size {
  size_t consoles;
  const char* text;
  double cpu_ratio;  // the goal
};

constexpr double kRateRatio = 0.3;
constexpr Size kSizes[] = {{1, "1 console", 6}, {10, "10 consoles", 6}, {100, "100 consoles", 8}};

}  // namespace

void RunFlood(Context& context) {
  for (const Size& size : kSizes) {
    const Costs daemon = Measure<DaemonSubject>(context, size.consoles);
    const Costs logger = Measure<LoggerSubject>(context, size.consoles);
    const std::string from = std::string(", ") + size.text;
    context.results.Add({"flood", "console output into the logs" + from, "MB/s",
                         daemon.megabytes_per_second, logger.megabytes_per_second, 1,
                         RatioAtLeast(kRateRatio)});
    context.results.Add({"flood", "processor per gigabyte" + from, "s", daemon.cpu_per_gigabyte,
                         logger.cpu_per_gigabyte, 2, RatioAtMost(size.cpu_ratio)});
  }
}

}  // namespace bench
