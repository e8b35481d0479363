// Event sets: the patterns of one event file, under the file's name. Consoles refer to them.
//
// The global list ev_list is changed before the threads start or, by the console output monitor,
// with acl_lock and icl_lock held for writing. Others read it with either of the two; the monitor
// itself needs none.
#pragma once

#include "fixed_text.h"
#include "list.h"
#include "reg_expr.h"

namespace zevd {

struct EventSetNode {
  char name[kNameSize];  ///< the event file's name
  RegExList* re_list;    ///< owned
};

struct EventSetListElem {
  EventSetNode* enode;
  EventSetListElem* prev;
  EventSetListElem* next;
};

/// In the order in which the directory was read.
using EventSetList = List<EventSetListElem, &EventSetListElem::enode>;

// Allocation failures are reported, with the "Out of memory" event, and give null or -1.

/// Owns `re_list` once it has succeeded.
EventSetNode* NewEventSetNode(const char* name, RegExList* re_list);
void FreeEventSetNode(EventSetNode* enode);
EventSetList* NewEventSetList(const char* list_name);
void InitEventSetList(EventSetList* list, const char* list_name);

/// Appends at the tail. 0 or -1.
int AddEventSetToList(EventSetNode* enode, EventSetList* list);

/// Unlinks the set and does not free it. A set that is not there ends the process.
int RemoveEventSetFromList(EventSetNode* enode, EventSetList* list);

/// Removes and frees every set.
void EmptyEventSetList(EventSetList* list);
void FreeEventSetList(EventSetList* list);

/// Loads every file of the events directory. 0, or -1 at the first file that fails: the files after
/// it are not loaded, those before it stay.
int LoadEventFiles(EventSetList* event_sets);

/// Loads one file of the events directory. 0 or -1.
int LoadEventFile(const char* event_file, EventSetList* event_sets);

/// The first set whose name equals `name` exactly, or null.
EventSetNode* FindEventNode(const char* name, const EventSetList* event_sets);

}  // namespace zevd
