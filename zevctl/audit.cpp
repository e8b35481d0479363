// "zevctl audit": who did what at the station, and when its record has holes, from the journal.
#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "acts.h"
#include "arguments.h"
#include "audit_acts.h"
#include "journal_open.h"
#include "journal_text.h"
#include "local_only.h"
#include "moment.h"
#include "name_match.h"
#include "output.h"
#include "past_time.h"
#include "program.h"

namespace zevctl {

namespace {

using Json = nlohmann::ordered_json;

struct AuditOptions {
  ActFilter filter;
  std::string since = "7d";
  std::string until;
  std::string journal_dir = DefaultJournalDirectory();
};

// ---- For people ---------------------------------------------------------------------------------

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) {
    if (!part.empty()) text += (text.empty() ? "" : ", ") + part;
  }
  return text;
}

std::string Counted(const std::optional<int64_t>& count, const char* what) {
  return count ? CountText(static_cast<uint64_t>(*count), what) : "";
}

// From when to when a hole reaches.
std::string Extent(const Act& act) {
  if (act.what == "clock-step" && act.begin && act.end) {
    return "from " + StampText(*act.begin) + " to " + StampText(*act.end);
  }
  if (!act.IsHole()) return "";
  if (act.end) {
    return "from " + StampText(act.begin.value_or(act.wall)) + " to " + StampText(*act.end);
  }
  return act.begin ? "since " + StampText(*act.begin) : "";
}

std::string ModeChange(const Act& act) {
  if (act.previous_mode.empty()) return act.mode;
  return act.previous_mode + " -> " + act.mode;
}

std::string DetailsOf(const Act& act) {
  return Joined({ModeChange(act), Extent(act), act.reason, act.text, Counted(act.count, "record"),
                 Counted(act.bytes, "byte"), act.version.empty() ? "" : "version " + act.version});
}

// By login, or as given, which says so.
std::string Whoever(const std::string& known, const std::string& given) {
  if (given.empty() || given == known) return known;
  return known.empty() ? given : known + " (" + given + ")";
}

Colour ColourOf(const Act& act) {
  if (act.result == "refused") return Colour::kRed;
  return act.IsHole() || act.result == "off" ? Colour::kYellow : Colour::kNone;
}

void PrintTable(const std::vector<Act>& acts) {
  constexpr size_t kWhole = 3;  // time, what, result
  Table table({"TIME", "WHAT", "RESULT", "USER", "FROM", "CONSOLE"}, kWhole);
  for (const Act& act : acts) {
    const std::string details = Harmless(DetailsOf(act));
    table.Add({{StampText(act.wall)},
               {Printable(act.what), ColourOf(act)},
               {Printable(act.result), ColourOf(act)},
               {Printable(Whoever(act.user, act.given_user))},
               {Printable(Whoever(act.from, act.given_from))},
               {Printable(act.console)}},
              details.empty() ? std::vector<std::string>() : std::vector{details});
  }
  table.Print(std::cout, TerminalWidth(), ColoursWanted());
}

// ---- For programs -------------------------------------------------------------------------------

void PrintJson(const std::vector<Act>& acts) {
  Json data = Json::array();
  for (const Act& act : acts) data.push_back(ActData(act));
  std::cout << EscapedJson(data.dump()) << "\n";
}

// ---- The command --------------------------------------------------------------------------------

// The daemon tells the system's log the same, whether there is a journal or not.
std::unique_ptr<journal::Journal> OpenForAudit(const std::string& directory) {
  auto journal = OpenJournalIfAny(directory);
  if (journal != nullptr) return journal;
  throw Failure(ExitStatus::kFailed,
                "there is no journal in " + Printable(directory) +
                    "; logins, attaches and commands are also in the system's log: read it with "
                    "\"journalctl -t zevd\" or in /var/log/auth.log, and to have a journal from "
                    "now on, set ZEVD_JOURNAL= in " +
                    kStationRoot + "/config/qor.conf and reload the daemon");
}

ExitStatus RunAudit(const Settings& settings, const AuditOptions& options) {
  RequireThisHost(settings, "audit", "the journal");
  return WithJournalErrors(options.journal_dir, [&] {
    const PastRange range = ReadRange(options.since, options.until);
    const auto journal = OpenForAudit(options.journal_dir);
    std::vector<journal::Damage> damages;
    const std::vector<Act> acts = ReadActs(options.filter, range, *journal, &damages);
    WarnOfDamage(damages);
    if (settings.json) {
      PrintJson(acts);
    } else {
      PrintTable(acts);
      std::cout << WhereJournalBegins(*journal, range);
    }
    return ExitStatus::kOk;
  });
}

std::string RefuseWord(const std::string& word) {
  const std::vector<std::string> words = WordsOfActs();
  if (std::find(words.begin(), words.end(), word) != words.end()) return "";
  return "is none of " + Alternatives(words);
}

}  // namespace

void AddAuditCommand(Command& app, Program& program) {
  const auto options = std::make_shared<AuditOptions>();
  Command command = app.AddCommand("audit", "Show who did what, from the journal");
  command.AddOption("NAME", options->filter.consoles,
                    "Only acts at these consoles: names, earlier names or shell patterns");
  command
      .AddOption("--since", options->since,
                 std::string("Only acts of this time and later: ") + kMomentForms)
      .ShowDefault();
  command.AddOption("--until", options->until, "Only acts of this time and earlier");
  command
      .AddOption("--what", options->filter.words, "Only acts of these kinds, such as login,attach")
      .Verify(RefuseWord)
      .SplitAt(',')
      .OneEachTime();
  command.AddOption("--journal-dir", options->journal_dir, kJournalDirHelp).ShowDefault();
  command.SetAction(program, [options, &program] {
    // Nobody is called anything here: these options choose.
    options->filter.user = program.settings.user;
    options->filter.from = program.settings.from;
    return RunAudit(program.settings, *options);
  });
}

}  // namespace zevctl
