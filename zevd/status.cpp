#include "status.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <new>
#include <string>

#include "answer.h"
#include "console.h"
#include "counters.h"
#include "error.h"
#include "identity.h"
#include "journal_keeper.h"
#include "json_text.h"
#include "list.h"
#include "lists.h"
#include "locks.h"
#include "query.h"
#include "user.h"

namespace zevd {

namespace {

struct CodeRow {
  const char* code;  // as GetStatusCode() writes it
  const char* word;
};

constexpr CodeRow kStates[] = {{"0", "connected"}, {"1", "in-use"},     {"2", "not-connected"},
                               {"3", "refused"},   {"4", "connecting"}, {"5", "disabled"}};
constexpr char kOtherState[] = "unknown";

struct CounterRow {
  const char* key;
  Counter Counters::*counter;
};

constexpr CounterRow kCounters[] = {
    {"console_connections", &Counters::console_connections},
    {"console_failures", &Counters::console_failures},
    {"console_losses", &Counters::console_losses},
    {"console_bytes", &Counters::console_bytes},
    {"console_lines", &Counters::console_lines},
    {"log_records", &Counters::log_records},
    {"log_bytes", &Counters::log_bytes},
    {"log_records_lost", &Counters::log_records_lost},
    {"connections", &Counters::connections},
    {"refusals", &Counters::refusals},
    {"logins_accepted", &Counters::logins_accepted},
    {"logins_refused", &Counters::logins_refused},
    {"users_attached", &Counters::users_attached},
    {"users_left", &Counters::users_left},
    {"bytes_not_shown", &Counters::bytes_not_shown},
    {"slow_readers", &Counters::slow_readers},
    {"tools_attached", &Counters::tools_attached},
    {"commands", &Counters::commands},
    {"events_posted", &Counters::events_posted},
    {"events_dropped", &Counters::events_dropped},
    {"reloads", &Counters::reloads},
};

struct ReloadRow {
  ReloadResult result;
  const char* word;
};

constexpr ReloadRow kReloads[] = {
    {ReloadResult::kDone, "done"},
    {ReloadResult::kEventFilesFailed, "event files failed"},
    {ReloadResult::kConfigurationFailed, "configuration failed"},
};

const char* StateWord(const ConsoleNode* cnode) {
  char code[2];
  GetStatusCode(cnode, code);
  for (const CodeRow& row : kStates) {
    if (row.code[0] == code[0] && code[1] == '\0') return row.word;
  }
  return kOtherState;
}

void AppendUser(JsonText& json, const UserNode* unode) {
  const Identity& identity = unode->identity;
  json.BeginObject();
  json.Key("user").TextOrNull(identity.user);
  json.Key("given_user").TextOrNull(identity.given_user);
  json.Key("from").TextOrNull(identity.from);
  json.Key("given_from").TextOrNull(identity.given_from);
  json.Key("mode").Text(ModeWord(unode->mode));
  json.Key("since").Time(unode->since);
  json.EndObject();
}

void AppendConsole(std::string& text, const ConsoleNode* cnode) {
  JsonText json(text);
  json.BeginObject();
  json.Key("console").Text(cnode->cname);
  json.Key("state").Text(StateWord(cnode));
  json.Key("since").Time(std::max(cnode->status.since(), cnode->enable.since()));
  json.Key("last_output").Time(cnode->last_output);
  json.Key("users").BeginArray();
  for (const UserNode* unode : Nodes(*cnode->user_list)) AppendUser(json, unode);
  json.EndArray().EndObject();
  text += '\n';
}

std::string StatusOf(const char* cons_name) REQUIRES_SHARED(acl_lock, icl_lock) {
  std::string text;
  for (const ConsoleList* list : {a_cons_list, i_cons_list}) {
    for (const ConsoleNode* cnode : Nodes(*list)) {
      if (IsCalled(*cnode, cons_name)) AppendConsole(text, cnode);
    }
  }
  return text;
}

void AppendLastReload(JsonText& json) {
  time_t at = 0;
  const ReloadResult result = LastReload(&at);
  const char* word = "";
  for (const ReloadRow& row : kReloads) {
    if (row.result == result) word = row.word;
  }
  json.Key("last_reload").Time(at);
  json.Key("last_reload_result").TextOrNull(word);
}

void AppendRefusals(JsonText& json) {
  json.Key("refusals_by_number").BeginObject();
  for (size_t i = 0; i < kHighestRefusal; ++i) {
    char number[8];
    snprintf(number, sizeof number, "%03zu", i + 1);
    json.Key(number).Number(counters.refusals_by_number[i].Get());
  }
  json.EndObject();
}

// The memory that the process has now; 0 where the system does not tell.
uint64_t ResidentBytes() {
  char text[128] = "";
  const int fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const ssize_t length = read(fd, text, sizeof text - 1);
  close(fd);
  unsigned long pages = 0;
  if (length <= 0 || sscanf(text, "%*u %lu", &pages) != 1) return 0;
  return uint64_t{pages} * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// What the process has cost so far.
void AppendCost(JsonText& json) {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto microseconds = [](const timeval& span) {
    return static_cast<uint64_t>(span.tv_sec) * 1'000'000 + static_cast<uint64_t>(span.tv_usec);
  };
  json.Key("cpu_microseconds").Number(microseconds(usage.ru_utime) + microseconds(usage.ru_stime));
  json.Key("memory_bytes").Number(ResidentBytes());
}

void AppendJournal(JsonText& json) {
  const JournalStatus journal = GetJournalStatus();
  char end[64] = "";
  if (journal.station != 0) {
    snprintf(end, sizeof end, "%016" PRIx64 ":%" PRIu64 ":%" PRIu64, journal.station,
             journal.segment, journal.offset);
  }
  json.Key("journal").Text(journal.state);
  json.Key("journal_records").Number(journal.records);
  json.Key("journal_bytes").Number(journal.bytes);
  json.Key("journal_records_lost").Number(journal.lost);
  json.Key("journal_gaps").Number(journal.gaps);
  json.Key("journal_end").TextOrNull(end);
}

std::string Stats() {
  std::string text;
  JsonText json(text);
  json.BeginObject();
  json.Key("started").Time(CountingSince());
  for (const CounterRow& row : kCounters) json.Key(row.key).Number((counters.*row.counter).Get());
  AppendRefusals(json);
  AppendCost(json);
  AppendJournal(json);
  AppendLastReload(json);
  json.EndObject();
  return text + '\n';
}

void GiveUp(const char* function) {
  AnswerOutOfMemory();
  ReportOutOfMemory(function);
}

}  // namespace

void ProcessStatusCommand(const char* cons_name) {
  ENTERING();
  try {
    std::string text;
    {
      const ReadLockPair lock(icl_lock, acl_lock, Release::kSecondFirst, HERE);
      text = StatusOf(cons_name);
    }
    if (!AnswerText(text)) GiveUp(__func__);
  } catch (const std::bad_alloc&) {
    GiveUp(__func__);
  }
}

void ProcessStatsCommand() {
  ENTERING();
  try {
    if (!AnswerText(Stats())) GiveUp(__func__);
  } catch (const std::bad_alloc&) {
    GiveUp(__func__);
  }
}

}  // namespace zevd
