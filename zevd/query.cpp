#include "query.h"

#include <strings.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "answer.h"
#include "command_wire.h"
#include "error.h"
#include "list.h"
#include "lists.h"
#include "locks.h"
#include "models.h"
#include "query_steps.h"
#include "user.h"

namespace zevd {

namespace {

constexpr char kVrqUser[] = "VRQ";
constexpr char kUnknownHolder[] = "Unknown";
constexpr char kHolderMode[2] = {'5', '\0'};

bool IsVrq(const UserNode* unode) {
  return strcasecmp(unode->user_name, kVrqUser) == 0;
}

void CodeFromDigit(int digit, char (&code)[2]) {
  char text[3];
  snprintf(text, sizeof text, "%d", digit);
  code[0] = text[0];
  code[1] = text[1];
}

size_t AllConsoles() REQUIRES_SHARED(acl_lock, icl_lock) {
  return static_cast<size_t>(a_cons_list->count) + static_cast<size_t>(i_cons_list->count);
}

void FillConsolePacket(const ConsoleNode* cnode, const char (&status)[2], const char (&mode)[2],
                       size_t index) {
  PacketWriter(Record(index, kConsolePacketSize))
      .Text(cnode->cname, kWireNameWidth)
      .Text(cnode->ipaddr, kWireNameWidth)
      .Number16(cnode->cons_port)
      .Number16(cnode->mgmt_port)
      .Text(cnode->model, kWireNameWidth)
      .Text(cnode->pname, kWireNameWidth)
      .Code(status)
      .Code(mode);
}

void AppendAccessible(const ConsoleNode* cnode, size_t index) {
  char status[2];
  char mode[2];
  GetStatusCode(cnode, status);
  GetHighPrecedModeCode(cnode, mode);
  // Only a hidden user is attached.
  if (status[0] == '1' && mode[0] == '0' && IsVrqUserConnectedERMode(cnode) != 0) status[0] = '0';
  FillConsolePacket(cnode, status, mode, index);
}

void AppendInaccessible(const ConsoleNode* cnode, size_t index) {
  char status[2];
  GetStatusCode(cnode, status);
  FillConsolePacket(cnode, status, {'0', '\0'}, index);
}

void FillMappedPortPacket(const ConsoleNode* cnode, size_t index) {
  PacketWriter(Record(index, kMappedPortPacketSize))
      .Text(cnode->cname, kWireNameWidth)
      .Text(cnode->ipaddr, kWireNameWidth)
      .Number16(cnode->cons_port)
      .Number16(cnode->mapped_port)
      .Number16(static_cast<uint32_t>(cnode->auth));
}

void FillUserPacket(const char* user_name, const char* ipaddr, const char (&mode)[2],
                    size_t index) {
  PacketWriter(Record(index, kUserPacketSize))
      .Text(user_name, kWireUserNameWidth)
      .Text(ipaddr, kWireNameWidth)
      .Code(mode);
}

// Appends the users of one console after the first `count` records. False when out of memory.
bool AppendUsers(const ConsoleNode* cnode, size_t* count) {
  const auto users = Nodes(*cnode->user_list);
  size_t most = *count;
  for ([[maybe_unused]] const UserNode* unode : users) ++most;
  if (!MakeRoom(most, kUserPacketSize)) return false;
  for (const UserNode* unode : users) {
    if (IsVrq(unode)) continue;
    char mode[2];
    CodeFromDigit(unode->mode, mode);
    FillUserPacket(unode->user_name, unode->ipaddr, mode, (*count)++);
  }
  return true;
}

// True when another client holds the console's management session.
bool IsHeldElsewhere(const ConsoleNode* cnode) {
  return IsPellox(cnode->model, &model_list) != 0 && cnode->status == kRefused;
}

}  // namespace

void GetStatusCode(const ConsoleNode* cnode, char (&status)[2]) {
  ENTERING();
  const char* code = "99";
  if (cnode->status == kConnected) {
    code = cnode->user_list->head != nullptr ? "1" : "0";
  } else if (cnode->enable == 0) {
    code = "5";
  } else if (cnode->status == kNotConnected) {
    code = "2";
  } else if (cnode->status == kRefused) {
    code = "3";
  } else if (cnode->status == kInProgress) {
    code = "4";
  }
  status[0] = code[0];
  status[1] = code[1];
}

void GetHighPrecedModeCode(const ConsoleNode* cnode, char (&mode)[2]) {
  ENTERING();
  int code = 0;
  for (const UserNode* unode : Nodes(*cnode->user_list)) {
    if (unode->mode == kExclusiveRevocable && IsVrq(unode)) continue;
    code = unode->mode;
    if (unode->mode != kReadOnly) break;
  }
  CodeFromDigit(code, mode);
}

int IsVrqUserConnectedERMode(const ConsoleNode* cnode) {
  ENTERING();
  const UserNode* hidden = FindNode(*cnode->user_list, [](const UserNode& unode) {
    return unode.mode == kExclusiveRevocable && IsVrq(&unode);
  });
  return hidden != nullptr ? 1 : 0;
}

namespace {

// Puts the record of a console behind `index` others.
using Append = void (*)(const ConsoleNode* cnode, size_t index);

// Sets the answer to a record for each console of that name. False when out of memory, which is
// then the answer.
bool SetAnswer(const char* cons_name, size_t record_size, Append accessible, Append inaccessible)
    REQUIRES_SHARED(acl_lock, icl_lock) {
  const size_t most = AllConsoles();
  if (most > 0 && !MakeRoom(most, record_size)) {
    AnswerOutOfMemory();
    return false;
  }
  size_t count = 0;
  for (const ConsoleNode* cnode : Nodes(*a_cons_list)) {
    if (IsCalled(*cnode, cons_name)) accessible(cnode, count++);
  }
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (IsCalled(*cnode, cons_name)) inaccessible(cnode, count++);
  }
  AnswerRecords(count);
  return true;
}

// The same under both locks; reports what failed once it has released them.
void AnswerConsoles(const char* cons_name, size_t record_size, Append accessible,
                    Append inaccessible, CallSite site) {
  bool answered = false;
  {
    const ReadLockPair lock(icl_lock, acl_lock, Release::kSecondFirst, site);
    answered = SetAnswer(cons_name, record_size, accessible, inaccessible);
  }
  if (!answered) ReportOutOfMemory(site.function);
}

}  // namespace

