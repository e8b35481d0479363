// zevweb: the station in a browser.
#include <pthread.h>
#include <sys/stat.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "arguments.h"
#include "interface.h"
#include "output.h"
#include "web_account.h"
#include "web_live.h"
#include "web_server.h"

namespace {

using zevctl::ExitStatus;

constexpr mode_t kMask = 0077;

struct Choice {
  std::string config = zevctl::kStationRoot + "/config/zevweb.toml";
  std::string page;
  bool only_check = false;
};

void Tell(const std::string& text) {
  zevctl::Announce("zevweb: " + text);
}

sigset_t Signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int one : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, one);
  return signals;
}

// Waits for signals, which are blocked everywhere else.
void HearSignals(zevweb::WebServer& server) {
  const sigset_t signals = Signals();
  for (int one = 0; sigwait(&signals, &one) == 0;) {
    if (one != SIGHUP) break;
    server.Reload();
  }
  server.End();
}

zevctl::Settings Station(const zevweb::WebOptions& options) {
  zevctl::Settings settings;
  settings.port = options.main_port;
  return settings;
}

ExitStatus Serve(const zevweb::WebOptions& options) {
  const sigset_t signals = Signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  zevweb::WebManager manager;
  const std::string journal = zevctl::kStationRoot + "/journal";
  const std::string logs = zevctl::kStationRoot + "/logs";
  zevweb::WebSessions sessions(options.directory + "/sessions", options.sessions.hours,
                               options.sessions.idle_minutes);
  zevweb::WebPeople people;
  zevweb::WebTokens tokens(zevctl::kStationRoot + "/config");
  zevweb::WebGate gate(options, sessions, people, tokens);
  zevweb::Account account({Station(options), journal}, sessions, people);
  zevweb::Interface interface({Station(options), journal, logs, options.fleet_map});
  zevweb::WorkerPool workers(zevweb::WebServer::Wake);
  zevweb::Live live({Station(options), journal}, workers);
  std::vector<zevweb::Route> routes;
  std::vector<zevweb::ChannelRoute> channels;
  account.AddRoutes(&routes);
  interface.AddRoutes(&routes);
  live.AddRoutes(&routes);
  live.AddChannels(&channels);
  const zevweb::WebRoutes all(std::move(routes), std::move(channels));
  const zevweb::WebFiles files(options.page);
  if (files.empty()) Tell("there is no page in " + options.page + "; set \"page\" in zevweb.toml");
  const zevweb::WebShop shop{options, workers, gate, all, files};
  zevweb::WebServer server(shop, sessions);
  std::thread listener([&server] { HearSignals(server); });
  Tell("listens on " + options.address + " port " + std::to_string(options.port));
  manager.Say("READY=1");
  server.Serve(manager);
  workers.Stop();
  listener.join();
  return ExitStatus::kOk;
}

ExitStatus Run(const Choice& choice) {
  zevctl::Findings findings;
  zevweb::WebOptions options = zevweb::LoadWebOptions(choice.config, findings);
  if (!choice.page.empty()) options.page = choice.page;
  for (const zevctl::Finding& finding : findings.Sorted()) zevctl::Announce(finding.InWords());
  if (findings.errors() > 0) return ExitStatus::kFailed;
  if (!choice.only_check) return Serve(options);
  std::cout << choice.config << ": no mistakes\n";
  return ExitStatus::kOk;
}

}  // namespace

int main(int argc, char** argv) try {
  Choice choice;
  zevctl::CommandLine line("Serves the consoles of this station to browsers and machines.",
                           "zevweb", "zevweb " QOR_VERSION);
  zevctl::Command program = line.program();
  program.AddOption("--config", choice.config, "The settings").ShowDefault();
  program.AddOption("--page", choice.page, "The directory of the page's files");
  program.AddFlag("--check", choice.only_check, "Check the settings, and end");
  const zevctl::ParseResult result = line.Parse(argc, argv);
  if (result.end == zevctl::ParseEnd::kAnswered) {
    std::cout << result.text;
    return static_cast<int>(ExitStatus::kOk);
  }
  if (result.end != zevctl::ParseEnd::kParsed) {
    Tell(result.text + "; see zevweb --help");
    return static_cast<int>(ExitStatus::kUsage);
  }
  umask(kMask);
  return static_cast<int>(Run(choice));
} catch (const std::exception& error) {
  Tell(error.what());
  return static_cast<int>(ExitStatus::kFailed);
}
