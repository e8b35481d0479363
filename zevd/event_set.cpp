#include "event_set.h"

#include <dirent.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "error.h"
#include "list_functions.h"
#include "paths.h"

namespace zevd {

namespace {

constexpr int kWarningPriority = 500;

bool IsDirectoryItself(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

int LoadDirectory(DIR* directory, EventSetList* event_sets) {
  for (const dirent* entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
    if (IsDirectoryItself(entry->d_name)) continue;
    if (LoadEventFile(entry->d_name, event_sets) != 0) {
      DEBUG_AS("LoadEventFiles", kError, "LoadEventFile() failed for file %s\n", entry->d_name);
      PostDaemonError("Warning: bad event file", kWarningPriority);
      return -1;
    }
  }
  return 0;
}

int AppendEventSet(const char* event_file, RegExList* re_list, EventSetList* event_sets) {
  EventSetNode* enode = NewEventSetNode(event_file, re_list);
  if (enode == nullptr) {
    DEBUG_AS("LoadEventFile", kError, "NewEventSetNode() failed.\n");
    FreeRegExList(re_list);
    return -1;
  }
  if (AddEventSetToList(enode, event_sets) != 0) {
    DEBUG_AS("LoadEventFile", kError, "AddEventSetToList() failed.\n");
    FreeEventSetNode(enode);
    return -1;
  }
  return 0;
}

}  // namespace

EventSetNode* NewEventSetNode(const char* name, RegExList* re_list) {
  ENTERING();
  auto* enode = new (std::nothrow) EventSetNode{};
  if (enode == nullptr) {
    ReportOutOfMemory(__func__);
    return nullptr;
  }
  CopyText(enode->name, name);
  enode->re_list = re_list;
  return enode;
}

void FreeEventSetNode(EventSetNode* enode) {
  ENTERING();
  FreeRegExList(enode->re_list);
  delete enode;
}

EventSetList* NewEventSetList(const char* list_name) {
  ENTERING();
  return NewNamedList(list_name, InitEventSetList, ReportOutOfMemory);
}

void InitEventSetList(EventSetList* list, const char* list_name) {
  ENTERING();
  InitNamedList(list, list_name, ReportOutOfMemory);
}

int AddEventSetToList(EventSetNode* enode, EventSetList* list) {
  ENTERING();
  EventSetListElem* elem = NewElement<EventSetList>(enode, ReportOutOfMemory);
  if (elem == nullptr) return -1;
  LinkAtTail(*list, elem);
  return 0;
}

int RemoveEventSetFromList(EventSetNode* enode, EventSetList* list) {
  ENTERING();
  if (!UnlinkNode(*list, enode)) {
    INTERNAL_ERROR("%s: enode not found in %s\n", __func__, list->list_name);
  }
  return 0;
}

void EmptyEventSetList(EventSetList* list) {
  ENTERING();
  EmptyList(list, RemoveEventSetFromList, FreeEventSetNode);
}

void FreeEventSetList(EventSetList* list) {
  ENTERING();
  EmptyEventSetList(list);
  FreeListRecord(list);
}

int LoadEventFiles(EventSetList* event_sets) {
  ENTERING();
  DIR* directory = opendir(kEventsDir);
  if (directory == nullptr) {
    zev_debug(kError, "%s: opendir( %s ) failed: %s\n", __func__, kEventsDir, strerror(errno));
    PostDaemonError("events directory not found", kErrorPriority);
    return -1;
  }
  const int result = LoadDirectory(directory, event_sets);
  closedir(directory);
  return result;
}

int LoadEventFile(const char* event_file, EventSetList* event_sets) {
  ENTERING();
  RegExList* re_list = NewRegExList("re_list");
  if (re_list == nullptr) return -1;
  char path[kEventPathSize];
  snprintf(path, sizeof path, "%s/%s", kEventsDir, event_file);
  if (ParseRegExFile(path, re_list) != 0) {
    FreeRegExList(re_list);
    return -1;
  }
  return AppendEventSet(event_file, re_list, event_sets);
}

EventSetNode* FindEventNode(const char* name, const EventSetList* event_sets) {
  ENTERING();
  return FindNode(*event_sets,
                  [&](const EventSetNode& enode) { return strcmp(enode.name, name) == 0; });
}

}  // namespace zevd
