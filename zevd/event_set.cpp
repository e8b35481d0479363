#include "event_set.h"

#include <cstring>

#include "error.h"

void InitEventSetList(EventSetList* event_sets, const char* list_name) {
  ENTERING();
  InitList(*event_sets, list_name);
}

EventSetNode* FindEventNode(const char* name, const EventSetList* event_sets) {
  ENTERING();
  return FindNode(*event_sets, [&](const EventSetNode& set) { return strcmp(set.name, name) == 0; });
}
