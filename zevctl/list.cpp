// The command "list": consoles, problems first, once or for as long as somebody watches.
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "alternate_screen.h"
#include "arguments.h"
#include "command_port.h"
#include "console_view.h"
#include "console_words.h"
#include "json_line.h"
#include "moment.h"
#include "output.h"
#include "program.h"
#include "selection.h"
#include "standard_output.h"

namespace zevctl {

namespace {

constexpr std::chrono::milliseconds kWatchInterval{2000};

struct ListOptions {
  std::vector<std::string> patterns;
  std::vector<std::string> states;
  bool names_only = false;
  bool watch = false;
};

/// What was found: the consoles to be shown, in order, and those among which they were chosen.
struct Found {
  std::vector<ConsoleView> shown;
  std::vector<ConsoleView> all;
};

// ---- Choosing and sorting -----------------------------------------------------------------------

// Consoles that are being tried are among those that are not connected, so that a line does not
// jump at every attempt.
int Rank(const ConsoleView& console) {
  if (console.IsUp()) return 2;
  return console.IsDisabled() ? 1 : 0;
}

bool IsShownBefore(const ConsoleView& a, const ConsoleView& b) {
  return Rank(a) != Rank(b) ? Rank(a) < Rank(b) : ComesBefore(a.name, b.name);
}

bool IsWanted(const ConsoleView& console, const std::vector<std::string>& states) {
  return states.empty() || std::any_of(states.begin(), states.end(), [&](const std::string& word) {
           return StateIsOf(console.state_word, word);
         });
}

Found Find(CommandPort& port, const ListOptions& options) {
  Found found;
  found.all = Select(ViewConsoles(port), options.patterns, Purpose::kLook).records;
  std::stable_sort(found.all.begin(), found.all.end(), IsShownBefore);
  std::copy_if(found.all.begin(), found.all.end(), std::back_inserter(found.shown),
               [&](const ConsoleView& console) { return IsWanted(console, options.states); });
  return found;
}

// ---- Showing ------------------------------------------------------------------------------------

Colour ColourOf(const ConsoleView& console) {
  if (console.IsUp()) return Colour::kGreen;
  if (console.state_word == "connecting") return Colour::kYellow;
  return console.IsDisabled() ? Colour::kDim : Colour::kRed;
}

std::string TimeOrDash(time_t moment, time_t now) {
  return moment == 0 ? "-" : ShortClockTime(moment, now);
}

size_t CountOfUsers(const ConsoleView& console) {
  return console.users ? console.users->size() : 0;
}

Json TimeOrNull(time_t moment) {
  return moment == 0 ? Json() : Json(moment);
}

Json AsJson(const std::vector<ConsoleView>& consoles) {
  Json data = Json::array();
  for (const ConsoleView& console : consoles) {
    data.push_back({{"name", Utf8(console.name)},
                    {"state", console.state_word},
                    {"since", TimeOrNull(console.since)},
                    {"last_output", TimeOrNull(console.last_output)},
                    {"users", CountOfUsers(console)},
                    {"mode", ModeInWords(console.mode)},
                    {"address", Utf8(console.address)},
                    {"port", console.port},
                    {"management_port", console.management_port},
                    {"model", Utf8(console.model)},
                    {"platform", Utf8(console.platform)}});
  }
  return data;
}

Json NamesAsJson(const std::vector<ConsoleView>& consoles) {
  Json data = Json::array();
  for (const ConsoleView& console : consoles) data.push_back(Utf8(console.name));
  return data;
}

void PrintTable(const std::vector<ConsoleView>& consoles, std::ostream& out) {
  constexpr size_t kWhole = 2;  // name and state
  const time_t now = time(nullptr);
  Table table(
      {"NAME", "STATE", "SINCE", "OUTPUT", "USERS", "MODE", "ADDRESS", "PORT", "MODEL", "PLATFORM"},
      kWhole);
  for (const ConsoleView& console : consoles) {
    table.Add({{Printable(console.name)},
               {Printable(console.state_word), ColourOf(console)},
               {TimeOrDash(console.since, now)},
               {TimeOrDash(console.last_output, now)},
               {std::to_string(CountOfUsers(console))},
               {ModeInWords(console.mode)},
               {Printable(console.address)},
               {std::to_string(console.port)},
               {Printable(console.model)},
               {Printable(console.platform)}});
  }
  table.Print(out, TerminalWidth(), ColoursWanted());
}

std::string Plural(size_t count) {
  if (count == 0) return "no consoles";
  return std::to_string(count) + (count == 1 ? " console" : " consoles");
}

// "4 consoles: 1 refused, 3 connected", the problems first.
std::string Summary(const Found& found) {
  std::map<std::string, size_t> counts;
  for (const ConsoleView& console : found.all) ++counts[console.state_word];
  std::string text;
  for (const std::string& state : StatesByUrgency()) {
    if (counts[state] == 0) continue;
    text += (text.empty() ? ": " : ", ") + std::to_string(counts[state]) + " " + state;
  }
  const bool some = found.shown.size() != found.all.size();
  return (some ? std::to_string(found.shown.size()) + " shown of " : "") +
         Plural(found.all.size()) + text;
}

// Everything but the summary.
std::string Body(const Found& found, const ListOptions& options, bool json) {
  std::ostringstream text;
  if (json) {
    const Json data = options.names_only ? NamesAsJson(found.shown) : AsJson(found.shown);
    text << JsonLine(data) << "\n";
  } else if (options.names_only) {
    for (const ConsoleView& console : found.shown) text << Printable(console.name) << "\n";
  } else {
    PrintTable(found.shown, text);
  }
  return text.str();
}

std::string Whole(const Found& found, const ListOptions& options, bool json) {
  const bool with_summary = !json && !options.names_only;
  return Body(found, options, json) + (with_summary ? Summary(found) + "\n" : "");
}

// ---- Watching -----------------------------------------------------------------------------------

/// A command connection that is opened again after the daemon was gone.
class Station {
 public:
  explicit Station(const Settings& settings)
      : settings_(settings), credentials_(UserName(settings)) {}

