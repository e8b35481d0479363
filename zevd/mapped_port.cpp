#include "mapped_port.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "cancellation.h"
#include "error.h"
#include "list_functions.h"
#include "options.h"
#include "user.h"
#include "waker.h"

namespace zevd {

Mutex pending_logins_mutex;
std::atomic<int> refresh_mapped_ports{0};

namespace {

constexpr char kInconsistent[] = "Internal error";

[[noreturn]] void PortNotFound(const char* function, uint16_t port) {
  DEBUG_AS(function, kError, "port %d not found\n", port);
  TERMINATE(kInconsistent);
}

MappedPortNode* FindPort(const MappedPortList* list, uint16_t port) {
  return FindNode(*list, [&](const MappedPortNode& mpnode) { return mpnode.port == port; });
}

bool GrowThreadIds(MappedPortNode* mpnode) REQUIRES(pending_logins_mutex) {
  if (mpnode->pending_logins < mpnode->thread_id_room) return true;
  const int room = mpnode->thread_id_room * 2;
  auto* grown = static_cast<pthread_t*>(
      realloc(mpnode->thread_ids, static_cast<size_t>(room) * sizeof(pthread_t)));
  if (grown == nullptr) return false;
  mpnode->thread_ids = grown;
  mpnode->thread_id_room = room;
  return true;
}

// Kept: the login that takes the last slot is reported, although it is served.
void WarnOfLastSlot(const MappedPortNode* mpnode) {
  const int pending = mpnode->pending_logins;
  if (pending != max_pending_logins - 1) return;
  DEBUG_AS("IncrementPendingLogins", kError, "Too many pending logins (%d)\n", pending);
  PostDaemonError(kInconsistent, kErrorPriority);
}

// Takes `tid` out and keeps the order of the others. False when it is not there.
bool ForgetThread(MappedPortNode* mpnode, pthread_t tid) REQUIRES(pending_logins_mutex) {
  pthread_t* end = mpnode->thread_ids + mpnode->pending_logins;
  pthread_t* found = std::find(mpnode->thread_ids, end, tid);
  if (found == end) return false;
  std::copy(found + 1, end, found);
  --mpnode->pending_logins;
  return true;
}

}  // namespace

PendingLoginsGuard::PendingLoginsGuard(const char* function) {
  const int error = pthread_mutex_lock(pending_logins_mutex.native());
  if (error != 0) {
    DEBUG_AS(function, kError, "pthread_mutex_lock() returned %d\n", error);
    TERMINATE(kInconsistent);
  }
}

PendingLoginsGuard::~PendingLoginsGuard() {
  pthread_mutex_unlock(pending_logins_mutex.native());
}

MappedPortNode* NewMappedPortNode(int sock, uint16_t port) {
  ENTERING();
  auto* mpnode = new (std::nothrow) MappedPortNode{};
  if (mpnode == nullptr) {
    ReportNoMemory(__func__);
    return nullptr;
  }
  mpnode->sock = sock;
  mpnode->port = port;
  mpnode->thread_id_room = max_pending_logins;
  mpnode->thread_ids =
      static_cast<pthread_t*>(calloc(static_cast<size_t>(max_pending_logins), sizeof(pthread_t)));
  if (mpnode->thread_ids == nullptr) {
    ReportNoMemory(__func__);
    delete mpnode;
    return nullptr;
  }
  return mpnode;
}

MappedPortListElem* NewMappedPortListElem(MappedPortNode* mpnode) {
  ENTERING();
  return NewElement<MappedPortList>(mpnode, ReportNoMemory);
}

MappedPortList* NewMappedPortList(const char* list_name) {
  ENTERING();
  return NewNamedList(list_name, InitMappedPortList, ReportNoMemory);
}

void InitMappedPortList(MappedPortList* list, const char* list_name) {
  ENTERING();
  InitNamedList(list, list_name, ReportNoMemory);
}

int AddMappedPortToList(MappedPortNode* mpnode, MappedPortList* list) {
  ENTERING();
  MappedPortListElem* elem = MakeElement(*list, mpnode, NewMappedPortListElem, ReportNoMemory);
  if (elem == nullptr) {
    zev_debug(kError, "%s: NewMappedPortListElem() returned NULL\n", __func__);
    return -1;
  }
  LinkAtTail(*list, elem);
  zev_debug(kTrace, "%s: Doing FD_SET( %d, ...) for mapped port on %s.\n", __func__, mpnode->sock,
            list->list_name);
  Recompute(*list);
  return 0;
}

int RemoveMappedPortFromList(MappedPortNode* mpnode, MappedPortList* list) {
  ENTERING();
  if (!UnlinkNode(*list, mpnode)) {
    INTERNAL_ERROR("%s: mpnode not found in %s\n", __func__, list->list_name);
  }
  if (list->count < 0) INTERNAL_ERROR("%s: mplist->count = %d\n", __func__, list->count);
  Recompute(*list);
  return 0;
}

bool IsPortInMappedPortList(uint16_t port, const MappedPortList* list) {
  ENTERING();
  return FindPort(list, port) != nullptr;
}

void EmptyMappedPortList(MappedPortList* list) {
  ENTERING();
  for (MappedPortNode* mpnode : Nodes(*list)) {
    RemoveMappedPortFromList(mpnode, list);
    FreeMappedPortNode(mpnode);
  }
}

void FreeMappedPortList(MappedPortList* list) {
  ENTERING();
  if (list->head != nullptr) EmptyMappedPortList(list);
  FreeListRecord(list);
}

void FreeMappedPortNode(MappedPortNode* mpnode) {
  ENTERING();
  free(mpnode->thread_ids);
  delete mpnode;
}

int IncrementPendingLogins(MappedPortList* list, uint16_t port, pthread_t tid) {
  ENTERING();
  const PendingLoginsGuard guard(__func__);
  MappedPortNode* mpnode = FindPort(list, port);
  if (mpnode == nullptr) PortNotFound(__func__, port);
  WarnOfLastSlot(mpnode);
  if (!GrowThreadIds(mpnode)) {
    ReportNoMemory(__func__);
    return -1;
  }
  mpnode->thread_ids[mpnode->pending_logins] = tid;
  ++mpnode->pending_logins;
  return 0;
}

void DecrementPendingLogins(MappedPortList* list, uint16_t port, pthread_t tid) {
  ENTERING();
  bool port_found = false;
  {
    const PendingLoginsGuard guard(__func__);
    MappedPortNode* mpnode = FindPort(list, port);
    port_found = mpnode != nullptr;
    if (port_found && ForgetThread(mpnode, tid)) return;
  }
  // A port is dropped and its threads are cancelled under the one mutex. A thread that no longer
  // finds itself there has therefore been cancelled; any other way of getting here is our mistake.
  EndIfCancelled();
  if (!port_found) PortNotFound(__func__, port);
  zev_debug(kError, "%s: Cannot find thread id %d\n", __func__, static_cast<int>(tid));
  TERMINATE(kInconsistent);
}

int GetPendingLogins(MappedPortList* list, uint16_t port) {
  ENTERING();
  const PendingLoginsGuard guard(__func__);
  const MappedPortNode* mpnode = FindPort(list, port);
  if (mpnode == nullptr) PortNotFound(__func__, port);
  return mpnode->pending_logins;
}

void RefreshMappedPorts() {
  ENTERING();
  refresh_mapped_ports = 1;
  user_conn_waker.Wake();
}

}  // namespace zevd
