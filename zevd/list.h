// The one list mechanism. Every ...List of the daemon has this shape: a name for the debug output,
// a doubly linked chain of elements that point at nodes they do not own, and a count. A list whose
// nodes have sockets also keeps the set of those sockets, ready to be copied for select(). A list
// that may grow long and is waited for has a watch too (socket_watch.h), which follows that set.
//
// A list has no lock of its own: the header that declares it says which lock the caller holds. The
// lists' own functions (Add...ToList and so on) are built on the functions here and in
// list_functions.h.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "descriptor_set.h"
#include "error.h"
#include "socket_watch.h"

namespace zevd {

/// `Elem` is a record with the pointers `prev`, `next` and the node pointer that `kNode` names.
template <typename Elem, auto kNode>
struct List {
  using Element = Elem;
  using Node = std::remove_reference_t<decltype(*(std::declval<Elem&>().*kNode))>;
  static constexpr auto kNodeMember = kNode;

  const char* list_name = nullptr;  ///< for the debug output only
  Elem* head = nullptr;
  Elem* tail = nullptr;
  int count = 0;
};

/// What only a watched list has.
template <typename Elem>
struct ListWatch : SocketWatch {
  SocketIndex<Elem> index;
};

/// A list whose nodes have a `sock`, -1 for none.
template <typename Elem, auto kNode>
struct SocketList : List<Elem, kNode> {
  int high_sock = -1;                ///< highest `sock` of the members, -1 when none has one
  DescriptorSet fdset;               ///< the `sock` of every member that has one
  int batches = 0;                   ///< ListBatches that have begun and not ended
  ListWatch<Elem>* watch = nullptr;  ///< never freed; null: the list is not watched
};

template <typename L>
concept HasSockets = requires(L& list) {
  list.fdset;
};

/// The node of an element, whatever the member that points at it is called.
template <typename L>
auto*& NodeOf(const L& /*list*/, typename L::Element* elem) {
  return elem->*L::kNodeMember;
}

/// Runs through a list's nodes from head to tail. The successor is taken before the body runs, so
/// the body may unlink the node it was given.
template <typename L>
class NodeRange {
 public:
  class Iterator {
   public:
    explicit Iterator(typename L::Element* elem) { Load(elem); }
    typename L::Node* operator*() const { return elem_->*L::kNodeMember; }
    bool operator!=(const Iterator& other) const { return elem_ != other.elem_; }
    Iterator& operator++() {
      Load(next_);
      return *this;
    }

   private:
    void Load(typename L::Element* elem) {
      elem_ = elem;
      next_ = elem == nullptr ? nullptr : elem->next;
    }
    typename L::Element* elem_ = nullptr;
    typename L::Element* next_ = nullptr;
  };

  explicit NodeRange(const L& list) : head_(list.head) {}
  Iterator begin() const { return Iterator(head_); }
  Iterator end() const { return Iterator(nullptr); }

 private:
  typename L::Element* head_;
};

template <typename L>
NodeRange<L> Nodes(const L& list) {
  return NodeRange<L>(list);
}

/// The highest `sock` of the members, -1 when there is none.
template <typename L>
int GetHighestSocketNumber(const L& list) {
  ENTERING();
  int highest = -1;
  for (const auto* node : Nodes(list)) highest = std::max<int>(highest, node->sock);
  return highest;
}

/// Rebuilds the set from scratch: exactly the sockets of the members that have one.
template <typename L>
void SetFdSet(L& list) {
  ENTERING();
  list.fdset.Clear();
  for (const auto* node : Nodes(list)) {
    const int sock = node->sock;
    if (sock != -1) list.fdset.Add(sock);
  }
}

/// Brings the list's watch up to date with the set. The list has a watch.
template <typename L>
void FollowSet(L& list) {
  list.watch->index.Clear();
  for (auto* elem = list.head; elem != nullptr; elem = elem->next) {
    const int sock = NodeOf(list, elem)->sock;
    if (sock != -1) list.watch->index.Set(sock, elem);
  }
  list.watch->Follow(list.fdset);
}

/// Called after every change of a list. Does nothing for a list without sockets, nor while a
/// ListBatch lives, whose end makes up for it.
template <typename L>
void Recompute(L& list) {
  if constexpr (HasSockets<L>) {
    if (list.batches > 0) return;
    SetFdSet(list);
    list.high_sock = GetHighestSocketNumber(list);
    if (list.watch != nullptr) FollowSet(list);
  }
}

/// Many changes of a list with sockets, made while nobody looks at its set: rebuilding the set
/// after each of them would cost the square of their number. Until the batch ends, the set is stale
/// and ForEachReady() would meet members that are gone. The caller holds whatever guards the set
/// for as long.
template <typename L>
class ListBatch {
 public:
  explicit ListBatch(L& list) : list_(list) {
    if constexpr (HasSockets<L>) ++list_.batches;
  }
  ~ListBatch() {
    if constexpr (HasSockets<L>) {
      if (--list_.batches == 0) Recompute(list_);
    }
  }
  ListBatch(const ListBatch&) = delete;
  ListBatch& operator=(const ListBatch&) = delete;

