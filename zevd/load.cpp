// Runs on the main thread: at start-up before there is another, later on a SIGHUP with acl_lock and
// icl_lock held for writing.
#include "load.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string_view>

#include "error.h"
#include "event_set.h"
#include "fixed_text.h"
#include "journal_records.h"
#include "list.h"
#include "lists.h"
#include "load_steps.h"
#include "log_rename.h"
#include "options.h"
#include "waker.h"

namespace zevd {

namespace {

constexpr size_t kLineSize = 8192;
constexpr char kLoad[] = "LoadConfigFile";
constexpr char kNoEventFile[] = "\"\"";

enum Field {
  kName,
  kAddress,
  kConsolePort,
  kManagementPort,
  kUserPort,
  kModel,
  kPlatform,
  kOsType,
  kLogging,
  kEvents,
  kEnable,
  kAuthentication,
  kEventFile,
  kFieldCount
};

/// How each field ends and what is said when it is missing. The name has no message: a line without
/// any token is skipped.
struct FieldRow {
  const char* separator;
  const char* missing;
};

constexpr FieldRow kFields[kFieldCount] = {
    {" ", nullptr},           {" ", "IP address"},  {" ", "console port"},
    {" ", "management port"}, {" ", "user port"},   {" ", "model number"},
    {" ", "platform name"},   {"\"", "OS type"},    {" ", "logging flag"},
    {" ", "events flag"},     {" ", "enable flag"}, {" ", "authentication flag"},
    {" ", "event file name"},
};

// Comments, empty lines and lines of spaces only. The newline is no separator, so it is a token.
bool IsSkipped(const char* first_token) {
  return first_token == nullptr || first_token[0] == '#' || first_token[0] == '\n';
}

// Splits a line in place. False when the line is skipped or a field is missing.
bool SplitLine(char* line, int line_number, char* (&fields)[kFieldCount]) {
  char* rest = nullptr;
  fields[kName] = strtok_r(line, kFields[kName].separator, &rest);
  if (IsSkipped(fields[kName])) return false;
  for (int i = kName + 1; i < kFieldCount; ++i) {
    fields[i] = strtok_r(nullptr, kFields[i].separator, &rest);
    if (fields[i] == nullptr) {
      DEBUG_AS(kLoad, kError, "Missing %s at line %d\n", kFields[i].missing, line_number);
      return false;
    }
  }
  return true;
}

/// The consoles whose authentication flag is a word, such as "yes", which counts as 0: whoever
/// wrote it expects a login.
struct FlagsWithoutNumber {
  int count = 0;
  char first[kNameSize] = "";

  void Look(const char* name, const char* flag) {
    char* end = nullptr;
    strtol(flag, &end, 10);
    if ((end != flag && *end == '\0') || atoi(flag) == 1) return;
    if (count++ == 0) CopyText(first, name);
  }

