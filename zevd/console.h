// The record of a console, and lists of such records.
//
// A console is on exactly one of two lists (lists.h): i_cons_list while it is not connected (owned
// by the cons_conn thread, guarded by icl_lock), a_cons_list while it is (owned by the cons_mon
// thread, guarded by acl_lock). A field without a remark is guarded by the lock of the list that
// the console is on; changing what threads read under the other list's lock takes both. As it is
// one of two locks, no annotation can say that: the functions that take a console say who holds
// what.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "dated_word.h"
#include "fixed_text.h"
#include "list.h"
#include "locks.h"
#include "user_list.h"

namespace zevd {

struct EventSetNode;

enum ConsoleStatus : int {
  kConnected = 0,
  kInProgress = 1,
  kRefused = 2,       ///< by the peer, or by a management port whose session another client holds
  kNotConnected = 3,  ///< initial state, failed, closed or disabled
};

inline constexpr int kLogBufferSize = 1024;

/// Ring of recent output: empty when head == tail, one cell always stays free.
struct ConsoleBuffer {
  char* buf;     ///< cons_buf_size bytes, null when that is 0
  int32_t head;  ///< index of the oldest byte held
  int32_t tail;  ///< index at which the next byte is written
};

/// The start of the log line that is not yet complete.
struct LogBuffer {
  char buf[kLogBufferSize];
  int32_t count;
};

/// What the configuration says about one console.
struct ConsoleSettings {
  char cname[kNameSize];   ///< the key by which users and commands address it
  char pname[kNameSize];   ///< platform name
  char ipaddr[kNameSize];  ///< dotted IPv4 address
  char model[kNameSize];   ///< looked up in the models table
  uint16_t cons_port;
  uint16_t mgmt_port;
  uint16_t mapped_port;  ///< port on which users of this console alone are served; 0: none
  int logging;           ///< 1: output is written to log files
  int events;            ///< 1: output is matched against the event set
  DatedWord enable;      ///< 0: not to be connected
  int auth;              ///< 1: users of the mapped port log in when security is on
  EventSetNode* enode;   ///< event set, shared; null when none
};

struct ConsoleNode : ConsoleSettings {
  char telnet_cmd[kNameSize];  ///< negotiation that the console sent right after connecting
  /// Connected or connecting socket, -1 when none. Written under the list's lock; the user input
  /// monitor reads it under ul_lock alone.
  std::atomic<int> sock;
  int log_fd;        ///< log file, -1 when closed
  DatedWord status;  ///< ConsoleStatus; any thread may set kNotConnected
  int deleted;       ///< 1: dropped by a reload, freed once no user refers to it
  /// User records that point here. Falls under ul_lock and acl_lock, read under either list's lock.
  std::atomic<int> ref_count;
  int force;                ///< 1: the next refusal by a management port is overridden
  int check_for_NET_E_msg;  ///< 1: a refusal may still come after the connection is established
  time_t last_output;       ///< when it last printed something, 0 when it never did
  time_t lfca_time;         ///< last failed connection attempt, 0 when none
  time_t lsca_time;         ///< when such a connection was first seen established, 0 when none
  ConsoleBuffer cons_buf;
  LogBuffer log_buf;
  UserList* user_list;  ///< users of this console; the list is owned, its users are not
  /// The output monitor's pass since which there has been no time to read the console, 0 when it
  /// was read since.
  uint64_t left_out_since GUARDED_BY(acl_lock);
  char pellox_port_holder_ipaddr[kNameSize];  ///< who held the session at the last refusal
};

struct ConsoleListElem {
  ConsoleNode* cnode;
  ConsoleListElem* prev;
  ConsoleListElem* next;
  uint64_t place;  ///< grows from head to tail
};

using ConsoleList = SocketList<ConsoleListElem, &ConsoleListElem::cnode>;

// The caller of what follows holds the list's lock, or is the only one to know the list.

/// A console that is not connected; null when out of memory.
ConsoleNode* NewConsoleNode(const ConsoleSettings& settings);

/// Frees the node with its user list and its replay ring; closes nothing.
void FreeConsoleNode(ConsoleNode* cnode);

ConsoleListElem* NewConsoleListElem(ConsoleNode* cnode);
ConsoleList* NewConsoleList(const char* list_name);
void InitConsoleList(ConsoleList* list, const char* list_name);

/// Removes and frees every node.
void EmptyConsoleList(ConsoleList* list);
void FreeConsoleList(ConsoleList* list);

/// Appends at the tail. 0, or -1 when out of memory.
int AddConsoleToList(ConsoleNode* cnode, ConsoleList* list);

/// Unlinks the node and neither closes nor frees it. A node that is not there ends the process.
int RemoveConsoleFromList(ConsoleNode* cnode, ConsoleList* list);

/// The first console whose name equals `name` exactly, or null.
ConsoleNode* LocateConsoleInList(const char* name, const ConsoleList* list);

/// True for a console of that name, in upper or lower case, and for every console without a name.
bool IsCalled(const ConsoleNode& cnode, const char* name);

/// The first console of the list of that name, in upper or lower case, or null.
ConsoleNode* FindByAnyCase(const ConsoleList* list, const char* name);

/// Writes every console of the list at level -1. Before a fatal exit; takes no lock.
void DumpConsoles(const ConsoleList* list);

}  // namespace zevd