  /// Throws as CommandPort does.
  Found Look(const ListOptions& options) {
    if (!port_) port_.emplace(settings_, credentials_);
    return Find(*port_, options);
  }

  /// Nothing while no daemon answers; `why` tells.
  std::optional<Found> LookAgain(const ListOptions& options, std::string& why) {
    try {
      return Look(options);
    } catch (const Failure& failure) {
      if (failure.status() != ExitStatus::kNoDaemon) throw;
      why = failure.what();
      port_.reset();
      return {};
    }
  }

 private:
  const Settings& settings_;
  Credentials credentials_;
  std::optional<CommandPort> port_;
};

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The first look must succeed. After that, the last picture stays while no daemon answers.
void WatchOnTerminal(const Settings& settings, const ListOptions& options) {
  Station station(settings);
  Found found = station.Look(options);
  AlternateScreen screen;
  for (std::string why;;) {
    const time_t now = time(nullptr);
    std::vector<std::string> lines = {ClockTime(now, now) + "  " + Summary(found) +
                                      "  (Ctrl-C ends)"};
    if (!why.empty()) lines.push_back("zevctl: " + Printable(why));
    for (std::string& line : Lines(Body(found, options, false))) lines.push_back(std::move(line));
    screen.Show(lines);
    WaitWhileRead(kWatchInterval);
    why.clear();
    if (auto next = station.LookAgain(options, why)) found = std::move(*next);
  }
}

// The time of the last output alone is no news: a console that prints would make the list appear
// again and again.
std::string News(const Found& found, const ListOptions& options) {
  Json data = options.names_only ? NamesAsJson(found.shown) : AsJson(found.shown);
  if (!options.names_only) {
    for (Json& console : data) console.erase("last_output");
  }
  return JsonText(data);
}

void WatchInPipe(const Settings& settings, const ListOptions& options) {
  Station station(settings);
  std::optional<Found> found = station.Look(options);
  StandardOutput output;
  for (std::string shown;;) {
    const std::string news = found ? News(*found, options) : shown;
    if (news != shown) output.Add(Whole(*found, options, settings.json));
    output.Flush();
    shown = news;
    WaitWhileRead(kWatchInterval);
    std::string why;
    found = station.LookAgain(options, why);
    if (!found) Warn(why);
  }
}

ExitStatus Watch(const Settings& settings, const ListOptions& options) try {
  const bool terminal = isatty(STDOUT_FILENO) == 1 && !settings.json;
  terminal ? WatchOnTerminal(settings, options) : WatchInPipe(settings, options);
  return ExitStatus::kOk;
} catch (const ReaderGone&) {
  return ExitStatus::kOk;
}

ExitStatus List(const Settings& settings, const ListOptions& options) {
  if (options.watch) return Watch(settings, options);
  std::cout << Whole(Station(settings).Look(options), options, settings.json);
  return ExitStatus::kOk;
}

// What the parser says of a word that --state does not know; nothing of one that it does.
std::string RefuseState(const std::string& word) {
  const std::vector<std::string> words = StateChoices();
  if (std::find(words.begin(), words.end(), word) != words.end()) return "";
  const std::vector<std::string> nearest = NearestWords(word, words);
  return "no state is called \"" + Printable(word) + "\"; use " +
         Alternatives(nearest.empty() ? words : nearest);
}

}  // namespace

void AddListCommand(Command& app, Program& program) {
  auto options = std::make_shared<ListOptions>();
  Command command = app.AddCommand("list", "Show consoles with their state and users");
  command.AddOption("PATTERN", options->patterns,
                    "Names, starts of names or shell patterns; all if not given");
  command
      .AddOption("--state", options->states,
                 "Only consoles in these states, such as down,disabled; may be repeated")
      .Verify(RefuseState)
      .SplitAt(',')
      .OneEachTime();
  command.AddFlag("-q,--quiet", options->names_only, "Only the names, one in each line");
  command.AddFlag("--watch", options->watch, "Show the newest state until interrupted");
  command.SetAction(program, [options, &program] { return List(program.settings, *options); });
}

}  // namespace zevctl
