#include "web_consoles.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "console_words.h"
#include "journal_text.h"
#include "name_match.h"
#include "output.h"
#include "web_answer.h"
#include "web_query.h"

namespace zevweb {

namespace {

using Console = StationConsoles::Console;

struct ProblemRow {
  std::string_view state;
  const char* text;
};

constexpr std::array kProblems = {
    ProblemRow{"refused",
               "The console refuses the connection; look whether it is in use or "
               "switched off."},
    ProblemRow{"not-connected", "The console cannot be reached; look at it and at the network."},
    ProblemRow{"unknown", "The state is not known."},
};

Json ProblemOf(std::string_view state) {
  for (const ProblemRow& row : kProblems) {
    if (row.state == state) return row.text;
  }
  return {};
}

// ---- One console --------------------------------------------------------------------------------

Json UserData(const zevctl::Attendee& user) {
  return {{"name", zevctl::Utf8(zevctl::NameOf(user))},
          {"address", zevctl::Utf8(user.from)},
          {"mode", user.mode},
          {"since", TimeOrNull(user.since)}};
}

Json ConsoleData(const Console& console) {
  Json users = Json::array();
  for (const zevctl::Attendee& user : console.status.users) users.push_back(UserData(user));
  const zevctl::ConsoleRecord& record = console.record;
  return {{"name", zevctl::Utf8(record.name)},
          {"address", zevctl::Utf8(record.address)},
          {"port", record.port},
          {"management_port", record.management_port},
          {"model", zevctl::Utf8(record.model)},
          {"platform", zevctl::Utf8(record.platform)},
          {"state", console.status.state},
          {"code", record.state},
          {"since", TimeOrNull(console.status.since)},
          {"last_output", TimeOrNull(console.status.last_output)},
          {"problem", ProblemOf(console.status.state)},
          {"users", std::move(users)}};
}

// What the journal knows of a console while the daemon does not answer.
Console FromJournal(const journal::Console& known) {
  Console console;
  console.record.name = known.name();
  console.record.address = known.names.back().address;
  console.record.port = known.names.back().port;
  console.record.state = "99";
  console.status.state = "unknown";
  return console;
}

// ---- What is said of the station in each answer -------------------------------------------------

/// The daemon's consoles, or why there are none.
struct Asked {
  std::shared_ptr<const StationConsoles> station;  ///< null while the daemon is away
  std::string problem;
};

Asked Ask(WebDaemon& daemon) {
  try {
    return {daemon.Consoles(), ""};
  } catch (const zevctl::Failure& failure) {
    return {nullptr, failure.what()};
  } catch (const Problem& problem) {
    return {nullptr, problem.what()};
  }
}

/// The journal for this request, or why it cannot be read.
struct Opened {
  std::optional<WebJournals::Lease> lease;
  std::string problem;

