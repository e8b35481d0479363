// Stations of many consoles: starting, idling, being asked and reloading.
#include <algorithm>

#include "context.h"

namespace bench {

namespace {

/// A station of a wanted size, with or without a mapped port for every console.
struct Size {
  size_t consoles;
  bool mapped_ports;
};

constexpr size_t kWanted = 10'000;
constexpr size_t kSpare = 200;  // descriptors that are not for consoles

// What the descriptor limit of this machine leaves of a wanted size.
Size Fit(Context& context, Size wanted) {
  const size_t needed = wanted.mapped_ports ? 3 : 2;  // a socket, a log and perhaps a port
  const size_t limit = DescriptorLimit();
  const size_t fitting = std::min(wanted.consoles, (limit - kSpare) / needed);
  if (fitting < wanted.consoles) {
    context.results.Note("a process may have " + std::to_string(limit) +
                         " descriptors here: " + std::to_string(fitting) + " consoles instead of " +
                         std::to_string(wanted.consoles) + " at " + std::to_string(needed) +
                         " descriptors each");
  }
  return {fitting, wanted.mapped_ports};
}

std::vector<Size> Sizes(Context& context, std::vector<Size> full) {
  if (context.quick) return {{200, true}};
  for (Size& size : full) size = Fit(context, size);
  return full;
}

std::string Of(const Size& size) {
  return std::to_string(size.consoles) + (size.consoles == 1 ? " console" : " consoles") +
         (size.mapped_ports ? " with ports" : "");
}

std::vector<ConsolePlan> PlanOf(const Size& size) {
  std::vector<ConsolePlan> plan(size.consoles);
  if (!size.mapped_ports) return plan;
  const std::vector<uint16_t> ports = FreePorts(size.consoles + 1);
  // The first is left for the daemon's main port, which is chosen the same way.
  for (size_t i = 0; i < size.consoles; ++i) plan[i].mapped_port = ports[i + 1];
  return plan;
}

/// Quiet pairs through the relay, as many as the daemon has consoles.
class QuietPairs {
 public:
  explicit QuietPairs(size_t count) {
    const size_t fitting = std::min(count, (DescriptorLimit() - kSpare) / 2);
    const double start = Now();
    for (size_t i = 0; i < fitting; ++i) users_.push_back(relayed_.Call(i));
    WaitUntil("the relayed consoles", [&] { return relayed_.farm().connected() == fitting; });
    start_seconds_ = Now() - start;
  }
  Process& process() { return relayed_.relay().process(); }
  double start_seconds() const { return start_seconds_; }

 private:
  RelayedFarm relayed_;
  std::vector<Descriptor> users_;
  double start_seconds_ = 0;
};

struct Idleness {
  std::vector<double> cpu;
  std::vector<double> memory;
};

Idleness WatchIdle(const Context& context, const Process& process) {
  SleepUntil(Now() + 1);  // what the start left to do is done
  Idleness idleness;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const CpuShare share(process);
    SleepUntil(Now() + context.Choose(2.0, 0.5));
    idleness.cpu.push_back(share.Percent());
    idleness.memory.push_back(process.ResidentKib());
  }
  return idleness;
}

Idleness IdleDaemon(const Context& context, const Size& size) {
  Farm farm;
  const auto station = NewStation(context, farm, PlanOf(size));
  Idleness idleness = WatchIdle(context, station->daemon());
  station->CheckWhole();
  return idleness;
}

Idleness IdleRelay(const Context& context, const Size& size) {
  QuietPairs pairs(size.consoles);
  return WatchIdle(context, pairs.process());
}

// Microseconds from a key to its echo, the keys 20 ms apart.
Samples SlowEchoes(const Context& context, Typists& typists) {
  Samples medians;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const Samples times = typists.TypeSlowly(context.Choose<size_t>(100, 25));
    medians.daemon.push_back(Median(times.daemon) * kMicro);
    medians.relay.push_back(Median(times.relay) * kMicro);
  }
  return medians;
}

