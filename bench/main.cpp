// A load generator for the daemon. Every figure stands beside that of a plain relay, measured in
// the same run on the same machine.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iostream>

#include "context.h"
#include "logger.h"
#include "machine.h"
#include "repeater.h"

namespace {

using bench::Context;
using bench::Scenario;

constexpr Scenario kScenarios[] = {
    {"echo", "a key to the console and back, alone and beside printing consoles", bench::RunEcho},
    {"attach", "from a user's call to the first echo", bench::RunAttach},
    {"logging", "lines into the logs as fast as consoles are read", bench::RunLogging},
    {"events", "looking for patterns in a line", bench::RunEvents},
    {"fan-out", "one console's output to many users", bench::RunFanOut},
    {"idle", "processor and memory with nothing to do", bench::RunIdle},
    {"start", "from the start until every console is connected", bench::RunStart},
    {"command", "the command \"console\"", bench::RunCommand},
    {"reload", "SIGHUP with a long configuration", bench::RunReload},
    {"racks", "beside thousands of consoles that hang or refuse", bench::RunRacks},
    {"faults", "somebody's echo while a peer misbehaves, and afterwards", bench::RunFaults},
    {"flood", "consoles that print as fast as they are read, beside a bare logger",
     bench::RunFlood},
    {"fan-out-flood", "such a console's output to many users", bench::RunFanOutFlood},
    {"slow-readers", "such a console, one of whose users reads slowly", bench::RunSlowReaders},
    {"churn", "somebody's echo while users, tools and files come and go", bench::RunChurn},
    {"idle-racks", "processor with nothing to do beside consoles that hang or refuse",
     bench::RunIdleRacks},
    {"enable", "until disabled consoles are connected again", bench::RunEnable},
    {"echo-spread", "a key beside consoles that print one after the other", bench::RunEchoSpread},
    {"journal", "the journal's processor time and a key beside it", bench::RunJournal},
    {"web", "a thousand who watch in browsers, and the scrape of a large station", bench::RunWeb},
    {"ship", "the journal to NATS, by zevfleet", bench::RunShip},
};

struct Options {
  std::vector<std::string> names;
  std::string daemon;
  std::string json;
  bool list = false;
  bool quick = false;
  bool markdown = false;
};

bool IsScenario(const std::string& name) {
  return std::any_of(std::begin(kScenarios), std::end(kScenarios),
                     [&](const Scenario& scenario) { return scenario.name == name; });
}

void Declare(CLI::App& app, Options& options) {
  app.add_option("scenario", options.names, "only these scenarios")
      ->check([](const std::string& name) {
        return IsScenario(name) ? "" : "no scenario is called " + name + "; see --list";
      });
  app.add_flag("--list", options.list, "say which scenarios there are");
  app.add_flag("--quick", options.quick, "a smoke run: small numbers, few repeats");
  app.add_flag("--markdown", options.markdown, "print the table in Markdown");
  app.add_option("--json", options.json, "write the results to this file, with every sample");
  app.add_option("--daemon", options.daemon, "the daemon to measure");
}

void List() {
  constexpr size_t kWidth = 15;
  for (const Scenario& scenario : kScenarios) {
    std::cout << scenario.name << std::string(kWidth - std::string(scenario.name).size(), ' ')
              << scenario.summary << '\n';
  }
}

bool IsWanted(const Options& options, const Scenario& scenario) {
  const auto& names = options.names;
  return names.empty() || std::find(names.begin(), names.end(), scenario.name) != names.end();
}

void Run(Context& context, const Scenario& scenario) {
  std::cerr << scenario.name << '\n';
  try {
    scenario.run(context);
  } catch (const std::exception& error) {
    std::cerr << "  failed: " << error.what() << '\n';
    context.results.AddFailure({scenario.name, error.what()});
  }
}

int RunAll(const Options& options) {
  bench::DescriptorLimit();
  bench::Results results(bench::DescribeMachine());
  Context context{options.daemon, options.quick, results};
  for (const Scenario& scenario : kScenarios) {
    if (IsWanted(options, scenario)) Run(context, scenario);
  }
  options.markdown ? results.PrintMarkdown(std::cout) : results.PrintTable(std::cout);
  if (!options.json.empty()) results.WriteJson(options.json);
  return results.failed() ? 1 : 0;
}

std::string DaemonBesideThisProgram() {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename("zevd");
}

// Does not return when the words are those of a yardstick.
void LiveAsYardstick(const std::vector<std::string>& words) {
  const auto number = [&](size_t at) { return std::stoul(words.at(at)); };
  if (words.empty()) return;
  if (words[0] == bench::kRelayWord) bench::LiveAsRelay();
  if (words[0] == bench::kLoggerWord) {
    bench::LiveAsLogger(static_cast<uint16_t>(number(1)), number(2));
  }
  if (words[0] == bench::kRepeaterWord) {
    bench::LiveAsRepeater(static_cast<uint16_t>(number(1)), number(2));
  }
}

int Main(int argc, char** argv) {
  LiveAsYardstick({argv + 1, argv + argc});
  Options options;
  options.daemon = DaemonBesideThisProgram();
  CLI::App app("Measures the daemon against a plain relay.", "zevd_bench");
  Declare(app, options);
  CLI11_PARSE(app, argc, argv);
  if (options.list) {
    List();
    return 0;
  }
  return RunAll(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "zevd_bench: " << error.what() << '\n';
    return 1;
  }
}
