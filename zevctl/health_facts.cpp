#include "health_facts.h"

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "command_port.h"
#include "config_file.h"
#include "config_zev.h"
#include "console_status.h"
#include "health_log.h"
#include "health_past.h"
#include "journal_open.h"
#include "local_only.h"
#include "name_match.h"

namespace zevctl {

namespace {

constexpr char kHiddenMode[] = "exclusive-revoke";

bool IsThisHost(const Settings& settings) try {
  RequireThisHost(settings, "health", "the journal");
  return true;
} catch (const Failure&) {
  return false;
}

std::optional<int64_t> Wall(time_t moment) {
  if (moment == 0) return {};
  return moment * HealthRules::kSecond;
}

ConsoleFacts FactsFrom(const ConsoleStatus& status) {
  ConsoleFacts facts;
  facts.name = status.console;
  facts.state = status.state;
  facts.since = Wall(status.since);
  facts.last_output = Wall(status.last_output);
  if (!status.users.empty() && status.users.front().mode == kHiddenMode) {
    const Attendee& holder = status.users.front();
    facts.is_hidden = true;
    facts.hidden_by = NameOf(holder);
    facts.hidden_since = Wall(holder.since);
  }
  return facts;
}

/// Puts together what the sources tell.
class Gathering {
 public:
  Gathering(const Settings& settings, const HealthSources& sources, const HealthRules& rules)
      : settings_(settings), sources_(sources), rules_(rules) {
    facts_.now = rules.now;
  }

  HealthFacts Gather(const std::vector<std::string>& patterns) {
    AskDaemon();
    if (IsThisHost(settings_)) {
      LookAtPast([this] { OpenPast(); });
    } else {
      why_no_past_ = "Its journal is on the other machine.";
      Note("the journal and the logs are on the other machine, and are not looked at");
    }
    if (!facts_.from_daemon) TakeStatesOfPast();
    if (!facts_.knows_consoles) return StationAlone();
    Choose(patterns);
    if (IsThisHost(settings_)) LookFurther();
    return std::move(facts_);
  }

 private:
  void Note(const std::string& note) { facts_.notes.push_back(note); }

  // That the daemon does not answer is known, and enough.
  HealthFacts StationAlone() {
    if (facts_.station.no_daemon.empty()) {
      throw Failure(ExitStatus::kNoDaemon, why_not_asked_ + " " + why_no_past_);
    }
    Note("the daemon was not asked, and nothing is known of the consoles: " + why_not_asked_);
    return std::move(facts_);
  }

  void LookFurther() {
    ReadFlags();
    LookAtPast([this] {
      if (past_ != nullptr) past_->Complete(&facts_);
    });
    LookAtPast([this] { LookAtLogs(); });
  }

  // Nobody is asked for a password: a monitor has nobody to ask.
  void AskDaemon() try {
    Credentials nobody = Credentials::Unasked();
    CommandPort port(settings_, nobody);
    const StatusAnswer answer = ParseStatus(port.JsonLines("status"));
    for (const ConsoleStatus& status : answer.consoles) {
      facts_.consoles.push_back(FactsFrom(status));
    }
    facts_.from_daemon = true;
    facts_.knows_consoles = true;
    AskForJournalState(port);
  } catch (const Failure& failure) {
    why_not_asked_ = failure.what();
    if (failure.status() == ExitStatus::kNoDaemon) {
      facts_.station.no_daemon = "the daemon does not answer";
    }
  }

  // An older daemon tells states and nothing else.
  void AskForJournalState(CommandPort& port) try {
    NoteJournalState(port.JsonLines("stats"));
  } catch (const Failure& failure) {
    Note(std::string("the daemon does not tell whether it keeps a journal: ") + failure.what());
  }

  void NoteJournalState(const std::string& stats) {
    const auto data = nlohmann::json::parse(stats, nullptr, false);
    if (!data.is_object()) return;
    const auto state = data.find("journal");
    if (state == data.end()) return;
    facts_.journal_is_off = *state == "off";
    facts_.station.is_journal_stopped = *state == "stopped";
    facts_.station.is_journal_refused = *state == "refused";
  }

  // What the journal would add may be missing: that is a note.
  template <typename Look>
  void LookAtPast(Look look) try {
    look();
  } catch (const journal::JournalError& error) {
    GiveUpPast(JournalFailure(error, sources_.journal_dir).what());
  } catch (const Failure& failure) {
    GiveUpPast(failure.what());
  }

