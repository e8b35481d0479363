#include "console_users.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "error.h"
#include "journal_records.h"
#include "list.h"
#include "options.h"
#include "user_output.h"
#include "waker.h"

namespace zevd {

namespace {

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
    if (!unode->output->Send(banner, strlen(banner))) {
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
  JournalPause(cnode);
}

namespace {

void CloseAfterFailedSend(const char* function, const ConsoleNode* cnode, UserNode* unode) {
  DEBUG_AS(function, kInfo, "send() from console \"%s\" failed : %s\n", cnode->cname,
           strerror(errno));
  CloseUserConnection(unode, "The connection failed.");
}

}  // namespace

// ---- Output -------------------------------------------------------------------------------------

void SendConsoleOutputToUsers(ConsoleNode* cnode, const char* buf, int nbytes) {
  ENTERING();
  // Kept: once a send has failed, so does that to every user after this one, as the result of a
  // send is the length for the next.
  bool failed = false;
  for (UserNode* unode : Nodes(*cnode->user_list)) {
    if (failed) {
      errno = EFAULT;  // what the system answers to a negative length
    } else {
      failed = !unode->output->Send(buf, static_cast<size_t>(nbytes));
    }
    if (failed) CloseAfterFailedSend(__func__, cnode, unode);
  }
}

void BufferConsoleOutput(ConsoleNode* cnode, const char* chars, int count) {
  ENTERING();
  if (cons_buf_size == 0) return;
  ConsoleBuffer& ring = cnode->cons_buf;
  // Bytes that are overwritten before anybody can be sent them need not be written at all.
  const int32_t skipped = std::max(0, count - (cons_buf_size - 1));
  const auto after = [](int32_t index, int32_t bytes) {
    return static_cast<int32_t>((int64_t{index} + bytes) % cons_buf_size);
  };
  const int32_t held = after(ring.tail, cons_buf_size - ring.head);
  const int32_t written = count - skipped;
  const int32_t start = after(ring.tail, skipped);
  const int32_t straight = std::min(written, cons_buf_size - start);
  memcpy(ring.buf + start, chars + skipped, static_cast<size_t>(straight));
  memcpy(ring.buf, chars + skipped + straight, static_cast<size_t>(written - straight));
  ring.tail = after(ring.tail, count);
  // One cell stays free, so that a full ring does not look like an empty one.
  if (int64_t{held} + count > cons_buf_size - 1) ring.head = after(ring.tail, 1);
}

void SendBufferedConsoleOutputToUser(const ConsoleNode* cnode, UserNode* unode) {
  ENTERING();
  if (cons_buf_size == 0) return;
  const ConsoleBuffer& ring = cnode->cons_buf;
  const bool wraps = ring.tail < ring.head;
  const int32_t end = wraps ? cons_buf_size : ring.tail;
  const auto send_part = [&](int32_t from, int32_t to) {
    return from == to || unode->output->Send(ring.buf + from, static_cast<size_t>(to - from));
  };
  if (send_part(ring.head, end) && send_part(0, wraps ? ring.tail : 0)) return;
  CloseAfterFailedSend(__func__, cnode, unode);
}

}  // namespace zevd
