#include "lists.h"

#include <cstddef>
#include <new>

#include "error.h"
#include "list.h"
#include "user.h"

namespace zevd {

namespace {

// Room for a list that needs no memory of its own and is never destroyed: threads may still use it
// while the process ends.
template <typename L>
struct Room {
  alignas(L) std::byte bytes[sizeof(L)];
  L* Make() { return new (bytes) L; }
};

Room<ConsoleList> room_of_a_cons_list;
Room<ConsoleList> room_of_i_cons_list;
Room<UserList> room_of_user_list;
Room<CommandList> room_of_cmd_list;
Room<EventSetList> room_of_ev_list;
Room<MappedPortList> room_of_mapped_port_list;

}  // namespace

ConsoleList* const a_cons_list = room_of_a_cons_list.Make();
ConsoleList* const i_cons_list = room_of_i_cons_list.Make();
UserList* const user_list = room_of_user_list.Make();
CommandList* const cmd_list = room_of_cmd_list.Make();
EventSetList* const ev_list = room_of_ev_list.Make();
MappedPortList* const mapped_port_list = room_of_mapped_port_list.Make();
ModelList model_list;

void InitializeLists() {
  InitConsoleList(a_cons_list, "a_cons_list");
  InitConsoleList(i_cons_list, "i_cons_list");
  InitUserList(user_list, "user_list");
  InitCommandList(cmd_list, "cmd_list");
  InitEventSetList(ev_list, "ev_list");
  InitMappedPortList(mapped_port_list, "mapped_port_list");
  WatchMembers(a_cons_list);
  WatchMembers(user_list);
  WatchMembers(mapped_port_list);
}

namespace {

constexpr char kLookUp[] = "GetConsoleNodeFromMappedPort";

ConsoleNode* FindByMappedPort(uint16_t port) REQUIRES(acl_lock, icl_lock) {
  const auto has_port = [&](const ConsoleNode& cnode) { return cnode.mapped_port == port; };
  ConsoleNode* cnode = FindNode(*i_cons_list, has_port);
  return cnode != nullptr ? cnode : FindNode(*a_cons_list, has_port);
}

}  // namespace

ConsoleNode* GetConsoleNodeFromMappedPort(uint16_t port) {
  ENTERING();
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, HERE);
  return FindByMappedPort(port);
}

bool CopyMappedConsole(uint16_t port, MappedConsole* copy) {
  ENTERING_AS(kLookUp);
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, CallSite{kLookUp, __LINE__});
  const ConsoleNode* cnode = FindByMappedPort(port);
  if (cnode == nullptr) return false;
  CopyText(copy->cname, cnode->cname);
  copy->status = cnode->status;
  copy->auth = cnode->auth;
  copy->locked_exclusively = IsLockedExclusively(cnode);
  return true;
}

}  // namespace zevd
