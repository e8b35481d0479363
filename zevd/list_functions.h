// What the functions of the six kinds of list share: New...List(), Init...List(), New...ListElem(),
// Add...ToList(), Remove...FromList() and Empty...List(). Each of those adds its entry line, its
// messages and its special cases. A report names the list's own function, not the one here.
#pragma once

#include <cstring>
#include <new>

#include "list.h"

namespace zevd {

/// How a function of the list reports an allocation that failed.
using MemoryReport = void (*)(const char* function);

/// Makes the list an empty one that is named with a copy of `name`. When there is no memory for the
/// copy, which is reported, the list has no name.
template <typename L>
void InitNamedList(L* list, const char* name, MemoryReport no_memory,
                   const char* function = __builtin_FUNCTION()) {
  const char* copy = strdup(name);
  if (copy == nullptr) no_memory(function);
  ClearList(*list, copy);
}

/// A list on the heap; null when out of memory, even if only for the name.
template <typename L>
L* NewNamedList(const char* name, void (*init)(L*, const char*), MemoryReport no_memory,
                const char* function = __builtin_FUNCTION()) {
  auto* list = new (std::nothrow) L;
  if (list == nullptr) {
    no_memory(function);
    return nullptr;
  }
  init(list, name);
  if (list->list_name != nullptr) return list;
  delete list;
  return nullptr;
}

/// An element for `node` with null links; null when out of memory.
template <typename L>
typename L::Element* NewElement(typename L::Node* node, MemoryReport no_memory,
                                const char* function = __builtin_FUNCTION()) {
  auto* elem = new (std::nothrow) typename L::Element{};
  if (elem == nullptr) {
    no_memory(function);
  } else {
    elem->*L::kNodeMember = node;
  }
  return elem;
}

/// Reserves room for `node` in the list's set and returns the element that `make` makes; null when
/// out of memory.
template <typename L>
typename L::Element* MakeElement(L& list, typename L::Node* node,
                                 typename L::Element* (*make)(typename L::Node*),
                                 MemoryReport no_memory,
                                 const char* function = __builtin_FUNCTION()) {
  if (ReserveFor(list, node)) return make(node);
  no_memory(function);
  return nullptr;
}

/// Takes the node's element off the list and frees it; the node survives. False when it is not
/// there. The caller calls Recompute().
template <typename L>
[[nodiscard]] bool UnlinkNode(L& list, const typename L::Node* node) {
  auto* elem = FindElement(list, node);
  if (elem == nullptr) return false;
  Unlink(list, elem);
  return true;
}

/// Removes and frees every node.
template <typename L>
void EmptyList(L* list, int (*remove)(typename L::Node*, L*),
               void (*free_node)(typename L::Node*)) {
  const ListBatch batch(*list);
  for (auto* node : Nodes(*list)) {
    remove(node, list);
    free_node(node);
  }
}

}  // namespace zevd