 private:
  L& list_;
};

/// Gives a watch to a list that is still empty. When memory or descriptors are short, which is
/// reported, the list does without one. Before the threads start.
template <typename L>
void WatchMembers(L* list) {
  auto* watch = new (std::nothrow) ListWatch<typename L::Element>;
  if (watch == nullptr) {
    ReportOutOfMemory(__func__);
  } else if (watch->Open()) {
    list->watch = watch;
  } else {
    zev_debug(kError, "%s: epoll_create1() failed : %s\n", __func__, strerror(errno));
    delete watch;
  }
}

/// The list's watch for WaitForMembers(), null when it has none. It never changes once the threads
/// run, so no lock is needed.
template <typename L>
SocketWatch* WatchOf(const L* list) {
  return list->watch;
}

/// Must be called before closing the socket of a member that is on the list, or that was taken off
/// it in a batch that has not ended; see SocketWatch::Forget().
template <typename L>
void ForgetSocket(L& list, int sock) {
  if (list.watch != nullptr) list.watch->Forget(sock);
}

/// Calls `visit` with every node whose socket is in `ready`, from head to tail; on a watched list,
/// a node that is `before` another comes ahead of it. `visit` neither adds nor unlinks. The caller
/// holds what guards the list, a lock for writing.
template <typename L, typename Before, typename Visit>
void ForEachReady(L& list, const DescriptorSet& ready, Before before, Visit visit) {
  using Elem = typename L::Element;
  const auto visit_if_ready = [&](auto* node) {
    if (ready.Contains(node->sock)) visit(node);
  };
  if (list.watch == nullptr) {
    for (auto* node : Nodes(list)) visit_if_ready(node);
  } else {
    // An element's socket may have been closed since it was indexed.
    list.watch->index.ForEachInOrder(
        ready,
        [&](const Elem* a, const Elem* b) {
          return before(a->*L::kNodeMember, b->*L::kNodeMember);
        },
        [&](Elem* elem) { visit_if_ready(NodeOf(list, elem)); });
  }
}

/// The same in list order.
template <typename L, typename Visit>
void ForEachReady(L& list, const DescriptorSet& ready, Visit visit) {
  const auto never = [](const auto* /*a*/, const auto* /*b*/) { return false; };
  ForEachReady(list, ready, never, visit);
}

/// Makes the list an empty one with that name; frees nothing.
template <typename L>
void ClearList(L& list, const char* name) {
  list.list_name = name;
  list.head = nullptr;
  list.tail = nullptr;
  list.count = 0;
  Recompute(list);
}

/// Makes sure that the set and the watch have room for `node`. False when out of memory.
template <typename L>
[[nodiscard]] bool ReserveFor(L& list, const typename L::Node* node) {
  if constexpr (HasSockets<L>) {
    const int sock = node->sock;
    if (sock == -1) return true;
    return list.fdset.Reserve(sock) && (list.watch == nullptr || list.watch->index.Reserve(sock));
  }
  return true;
}

/// Links `elem` after the tail and counts it. The caller calls Recompute(), after its own messages.
template <typename L>
void LinkAtTail(L& list, typename L::Element* elem) {
  elem->prev = list.tail;
  elem->next = nullptr;
  if constexpr (requires { elem->place; }) {
    elem->place = list.tail == nullptr ? 0 : list.tail->place + 1;
  }
  (list.tail == nullptr ? list.head : list.tail->next) = elem;
  list.tail = elem;
  ++list.count;
}

/// The element that holds `node` (identity, not contents), null when it is not on the list.
template <typename L>
typename L::Element* FindElement(const L& list, const typename L::Node* node) {
  for (auto* elem = list.head; elem != nullptr; elem = elem->next) {
    if (elem->*L::kNodeMember == node) return elem;
  }
  return nullptr;
}

/// Takes `elem` off the list and frees it; the node survives. The caller calls Recompute().
template <typename L>
void Unlink(L& list, typename L::Element* elem) {
  if (list.head == elem) {
    list.head = elem->next;
  } else {
    elem->prev->next = elem->next;
  }
  if (list.tail == elem) {
    list.tail = elem->prev;
  } else {
    elem->next->prev = elem->prev;
  }
  --list.count;
  delete elem;
}

/// The first node for which `matches` is true, or null.
template <typename L, typename Predicate>
typename L::Node* FindNode(const L& list, Predicate matches) {
  for (auto* node : Nodes(list)) {
    if (matches(*node)) return node;
  }
  return nullptr;
}

/// Frees the elements and leaves the nodes; the count and the set stay as they were.
template <typename L>
void DropElements(L& list) {
  for (auto* elem = list.head; elem != nullptr;) {
    auto* next = elem->next;
    delete elem;
    elem = next;
  }
  list.head = nullptr;
  list.tail = nullptr;
}

/// Frees a heap list whose name is a heap copy; elements and nodes are the caller's business.
template <typename L>
void FreeListRecord(L* list) {
  free(const_cast<char*>(list->list_name));
  delete list;
}

}  // namespace zevd
