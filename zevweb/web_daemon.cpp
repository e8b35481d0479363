#include "web_daemon.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <queue>
#include <thread>
#include <utility>

#include "console_words.h"
#include "login.h"
#include "name_match.h"
#include "output.h"

namespace zevweb {

namespace {

using zevctl::CommandPort;
using zevctl::ConsoleRecord;
using zevctl::ConsoleStatus;
using zevctl::Credentials;
using zevctl::ExitStatus;
using zevctl::Failure;
using zevctl::Settings;

constexpr std::chrono::milliseconds kLifetime{500};
constexpr std::chrono::milliseconds kPatience{2000};
constexpr std::chrono::milliseconds kCookiePause{200};  // a starting daemon writes a new one
constexpr char kOwnName[] = "zevweb";

Settings OwnSettings(Settings settings) {
  settings.user = kOwnName;
  settings.from.clear();
  return settings;
}

std::unique_ptr<CommandPort> OpenOnce(const Settings& settings) {
  Credentials nobody = Credentials::Unasked();
  return std::make_unique<CommandPort>(settings, nobody);
}

[[noreturn]] void ThrowAway(const Settings& settings) {
  throw Problem(503, "the daemon does not answer on port " + std::to_string(settings.port) +
                         "; look whether zevd runs, and try again");
}

// The cookie is read at each try: a daemon that has just been restarted has another one. Nobody is
// asked for a password here.
std::unique_ptr<CommandPort> Open(const Settings& settings) {
  for (const bool is_last : {false, true}) {
    try {
      return OpenOnce(settings);
    } catch (const Failure& failure) {
      if (failure.status() == ExitStatus::kNoDaemon) ThrowAway(settings);
      if (failure.status() != ExitStatus::kNotAdmitted) throw;
      if (!is_last) std::this_thread::sleep_for(kCookiePause);
    }
  }
  throw Problem(503, "the daemon does not admit zevweb: its cookie in " + settings.cookie_file +
                         " is missing, not readable or that of another daemon; let zevweb's user "
                         "read it");
}

// What crosses the wire in a line of its own, or as a word of it.
bool IsWord(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char byte) {
    return static_cast<unsigned char>(byte) > ' ' && byte != 0x7f;
  });
}

StationConsoles Merged(std::vector<ConsoleRecord> records, const std::string& answer) {
  std::map<std::string, std::queue<ConsoleStatus>> by_name;
  for (ConsoleStatus& status : zevctl::ParseStatus(answer).consoles) {
    by_name[status.console].push(std::move(status));
  }
  StationConsoles station;
  for (ConsoleRecord& record : records) {
    auto& console = station.consoles.emplace_back();
    const auto found = by_name.find(zevctl::Utf8(record.name));
    if (found != by_name.end() && !found->second.empty()) {
      console.status = std::move(found->second.front());
      found->second.pop();
    } else {
      console.status.state = zevctl::StateInWords(record.state);
    }
    console.record = std::move(record);
  }
  return station;
}

}  // namespace

WebDaemon::WebDaemon(Settings settings)
    : settings_(OwnSettings(std::move(settings))),
      consoles_(kLifetime, kPatience),
      status_(kLifetime, kPatience),
      stats_(kLifetime, kPatience) {}

// A connection that the daemon has closed meanwhile is opened again.
template <typename Work>
auto WebDaemon::WithPort(Work work) {
  const std::lock_guard lock(port_mutex_);
  if (port_) {
    try {
      return work(*port_);
    } catch (const zevctl::CommandError&) {
      throw;
    } catch (const Failure&) {
      port_.reset();
    }
  }
  port_ = Open(settings_);
  try {
    return work(*port_);
  } catch (const Failure& failure) {
    port_.reset();
    if (failure.status() == ExitStatus::kNoDaemon) ThrowAway(settings_);
    throw;
  }
}

std::shared_ptr<const std::string> WebDaemon::Lines(Text& shared, const std::string& command) {
  return shared.Get([&] {
    return WithPort([&](CommandPort& port) {
      return std::make_shared<const std::string>(port.JsonLines(command));
    });
  });
}

std::shared_ptr<const std::string> WebDaemon::Status() {
  return Lines(status_, "status");
}

std::shared_ptr<const std::string> WebDaemon::Stats() {
  return Lines(stats_, "stats");
}

std::shared_ptr<const StationConsoles> WebDaemon::Consoles() {
  return consoles_.Get([&] {
    return WithPort([&](CommandPort& port) {
      auto records = port.Consoles();
      const std::string answer = port.JsonLines("status");
      return std::make_shared<const StationConsoles>(Merged(std::move(records), answer));
    });
  });
}

Settings WebDaemon::SettingsFor(const Caller& caller) const {
  if (!IsWord(caller.name) || !IsWord(caller.address)) {
    throw Problem(403,
                  "your name or address cannot be given to the daemon; use a login name "
                  "without blanks");
  }
  Settings settings = settings_;
  settings.user = caller.name;
  settings.from = caller.address;
  return settings;
}

zevctl::ControlOutcome WebDaemon::Control(const Caller& caller, const std::string& command,
                                          const std::string& console,
                                          const std::string& arguments) {
  const Settings settings = SettingsFor(caller);
  const auto port = Open(settings);
  zevctl::ControlTarget target;
  if (IsWord(console)) {
    const auto records = port->Consoles(console);
    target.consoles = zevctl::WithStatus(records, port->JsonLines("status " + console));
  }
  if (target.consoles.empty()) {
    throw Problem(404, "there is no console \"" + zevctl::Printable(console) +
                           "\"; the list of consoles has the names");
  }
  target.name = target.consoles.front().name;
  auto outcome = zevctl::PerformControl(*port, command, target, arguments);
  consoles_.Forget();
  status_.Forget();
  return outcome;
}

void WebDaemon::TellAll(const Caller& caller, const std::string& text) {
  Open(SettingsFor(caller))->Do("msg - " + text);
}

}  // namespace zevweb
