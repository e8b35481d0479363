// The life of the thread "user_mon".
//
// main starts it; it never ends. It makes a pass at least every 2 seconds: a key, a new user, one
// marked for removal or room for output that waits ends the wait in select() (user_mon_waker does
// so for all but the key). It reads users and writes to consoles with ul_lock held for writing,
// sends waiting output with no list lock, looks for vanished users and marked ones with ul_lock
// held for reading, and removes and frees users with ul_lock and acl_lock, taken as a pair in that
// order. Then it closes their sockets, those with waiting output up to a second later.
#include "user_mon.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <utility>

#include "audit.h"
#include "clock.h"
#include "console.h"
#include "console_users.h"
#include "counters.h"
#include "error.h"
#include "journal_records.h"
#include "list.h"
#include "lists.h"
#include "liveness.h"
#include "socket_watch.h"
#include "stall.h"
#include "threads.h"
#include "typed_consoles.h"
#include "user_mon_steps.h"
#include "user_output.h"
#include "waker.h"
#include "zev_signal.h"

namespace zevd {

namespace {

constexpr timeval kSelectLimit = {2, 0};
constexpr size_t kChunkSize = 8192;

// Long enough for a terminal server that drains its buffer into a 9600 baud line. Only the typing
// user waits, so a paste may take as long as it takes.
constexpr StallLimits kConsoleStall = {.idle = 5000, .no_room = INT64_MAX};

bool IsMarked(const UserNode& unode) {
  return unode.connected == 0;
}

void CloseAfterReceiveFailure(UserNode* unode, ssize_t result) {
  DEBUG_AS("ProcessUserInput", kDetail, "recv() returned %d : %s\n", static_cast<int>(result),
           strerror(errno));
  CloseUserConnection(unode, result == 0 ? "The user left." : "The connection failed.");
}

// The reason is reported when the user is removed, because the console's name must not be read
// under ul_lock alone.
void DropTypingUser(UserNode* unode, int error) REQUIRES(ul_lock) {
  unode->send_error = error;
  CloseUserConnection(unode, "The console took no input.");
}

// Hands the raw bytes to the user's console without waiting for it. Returns the number that it
// took, 0 when it takes none at present, or -1 with errno set.
ssize_t ForwardToConsole(const UserNode* unode, const char* buf, ssize_t count) {
  // A console that is not connected has no socket for users: cons_conn may close the one that it is
  // trying at any time, and the number then belongs to a stranger.
  const ConsoleNode* cnode = unode->cnode;
  const int sock = cnode->status == kConnected ? cnode->sock.load() : -1;
  const ssize_t sent = send(sock, buf, static_cast<size_t>(count), MSG_DONTWAIT);
  if (sent > 0) typed_consoles.Typed(sock);
  return sent < 0 && errno == EAGAIN ? 0 : sent;
}

// Reads from the user's socket the `count` bytes that a peek has seen.
void Consume(UserNode* unode, char* buf, ssize_t count) {
  const ssize_t taken = recv(unode->sock, buf, static_cast<size_t>(count), MSG_WAITALL);
  if (taken < 0) {
    CloseAfterReceiveFailure(unode, taken);
    return;
  }
  const int length = static_cast<int>(taken);
  DEBUG_AS("ProcessUserInput", kTrace, "Received ->%.*s<- (%d bytes)\n", length, buf, length);
}

// What the console does not take yet stays in the user's socket, so that nobody else waits and the
// user's client is slowed down instead of losing keys. A console that takes nothing for too long
// costs the user the connection.
void RelayToConsole(UserNode* unode, char* buf, ssize_t seen) REQUIRES(ul_lock) {
  const ssize_t sent = ForwardToConsole(unode, buf, seen);
  if (sent == 0) {
    if (unode->console_stall.IsTooLong(unode->cnode->sock, kConsoleStall))
      DropTypingUser(unode, EAGAIN);
    return;
  }
  const int error = errno;
  unode->console_stall.End();
  if (sent > 0) JournalTyped(unode, {buf, static_cast<size_t>(sent)});
  Consume(unode, buf, sent < 0 ? seen : sent);
  if (sent < 0) DropTypingUser(unode, error);
}

// Deals with what one peek sees of a user's input. That of a read-only user is thrown away.
void ReadUser(UserNode* unode) REQUIRES(ul_lock) {
  char buf[kChunkSize];
  const ssize_t seen = recv(unode->sock, buf, sizeof buf, MSG_PEEK);
  if (seen <= 0) {
    CloseAfterReceiveFailure(unode, seen);
  } else if (unode->mode == kReadOnly) {
    Consume(unode, buf, seen);
  } else {
    RelayToConsole(unode, buf, seen);
  }
}

// When a console has no room for all that is typed at it, its users take turns: otherwise whoever
// sends much would take all the room in every pass.
bool HasWaitedLonger(const UserNode* unode, const UserNode* other) REQUIRES(ul_lock) {
  return unode->console_stall.IsLongerThan(other->console_stall);
}

/// What is still to be sent to users who have been removed.
ClosingOutputs closing_outputs;

void ReportSendError(const UserNode* unode) REQUIRES(ul_lock) {
  if (unode->send_error == 0) return;
  DEBUG_AS("ProcessUserInput", kInfo, "send() to console \"%s\" failed : %s\n", unode->cnode->cname,
           strerror(unode->send_error));
}

void RemoveUser(UserNode* unode) REQUIRES(ul_lock, acl_lock) {
  ConsoleNode* cnode = unode->cnode;
  ReportSendError(unode);
  DEBUG_AS("CleanUpClosedConnections", kInfo,
           "Closing connection with user \"%s\"on console \"%s\"\n", unode->user_name,
           cnode->cname);
  Audit({"leave", "done", &unode->identity, unode->cons_name, ModeKeyword(unode->mode),
         unode->close_reason});
  counters.users_left.Add();
  if (unode->sock != -1) {
    ForgetSocket(*user_list, unode->sock);
    closing_outputs.Add(std::move(unode->output));
  }
  RemoveUserFromList(unode, user_list);
  JournalLeft(unode);
  if (IsUserInUserList(unode, cnode->user_list)) {
    RemoveUserFromList(unode, cnode->user_list);
    JournalPause(cnode);
  }
  delete unode;
  const int references = DropReference(cnode);
  if (references >= 0) return;
  DEBUG_AS("CleanUpClosedConnections", kError, "Negative reference count (%d)\n", references);
  TERMINATE(kInternalError);
}

// ---- The steps of a pass ------------------------------------------------------------------------

constexpr char kLoop[] = "MonitorUserInput";

bool CopyUserSockets(int* high_sock, DescriptorSet* fdset) {
  const ReadLock lock(ul_lock, CallSite{kLoop, __LINE__});
  *high_sock = user_list->high_sock;
  return fdset->CopyFrom(user_list->fdset);
}

void RelayInput(DescriptorSet* fdset) {
  int high_sock = -1;
  if (!CopyUserSockets(&high_sock, fdset)) {
    ReportOutOfMemory(kLoop);
    return;
  }
  if (CheckForUserInput(high_sock, fdset) == 0) return;
  const WriteLock lock(ul_lock, CallSite{kLoop, __LINE__});
  ProcessUserInput(*fdset);
}

void LookForVanished(Throttle* looks) {
  if (!looks->IsDue()) return;
  const ReadLock lock(ul_lock, CallSite{kLoop, __LINE__});
  user_mon::LookForVanishedUsers();
}

// Empties queues. A user whose connection failed meanwhile is found by that.
void SendWaiting() {
  if (!SendWaitingOutput()) return;
  const ReadLock lock(ul_lock, CallSite{kLoop, __LINE__});
  for (UserNode* unode : Nodes(*user_list)) {
    if (unode->output->HasFailed()) CloseUserConnection(unode, "The connection failed.");
  }
}

// Whoever marks a user wakes this thread afterwards; while nobody does, there is no need to look.
bool AnyUserMarked(unsigned* wakes_seen) {
  const ReadLock lock(ul_lock, CallSite{kLoop, __LINE__});
  return user_mon_waker.WokenSince(wakes_seen) && user_mon::CheckForClosedConnections();
}

void RemoveMarkedUsers() {
  const WriteLockPair lock(ul_lock, acl_lock, Release::kFirstFirst, CallSite{kLoop, __LINE__});
  user_mon::CleanUpClosedConnections();
}

}  // namespace

void* UserMonitorThreadStart(void* /*unused*/) {
  RegisterThread("user_mon");
  ENTERING();
  BlockSignal(SIGTERM);
  MonitorUserInput();
}

void MonitorUserInput() {
  ENTERING();
  user_mon_waker.Beside(UserOutputsDescriptor());
  DescriptorSet fdset;
  unsigned wakes_seen = 0;
  Throttle looks(kVanishedLookInterval);
  for (;;) {
    ParkIfAsked(kPauseUserMon);
    usleep(kPassPause);
    RelayInput(&fdset);
    SendWaiting();
    LookForVanished(&looks);
    if (AnyUserMarked(&wakes_seen)) RemoveMarkedUsers();
    closing_outputs.CloseDone();
  }
}

int CheckForUserInput(int high_sock, DescriptorSet* fdset) {
  ENTERING();
  timeval timeout = kSelectLimit;
  closing_outputs.Shorten(&timeout);
  zev_debug(kTrace, "%s: Calling select( %d + 1, fdset, 0, 0, (%d,%d))\n", __func__, high_sock,
            static_cast<int>(timeout.tv_sec), static_cast<int>(timeout.tv_usec));
  const int ready = WaitForMembers(high_sock, *fdset, user_mon_waker, &timeout, WatchOf(user_list));
  if (ready < 0) {
    zev_debug(kError, "%s: select() failed : %s\n", __func__, strerror(errno));
    TERMINATE(kTerminated);
  }
  return ready != 0 ? 1 : 0;
}

void ProcessUserInput(const DescriptorSet& fdset) {
  ENTERING();
  ForEachReady(*user_list, fdset, HasWaitedLonger, ReadUser);
}

namespace user_mon {

void LookForVanishedUsers() {
  ENTERING();
  for (UserNode* unode : Nodes(*user_list)) {
    if (unode->connected == 0 || !HasVanished(unode->sock)) continue;
    zev_debug(kInfo, "%s: User \"%s\" on console \"%s\" has vanished.\n", __func__,
              unode->user_name, unode->cons_name);
    CloseUserConnection(unode, "The user vanished.");
  }
}

bool CheckForClosedConnections() {
  ENTERING();
  return FindNode(*user_list, IsMarked) != nullptr;
}

UserNode* GetClosedConnection() {
  ENTERING();
  return FindNode(*user_list, IsMarked);
}

void CleanUpClosedConnections() {
  ENTERING();
  for (UserNode* unode = GetClosedConnection(); unode != nullptr; unode = GetClosedConnection()) {
    RemoveUser(unode);
  }
}

}  // namespace user_mon

}  // namespace zevd
