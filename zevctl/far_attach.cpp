// Attaching to a console of the fleet. The session is that of the station that has the console;
// when it ends without the user's doing, the map tells where the console is next.
#include <csignal>
#include <thread>

#include "far_commands.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr std::chrono::milliseconds kLook{500};
constexpr std::chrono::seconds kBetweenTries{1};

// The daemon has ended, the console was taken from it, or the station is gone: nothing that the
// user did.
bool GoesOn(int status) {
  const auto is = [status](ExitStatus one) { return status == static_cast<int>(one); };
  return status == FarResult::kUnreached || is(ExitStatus::kNoDaemon) ||
         is(ExitStatus::kSessionEnded) || is(ExitStatus::kNotAccessible) ||
         is(ExitStatus::kNoSuchConsole);
}

void Say(const std::string& text) {
  Announce("[zevctl: " + text + "]");
}

/// Where a console is, as the map says it again and again.
class Follower {
 public:
  Follower(std::string path, std::string console)
      : path_(std::move(path)), console_(std::move(console)) {}

  // The station that has it; waits for one. The user may end that with Ctrl-C.
  FarStation Wait() {
    for (;;) {
      map_ = LoadFarMap(path_);
      const FarConsole& console = FindFarConsole(map_, console_);
      const FarStation* station = map_.Station(console.station);
      if (station != nullptr && station->alive) return *station;
      if (!told_) Say("no station has " + console_ + " now; waiting until one does");
      told_ = true;
      std::this_thread::sleep_for(kLook);
    }
  }

  void Forget() { told_ = false; }
  const FarMap& map() const { return map_; }

 private:
  const std::string path_;
  const std::string console_;
  FarMap map_;
  bool told_ = false;
};

}  // namespace

ExitStatus AttachInFleet(const Settings& settings, const FarShell& shell,
                         const std::string& console, const std::vector<std::string>& words) {
  Follower follower(settings.fleet_map, console);
  std::string before;
  for (;;) {
    const FarStation station = follower.Wait();
    if (!before.empty() && station.name != before) {
      Say(console + " is at station " + station.name + " now");
    }
    const int status = RunFarHere(follower.map(), shell, station, words);
    if (!GoesOn(status)) return static_cast<ExitStatus>(status);
    // At the first try, a mistake in the name of a console is one.
    if (before.empty() && status != FarResult::kUnreached &&
        status != static_cast<int>(ExitStatus::kSessionEnded)) {
      return static_cast<ExitStatus>(status);
    }
    if (station.name == before || before.empty()) {
      Say("the session at station " + station.name + " has ended; looking for " + console);
    }
    before = station.name;
    follower.Forget();
    std::this_thread::sleep_for(kBetweenTries);
  }
}

}  // namespace zevctl
