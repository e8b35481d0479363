// Lists of users; the record itself is in user.h.
#pragma once

#include <cstdint>

#include "list.h"

namespace zevd {

struct UserNode;

struct UserListElem {
  UserNode* unode;
  UserListElem* prev;
  UserListElem* next;
  uint64_t place;  ///< grows from head to tail
};

/// Users of one console (guarded as the console is) or of the whole daemon (guarded by ul_lock).
using UserList = SocketList<UserListElem, &UserListElem::unode>;

}  // namespace zevd