  void Report() const {
    if (count == 0) return;
    DEBUG_AS(kLoad, kError,
             "Consoles without a login because their authentication flag is not a number: %d, "
             "the first is \"%s\".\n",
             count, first);
  }
};

EventSetNode* FindEventFile(const char* name, const char* cons_name) {
  if (strcmp(name, kNoEventFile) == 0) return nullptr;
  EventSetNode* enode = FindEventNode(name, ev_list);
  if (enode == nullptr) {
    DEBUG_AS(kLoad, kError, "Event file %s not found for console %s\n", name, cons_name);
  }
  return enode;
}

uint16_t Port(const char* text) {
  return static_cast<uint16_t>(atoi(text));
}

// 0, or -1 when out of memory.
int AddConfiguredConsole(char* const (&fields)[kFieldCount], ConsoleList* cons_list) {
  ConsoleSettings settings{};
  CopyText(settings.cname, fields[kName]);
  CopyText(settings.pname, fields[kPlatform]);
  CopyText(settings.ipaddr, fields[kAddress]);
  CopyText(settings.model, fields[kModel]);
  settings.cons_port = Port(fields[kConsolePort]);
  settings.mgmt_port = Port(fields[kManagementPort]);
  settings.mapped_port = Port(fields[kUserPort]);
  settings.logging = atoi(fields[kLogging]);
  settings.events = atoi(fields[kEvents]);
  settings.enable = atoi(fields[kEnable]);
  settings.auth = atoi(fields[kAuthentication]);
  settings.enode = FindEventFile(fields[kEventFile], fields[kName]);
  ConsoleNode* cnode = NewConsoleNode(settings);
  if (cnode == nullptr) {
    DEBUG_AS(kLoad, kError, "NewConsoleNode() failed.\n");
    return -1;
  }
  if (AddConsoleToList(cnode, cons_list) != 0) {
    DEBUG_AS(kLoad, kError, "AddConsoleToList() failed.\n");
    FreeConsoleNode(cnode);
    return -1;
  }
  return 0;
}

// 0, or -1 when out of memory or when the file cannot be read to its end: consoles whose lines were
// not seen must not be taken for dropped ones.
int LoadLines(FILE* file, ConsoleList* cons_list) {
  char line[kLineSize];
  FlagsWithoutNumber flags;
  for (int line_number = 1; fgets(line, sizeof line, file) != nullptr; ++line_number) {
    char* fields[kFieldCount];
    if (!SplitLine(line, line_number, fields)) continue;
    if (AddConfiguredConsole(fields, cons_list) != 0) return -1;
    flags.Look(fields[kName], fields[kAuthentication]);
  }
  flags.Report();
  if (ferror(file) == 0) return 0;
  DEBUG_AS(kLoad, kError, "fgets() failed : %s\n", strerror(errno));
  return -1;
}

void PrintList(const ConsoleList& list) {
  for (const ConsoleNode* cnode : Nodes(list)) {
    zev_debug(kInfo, "name = %s\n", cnode->cname);
    zev_debug(kInfo, "addr = %s\n", cnode->ipaddr);
    zev_debug(kInfo, "cons_port = %d\n", cnode->cons_port);
    zev_debug(kInfo, "mgmt_port = %d\n", cnode->mgmt_port);
    zev_debug(kInfo, "mapped_port = %d\n", cnode->mapped_port);
    zev_debug(kInfo, "logging = %d\n", cnode->logging);
    zev_debug(kInfo, "events = %d\n", cnode->events);
    zev_debug(kInfo, "enable = %d\n", cnode->enable.load());
    zev_debug(kInfo, "auth = %d\n", cnode->auth);
    zev_debug(kInfo, "deleted = %d\n", cnode->deleted.load());
    zev_debug(kInfo, "\n");
  }
}

void Overwrite(const ConsoleNode& configured, ConsoleNode* live, LogRenames* renames)
    REQUIRES(acl_lock, icl_lock) {
  const bool is_renamed = strcmp(live->cname, configured.cname) != 0;
  const bool was_enabled = live->enable != 0;
  if (is_renamed) renames->Rename(live, configured.cname);
  static_cast<ConsoleSettings&>(*live) = configured;
  live->deleted = 0;
  if (is_renamed) JournalName(live);
  if (was_enabled && live->enable == 0) JournalDisabled(live, nullptr);
  if (!was_enabled && live->enable != 0) JournalEnabled(live, nullptr);
  JournalPause(live);
  if (live->enable == 0) live->status = kNotConnected;
}

bool HasSameAddress(const ConsoleNode& one, const ConsoleNode& other) {
  return one.cons_port == other.cons_port && strcmp(one.ipaddr, other.ipaddr) == 0;
}

}  // namespace

/// A list's consoles by address and port: comparing every configured console with every live one
/// would take seconds for ten thousand, while all consoles wait. Open addressing, never more than
/// half full.
class AddressTable {
 public:
  /// Holds the consoles of `list`, and has room for `to_come` more.
  AddressTable(const ConsoleList& list, size_t to_come)
      : slot_count_(std::bit_ceil(2 * (Length(list) + to_come) + 1)),
        slots_(new (std::nothrow) ConsoleNode* [slot_count_] {}) {
    for (ConsoleNode* cnode : Nodes(list)) Add(cnode);
  }
  ~AddressTable() { delete[] slots_; }
  AddressTable(const AddressTable&) = delete;
  AddressTable& operator=(const AddressTable&) = delete;

  /// False when there was no memory for it; it then holds nothing.
  bool usable() const { return slots_ != nullptr; }

  /// Of consoles with the same address and port, the first stays.
  void Add(ConsoleNode* cnode) {
    if (!usable()) return;
    ConsoleNode*& slot = SlotOf(*cnode);
    if (slot == nullptr) slot = cnode;
  }

  /// The console with the same address and port, or null.
  ConsoleNode* Find(const ConsoleNode& cnode) const { return SlotOf(cnode); }