void ProcessConsoleCommand(const char* cons_name) {
  ENTERING();
  AnswerConsoles(cons_name, kConsolePacketSize, AppendAccessible, AppendInaccessible, HERE);
}

void ProcessWhoCommand(const char* cons_name) {
  ENTERING();
  ReadLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, HERE);
  size_t count = 0;
  for (const ConsoleNode* cnode : Nodes(*a_cons_list)) {
    if (!IsCalled(*cnode, cons_name)) continue;
    if (cnode->user_list->head == nullptr) break;  // kept: others of the name are not looked at
    if (!AppendUsers(cnode, &count)) {
      AnswerOutOfMemory();
      lock.ReleaseFirstAndKeepSecondForEver();  // kept: icl_lock stays read-locked
      ReportOutOfMemory(__func__);
      return;
    }
  }
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (!IsCalled(*cnode, cons_name) || !IsHeldElsewhere(cnode)) continue;
    if (!MakeRoom(count + 1, kUserPacketSize)) {
      AnswerOutOfMemory();
      lock.ReleaseSecondAndKeepFirstForEver();  // kept: acl_lock stays read-locked
      ReportOutOfMemory(__func__);
      return;
    }
    FillUserPacket(kUnknownHolder, cnode->pellox_port_holder_ipaddr, kHolderMode, count++);
  }
  AnswerRecords(count);
}

void ProcessMappedPortCommand(const char* cons_name) {
  ENTERING();
  AnswerConsoles(cons_name, kMappedPortPacketSize, FillMappedPortPacket, FillMappedPortPacket,
                 HERE);
}

// ---- Management ports ---------------------------------------------------------------------------

namespace {

constexpr char kOwnAddress[] = "127.0.0.1";

/// What came of the question who holds a port. The answer is set in each case; reports about it
/// wait until the locks are released.
enum class HolderOutcome { kTold, kNotTold, kOutOfMemory };

HolderOutcome DoNotTell(const char* text) {
  AnswerError(text);
  return HolderOutcome::kNotTold;
}

HolderOutcome GiveUpForMemory() {
  AnswerOutOfMemory();
  return HolderOutcome::kOutOfMemory;
}

// Puts `address` after the first `count` records. False when out of memory.
bool AppendHolder(const char* address, size_t* count) {
  if (!MakeRoom(*count + 1, kPortHolderAddressPacketSize)) return false;
  PacketWriter(Record((*count)++, kPortHolderAddressPacketSize)).Text(address, kWireNameWidth);
  return true;
}

// What the last refusal said of an inaccessible console.
HolderOutcome AnswerRecordedHolder(const ConsoleNode* cnode) {
  size_t count = 0;
  if (IsPellox(cnode->model, &model_list) == 0) return DoNotTell("Not a Pellox console.");
  if (cnode->pellox_port_holder_ipaddr[0] == '\0') {
    return DoNotTell("Unable to connect to remote host, possibly bad port number.");
  }
  if (!AppendHolder(cnode->pellox_port_holder_ipaddr, &count)) return GiveUpForMemory();
  AnswerRecords(count);
  return HolderOutcome::kTold;
}

// The daemon itself holds the port of a connected console, for its first user if it has one.
HolderOutcome AnswerOwnHolder(const char* cons_name) REQUIRES(icl_lock, acl_lock) {
  size_t count = 0;
  for (const ConsoleNode* cnode : Nodes(*a_cons_list)) {
    if (!IsCalled(*cnode, cons_name)) continue;
    const UserListElem* first = cnode->user_list->head;
    const char* address = first == nullptr ? kOwnAddress : first->unode->ipaddr;
    if (!AppendHolder(address, &count)) return GiveUpForMemory();
    if (first == nullptr) break;
  }
  if (count == 0) {
    AnswerUnrecognized(cons_name);
    return HolderOutcome::kNotTold;
  }
  AnswerRecords(count);
  return HolderOutcome::kTold;
}

HolderOutcome AnswerHolder(const char* cons_name) REQUIRES(icl_lock, acl_lock) {
  const ConsoleNode* inaccessible = FindByAnyCase(i_cons_list, cons_name);
  return inaccessible != nullptr ? AnswerRecordedHolder(inaccessible) : AnswerOwnHolder(cons_name);
}

}  // namespace

void PelloxPortHolder(const char* cons_name) {
  ENTERING();
  HolderOutcome outcome = HolderOutcome::kTold;
  {
    const WriteLockPair lock(icl_lock, acl_lock, Release::kFirstFirst, HERE);
    outcome = AnswerHolder(cons_name);
  }
  if (outcome == HolderOutcome::kNotTold) LogError(__func__);
  if (outcome == HolderOutcome::kOutOfMemory) ReportOutOfMemory(__func__);
}

}  // namespace zevd
