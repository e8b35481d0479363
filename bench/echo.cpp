// How long a key takes to the console and back, alone and while other consoles print.
#include <algorithm>

#include "context.h"

namespace bench {

namespace {

std::string Besides(size_t printing) {
  return printing == 0 ? "idle" : std::to_string(printing) + " others printing";
}

void MeasureKeys(Context& context, Typists& typists, size_t printing) {
  const size_t keys = context.Choose<size_t>(100, 25);
  Samples slow;
  Samples fast;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const Samples slowly = typists.TypeSlowly(keys);
    const Samples quickly = typists.TypeFast(3 * keys);
    slow.daemon.push_back(Median(slowly.daemon) * kMicro);
    slow.relay.push_back(Median(slowly.relay) * kMicro);
    fast.daemon.push_back(Median(quickly.daemon) * kMicro);
    fast.relay.push_back(Median(quickly.relay) * kMicro);
  }
  const std::string besides = Besides(printing);
  context.results.Add({"echo", "keys 20 ms apart, " + besides, "us", slow.daemon, slow.relay, 0});
  context.results.Add({"echo", "keys back to back, " + besides, "us", fast.daemon, fast.relay, 0});
}

std::vector<double> CpuShares(const Context& context, const Process& process) {
  std::vector<double> shares;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const CpuShare share(process);
    SleepUntil(Now() + context.Choose(2.0, 0.5));
    shares.push_back(share.Percent());
  }
  return shares;
}

/// How the lines of many consoles are spread over the time: Farm::PrintSteadily or PrintEvenly.
using Print = void (Farm::*)(size_t first, size_t count);

// The relay carries what the daemon logs to users who throw it away.
std::vector<double> RelayCpuShares(const Context& context, RelayedFarm& relayed, size_t printing,
                                   Print print) {
  Sink sink;
  for (size_t console = 1; console <= printing; ++console) sink.Add(relayed.Call(console));
  WaitUntil("the relayed consoles", [&] { return relayed.farm().connected() == printing + 1; });
  (relayed.farm().*print)(1, printing);
  return CpuShares(context, relayed.relay().process());
}

void MeasureBeside(Context& context, size_t printing) {
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlainConsoles(printing + 1));
  Typists typists{station->Attach(0), relayed.Attach(0)};
  farm.PrintSteadily(1, printing);
  MeasureKeys(context, typists, printing);
  if (printing > 0) {
    const std::vector<double> shares = CpuShares(context, station->daemon());
    farm.PrintSteadily(0, 0);
    context.results.Add({"echo", "processor, " + Besides(printing), "% of a core", shares,
                         RelayCpuShares(context, relayed, printing, &Farm::PrintSteadily)});
  }
  station->CheckWhole();
}

// ---- Lines that are spread evenly ---------------------------------------------------------------

constexpr double kEchoRatio = 2.5;  // these are goals
constexpr double kWorstEcho = 5;    // milliseconds

struct Spread {
  size_t printing;
  double processor;  // the goal
};
// Six tenths of what the daemon needed when this was first measured, on the machine of
// docs/performance.md.
constexpr Spread kSpreads[] = {{400, 5.9}, {1'000, 9.5}};

// Keys of one distance: the medians of the repeats, and the worst keys. Seconds.
struct Keys {
  Samples medians;
  Samples worst;
};

Keys TypeKeys(const Context& context, Typists& typists, double interval, size_t count) {
  const auto worst = [](const std::vector<double>& times) {
    return *std::max_element(times.begin(), times.end()) * kMilli;
  };
  Keys keys;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const Samples times = typists.TypeEvery(interval, count);
    keys.medians.daemon.push_back(Median(times.daemon) * kMicro);
    keys.medians.relay.push_back(Median(times.relay) * kMicro);
    keys.worst.daemon.push_back(worst(times.daemon));
    keys.worst.relay.push_back(worst(times.relay));
  }
  return keys;
}

void MeasureSpread(Context& context, const Spread& spread) {
  constexpr double kFarApart = 0.020;
  constexpr double kClose = 0.001;
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlainConsoles(spread.printing + 1));
  Typists typists{station->Attach(0), relayed.Attach(0)};
  farm.PrintEvenly(1, spread.printing);
  const Keys slow = TypeKeys(context, typists, kFarApart, context.Choose<size_t>(100, 25));
  const Keys fast = TypeKeys(context, typists, kClose, context.Choose<size_t>(1'000, 100));
  const std::vector<double> shares = CpuShares(context, station->daemon());
  station->CheckWhole();
  farm.PrintSteadily(0, 0);
  const std::string besides = ", " + Besides(spread.printing);
  const std::string name = "echo-spread";
  context.results.Add({name, "keys 20 ms apart" + besides, "us", slow.medians.daemon,
                       slow.medians.relay, 0, RatioAtMost(kEchoRatio)});
  context.results.Add({name, "keys 1 ms apart" + besides, "us", fast.medians.daemon,
                       fast.medians.relay, 0, RatioAtMost(kEchoRatio)});
  context.results.Add({name, "worst of 1000 keys" + besides, "ms", fast.worst.daemon,
                       fast.worst.relay, 1, AtMost(kWorstEcho)});
  context.results.Add({name, "processor" + besides, "% of a core", shares,
                       RelayCpuShares(context, relayed, spread.printing, &Farm::PrintEvenly), 1,
                       AtMost(spread.processor)});
}

}  // namespace

void RunEchoSpread(Context& context) {
  for (const Spread& spread : kSpreads) MeasureSpread(context, spread);
}

void RunEcho(Context& context) {
  const auto loads = context.Choose<std::vector<size_t>>({0, 100, 400, 1000}, {0, 100});
  for (const size_t printing : loads) MeasureBeside(context, printing);
}

}  // namespace bench