  /// A list's own count is no measure: LoadConfigFile() empties the list without resetting the
  /// count.
  static size_t Length(const ConsoleList& list) {
    size_t length = 0;
    for ([[maybe_unused]] const ConsoleNode* cnode : Nodes(list)) ++length;
    return length;
  }

 private:
  // The slot of the console with that address and port, or the empty one where it would go.
  ConsoleNode*& SlotOf(const ConsoleNode& cnode) const {
    const size_t mask = slot_count_ - 1;
    size_t at = (std::hash<std::string_view>()(cnode.ipaddr) + cnode.cons_port) & mask;
    while (slots_[at] != nullptr && !HasSameAddress(*slots_[at], cnode)) at = (at + 1) & mask;
    return slots_[at];
  }

  size_t slot_count_;
  ConsoleNode** slots_;
};

int LoadConfigFile(ConsoleList* cons_list) {
  ENTERING();
  cons_list->head = nullptr;
  cons_list->tail = nullptr;
  FILE* file = fopen(config_file, "re");
  if (file == nullptr) {
    zev_debug(kError, "%s: open() failed : %s\n", __func__, strerror(errno));
    EXIT_PROCESS(1);
  }
  int result = 0;
  {
    const ListBatch batch(*cons_list);
    result = LoadLines(file, cons_list);
  }
  fclose(file);
  if (result == 0) PrintConsoles();
  return result;
}

int ReloadConfigFile() {
  ENTERING();
  ConsoleList* new_list = NewConsoleList("new_list");
  if (new_list == nullptr) return -1;
  if (LoadConfigFile(new_list) != 0) {
    zev_debug(kError, "%s: LoadConfigFile() failed.\n", __func__);
    FreeConsoleList(new_list);
    return -1;
  }
  MergeConsoleLists(new_list);
  FreeConsoleList(new_list);
  PrintConsoles();
  return 0;
}

int ReloadEventFiles() {
  ENTERING();
  SetEventNodeToNULLForAllConsoles();
  EmptyEventSetList(ev_list);
  if (LoadEventFiles(ev_list) != 0) {
    zev_debug(kError, "%s: LoadEventFiles() failed.\n", __func__);
    return -1;
  }
  return 0;
}

void SetEventNodeToNULLForAllConsoles() {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*i_cons_list)) cnode->enode = nullptr;
  for (ConsoleNode* cnode : Nodes(*a_cons_list)) cnode->enode = nullptr;
}

void MergeConsoleLists(ConsoleList* new_list) {
  ENTERING();
  MarkConsolesAsDeleted(i_cons_list);
  MarkConsolesAsDeleted(a_cons_list);
  AddressTable inaccessible(*i_cons_list, AddressTable::Length(*new_list));
  const AddressTable accessible(*a_cons_list, 0);
  LogRenames renames;
  const ListBatch leaving(*new_list);
  const ListBatch joining(*i_cons_list);
  for (ConsoleNode* cnode : Nodes(*new_list)) {
    if (UpdateConsole(cnode, i_cons_list, &renames, &inaccessible) == 1 ||
        UpdateConsole(cnode, a_cons_list, &renames, &accessible) == 1) {
      continue;
    }
    RemoveConsoleFromList(cnode, new_list);
    if (AddConsoleToList(cnode, i_cons_list) == 0) {
      inaccessible.Add(cnode);
      JournalName(cnode);
      JournalPause(cnode);
    } else {
      FreeConsoleNode(cnode);
    }
  }
}

void MarkConsolesAsDeleted(ConsoleList* cons_list) {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*cons_list)) cnode->deleted = 1;
  cons_mon_waker.Wake();
  cons_conn_waker.Wake();
}

int UpdateConsole(const ConsoleNode* cnode, ConsoleList* cons_list, LogRenames* renames,
                  const AddressTable* table) {
  ENTERING();
  ConsoleNode* live = table != nullptr && table->usable()
                          ? table->Find(*cnode)
                          : FindNode(*cons_list, [&](const ConsoleNode& candidate) {
                              return HasSameAddress(candidate, *cnode);
                            });
  if (live == nullptr) return 0;
  Overwrite(*cnode, live, renames);
  return 1;
}

void PrintConsoles() NO_THREAD_SAFETY_ANALYSIS {  // the caller holds both locks or is alone
  ENTERING();
  zev_debug(kInfo, "INACCESSIBLE CONSOLES:\n");
  PrintList(*i_cons_list);
  zev_debug(kInfo, "ACCESSIBLE CONSOLES:\n");
  PrintList(*a_cons_list);
}

}  // namespace zevd
