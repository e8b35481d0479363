#include "console_users.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "error.h"
#include "list.h"
#include "options.h"
#include "sockets.h"
#include "stall.h"
#include "waker.h"

namespace zevd {

namespace {

// How long a user may keep a console's output from its other users and its log. One who is alive on
// a slow line gets longer than one who takes nothing.
constexpr StallLimits kUserStall = {.idle = 400, .no_room = 5000};

constexpr char kTookNothing[] = "The user took no output.";
constexpr char kSendFailed[] = "The connection failed.";

constexpr char kStars[] = "***************************************";  // 39
constexpr char kBells[] = "\a\a\a\a\a";

}  // namespace

// ---- Messages and closing -----------------------------------------------------------------------

void FormatBanner(char* banner, size_t size, const char* message) {
  snprintf(banner, size, "%s\r\n\r\n%s%s\r\n\r\n%s\r\n\r\n%s%s\r\n\r\n", kBells, kStars, kStars,
           message, kStars, kStars);
}

void SendMsgToUsers(ConsoleNode* cnode, const char* message) {
  ENTERING();
  char banner[kMessageBufferSize];
  FormatBanner(banner, sizeof banner, message);
  for (const UserNode* unode : Nodes(*cnode->user_list)) {
    if (send(unode->sock, banner, strlen(banner), MSG_DONTWAIT) < 0) {
      zev_debug(kInfo, "%s: send() failed : %s\n", __func__, strerror(errno));
      zev_debug(kInfo, "%s: Message not sent to \"%s@%s\".\n", __func__, unode->user_name,
                unode->ipaddr);
    } else {
      zev_debug(kInfo, "%s: The following message was sent to \"%s@%s\": %s\n", __func__,
                unode->user_name, unode->ipaddr, banner);
    }
  }
}

void CloseUserConnection(UserNode* unode, const char* reason) {
  ENTERING();
  const char* none = nullptr;
  unode->close_reason.compare_exchange_strong(none, reason);
  unode->connected = 0;
  user_mon_waker.Wake();
}

void CloseUserConnections(ConsoleNode* cnode, const char* reason) {
  ENTERING();
  for (UserNode* unode : Nodes(*cnode->user_list)) CloseUserConnection(unode, reason);
  DropElements(*cnode->user_list);
}

// ---- Output -------------------------------------------------------------------------------------

bool UsersHaveRoom(ConsoleNode* cnode) {
  bool room = true;
  for (UserNode* unode : Nodes(*cnode->user_list)) {
    if (HasSendRoom(unode->sock)) {
      unode->output_stall.End();
      continue;
    }
    room = false;
    if (unode->connected != 0 && unode->output_stall.IsTooLong(unode->sock, kUserStall)) {
      DEBUG_AS("SendConsoleOutputToUsers", kInfo, "send() from console \"%s\" failed : %s\n",
               cnode->cname, strerror(EAGAIN));
      CloseUserConnection(unode, kTookNothing);
    }
  }
  return room;
}

void SendConsoleOutputToUsers(ConsoleNode* cnode, const char* buf, int nbytes) {
  ENTERING();
  // Kept: the length that one user took is the length that the next is offered.
  ssize_t length = nbytes;
  for (UserNode* unode : Nodes(*cnode->user_list)) {
    if (length < 0) {
      // What the system would answer to a negative length. Passed on, the length would count as a
      // huge one, and the memory after the chunk would be sent out.
      errno = EFAULT;
    } else {
      length = TEMP_FAILURE_RETRY(send(unode->sock, buf, static_cast<size_t>(length), 0));
    }
    if (length < 0) {
      zev_debug(kInfo, "%s: send() from console \"%s\" failed : %s\n", __func__, cnode->cname,
                strerror(errno));
      CloseUserConnection(unode, kSendFailed);
    }
  }
}

void BufferConsoleOutput(ConsoleNode* cnode, const char* chars, int count) {
  ENTERING();
  if (cons_buf_size == 0) return;
  ConsoleBuffer& ring = cnode->cons_buf;
  const auto advance = [](int32_t index) { return index == cons_buf_size - 1 ? 0 : index + 1; };
  for (int i = 0; i < count; ++i) {
    ring.buf[ring.tail] = chars[i];
    ring.tail = advance(ring.tail);
    if (ring.tail == ring.head) ring.head = advance(ring.head);
  }
}

void SendBufferedConsoleOutputToUser(const ConsoleNode* cnode, UserNode* unode) {
  ENTERING();
  if (cons_buf_size == 0) return;
  const ConsoleBuffer& ring = cnode->cons_buf;
  SendBudget budget;
  for (int32_t i = ring.head, next = 0; i != ring.tail; i = next) {
    next = i == cons_buf_size - 1 ? 0 : i + 1;
    // Kept: one byte a call, but not one byte a packet.
    if (budget.Send(unode->sock, &ring.buf[i], 1, next == ring.tail ? 0 : MSG_MORE) < 0) {
      zev_debug(kInfo, "%s: send() from console \"%s\" failed : %s\n", __func__, cnode->cname,
                strerror(errno));
      CloseUserConnection(unode, kSendFailed);
      return;
    }
  }
}

}  // namespace zevd
