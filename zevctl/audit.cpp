// "zevctl audit": who did what at the station, and when its record has holes, from the journal.
#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "acts.h"
#include "arguments.h"
#include "journal_consoles.h"
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
  std::vector<std::string> consoles;
  std::string since = "7d";
  std::string until;
  std::string user;
  std::string from;
  std::vector<std::string> words;
  std::string journal_dir = DefaultJournalDirectory();
};

// ---- Which acts ---------------------------------------------------------------------------------

/// What the options ask for.
class WantedActs {
 public:
  WantedActs(const AuditOptions& options, const journal::Journal& journal) : options_(options) {
    if (options.consoles.empty()) return;
    names_ = NamesMeant(journal.consoles());
  }

  bool Has(const Act& act) const {
    return HasConsole(act) && IsBy(act) && IsFrom(act) &&
           (options_.words.empty() || std::find(options_.words.begin(), options_.words.end(),
                                                act.what) != options_.words.end());
  }

 private:
  // A name that the journal does not know may be one at which somebody was refused.
  std::vector<std::string> NamesMeant(const std::vector<journal::Console>& consoles) const {
    std::vector<std::string> names;
    for (const std::string& typed : options_.consoles) {
      names.push_back(typed);
      try {
        const ChosenConsoles chosen = ChooseConsoles(consoles, {typed});
        names.insert(names.end(), chosen.names.begin(), chosen.names.end());
      } catch (const Failure&) {
        continue;
      }
    }
    return names;
  }

  // Holes in the record of the whole station are holes in that of each console.
  bool HasConsole(const Act& act) const {
    if (options_.consoles.empty() || act.IsOfWholeRecord()) return true;
    return std::any_of(names_.begin(), names_.end(),
                       [&](const std::string& name) { return NameMatches(act.console, name); });
  }

  bool IsBy(const Act& act) const {
    return options_.user.empty() || options_.user == act.user || options_.user == act.given_user;
  }

  bool IsFrom(const Act& act) const {
    return options_.from.empty() || options_.from == act.from || options_.from == act.given_from;
  }

  const AuditOptions& options_;
  std::vector<std::string> names_;
};

std::vector<Act> ReadActs(const AuditOptions& options, const PastRange& range,
                          const journal::Journal& journal) {
  journal::Query query;
  query.kinds = KindsOfActs();
  query.since = range.since;
  query.until = range.until;
  const auto cursor = journal.Read(query);
  ActList list;
  for (journal::Record record; cursor->Next(&record);) {
    list.Take(record, record.console ? journal.consoles()[*record.console].name() : "");
  }
  WarnOfDamage(*cursor);
  const WantedActs wanted(options, journal);
  std::vector<Act> acts;
  std::copy_if(list.acts().begin(), list.acts().end(), std::back_inserter(acts),
               [&](const Act& act) { return wanted.Has(act); });
  return acts;
}

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

Json TextOrNull(const std::string& text) {
  return text.empty() ? Json() : Json(Utf8(text));
}

Json NumberOrNull(const std::optional<int64_t>& number) {
  return number ? Json(*number) : Json();
}

Json TimeOrNull(const std::optional<int64_t>& wall) {
  return wall ? Json(StampJson(*wall)) : Json();
}

Json AsJson(const Act& act) {
  return {{"time", StampJson(act.wall)},
          {"what", Utf8(act.what)},
          {"result", TextOrNull(act.result)},
          {"user", TextOrNull(act.user)},
          {"given_user", TextOrNull(act.given_user)},
          {"from", TextOrNull(act.from)},
          {"given_from", TextOrNull(act.given_from)},
          {"console", TextOrNull(act.console)},
          {"mode", TextOrNull(act.mode)},
          {"previous_mode", TextOrNull(act.previous_mode)},
          {"reason", TextOrNull(act.reason)},
          {"text", TextOrNull(act.text)},
          {"begin", TimeOrNull(act.begin)},
          {"end", TimeOrNull(act.end)},
          {"count", NumberOrNull(act.count)},
          {"bytes", NumberOrNull(act.bytes)},
          {"version", TextOrNull(act.version)},
          {"pid", NumberOrNull(act.pid)},
          {"position", journal::PositionText(act.position)}};
}

void PrintJson(const std::vector<Act>& acts) {
  Json data = Json::array();
  for (const Act& act : acts) data.push_back(AsJson(act));
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
    const std::vector<Act> acts = ReadActs(options, range, *journal);
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
  command.AddOption("NAME", options->consoles,
                    "Only acts at these consoles: names, earlier names or shell patterns");
  command
      .AddOption("--since", options->since,
                 std::string("Only acts of this time and later: ") + kMomentForms)
      .ShowDefault();
  command.AddOption("--until", options->until, "Only acts of this time and earlier");
  command.AddOption("--what", options->words, "Only acts of these kinds, such as login,attach")
      .Verify(RefuseWord)
      .SplitAt(',')
      .OneEachTime();
  command.AddOption("--journal-dir", options->journal_dir, kJournalDirHelp).ShowDefault();
  command.SetAction(program, [options, &program] {
    // Nobody is called anything here: these options choose.
    options->user = program.settings.user;
    options->from = program.settings.from;
    return RunAudit(program.settings, *options);
  });
}

}  // namespace zevctl
