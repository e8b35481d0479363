// Runs on the main thread: at start-up before there is another, later on a SIGHUP with acl_lock and
// icl_lock held for writing.
#include "load.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "error.h"
#include "event_set.h"
#include "paths.h"
#include "zev.h"

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
      zev_debug(kError, "%s: Missing %s at line %d\n", kLoad, kFields[i].missing, line_number);
      return false;
    }
  }
  return true;
}

EventSetNode* FindEventFile(const char* name, const char* cons_name) {
  if (strcmp(name, kNoEventFile) == 0) return nullptr;
  EventSetNode* enode = FindEventNode(name, ev_list);
  if (enode == nullptr) {
    zev_debug(kError, "%s: Event file %s not found for console %s\n", kLoad, name, cons_name);
  }
  return enode;
}

uint16_t Port(const char* text) {
  return static_cast<uint16_t>(atoi(text));
}

// 0, or -1 when out of memory.
int AddConfiguredConsole(char* const (&fields)[kFieldCount], ConsoleList* cons_list) {
  const ConsoleSettings settings = {
      .cons_name = fields[kName],
      .plat_name = fields[kPlatform],
      .ipaddr = fields[kAddress],
      .model = fields[kModel],
      .cons_port = Port(fields[kConsolePort]),
      .mgmt_port = Port(fields[kManagementPort]),
      .mapped_port = Port(fields[kUserPort]),
      .logging = atoi(fields[kLogging]),
      .events = atoi(fields[kEvents]),
      .enable = atoi(fields[kEnable]),
      .auth = atoi(fields[kAuthentication]),
      .enode = FindEventFile(fields[kEventFile], fields[kName]),
  };
  ConsoleNode* cnode = NewConsoleNode(settings);
  if (cnode == nullptr) {
    zev_debug(kError, "%s: NewConsoleNode() failed.\n", kLoad);
    return -1;
  }
  if (AddConsoleToList(cnode, cons_list) != 0) {
    zev_debug(kError, "%s: AddConsoleToList() failed.\n", kLoad);
    FreeConsoleNode(cnode);
    return -1;
  }
  return 0;
}

int LoadLines(FILE* file, ConsoleList* cons_list) {
  char line[kLineSize];
  for (int line_number = 1; fgets(line, sizeof line, file) != nullptr; ++line_number) {
    char* fields[kFieldCount];
    if (!SplitLine(line, line_number, fields)) continue;
    if (AddConfiguredConsole(fields, cons_list) != 0) return -1;
  }
  return 0;
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
    zev_debug(kInfo, "enable = %d\n", cnode->enable);
    zev_debug(kInfo, "auth = %d\n", cnode->auth);
    zev_debug(kInfo, "deleted = %d\n", cnode->deleted);
    zev_debug(kInfo, "\n");
  }
}

void FormatLogPath(char* path, size_t size, const char* cons_name) {
  snprintf(path, size, "%s/%s/%s.log", log_dir, "/zev.dated/current", cons_name);
}

bool Exists(const char* path) {
  struct stat info {};
  return stat(path, &info) == 0;
}

// A log that stands under the new name already is not written over: posting an event renames a
// console too, and its earlier lines may be in there.
int RenameWithoutLoss(const char* old_path, const char* new_path) {
  struct stat info {};
  if (stat(new_path, &info) != 0 || !S_ISREG(info.st_mode)) return rename(old_path, new_path);
  errno = EEXIST;
  return -1;
}

// The log follows the console's new name; an open descriptor goes on writing to the renamed file.
void RenameLog(const char* old_name, const char* new_name) {
  constexpr size_t kLogPathSize = 8192;
  char old_path[kLogPathSize];
  char new_path[kLogPathSize];
  FormatLogPath(old_path, sizeof old_path, old_name);
  FormatLogPath(new_path, sizeof new_path, new_name);
  if (Exists(old_path) && RenameWithoutLoss(old_path, new_path) != 0) {
    zev_debug(kError, "%s : rename() failed : %s\n", "UpdateConsole", strerror(errno));
  }
}

void CopySettings(const ConsoleNode& from, ConsoleNode* to) {
  CopyText(to->cname, from.cname);
  CopyText(to->pname, from.pname);
  CopyText(to->ipaddr, from.ipaddr);
  CopyText(to->model, from.model);
  to->cons_port = from.cons_port;
  to->mgmt_port = from.mgmt_port;
  to->logging = from.logging;
  to->events = from.events;
  to->enable = from.enable;
  to->mapped_port = from.mapped_port;
  to->auth = from.auth;
  to->enode = from.enode;
}

}  // namespace

int LoadConfigFile(ConsoleList* cons_list) {
  ENTERING();
  cons_list->head = nullptr;
  cons_list->tail = nullptr;
  FILE* file = fopen(config_file, "re");
  if (file == nullptr) {
    zev_debug(kError, "%s: open() failed : %s\n", __func__, strerror(errno));
    EXIT_PROCESS(1);
  }
  const int result = LoadLines(file, cons_list);
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

void MergeConsoleLists(ConsoleList* new_list) {
  ENTERING();
  MarkConsolesAsDeleted(i_cons_list);
  MarkConsolesAsDeleted(a_cons_list);
  for (ConsoleNode* cnode : Nodes(*new_list)) {
    if (UpdateConsole(cnode, i_cons_list) == 1 || UpdateConsole(cnode, a_cons_list) == 1) continue;
    RemoveConsoleFromList(cnode, new_list);
    if (AddConsoleToList(cnode, i_cons_list) != 0) FreeConsoleNode(cnode);
  }
}

void MarkConsolesAsDeleted(ConsoleList* cons_list) {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*cons_list)) cnode->deleted = 1;
}

int UpdateConsole(const ConsoleNode* cnode, ConsoleList* cons_list) {
  ENTERING();
  ConsoleNode* live = FindNode(*cons_list, [&](const ConsoleNode& candidate) {
    return strcmp(candidate.ipaddr, cnode->ipaddr) == 0 && candidate.cons_port == cnode->cons_port;
  });
  if (live == nullptr) return 0;
  if (strcmp(live->cname, cnode->cname) != 0) RenameLog(live->cname, cnode->cname);
  CopySettings(*cnode, live);
  live->deleted = 0;
  if (live->enable == 0) live->status = kNotConnected;
  return 1;
}

void PrintConsoles() NO_THREAD_SAFETY_ANALYSIS {  // the caller holds both locks or is alone
  ENTERING();
  zev_debug(kInfo, "INACCESSIBLE CONSOLES:\n");
  PrintList(*i_cons_list);
  zev_debug(kInfo, "ACCESSIBLE CONSOLES:\n");
  PrintList(*a_cons_list);
}