void MeasureEchoAmongIdle(Context& context, const Size& size) {
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlanOf(size));
  Typists typists{station->Attach(0), relayed.Attach(0)};
  const Samples echoes = SlowEchoes(context, typists);
  station->CheckWhole();
  context.results.Add(
      {"idle", "keys 20 ms apart, " + Of(size), "us", echoes.daemon, echoes.relay, 0});
}

std::vector<double> PerConsole(const std::vector<double>& memory, const std::vector<double>& of_one,
                               size_t consoles) {
  std::vector<double> result;
  result.reserve(memory.size());
  for (const double kib : memory) {
    result.push_back((kib - Median(of_one)) / static_cast<double>(consoles - 1));
  }
  return result;
}

void AddIdleRows(Context& context, const Size& size, const Idleness& daemon,
                 const Idleness& relay) {
  context.results.Add({"idle", "processor, " + Of(size), "% of a core", daemon.cpu, relay.cpu, 2});
  context.results.Add({"idle", "memory, " + Of(size), "KiB", daemon.memory, relay.memory, 0});
}

double AskSeconds(Tool& tool) {
  const double start = Now();
  tool.AskForConsoles();
  return Now() - start;
}

// The same number of bytes in answer to the same number, from a console behind the relay.
double FetchSeconds(User& user, const std::string& last) {
  const double start = Now();
  user.Send("console\n");
  user.Expect(last);
  return Now() - start;
}

// Milliseconds until "console" is answered.
Samples TimeCommand(Context& context, const Station& station, RelayedFarm& relayed) {
  constexpr size_t kRecord = 264;
  const std::string last = "<the end>";
  Tool tool = station.NewTool();
  User user = relayed.Attach(0);
  relayed.farm().SetReply(0, std::string(station.consoles() * kRecord - last.size(), '.') + last);
  Samples medians;
  for (size_t i = 0; i < context.repeats(); ++i) {
    Samples times;
    for (int ask = 0; ask < context.Choose(20, 5); ++ask) {
      times.daemon.push_back(AskSeconds(tool) * kMilli);
      times.relay.push_back(FetchSeconds(user, last) * kMilli);
    }
    medians.daemon.push_back(Median(times.daemon));
    medians.relay.push_back(Median(times.relay));
  }
  return medians;
}

void MeasureCommand(Context& context, const Size& size) {
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlanOf(size));
  const Samples medians = TimeCommand(context, *station, relayed);
  station->CheckWhole();
  context.results.Add(
      {"command", "\"console\" answered, " + Of(size), "ms", medians.daemon, medians.relay, 2});
}

// Milliseconds.
struct ReloadSamples {
  Samples done;   // until the new console is connected
  Samples worst;  // somebody's echo meanwhile
};

void ReloadOnce(Station& station, Farm& farm, RelayedFarm& relayed, Typists& typists,
                ReloadSamples& samples) {
  station.AddConsole();
  const double start = Now();
  double connected = 0;
  station.Reload();
  const Samples echoes = typists.TypeUntil([&] {
    if (connected == 0 && farm.connected() == station.consoles()) connected = Now();
    return connected != 0;
  });
  samples.done.daemon.push_back((connected - start) * kMilli);
  samples.worst.daemon.push_back(*std::max_element(echoes.daemon.begin(), echoes.daemon.end()) *
                                 kMilli);
  samples.worst.relay.push_back(*std::max_element(echoes.relay.begin(), echoes.relay.end()) *
                                kMilli);
  const double call = Now();
  relayed.Attach(station.consoles());
  samples.done.relay.push_back((Now() - call) * kMilli);
}

