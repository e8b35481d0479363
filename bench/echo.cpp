// How long a key takes to the console and back, alone and while other consoles print.
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

// The relay carries what the daemon logs to users who throw it away.
std::vector<double> RelayCpuShares(Context& context, RelayedFarm& relayed, size_t printing) {
  Sink sink;
  for (size_t console = 1; console <= printing; ++console) sink.Add(relayed.Call(console));
  WaitUntil("the relayed consoles", [&] { return relayed.farm().connected() == printing + 1; });
  relayed.farm().PrintSteadily(1, printing);
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
                         RelayCpuShares(context, relayed, printing)});
  }
  station->CheckWhole();
}

}  // namespace

void RunEcho(Context& context) {
  const auto loads = context.Choose<std::vector<size_t>>({0, 100, 400, 1000}, {0, 100});
  for (const size_t printing : loads) MeasureBeside(context, printing);
}

}  // namespace bench
