// The steps of the queries, for the file itself and for its tests.
#pragma once

#include "console.h"

namespace zevd {

/// The two bytes of a console's mode; the caller holds the list's lock.
void GetHighPrecedModeCode(const ConsoleNode* cnode, char (&mode)[2]);

/// 1 when a user named "VRQ", who is hidden from the answers, is attached in mode 4, else 0. The
/// caller holds the list's lock.
int IsVrqUserConnectedERMode(const ConsoleNode* cnode);

}  // namespace zevd
