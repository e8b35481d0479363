// One console, many users: until the last of them has a line, and what the copies cost.
#include "context.h"

namespace bench {

namespace {

double UntilAllHave(std::vector<User>& users, const std::string& text, double start) {
  for (User& user : users) user.Expect(text);
  return (Now() - start) * kMicro;
}

Samples MeasureLatency(const Context& context, Farm& farm, Farm& relayed,
                       std::vector<User>& daemon_users, std::vector<User>& relay_users) {
  const int lines = context.Choose(100, 20);
  Samples medians;
  for (size_t i = 0; i < context.repeats(); ++i) {
    Samples times;
    for (int line = 0; line < lines; ++line) {
      const std::string text = "line " + std::to_string(line) + " is printed\r\n";
      double start = Now();
      farm.Print(0, 1, text);
      times.daemon.push_back(UntilAllHave(daemon_users, text, start));
      start = Now();
      relayed.Print(0, relay_users.size(), text);
      times.relay.push_back(UntilAllHave(relay_users, text, start));
    }
    medians.daemon.push_back(Median(times.daemon));
    medians.relay.push_back(Median(times.relay));
  }
  return medians;
}

// `printing` consoles whose lines come to all of the users together.
std::vector<double> CpuPerCopy(const Context& context, const Process& process, Farm& farm,
                               size_t printing, std::vector<User>& users) {
  const uint64_t lines = context.Choose<uint64_t>(10'000, 1'000);
  const uint64_t copies = lines * users.size();
  Sink sink;
  for (User& user : users) sink.Add(user.Leave());
  std::vector<double> costs;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const uint64_t expected = sink.received() + copies * kConsoleLine.size();
    const double cpu = process.CpuSeconds();
    farm.Flood(0, printing, lines);
    WaitUntil("every copy", [&] { return sink.received() >= expected; });
    costs.push_back((process.CpuSeconds() - cpu) * kMicro / static_cast<double>(copies));
  }
  return costs;
}

void MeasureFanOut(Context& context, size_t count) {
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlainConsoles(1));
  std::vector<User> daemon_users;
  std::vector<User> relay_users;
  for (size_t i = 0; i < count; ++i) {
    daemon_users.push_back(station->Attach(0));
    relay_users.push_back(relayed.Attach(i));
  }
  const std::string to = " to " + std::to_string(count) + (count == 1 ? " user" : " users");
  const Samples times = MeasureLatency(context, farm, relayed.farm(), daemon_users, relay_users);
  context.results.Add({"fan-out", "printed line" + to, "us", times.daemon, times.relay, 0});
  const auto daemon = CpuPerCopy(context, station->daemon(), farm, 1, daemon_users);
  const auto relay =
      CpuPerCopy(context, relayed.relay().process(), relayed.farm(), count, relay_users);
  context.results.Add({"fan-out", "processor per copy" + to, "us", daemon, relay, 2});
  station->CheckWhole();
}

}  // namespace

void RunFanOut(Context& context) {
  for (const size_t users : std::initializer_list<size_t>{1, 10, 50}) MeasureFanOut(context, users);
}

}  // namespace bench