  void GiveUpPast(const std::string& why) {
    past_.reset();
    why_no_past_ = "The journal cannot be looked at instead: " + why;
    Note("the journal was not looked at: " + why);
  }

  void OpenPast() {
    auto journal = OpenJournalIfAny(sources_.journal_dir);
    if (journal == nullptr) {
      why_no_past_ = "There is no journal to look at instead, either.";
      return Note("there is no journal, so flooding, gaps and usual pauses are not known" +
                  HowToHaveOne());
    }
    past_ = std::make_unique<HealthPast>(std::move(journal), rules_);
    facts_.from_journal = true;
    if (facts_.journal_is_off) {
      Note("the journal is switched off, so flooding, gaps and usual pauses are those of before" +
           HowToHaveOne());
    }
    if (!facts_.from_daemon) past_->EndWithNewestRecord();
    facts_.now = past_->now();
  }

  // One that the daemon refuses to keep is switched on already.
  std::string HowToHaveOne() const {
    if (facts_.station.is_journal_refused) return "";
    return "; ZEVD_JOURNAL= in qor.conf switches it on";
  }

  void TakeStatesOfPast() {
    LookAtPast([this] {
      if (past_ == nullptr) return;
      facts_.consoles = past_->LastKnown();
      facts_.knows_consoles = true;
      Note("the daemon was not asked, and the states are those of the journal: " + why_not_asked_);
    });
  }

  // Throws for a pattern that means nothing.
  void Choose(const std::vector<std::string>& patterns) {
    auto& consoles = facts_.consoles;
    std::sort(consoles.begin(), consoles.end(), [](const ConsoleFacts& a, const ConsoleFacts& b) {
      return ComesBefore(a.name, b.name);
    });
    if (patterns.empty()) return;
    std::vector<std::string> names;
    names.reserve(consoles.size());
    for (const ConsoleFacts& console : consoles) names.push_back(console.name);
    std::vector<std::string> wanted;
    for (const std::string& pattern : patterns) {
      FoundNames found = FindNames(names, pattern);
      if (found.names.empty()) found.names = {FindOneName(names, pattern)};
      wanted.insert(wanted.end(), found.names.begin(), found.names.end());
    }
    std::erase_if(consoles, [&](const ConsoleFacts& console) {
      return std::find(wanted.begin(), wanted.end(), console.name) == wanted.end();
    });
  }

  void LookAtLogs() {
    const LogDirectoryLook logs(sources_.log_dir);
    if (!logs.reason().empty()) return Note("the logs were not looked at: " + logs.reason());
    for (ConsoleFacts& console : facts_.consoles) {
      if (console.is_logged == false || console.is_hidden || !console.last_output) continue;
      const LogState log = logs.StateOf(console.name);
      console.is_log_missing = log.is_missing;
      if (log.is_missing || !log.written || past_ == nullptr) continue;
      console.log_behind = past_->LineAfter(console, *log.written);
    }
  }

  void ReadFlags() {
    const ReadFile file = ReadWhole(sources_.zev_conf);
    if (file.kind != FileKind::kRegular) {
      return Note("zev.conf was not read, so the logging flags are not known: " +
                  (file.reason.empty() ? "it is not there" : file.reason));
    }
    Findings findings;  // "zevctl config check" tells of these
    std::map<std::string, bool> flags;
    for (const ConfigConsole& console : ReadZevConf(file.text, sources_.zev_conf, findings)) {
      flags[FoldedName(console.name())] = console.Text(kFieldLog) == "1";
    }
    for (ConsoleFacts& console : facts_.consoles) {
      const auto flag = flags.find(FoldedName(console.name));
      if (flag != flags.end()) console.is_logged = flag->second;
    }
  }

  const Settings& settings_;
  const HealthSources& sources_;
  HealthRules rules_;
  HealthFacts facts_;
  std::string why_not_asked_;
  std::string why_no_past_;
  std::unique_ptr<HealthPast> past_;
};

}  // namespace

HealthFacts GatherHealth(const Settings& settings, const HealthSources& sources,
                         const std::vector<std::string>& patterns, HealthRules rules) {
  return Gathering(settings, sources, rules).Gather(patterns);
}

}  // namespace zevctl
