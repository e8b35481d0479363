// What it costs to look for patterns in a line in which none of them is found.
#include <array>

#include "context.h"

namespace bench {

namespace {

// Expressions of the kinds that operators write, all different; "%" becomes a number.
constexpr const char* kPatterns[] = {
    "300 1 port [0-9]+ of unit% is down",
    "500 0 (error|failure|fault) % on (disk|fan|supply)[0-9]*",
    "700 1 ^kernel: panic % .*stopped",
    "400 0 temperature of sensor% (above|below) limit",
};

std::string EventFile(size_t patterns) {
  std::string lines;
  for (size_t i = 0; i < patterns; ++i) {
    std::string pattern = kPatterns[i % std::size(kPatterns)];
    pattern.replace(pattern.find('%'), 1, std::to_string(i));
    lines += "event" + std::to_string(i) + " " + pattern + "\n";
  }
  return lines;
}

constexpr size_t kPatternCounts[] = {0, 1, 10, 100};  // one console for each
constexpr size_t kConsoles = std::size(kPatternCounts);

std::vector<ConsolePlan> PlanWithEventFiles() {
  std::vector<ConsolePlan> plan(kConsoles);
  for (size_t i = 1; i < kConsoles; ++i) {
    plan[i].event_file = "set" + std::to_string(i);
    Station::WriteEventFile(plan[i].event_file, EventFile(kPatternCounts[i]));
  }
  return plan;
}

// Microseconds of processor time for a line of one flood; `wait` returns at its end.
template <typename Wait>
double CpuPerLine(const Process& process, Farm& farm, size_t console, uint64_t lines, Wait wait) {
  const double cpu = process.CpuSeconds();
  farm.Flood(console, 1, lines);
  wait();
  return (process.CpuSeconds() - cpu) * kMicro / static_cast<double>(lines);
}

/// A list of samples for every number of patterns. The consoles take turns, as the differences
/// between them are smaller than those between one minute of a machine and the next.
using Costs = std::array<std::vector<double>, kConsoles>;

Costs MeasureDaemon(const Context& context, uint64_t lines) {
  Farm farm;
  Station::ClearRoot();
  Station station(context.daemon, farm, PlanWithEventFiles());
  LogWatch log(kConsoles);
  Costs costs;
  for (size_t i = 0; i < context.repeats(); ++i) {
    for (size_t console = 0; console < kConsoles; ++console) {
      costs[console].push_back(
          CpuPerLine(station.daemon(), farm, console, lines, [&] { log.WaitFor(lines); }));
    }
  }
  station.CheckWhole();
  return costs;
}

std::vector<double> MeasureRelay(const Context& context, uint64_t lines) {
  RelayedFarm relayed;
  Sink sink;
  sink.Add(relayed.Call(0));
  WaitUntil("the greeting", [&] { return sink.received() == kGreeting.size(); });
  std::vector<double> costs;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const uint64_t expected = sink.received() + lines * kConsoleLine.size();
    costs.push_back(CpuPerLine(relayed.relay().process(), relayed.farm(), 0, lines, [&] {
      WaitUntil("the lines to be relayed", [&] { return sink.received() == expected; });
    }));
  }
  return costs;
}

}  // namespace

void RunEvents(Context& context) {
  const uint64_t lines = context.Choose<uint64_t>(20'000, 2'000);
  const Costs daemon = MeasureDaemon(context, lines);
  const std::vector<double> relay = MeasureRelay(context, lines);
  context.results.Add({"events", "processor per line, no patterns", "us", daemon[0], relay, 2});
  for (size_t i = 1; i < kConsoles; ++i) {
    std::vector<double> costs = daemon[i];
    for (double& cost : costs) cost -= Median(daemon[0]);
    context.results.Add(
        {"events",
         "added by " + std::to_string(kPatternCounts[i]) + (i == 1 ? " pattern" : " patterns"),
         "us", costs, relay, 2});
  }
}

}  // namespace bench
