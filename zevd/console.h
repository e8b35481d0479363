// The record of a console, and lists of such records.
//
// A console is on exactly one of two lists (lists.h): i_cons_list while it is not connected (owned
// by the thread cons_conn, guarded by icl_lock), a_cons_list while it is (owned by the thread
// cons_mon, guarded by acl_lock). A field without a remark is guarded by the lock of the list that
// the console is on. No annotation can name one of two locks, so the functions that take a console
// say which lock the caller holds.
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

/// Bytes of a line that are kept until it is complete; see WriteLogFile().
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

/// What the journal needs to know of a console (journal_records.h).
struct ConsoleJournal {
  uint32_t number;             ///< of this run; 0 until the console is on a list. Never changes
  const char* pause_reason;    ///< why its output is not kept; null when it is
  int64_t pause_begin;         ///< wall time in nanoseconds
  uint64_t bytes_left_out;     ///< since then
  char holder[kUserNameSize];  ///< the user for whose sake; empty when there is none
};

struct ConsoleNode : ConsoleSettings {
  char telnet_cmd[kNameSize];  ///< negotiation that the console sent right after connecting
  /// Connected or connecting socket, -1 when none. Written under the list's lock; on a_cons_list
  /// under ul_lock too, unless nobody refers to the console: the user input monitor reads it under
  /// ul_lock alone.
  std::atomic<int> sock;
  int log_fd;        ///< log file, -1 when closed
  DatedWord status;  ///< ConsoleStatus; any thread may set kNotConnected
  /// 1: dropped by a reload, freed once no user refers to it. Changed under both console list
  /// locks; user_mon reads it under acl_lock alone.
  std::atomic<int> deleted;
  /// User records that point here. Changed under acl_lock, read under either list's lock.
  std::atomic<int> ref_count;
  int force;                ///< 1: the next refusal by a management port is overridden
  int check_for_NET_E_msg;  ///< 1: a refusal may still come after the connection is established
  time_t last_output;       ///< when it last printed something, 0 when it never did
  time_t lfca_time;         ///< last failed connection attempt, 0 when none
  /// When a connection that may still be refused was first seen established, 0 when none.
  time_t lsca_time;
  ConsoleBuffer cons_buf;
  LogBuffer log_buf;
  UserList* user_list;  ///< users of this console; the list is owned, its users are not
  /// The first pass of the output monitor that had no time to read the console, 0 when it has been
  /// read since.
  uint64_t left_out_since GUARDED_BY(acl_lock);
  /// How often the longest turn of the output monitor is halved for this console.
  int turn_halvings GUARDED_BY(acl_lock);
  /// Why receiving from it failed, 0 when the console closed the connection.
  int receive_error GUARDED_BY(acl_lock);
  ConsoleJournal journal;
  char pellox_port_holder_ipaddr[kNameSize];  ///< who held the session at the last refusal
};

struct ConsoleListElem {
  ConsoleNode* cnode;
  ConsoleListElem* prev;
  ConsoleListElem* next;
  uint64_t place;  ///< grows from head to tail
};

using ConsoleList = SocketList<ConsoleListElem, &ConsoleListElem::cnode>;

// The caller of the following functions holds the list's lock, unless nobody else knows the list. A
// failed allocation is reported and gives null or -1.

/// A console that is not connected.
ConsoleNode* NewConsoleNode(const ConsoleSettings& settings);

/// Frees the node with its user list and its replay ring; closes nothing.
void FreeConsoleNode(ConsoleNode* cnode);

ConsoleListElem* NewConsoleListElem(ConsoleNode* cnode);
ConsoleList* NewConsoleList(const char* list_name);
void InitConsoleList(ConsoleList* list, const char* list_name);

/// Removes and frees every node.
void EmptyConsoleList(ConsoleList* list);

/// Frees every node, the list and its name.
void FreeConsoleList(ConsoleList* list);

/// Appends at the tail. 0 or -1.
int AddConsoleToList(ConsoleNode* cnode, ConsoleList* list);

/// Unlinks the node and neither closes nor frees it. A node that is not there ends the process.
int RemoveConsoleFromList(ConsoleNode* cnode, ConsoleList* list);

/// The first console whose name equals `name` exactly, or null.
ConsoleNode* LocateConsoleInList(const char* name, const ConsoleList* list);

/// True when the console has that name, whatever the case; a null name matches every console.
bool IsCalled(const ConsoleNode& cnode, const char* name);

/// The first console for which IsCalled() is true, or null.
ConsoleNode* FindByAnyCase(const ConsoleList* list, const char* name);

/// Writes every console of the list at level -1. Before a fatal exit; takes no lock.
void DumpConsoles(const ConsoleList* list);

}  // namespace zevd
