// What every scenario is given, and the measuring that several of them share.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "farm.h"
#include "relay.h"
#include "results.h"
#include "station.h"

namespace bench {

struct Context {
  std::string daemon;  // the program
  bool quick = false;
  Results& results;

  size_t repeats() const { return quick ? 2 : 5; }
  /// The first number in a full run, the second in a quick one.
  template <typename Number>
  Number Choose(Number full, Number in_quick) const {
    return quick ? in_quick : full;
  }
};

struct Scenario {
  const char* name;
  const char* summary;
  void (*run)(Context& context);
};

void RunEcho(Context& context);
void RunAttach(Context& context);
void RunLogging(Context& context);
void RunEvents(Context& context);
void RunFanOut(Context& context);
void RunIdle(Context& context);
void RunStart(Context& context);
void RunCommand(Context& context);
void RunReload(Context& context);
void RunRacks(Context& context);
void RunFaults(Context& context);
void RunFlood(Context& context);
void RunFanOutFlood(Context& context);
void RunSlowReaders(Context& context);
void RunChurn(Context& context);
void RunIdleRacks(Context& context);
void RunEnable(Context& context);
void RunEchoSpread(Context& context);
void RunJournal(Context& context);
void RunWeb(Context& context);
void RunShip(Context& context);

/// The same measured through the daemon and through the relay.
struct Samples {
  std::vector<double> daemon;
  std::vector<double> relay;
};

/// Two who type, one through the daemon and one through the relay. They take turns, so that both
/// meet the same machine. All times are in seconds.
struct Typists {
  User daemon;
  User relay;

  /// Each of the two types a key every so many seconds; nobody types ahead of an echo.
  Samples TypeEvery(double interval, size_t keys);
  /// Keys 20 ms apart.
  Samples TypeSlowly(size_t keys) { return TypeEvery(0.020, keys); }
  /// Each key as soon as the echo of the one before it is there; in turns of some keys.
  Samples TypeFast(size_t keys);
  /// Types fast until `done` is true.
  template <typename Done>
  Samples TypeUntil(Done done) {
    Samples times;
    while (!done()) Append(times, TypeFast(1));
    return times;
  }

  static void Append(Samples& to, const Samples& more);
};

/// A relay with consoles of its own, so that the daemon's see nothing of it.
class RelayedFarm {
 public:
  Farm& farm() { return farm_; }
  Relay& relay() { return relay_; }
  Descriptor Call(size_t console) const {
    return relay_.Call(Farm::AddressOf(console), farm_.port());
  }
  User Attach(size_t console) const;

 private:
  Farm farm_;
  Relay relay_;
};

/// Reads and throws away what comes on many connections, in a thread of its own.
class Sink {
 public:
  Sink();
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;
  ~Sink();
  void Add(Descriptor sock);
  /// Bytes that have come on all of them.
  uint64_t received() const { return received_; }

 private:
  void Drain();

  Descriptor poll_;
  std::vector<Descriptor> socks_;
  std::atomic<uint64_t> received_{0};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

/// Waits for lines in the consolidated log, which every record reaches last. It must have exactly
/// the size that the consoles' lines make.
class LogWatch {
 public:
  /// At a new station: waits for the greetings of its consoles.
  explicit LogWatch(size_t consoles);
  /// Waits for so many more kConsoleLine.
  void WaitFor(uint64_t lines);

 private:
  void Wait() const;

  uintmax_t expected_;
};

/// Makes an empty root for the next station.
std::unique_ptr<Station> NewStation(const Context& context, Farm& farm,
                                    std::vector<ConsolePlan> consoles, bool security = false,
                                    const std::vector<std::string>& options = {});

}  // namespace bench
