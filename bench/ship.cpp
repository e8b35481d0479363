// How quickly a journal that many consoles have filled comes to NATS, on the same machine.
#include <filesystem>
#include <fstream>

#include "context.h"
#include "log_check.h"

namespace bench {

namespace {

constexpr double kMostPerLine = 10;  // microseconds: the goal is 100,000 lines a second
constexpr LogForm kConsolidated = {.consolidated = true, .carriage_returns = false};

std::string Root() {
  return QOR_ROOT;
}

std::string TextOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A server with nothing in it.
class Nats {
 public:
  Nats() : port_(FreePorts(1).front()), directory_(Root() + "/nats") {
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directory(directory_);
    const std::string settings = directory_ + "/nats.conf";
    std::ofstream(settings) << "listen: \"127.0.0.1:" << port_ << "\"\njetstream { store_dir: \""
                            << directory_ << "\", max_file_store: 8GB }\n";
    process_ = std::make_unique<Process>(
        std::vector<std::string>{"/usr/bin/env", "nats-server", "-c", settings},
        directory_ + "/output");
    WaitUntil("the server", [&] { return Listens(); });
  }

  uint16_t port() const { return port_; }
  double CpuSeconds() const { return process_->CpuSeconds(); }

 private:
  bool Listens() {
    process_->CheckRunning();
    try {
      ConnectTo("127.0.0.1", port_);
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  uint16_t port_;
  std::string directory_;
  std::unique_ptr<Process> process_;
};

/// Seconds until the server has acknowledged the whole journal.
double ShipAll(const Context& context, const Nats& nats) {
  const std::string state = Root() + "/ship";
  const std::string settings = Root() + "/config/zevfleet.toml";
  std::filesystem::remove_all(state);
  std::ofstream(settings) << "site = \"bench\"\nstation = \"st1\"\nstate_directory = \"" << state
                          << "\"\n[nats]\nurls = [\"nats://127.0.0.1:" << nats.port() << "\"]\n";
  const std::string output = Root() + "/ship.out";
  const std::string program = std::filesystem::path(context.daemon).replace_filename("zevfleet");
  const double start = Now();
  const Process ship({program, "--config", settings, "ship", "--once"}, output);
  WaitUntil("the journal to be shipped",
            [&] { return TextOf(output).find("messages: ") != std::string::npos; });
  return Now() - start;
}

void FillJournal(Farm& farm, Station& station, size_t consoles, uint64_t lines_each) {
  station.KeepJournal(true);
  farm.Flood(0, consoles, lines_each);
  WaitForLog(Station::ConsolidatedLog(), LogSize(kConsolidated, consoles, lines_each));
  const auto bytes = consoles * lines_each * kConsoleLine.size();
  WaitUntil("the journal", [&] { return Station::JournalSize() >= bytes; });
  station.KeepJournal(false);
}

}  // namespace

void RunShip(Context& context) {
  constexpr size_t kConsoles = 100;
  const auto lines_each = context.Choose<uint64_t>(40'000, 4'000);
  const auto lines = static_cast<double>(kConsoles * lines_each);
  Farm farm;
  const auto station = NewStation(context, farm, PlainConsoles(kConsoles));
  FillJournal(farm, *station, kConsoles, lines_each);
  std::vector<double> per_line;
  std::vector<double> server;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const Nats nats;
    per_line.push_back(ShipAll(context, nats) / lines * kMicro);
    server.push_back(nats.CpuSeconds() / lines * kMicro);
  }
  context.results.Add(
      {"ship", "from the journal to NATS, a line", "us", per_line, {}, 2, AtMost(kMostPerLine)});
  context.results.Add({"ship", "the server's processor, a line", "us", server, {}, 2, {}});
}

}  // namespace bench
