// Event sets: the named groups of patterns that consoles refer to.
#pragma once

#include "fixed_text.h"
#include "list.h"

struct EventSetNode {
  char name[kNameSize];  ///< the event file's name
};

struct EventSetListElem {
  EventSetNode* enode;
  EventSetListElem* prev;
  EventSetListElem* next;
};

using EventSetList = List<EventSetListElem, &EventSetListElem::enode>;

void InitEventSetList(EventSetList* event_sets, const char* list_name);

/// The first set whose name equals `name` exactly, or null.
EventSetNode* FindEventNode(const char* name, const EventSetList* event_sets);