void MeasureReload(Context& context, const Size& size) {
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlanOf(size));
  Typists typists{station->Attach(0), relayed.Attach(0)};
  ReloadSamples samples;
  for (size_t i = 0; i < context.repeats(); ++i) {
    ReloadOnce(*station, farm, relayed, typists, samples);
  }
  station->CheckWhole();
  const std::string of = ", " + Of(size);
  context.results.Add({"reload", "SIGHUP to the new console's connection" + of, "ms",
                       samples.done.daemon, samples.done.relay});
  context.results.Add(
      {"reload", "worst echo meanwhile" + of, "ms", samples.worst.daemon, samples.worst.relay});
}

constexpr size_t kHealthy = 10;

// Those that can be connected come last.
std::vector<ConsolePlan> DeadRacks(size_t each, uint16_t hanging, uint16_t refusing) {
  std::vector<ConsolePlan> plan(2 * each + kHealthy);
  for (size_t i = 0; i < each; ++i) {
    plan[2 * i].port = hanging;
    plan[2 * i + 1].port = refusing;
  }
  return plan;
}

// ---- Dead racks beside an idle station ----------------------------------------------------------

struct Racks {
  size_t consoles;  // altogether
  size_t hanging;
  size_t refusing;
};

std::string Of(const Racks& racks) {
  std::string text = Of(Size{racks.consoles, false});
  if (racks.hanging > 0) text += ", " + std::to_string(racks.hanging) + " hang";
  if (racks.refusing > 0) text += ", " + std::to_string(racks.refusing) + " refuse";
  return text;
}

void MeasureIdleRacks(Context& context, const Racks& racks) {
  constexpr size_t kFewHanging = 100;
  const HangingPort hanging;
  std::vector<ConsolePlan> plan(racks.consoles);
  const uint16_t refusing = FreePorts(2).back();
  for (size_t i = 0; i < racks.hanging; ++i) plan[i].port = hanging.port();
  for (size_t i = 0; i < racks.refusing; ++i) plan[racks.hanging + i].port = refusing;
  Farm farm;
  const auto station = NewStation(context, farm, std::move(plan));
  const Idleness idleness = WatchIdle(context, station->daemon());
  station->CheckWhole();
  const Goal goal = AtMost(racks.hanging > kFewHanging ? 2 : 0.1);
  context.results.Add(
      {"idle-racks", "processor, " + Of(racks), "% of a core", idleness.cpu, {}, 2, goal});
}

// ---- Consoles that are disabled and enabled again -----------------------------------------------

/// Milliseconds from the first command.
struct EnableSamples {
  std::vector<double> answered;
  std::vector<double> connected;
};

void EnableOnce(Tool& tool, const Farm& farm, size_t consoles, size_t enabled,
                EnableSamples& samples) {
  const auto connected = [&](size_t wanted) {
    WaitUntil("consoles to be connected or not", [&] {
      return farm.connected() == wanted && tool.AskForConsoles().connected == wanted;
    });
  };
  for (size_t i = 0; i < enabled; ++i) tool.Have("disable " + Station::NameOf(i));
  connected(consoles - enabled);
  const double start = Now();
  for (size_t i = 0; i < enabled; ++i) tool.Have("enable " + Station::NameOf(i));
  samples.answered.push_back((Now() - start) * kMilli);
  connected(consoles);
  samples.connected.push_back((Now() - start) * kMilli);
}

}  // namespace

