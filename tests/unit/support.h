// What most unit tests share, in one.
#pragma once

#include "daemon_support.h"
#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "lists.h"
#include "options.h"
#include "relay_support.h"
#include "socket_support.h"
