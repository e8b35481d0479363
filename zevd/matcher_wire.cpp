#include "matcher_wire.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

namespace zevd {

bool SendToMatcher(int sock, const MatcherHeader& header, std::string_view text, int flags) {
  iovec parts[] = {
      {const_cast<MatcherHeader*>(&header), sizeof header},
      {const_cast<char*>(text.data()), std::min(text.size(), MatcherMessage::kTextSize)}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  ssize_t sent = -1;
  do {
    sent = sendmsg(sock, &message, flags | MSG_NOSIGNAL);
  } while (sent == -1 && errno == EINTR);
  return sent != -1;
}

Received ReceiveFromMatcher(int sock, MatcherMessage* message, int flags) {
  iovec parts[] = {{&message->header, sizeof message->header},
                   {message->text, sizeof message->text}};
  msghdr wanted{};
  wanted.msg_iov = parts;
  wanted.msg_iovlen = 2;
  ssize_t count = -1;
  do {
    count = recvmsg(sock, &wanted, flags);
  } while (count == -1 && errno == EINTR);
  if (count == -1 && errno == EAGAIN) return Received::kNothing;
  if (count < static_cast<ssize_t>(sizeof message->header)) return Received::kEnd;
  message->length = static_cast<size_t>(count) - sizeof message->header;
  return Received::kMessage;
}

}  // namespace zevd
