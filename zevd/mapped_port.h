// The listening ports and the logins that are pending on each of them.
//
// Only the thread user_conn changes the list, and its elements only with pending_logins_mutex held;
// that thread may therefore read it without the mutex. serv_conn threads look their port up in it
// under the mutex. Whoever holds the mutex takes only the event connection's mutex and the debug
// lock.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "list.h"
#include "mutex.h"

namespace zevd {

/// Guards the structure of mapped_port_list and `thread_ids` of its nodes.
extern Mutex pending_logins_mutex;

/// Holds pending_logins_mutex. A mutex that cannot be locked ends the process.
class SCOPED_CAPABILITY PendingLoginsGuard {
 public:
  explicit PendingLoginsGuard(const char* function) ACQUIRE(pending_logins_mutex);
  ~PendingLoginsGuard() RELEASE();
  PendingLoginsGuard(const PendingLoginsGuard&) = delete;
  PendingLoginsGuard& operator=(const PendingLoginsGuard&) = delete;
};

/// One listening port.
struct MappedPortNode {
  int sock;  ///< listening socket
  /// serv_conn threads at work for connections of this port. Changed under the mutex; the accepting
  /// loop reads it without.
  std::atomic<int> pending_logins;
  /// The first `pending_logins` are those threads, in order of arrival.
  pthread_t* thread_ids GUARDED_BY(pending_logins_mutex);
  /// Slots of `thread_ids`; grows, because the main port refuses nobody.
  int thread_id_room GUARDED_BY(pending_logins_mutex);
  uint16_t port;
};

struct MappedPortListElem {
  MappedPortNode* mpnode;
  MappedPortListElem* prev;
  MappedPortListElem* next;
  uint64_t place;  ///< grows from head to tail
};

using MappedPortList = SocketList<MappedPortListElem, &MappedPortListElem::mpnode>;

// ---- Records and lists --------------------------------------------------------------------------

// Allocation failures set u_err_msg to error 013, are reported, and give null or -1.

MappedPortNode* NewMappedPortNode(int sock, uint16_t port)
    NO_THREAD_SAFETY_ANALYSIS;  // nobody else knows the node yet
MappedPortListElem* NewMappedPortListElem(MappedPortNode* mpnode);
MappedPortList* NewMappedPortList(const char* list_name);
void InitMappedPortList(MappedPortList* list, const char* list_name);

/// Appends at the tail. 0 or -1.
int AddMappedPortToList(MappedPortNode* mpnode, MappedPortList* list)
    REQUIRES(pending_logins_mutex);

/// Unlinks the node and neither closes nor frees it. A node that is not there ends the process.
int RemoveMappedPortFromList(MappedPortNode* mpnode, MappedPortList* list)
    REQUIRES(pending_logins_mutex);

bool IsPortInMappedPortList(uint16_t port, const MappedPortList* list);

/// Removes and frees every node; closes no socket.
void EmptyMappedPortList(MappedPortList* list) REQUIRES(pending_logins_mutex);

/// Frees every node, the list and its name; closes no socket.
void FreeMappedPortList(MappedPortList* list) REQUIRES(pending_logins_mutex);

/// Frees the node; does not close its socket.
void FreeMappedPortNode(MappedPortNode* mpnode)
    NO_THREAD_SAFETY_ANALYSIS;  // nobody else knows the node any more

// ---- Pending logins; a port or thread that is not known ends the process ------------------------

/// Counts the calling serv_conn thread `tid` on `port`. 0, or -1 with u_err_msg set when there is
/// no memory to remember it.
int IncrementPendingLogins(MappedPortList* list, uint16_t port, pthread_t tid)
    EXCLUDES(pending_logins_mutex);

/// Stops counting it. Does not return when the thread has been cancelled because its port was
/// dropped.
void DecrementPendingLogins(MappedPortList* list, uint16_t port, pthread_t tid)
    EXCLUDES(pending_logins_mutex);

int GetPendingLogins(MappedPortList* list, uint16_t port) EXCLUDES(pending_logins_mutex);

// ---- Refreshing ---------------------------------------------------------------------------------

extern std::atomic<int> refresh_mapped_ports;  ///< 1: the ports are to be looked at again

/// Asks user_conn to match the ports with the configuration again. Any thread.
void RefreshMappedPorts();

}  // namespace zevd