  const journal::Journal* get() const { return lease ? lease->get() : nullptr; }
};

Opened Open(WebJournals& journals) {
  Opened opened;
  try {
    opened.lease.emplace(journals.Take());
    if (opened.get() == nullptr) {
      opened.problem =
          "There is no journal: what consoles printed cannot be shown. The daemon "
          "keeps one when ZEVD_JOURNAL= in qor.conf says so.";
    }
  } catch (const journal::JournalError& error) {
    opened.problem = std::string("The journal cannot be read: ") + error.what() +
                     ". Tell the station's administrator.";
  } catch (const Problem& problem) {
    opened.problem = problem.what();
  }
  return opened;
}

Json TextOrNull(const std::string& text) {
  return text.empty() ? Json() : Json(zevctl::Utf8(text));
}

// Whether the daemon writes a journal now, in its own words.
Json JournalState(WebDaemon& daemon) {
  try {
    const Json stats = zevctl::ReadJson(*daemon.Stats());
    if (stats.is_object() && stats.contains("journal")) return stats["journal"];
  } catch (const zevctl::Failure&) {
    return {};
  } catch (const Problem&) {
    return {};
  }
  return {};
}

Json Begin(WebDaemon& daemon, const Asked& asked, const Opened& opened) {
  const journal::Journal* journal = opened.get();
  Json data;
  data["time"] = TimeOrNull(time(nullptr));
  data["daemon"] = {{"answers", asked.station != nullptr}, {"problem", TextOrNull(asked.problem)}};
  data["journal"] = {{"state", asked.station ? JournalState(daemon) : Json()},
                     {"readable", journal != nullptr},
                     {"problem", TextOrNull(opened.problem)},
                     {"end", journal ? Json(journal::PositionText(journal->end())) : Json()}};
  return data;
}

// ---- The journal's part of one console ----------------------------------------------------------

Json LastOutput(const journal::Journal& journal, size_t id) {
  journal::Query query;
  query.consoles = {id};
  query.kinds = journal::KindBit(journal::Kind::kOutput);
  query.backward = true;
  const auto cursor = journal.Read(query);
  journal::Record record;
  return cursor->Next(&record) ? Json(journal::PositionText(record.position)) : Json();
}

void AddFromJournal(const journal::Journal* journal, const std::string& name, Json* data) {
  (*data)["position"] = Json();
  (*data)["names"] = Json::array();
  if (journal == nullptr) return;
  const auto ids = journal->Find(name);
  if (ids.empty() || journal->consoles()[ids.front()].name() != name) return;
  (*data)["position"] = LastOutput(*journal, ids.front());
  for (const journal::ConsoleName& known : journal->consoles()[ids.front()].names) {
    (*data)["names"].push_back({{"name", zevctl::Utf8(known.name)},
                                {"address", zevctl::Utf8(known.address)},
                                {"port", known.port},
                                {"since", zevctl::StampJson(known.since)}});
  }
}

std::optional<Console> Find(const Asked& asked, const journal::Journal* journal,
                            const std::string& name) {
  if (asked.station) {
    for (const Console& console : asked.station->consoles) {
      if (console.record.name == name) return console;
    }
    for (const Console& console : asked.station->consoles) {
      if (zevctl::IsSameName(console.record.name, name)) return console;
    }
    return {};
  }
  for (const size_t id : journal ? journal->Find(name) : std::vector<size_t>()) {
    const journal::Console& known = journal->consoles()[id];
    if (known.name() == name && !known.is_gone) return FromJournal(known);
  }
  return {};
}

// A daemon that is away is told apart from a console that does not exist.
[[noreturn]] void ThrowNotFound(const Asked& asked, const std::string& name) {
  if (!asked.station) throw Problem(503, asked.problem);
  throw Problem(404, "there is no console \"" + zevctl::Printable(name) +
                         "\"; the list of consoles has the names");
}

bool IsTime(std::string_view key) {
  return key == "started" || key == "last_reload";
}

}  // namespace

Response ListConsoles(WebDaemon& daemon, WebJournals& journals, const Request& request) {
  const WebQuery query(request.query, {});
  const Asked asked = Ask(daemon);
  const Opened opened = Open(journals);
  Json data = Begin(daemon, asked, opened);
  Json consoles = Json::array();
  if (asked.station) {
    for (const Console& console : asked.station->consoles) consoles.push_back(ConsoleData(console));
  } else if (opened.get() != nullptr) {
    for (const journal::Console& known : opened.get()->consoles()) {
      if (!known.is_gone) consoles.push_back(ConsoleData(FromJournal(known)));
    }
  }
  data["consoles"] = std::move(consoles);
  return JsonResponse(data);
}

Response ShowConsole(WebDaemon& daemon, WebJournals& journals, const Request& request) {
  const WebQuery query(request.query, {});
  const std::string& name = request.parts.at(0);
  const Asked asked = Ask(daemon);
  const Opened opened = Open(journals);
  const auto console = Find(asked, opened.get(), name);
  if (!console) ThrowNotFound(asked, name);
  Json data = Begin(daemon, asked, opened);
  Json shown = ConsoleData(*console);
  AddFromJournal(opened.get(), console->record.name, &shown);
  data["console"] = std::move(shown);
  return JsonResponse(data);
}

Response ListUsers(WebDaemon& daemon, const Request& request) {
  const WebQuery query(request.query, {});
  Json users = Json::array();
  for (const Console& console : daemon.Consoles()->consoles) {
    for (const zevctl::Attendee& user : console.status.users) {
      Json data = {{"console", zevctl::Utf8(console.record.name)}};
      data.update(UserData(user));
      users.push_back(std::move(data));
    }
  }
  return JsonResponse({{"users", std::move(users)}});
}

Response ShowStats(WebDaemon& daemon, const Request& request) {
  const WebQuery query(request.query, {});
  Json stats = zevctl::ReadJson(*daemon.Stats());
  if (!stats.is_object()) {
    throw Problem(503,
                  "the daemon's answer cannot be understood; bring it and zevweb to the same "
                  "version");
  }
  for (auto& [key, value] : stats.items()) {
    if (IsTime(key) && value.is_number_integer()) value = TimeOrNull(value.get<time_t>());
  }
  return JsonResponse(stats);
}

}  // namespace zevweb
