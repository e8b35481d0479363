// Consoles that print as fast as they are read, into stamped logs.
#include "context.h"

namespace bench {

namespace {

constexpr double kGigabyte = 1e9;
// The relay is so much quicker that it needs more lines for a figure.
constexpr uint64_t kRelayShare = 20;

/// What it took to take in one flood.
struct Cost {
  std::vector<double> lines_per_second;
  std::vector<double> cpu_per_gigabyte;
};

// `flood` returns when all of the lines have been taken in.
template <typename Flood>
Cost Measure(const Context& context, const Process& process, uint64_t lines, Flood flood) {
  const auto count = static_cast<double>(lines);
  const double gigabytes = count * static_cast<double>(kConsoleLine.size()) / kGigabyte;
  Cost cost;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const double cpu = process.CpuSeconds();
    const double start = Now();
    flood();
    cost.lines_per_second.push_back(count / (Now() - start));
    cost.cpu_per_gigabyte.push_back((process.CpuSeconds() - cpu) / gigabytes);
  }
  return cost;
}

Cost MeasureDaemon(const Context& context, size_t consoles, uint64_t lines_each) {
  Farm farm;
  const auto station = NewStation(context, farm, PlainConsoles(consoles));
  LogWatch log(consoles);
  Cost cost = Measure(context, station->daemon(), consoles * lines_each, [&] {
    farm.Flood(0, consoles, lines_each);
    log.WaitFor(consoles * lines_each);
  });
  station->CheckWhole();
  return cost;
}

Cost MeasureRelay(const Context& context, size_t consoles, uint64_t lines_each) {
  RelayedFarm relayed;
  Sink sink;
  for (size_t i = 0; i < consoles; ++i) sink.Add(relayed.Call(i));
  uint64_t expected = consoles * kGreeting.size();
  const auto wait = [&] {
    WaitUntil("all lines to be relayed", [&] { return sink.received() == expected; });
  };
  wait();
  return Measure(context, relayed.relay().process(), consoles * lines_each, [&] {
    expected += consoles * lines_each * kConsoleLine.size();
    relayed.farm().Flood(0, consoles, lines_each);
    wait();
  });
}

}  // namespace

void RunLogging(Context& context) {
  const uint64_t lines = context.Choose<uint64_t>(200'000, 20'000);
  for (const size_t consoles : std::initializer_list<size_t>{1, 10, 100}) {
    const Cost daemon = MeasureDaemon(context, consoles, lines / consoles);
    const Cost relay = MeasureRelay(context, consoles, kRelayShare * lines / consoles);
    const std::string from =
        ", " + std::to_string(consoles) + (consoles == 1 ? " console" : " consoles");
    context.results.Add({"logging", "lines into the logs" + from, "1/s", daemon.lines_per_second,
                         relay.lines_per_second, 0});
    context.results.Add({"logging", "processor per gigabyte printed" + from, "s",
                         daemon.cpu_per_gigabyte, relay.cpu_per_gigabyte, 2});
  }
}

}  // namespace bench
