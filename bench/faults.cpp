// Somebody else's echo while a peer misbehaves, and afterwards.
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "context.h"

namespace bench {

namespace {

constexpr size_t kCalm = 0;   // the console of the one who types
constexpr size_t kNoisy = 1;  // the first of those that the fault is about
constexpr char kSet[] = "set";
constexpr uint64_t kEndless = 1'000'000'000;
constexpr int kSmallBuffer = 4096;

/// A running fault; it ends with the object.
using Running = std::shared_ptr<void>;

struct Fault {
  const char* name;
  size_t consoles;
  bool security;
  void (*prepare)(std::vector<ConsolePlan>& plan);
  Running (*begin)(Station& station, Farm& farm);
};

void PrepareNothing(std::vector<ConsolePlan>& /*plan*/) {}

// ---- A user who reads nothing while the console prints as fast as it can ------------------------

struct StalledUser {
  StalledUser(Station& station, Farm& printing)
      : user(station.Attach(kNoisy, kSmallBuffer)), farm(printing) {
    farm.Flood(kNoisy, 1, kEndless);
  }
  StalledUser(const StalledUser&) = delete;
  StalledUser& operator=(const StalledUser&) = delete;
  ~StalledUser() { farm.EndFlood(kNoisy, 1); }
  User user;
  Farm& farm;
};

// ---- A console that reads nothing while a user pastes -------------------------------------------

struct StalledConsole {
  StalledConsole(Station& station, Farm& reading) : user(station.Attach(kNoisy)), farm(reading) {
    farm.StopReading(kNoisy);
    paste = std::thread([this] { Paste(); });
  }
  StalledConsole(const StalledConsole&) = delete;
  StalledConsole& operator=(const StalledConsole&) = delete;
  ~StalledConsole() {
    shutdown(user.sock().get(), SHUT_RDWR);
    paste.join();
    farm.ReadAgain(kNoisy);
  }

  // Until the connection is over, at whichever end.
  void Paste() const {
    const std::string text(65536, 'p');
    while (send(user.sock().get(), text.data(), text.size(), MSG_NOSIGNAL) > 0) {
    }
  }

  User user;
  Farm& farm;
  std::thread paste;
};

// ---- A tool that never reads --------------------------------------------------------------------

Running NewStalledTool(Station& station, Farm& /*farm*/) {
  constexpr int kAsked = 100;
  auto tool = std::make_shared<Descriptor>(station.CallCommandPort());
  for (int i = 0; i < kAsked; ++i) SendAll(*tool, "console\n");
  return tool;
}

// ---- A collector of events that never reads -----------------------------------------------------

const std::string& CollectorPath() {
  static const std::string path = QOR_ROOT "/run/jix.sock";
  return path;
}

void PrepareEvents(std::vector<ConsolePlan>& plan) {
  Station::WriteEventFile(kSet, "any 300 1 request\n");
  for (size_t i = kNoisy; i < plan.size(); ++i) plan[i].event_file = kSet;
}

struct StalledCollector {
  StalledCollector(const Station& station, Farm& printing)
      : listener(ListenOnPath(CollectorPath())), farm(printing) {
    farm.PrintSteadily(kNoisy, station.consoles() - kNoisy);
  }
  StalledCollector(const StalledCollector&) = delete;
  StalledCollector& operator=(const StalledCollector&) = delete;
  ~StalledCollector() { farm.PrintSteadily(0, 0); }
  Descriptor listener;  // callers are connected, but never accepted
  Farm& farm;
};

// ---- Password helpers that hang -----------------------------------------------------------------

constexpr size_t kLogins = 5;  // as many as may be pending on one port

void PrepareLogins(std::vector<ConsolePlan>& plan) {
  Station::WriteHangingHelper();
  const std::vector<uint16_t> ports = FreePorts(plan.size() + 1);
  for (size_t i = 0; i < plan.size(); ++i) plan[i].mapped_port = ports[i + 1];
  plan[kNoisy].login = true;
}

struct HangingLogins {
  HangingLogins(const Station& station, Farm& /*farm*/) {
    for (size_t i = 0; i < kLogins; ++i) {
      User& user = users.emplace_back(station.CallMappedPort(kNoisy));
      user.Expect("username: ");
      user.Send("operator" + std::to_string(i) + "\r");  // of one name, one helper runs at a time
      user.Expect("password: ");
      user.Send("secret\r");
    }
  }
  HangingLogins(const HangingLogins&) = delete;
  HangingLogins& operator=(const HangingLogins&) = delete;
  // All of them are refused in the end, and their slots are free again.
  ~HangingLogins() {
    Station::EndHangingHelpers();
    for (const User& user : users) user.ExpectEnd();
  }
  std::vector<User> users;
};

template <typename F>
Running Begin(Station& station, Farm& farm) {
  return std::make_shared<F>(station, farm);
}

constexpr Fault kFaults[] = {
    {"user reads nothing", 2, false, PrepareNothing, Begin<StalledUser>},
    {"console reads nothing, user pastes", 2, false, PrepareNothing, Begin<StalledConsole>},
    {"tool reads nothing, 1000 consoles", 1'000, false, PrepareNothing, NewStalledTool},
    {"event collector reads nothing", 101, false, PrepareEvents, Begin<StalledCollector>},
    {"password helper hangs", 2, true, PrepareLogins, Begin<HangingLogins>},
};

// ---- Measuring ----------------------------------------------------------------------------------

double Worst(const std::vector<double>& times) {
  return *std::max_element(times.begin(), times.end());
}

Samples TypeFor(Typists& typists, double seconds) {
  const double end = Now() + seconds;
  return typists.TypeUntil([&] { return Now() > end; });
}

User AttachCalm(const Station& station, const Fault& fault) {
  return fault.security ? station.AttachToMappedPort(kCalm) : station.Attach(kCalm);
}

void MeasureFault(Context& context, const Fault& fault) {
  Farm farm;
  RelayedFarm relayed;
  Station::ClearRoot();
  std::vector<ConsolePlan> plan(fault.consoles);
  fault.prepare(plan);
  Station station(context.daemon, farm, plan, fault.security);
  Typists typists{AttachCalm(station, fault), relayed.Attach(kCalm)};
  Samples worst;
  Samples after;
  for (size_t i = 0; i < context.repeats(); ++i) {
    {
      const Running running = fault.begin(station, farm);
      const Samples during = TypeFor(typists, context.Choose(6.0, 0.5));
      worst.daemon.push_back(Worst(during.daemon) * kMilli);
      worst.relay.push_back(Worst(during.relay) * kMilli);
    }
    const Samples then = TypeFor(typists, context.Choose(1.0, 0.2));
    after.daemon.push_back(Median(then.daemon) * kMicro);
    after.relay.push_back(Median(then.relay) * kMicro);
  }
  station.CheckWhole();
  const std::string name = fault.name;
  context.results.Add({"faults", name + ": worst echo", "ms", worst.daemon, worst.relay});
  context.results.Add({"faults", name + ": echo afterwards", "us", after.daemon, after.relay, 0});
}

}  // namespace

void RunFaults(Context& context) {
  for (const Fault& fault : kFaults) MeasureFault(context, fault);
}

}  // namespace bench