void RunEnable(Context& context) {
  const auto consoles = context.Choose<size_t>(1'000, 100);
  const auto enabled = context.Choose<size_t>(100, 10);
  Farm farm;
  const auto station = NewStation(context, farm, PlainConsoles(consoles));
  Tool tool = station->NewTool();
  EnableSamples samples;
  for (size_t i = 0; i < context.repeats(); ++i) {
    EnableOnce(tool, farm, consoles, enabled, samples);
  }
  station->daemon().CheckRunning();
  const std::string of = ", " + std::to_string(enabled) + " of " + std::to_string(consoles);
  context.results.Add({"enable", "until all are answered" + of, "ms", samples.answered, {}});
  context.results.Add(
      {"enable", "until all are connected again" + of, "ms", samples.connected, {}});
}

void RunIdleRacks(Context& context) {
  const auto all = context.Choose<std::vector<Racks>>(
      {{1, 0, 0}, {1'000, 100, 100}, {kWanted, 100, 100}, {4'010, 2'000, 2'000}},
      {{1, 0, 0}, {200, 20, 20}});
  for (Racks racks : all) {
    racks.consoles = Fit(context, {racks.consoles, false}).consoles;
    MeasureIdleRacks(context, racks);
  }
}

void RunRacks(Context& context) {
  const auto each = context.Choose<size_t>(2'000, 100);
  const HangingPort hanging;
  const auto plan = DeadRacks(each, hanging.port(), FreePorts(2).back());
  Samples times;
  for (size_t i = 0; i < context.repeats(); ++i) {
    Farm farm;
    times.daemon.push_back(NewStation(context, farm, plan)->start_seconds() * kMilli);
    times.relay.push_back(QuietPairs(kHealthy).start_seconds() * kMilli);
  }
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, plan);
  Typists typists{station->Attach(2 * each), relayed.Attach(1)};
  const Samples answers = TimeCommand(context, *station, relayed);
  const Samples echoes = SlowEchoes(context, typists);
  const Idleness daemon = WatchIdle(context, station->daemon());
  const Idleness relay = WatchIdle(context, relayed.relay().process());
  station->CheckWhole();
  const std::string of = ", " + std::to_string(each) + " hang, " + std::to_string(each) + " refuse";
  context.results.Add(
      {"racks", "start until 10 others are connected" + of, "ms", times.daemon, times.relay});
  context.results.Add(
      {"racks", "\"console\" answered" + of, "ms", answers.daemon, answers.relay, 2});
  context.results.Add({"racks", "keys 20 ms apart" + of, "us", echoes.daemon, echoes.relay, 0});
  context.results.Add({"racks", "processor" + of, "% of a core", daemon.cpu, relay.cpu, 2});
}

void RunIdle(Context& context) {
  const Size one = {1, false};
  const Idleness daemon_of_one = IdleDaemon(context, one);
  const Idleness relay_of_one = IdleRelay(context, one);
  AddIdleRows(context, one, daemon_of_one, relay_of_one);
  MeasureEchoAmongIdle(context, {10, false});
  for (const Size& size : Sizes(context, {{1'000, false}, {kWanted, false}, {kWanted, true}})) {
    const Idleness daemon = IdleDaemon(context, size);
    const Idleness relay = IdleRelay(context, size);
    AddIdleRows(context, size, daemon, relay);
    context.results.Add({"idle", "memory for each of " + Of(size), "KiB",
                         PerConsole(daemon.memory, daemon_of_one.memory, size.consoles),
                         PerConsole(relay.memory, relay_of_one.memory, size.consoles), 2});
    MeasureEchoAmongIdle(context, size);
  }
}

void RunStart(Context& context) {
  for (const Size& size : Sizes(context, {{1'000, false}, {kWanted, false}, {kWanted, true}})) {
    Samples times;
    for (size_t i = 0; i < context.repeats(); ++i) {
      {
        Farm farm;
        times.daemon.push_back(NewStation(context, farm, PlanOf(size))->start_seconds());
      }
      times.relay.push_back(QuietPairs(size.consoles).start_seconds());
    }
    context.results.Add(
        {"start", "until all are connected, " + Of(size), "s", times.daemon, times.relay, 3});
  }
}

void RunCommand(Context& context) {
  for (const Size& size : Sizes(context, {{1'000, false}, {kWanted, false}})) {
    MeasureCommand(context, size);
  }
}

void RunReload(Context& context) {
  for (const Size& size : Sizes(context, {{1'000, false}, {kWanted, false}, {kWanted, true}})) {
    MeasureReload(context, size);
  }
}

}  // namespace bench
