// From the moment a user calls until the first key has come back.
#include "context.h"

namespace bench {

void RunAttach(Context& context) {
  const size_t calls = context.Choose<size_t>(50, 10);
  Farm farm;
  RelayedFarm relayed;
  const auto station = NewStation(context, farm, PlainConsoles(1));
  const auto time_of = [](auto attach) {
    const double start = Now();
    attach().Echo();
    return (Now() - start) * kMilli;
  };
  Samples medians;
  for (size_t i = 0; i < context.repeats(); ++i) {
    Samples times;
    for (size_t call = 0; call < calls; ++call) {
      times.daemon.push_back(time_of([&] { return station->Attach(0); }));
      times.relay.push_back(time_of([&] { return relayed.Attach(0); }));
    }
    medians.daemon.push_back(Median(times.daemon));
    medians.relay.push_back(Median(times.relay));
  }
  station->CheckWhole();
  context.results.Add({"attach", "call to first echo", "ms", medians.daemon, medians.relay, 3});
}

}  // namespace bench
