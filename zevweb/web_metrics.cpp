#include "web_metrics.h"

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

#include "console_status.h"
#include "console_words.h"
#include "json_line.h"
#include "web_answer.h"
#include "web_query.h"

namespace zevweb {

namespace {

using zevctl::ConsoleStatus;

// ---- What stats count ---------------------------------------------------------------------------

struct CounterRow {
  const char* key;  // in "stats"
  const char* name;
  const char* unit;
  const char* help;
};

constexpr std::array kCounters = {
    CounterRow{"console_connections", "zevd_console_connections", "",
               "Consoles that became connected."},
    CounterRow{"console_failures", "zevd_console_failures", "",
               "Attempts to connect a console that failed or were refused."},
    CounterRow{"console_losses", "zevd_console_losses", "",
               "Connections of consoles that ended, whoever ended them."},
    CounterRow{"console_bytes", "zevd_console_received_bytes", "bytes",
               "Bytes received from consoles."},
    CounterRow{"console_lines", "zevd_console_received_lines", "",
               "Line feeds received from consoles."},
    CounterRow{"log_records", "zevd_log_records", "", "Records written to log files."},
    CounterRow{"log_bytes", "zevd_log_written_bytes", "bytes", "Bytes of those records."},
    CounterRow{"log_records_lost", "zevd_log_records_lost", "",
               "Records that could not be written to log files."},
    CounterRow{"connections", "zevd_connections", "", "Connections from users and tools."},
    CounterRow{"logins_accepted", "zevd_logins_accepted", "", "Logins, by cookie too."},
    CounterRow{"logins_refused", "zevd_logins_refused", "", "Tries to log in that were refused."},
    CounterRow{"users_attached", "zevd_users_attached", "", "Users who were attached."},
    CounterRow{"users_left", "zevd_users_left", "", "Users who left or were disconnected."},
    CounterRow{"slow_readers", "zevd_slow_readers", "",
               "Users who read too slowly, so that output was left out."},
    CounterRow{"bytes_not_shown", "zevd_not_shown_bytes", "bytes",
               "Bytes that were left out of the output to slow readers."},
    CounterRow{"tools_attached", "zevd_tools_attached", "", "Connections to the command port."},
    CounterRow{"commands", "zevd_commands", "", "Lines that tools sent to the command port."},
    CounterRow{"events_posted", "zevd_events_posted", "",
               "Events that the event manager's library took."},
    CounterRow{"events_dropped", "zevd_events_lost", "", "Events that it did not take."},
    CounterRow{"reloads", "zevd_reloads", "", "Reloads that have ended."},
    CounterRow{"journal_records", "zevd_journal_records", "", "Records written to the journal."},
    CounterRow{"journal_bytes", "zevd_journal_written_bytes", "bytes", "Bytes of those records."},
    CounterRow{"journal_records_lost", "zevd_journal_records_lost", "",
               "Records for which the journal had no room."},
    CounterRow{"journal_gaps", "zevd_journal_gaps", "",
               "Places in the journal where records are missing."},
};

uint64_t NumberIn(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

std::string TextIn(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

void AddRefusals(const Json& stats, MetricsText* text) {
  text->Counter("zevd_refusals", "", "Numbered refusals that users and tools were sent.");
  const auto refusals = stats.find("refusals_by_number");
  if (refusals == stats.end() || !refusals->is_object()) return;
  for (const auto& [number, count] : refusals->items()) {
    if (count.is_number_unsigned()) text->Sample({{"number", number}}, count.get<uint64_t>());
  }
}

void AddJournal(const Json& stats, MetricsText* text) {
  const std::string state = TextIn(stats, "journal");
  text->Gauge("zevd_journal_state", "", "1 for what the journal is: off, on, stopped or refused.");
  for (const char* word : {"off", "on", "stopped", "refused"}) {
    text->Sample({{"state", word}}, uint64_t{state == word});
  }
}

void AddReload(const Json& stats, MetricsText* text) {
  const uint64_t at = NumberIn(stats, "last_reload");
  if (at == 0) return;
  text->Gauge("zevd_last_reload_timestamp_seconds", "seconds", "When the last reload ended.");
  text->Sample({}, at);
  text->Gauge("zevd_last_reload_done", "", "1 if the last reload read everything.");
  text->Sample({}, uint64_t{TextIn(stats, "last_reload_result") == "done"});
}

void AddCost(const Json& stats, MetricsText* text) {
  text->Counter("zevd_cpu_seconds", "seconds", "Processor time that the daemon has used.");
  text->Sample({}, static_cast<double>(NumberIn(stats, "cpu_microseconds")) / 1e6);
  text->Gauge("zevd_memory_bytes", "bytes", "Memory that the daemon has.");
  text->Sample({}, NumberIn(stats, "memory_bytes"));
  text->Gauge("zevd_start_timestamp_seconds", "seconds", "When the daemon started.");
  text->Sample({}, NumberIn(stats, "started"));
}

void AddStats(const Json& stats, MetricsText* text) {
  for (const CounterRow& row : kCounters) {
    text->Counter(row.name, row.unit, row.help);
    text->Sample({}, NumberIn(stats, row.key));
  }
  AddRefusals(stats, text);
  AddJournal(stats, text);
  AddReload(stats, text);
  AddCost(stats, text);
}

// ---- What the consoles are like -----------------------------------------------------------------

constexpr std::array kModes = {"read-only", "shared", "exclusive", "exclusive-revoke"};

/// Ages up to which consoles are counted, in seconds.
struct AgeRow {
  const char* label;
  time_t most;
};

constexpr std::array kAges = {AgeRow{"60", 60}, AgeRow{"600", 600}, AgeRow{"3600", 3600},
                              AgeRow{"86400", 86400}, AgeRow{"604800", 604800}};

bool IsUp(const ConsoleStatus& console) {
  return zevctl::StateIsOf(console.state, "up");
}

time_t AgeOf(time_t moment, time_t now) {
  return std::max<time_t>(0, now - moment);
}

void AddStates(const std::vector<ConsoleStatus>& consoles, MetricsText* text) {
  std::map<std::string_view, uint64_t> counts;
  for (const ConsoleStatus& console : consoles) ++counts[console.state];
  text->Gauge("zevd_consoles", "", "Consoles in each state.");
  for (const std::string& state : zevctl::StatesByUrgency()) {
    text->Sample({{"state", state}}, counts[state]);
  }
}

void AddUsers(const std::vector<ConsoleStatus>& consoles, MetricsText* text) {
  std::map<std::string_view, uint64_t> counts;
  for (const ConsoleStatus& console : consoles) {
    for (const zevctl::Attendee& user : console.users) ++counts[user.mode];
  }
  text->Gauge("zevd_users", "", "Users who are attached, by their modes.");
  for (const char* mode : kModes) text->Sample({{"mode", mode}}, counts[mode]);
}

// Of connected consoles only: of others nothing is to be expected.
void AddAges(const std::vector<ConsoleStatus>& consoles, time_t now, MetricsText* text) {
  std::array<uint64_t, kAges.size()> counts{};
  uint64_t silent = 0;
  time_t oldest = 0;
  for (const ConsoleStatus& console : consoles) {
    if (!IsUp(console)) continue;
    if (console.last_output == 0) {
      ++silent;
      continue;
    }
    const time_t age = AgeOf(console.last_output, now);
    oldest = std::max(oldest, age);
    for (size_t i = 0; i < kAges.size(); ++i) counts[i] += age <= kAges[i].most ? 1 : 0;
  }
  text->Gauge("zevd_consoles_with_output_within", "",
              "Connected consoles that have printed something within so many seconds.");
  for (size_t i = 0; i < kAges.size(); ++i) {
    text->Sample({{"seconds", kAges[i].label}}, counts[i]);
  }
  text->Gauge("zevd_consoles_without_output", "",
              "Connected consoles that have printed nothing since the daemon started.");
  text->Sample({}, silent);
  text->Gauge("zevd_oldest_output_age_seconds", "seconds",
              "The longest time for which a connected console that has printed was silent.");
  text->Sample({}, static_cast<uint64_t>(oldest));
}

void AddEachConsole(const std::vector<ConsoleStatus>& consoles, time_t now, MetricsText* text) {
  text->Gauge("zevd_console_up", "", "1 while the console is connected.");
  for (const ConsoleStatus& console : consoles) {
    text->Sample({{"console", console.console}, {"state", console.state}}, uint64_t{IsUp(console)});
  }
  text->Gauge("zevd_console_state_age_seconds", "seconds", "How long it has been so.");
  for (const ConsoleStatus& console : consoles) {
    if (console.since == 0) continue;
    text->Sample({{"console", console.console}}, static_cast<uint64_t>(AgeOf(console.since, now)));
  }
  text->Gauge("zevd_console_output_age_seconds", "seconds", "Since when it has been silent.");
  for (const ConsoleStatus& console : consoles) {
    if (console.last_output == 0) continue;
    text->Sample({{"console", console.console}},
                 static_cast<uint64_t>(AgeOf(console.last_output, now)));
  }
  text->Gauge("zevd_console_users", "", "Users who are attached to it.");
  for (const ConsoleStatus& console : consoles) {
    text->Sample({{"console", console.console}}, uint64_t{console.users.size()});
  }
}

// Two consoles of one name would make two samples of one series, which nobody would read.
std::vector<ConsoleStatus> EachNameOnce(std::vector<ConsoleStatus> consoles) {
  std::stable_sort(consoles.begin(), consoles.end(),
                   [](const auto& a, const auto& b) { return a.console < b.console; });
  consoles.erase(std::unique(consoles.begin(), consoles.end(),
                             [](const auto& a, const auto& b) { return a.console == b.console; }),
                 consoles.end());
  return consoles;
}

}  // namespace

std::string MetricsOf(std::string_view status, std::string_view stats, bool with_consoles,
                      time_t now, MetricsText::Format format) {
  MetricsText text(format);
  const Json counted = zevctl::ReadJson(stats);
  const bool is_up = counted.is_object();
  text.Gauge("zevd_up", "", "1 while the daemon answers.");
  text.Sample({}, uint64_t{is_up});
  if (!is_up) return text.Take();
  AddStats(counted, &text);
  const std::vector<ConsoleStatus> consoles = zevctl::ParseStatus(status).consoles;
  AddStates(consoles, &text);
  AddUsers(consoles, &text);
  AddAges(consoles, now, &text);
  if (with_consoles) AddEachConsole(EachNameOnce(consoles), now, &text);
  return text.Take();
}

Response ShowMetrics(WebDaemon& daemon, const Request& request) {
  const WebQuery query(request.query, {"consoles"});
  const bool with_consoles = query.Flag("consoles");
  std::shared_ptr<const std::string> status;
  std::shared_ptr<const std::string> stats;
  try {
    stats = daemon.Stats();
    status = daemon.Status();
  } catch (const zevctl::Failure&) {
    stats = nullptr;
  } catch (const Problem&) {
    stats = nullptr;
  }
  const MetricsText::Format format = FormatFor(request.accept);
  Response response;
  response.type = TypeOf(format);
  response.body =
      MetricsOf(stats ? *status : "", stats ? *stats : "", with_consoles, time(nullptr), format);
  return response;
}

}  // namespace zevweb
