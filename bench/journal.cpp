// What the journal costs while many consoles print. The same daemon keeps it and does without, in
// turns, so that both meet the same machine.
#include <algorithm>

#include "context.h"

namespace bench {

namespace {

// Goals. The echo is to be as quick as without; from turn to turn it differs by as much as this.
constexpr double kProcessorRatio = 1.10;
constexpr double kEchoRatio = 1.10;

constexpr double kFarApart = 0.020;
constexpr double kClose = 0.001;

/// How the lines of the consoles are spread over the time: Farm::PrintSteadily or PrintEvenly.
struct Spread {
  const char* name;
  void (Farm::*print)(size_t first, size_t count);
};
constexpr Spread kSpreads[] = {{"evenly", &Farm::PrintEvenly},
                               {"a tenth at once", &Farm::PrintSteadily}};

struct Figures {
  std::vector<double> processor;  // percent of a core
  std::vector<double> slow;       // microseconds
  std::vector<double> fast;
  std::vector<double> worst;  // milliseconds
};

std::vector<double> Type(User& user, double interval, size_t keys) {
  std::vector<double> times;
  double next = Now();
  for (size_t i = 0; i < keys; ++i) {
    next += interval;
    SleepUntil(next);
    times.push_back(user.Echo());
  }
  return times;
}

/// One station, its consoles and somebody who types at the first of them.
class Printing {
 public:
  Printing(const Context& context, size_t printing, const Spread& spread)
      : context_(context),
        station_(NewStation(context, farm_, PlainConsoles(printing + 1))),
        user_(station_->Attach(0)),
        bytes_per_second_(static_cast<double>(printing * kLinesPerSecond * kConsoleLine.size())) {
    (farm_.*spread.print)(1, printing);
  }

  void TakeTurn(bool with_journal, Figures& figures) {
    station_->KeepJournal(with_journal);
    const uintmax_t before = Station::JournalSize();
    const double start = Now();
    MeasureProcessor(figures);
    MeasureEcho(figures);
    CheckJournal(with_journal, Station::JournalSize() - before, Now() - start);
  }

  void End() {
    station_->CheckWhole();
    farm_.PrintSteadily(0, 0);
  }

 private:
  void MeasureProcessor(Figures& figures) const {
    const CpuShare share(station_->daemon());
    SleepUntil(Now() + context_.Choose(4.0, 1.0));
    figures.processor.push_back(share.Percent());
  }

  void MeasureEcho(Figures& figures) {
    const auto slow = Type(user_, kFarApart, context_.Choose<size_t>(100, 25));
    const auto fast = Type(user_, kClose, context_.Choose<size_t>(1'000, 100));
    figures.slow.push_back(Median(slow) * kMicro);
    figures.fast.push_back(Median(fast) * kMicro);
    figures.worst.push_back(*std::max_element(fast.begin(), fast.end()) * kMilli);
  }

  // A journal that keeps less than what was printed would be a cheap one.
  void CheckJournal(bool is_kept, uintmax_t grown, double seconds) const {
    constexpr double kMissing = 0.5;  // seconds of output that are on their way
    const double least = is_kept ? bytes_per_second_ * std::max(seconds - kMissing, 0.0) : 0;
    if (static_cast<double>(grown) < least || (!is_kept && grown > 0)) {
      throw std::runtime_error("the journal has grown by " + std::to_string(grown) + " bytes in " +
                               std::to_string(seconds) + " s");
    }
  }

  const Context& context_;
  Farm farm_;
  std::unique_ptr<Station> station_;
  User user_;
  double bytes_per_second_;
};

std::vector<double> Ratios(const std::vector<double>& with, const std::vector<double>& without) {
  std::vector<double> ratios;
  std::transform(with.begin(), with.end(), without.begin(), std::back_inserter(ratios),
                 [](double one, double other) { return one / other; });
  return ratios;
}

void Measure(Context& context, size_t printing, const Spread& spread) {
  Printing consoles(context, printing, spread);
  Figures with;
  Figures without;
  for (size_t i = 0; i < 2 * context.repeats(); ++i) {
    const bool first = i % 2 == 0;  // neither of them always comes first
    consoles.TakeTurn(first, first ? with : without);
    consoles.TakeTurn(!first, first ? without : with);
  }
  consoles.End();
  const std::string besides = ", " + std::to_string(printing) + " printing " + spread.name;
  const auto add = [&](const std::string& figure, const char* unit, const std::vector<double>& on,
                       const std::vector<double>& off, int digits, Goal goal) {
    context.results.Add({"journal", figure + besides, unit, on, off, digits, goal});
  };
  add("processor", "% of a core", with.processor, without.processor, 2,
      RatioAtMost(kProcessorRatio));
  add("processor, turn by turn", "x", Ratios(with.processor, without.processor), {}, 2,
      AtMost(kProcessorRatio));
  add("keys 20 ms apart", "us", with.slow, without.slow, 0, RatioAtMost(kEchoRatio));
  add("keys 1 ms apart", "us", with.fast, without.fast, 0, RatioAtMost(kEchoRatio));
  add("worst of 1000 keys", "ms", with.worst, without.worst, 1, {});
}

}  // namespace

void RunJournal(Context& context) {
  const auto printing = context.Choose<size_t>(400, 100);
  for (const Spread& spread : kSpreads) Measure(context, printing, spread);
}

}  // namespace bench
