// One console that prints as fast as it is read, to users who read as fast as they can, through the
// daemon and through the repeater.
#include "context.h"
#include "log_check.h"
#include "repeater.h"
#include "shown_output.h"

namespace bench {

namespace {

constexpr double kMegabyte = 1e6;
constexpr double kPercent = 100;
constexpr uint64_t kEndless = 1'000'000'000;

struct Shown {
  double megabytes_per_second;  // to each user
  double left_out;              // percent of what the console printed
};

Shown ReadFlood(const Context& context, Farm& farm, std::vector<Descriptor> users) {
  const FastReaders readers(std::move(users));
  const auto count = static_cast<double>(readers.size());
  farm.Flood(0, 1, kEndless);
  SleepUntil(Now() + context.Choose(0.5, 0.1));
  const double start = Now();
  const uint64_t before = readers.shown();
  SleepUntil(start + context.Choose(2.0, 0.3));
  const auto shown = static_cast<double>(readers.shown() - before);
  const double seconds = Now() - start;
  farm.EndFlood(0, 1);
  const uint64_t printed = farm.FloodedBytes(0);
  readers.WaitFor(printed);
  return {shown / count / seconds / kMegabyte, kPercent * static_cast<double>(readers.left_out()) /
                                                   count / static_cast<double>(printed)};
}

Shown MeasureDaemon(const Context& context, size_t users) {
  Farm farm;
  const auto station = NewStation(context, farm, PlainConsoles(1));
  WaitForLog(Station::LogOf(0), LogSize({}, 1, 0));
  std::vector<Descriptor> socks;
  for (size_t i = 0; i < users; ++i) socks.push_back(station->Attach(0).Leave());
  const Shown shown = ReadFlood(context, farm, std::move(socks));
  station->CheckWhole();
  return shown;
}

Shown MeasureRepeater(const Context& context, size_t users) {
  Farm farm;
  Station::ClearRoot();
  const Repeater repeater(farm, users);
  return ReadFlood(context, farm, repeater.Call());
}

struct Size {
  size_t users;
  const char* text;
  double ratio;  // the goal
};

constexpr Size kSizes[] = {{1, "1 user", 0.1}, {10, "10 users", 0.3}, {50, "50 users", 0.5}};

}  // namespace

void RunFanOutFlood(Context& context) {
  for (const Size& size : kSizes) {
    Samples rates;
    std::vector<double> left_out;
    for (size_t i = 0; i < context.repeats(); ++i) {
      const Shown daemon = MeasureDaemon(context, size.users);
      rates.daemon.push_back(daemon.megabytes_per_second);
      left_out.push_back(daemon.left_out);
      rates.relay.push_back(MeasureRepeater(context, size.users).megabytes_per_second);
    }
    const std::string of = std::string(", ") + size.text;
    context.results.Add({"fan-out-flood", "shown to each" + of, "MB/s", rates.daemon, rates.relay,
                         1, RatioAtLeast(size.ratio)});
    context.results.Add({"fan-out-flood", "left out for each" + of, "%", left_out, {}, 1});
  }
}

}  // namespace bench
