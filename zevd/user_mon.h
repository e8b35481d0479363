// The user input monitor: forwards what users type and is the only place where users are removed.
#pragma once

namespace zevd {

void* UserMonitorThreadStart(void* unused);

}  // namespace zevd
