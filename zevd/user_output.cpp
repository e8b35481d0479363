#include "user_output.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "clock.h"
#include "counters.h"

namespace zevd {

namespace {

constexpr int kMostAtOnce = 8;
constexpr int64_t kSendingTime = 1000;  // microseconds
constexpr size_t kTurn = size_t{16} << 10;
constexpr int64_t kClosingTime = kMicrosecondsPerSecond;

/// Names the sockets that have room again.
int rooms = -1;

/// Held while events of `rooms` are dealt with, so that no output is freed meanwhile; a queue's own
/// mutex may be taken inside.
Mutex rooms_mutex;

bool ControlRoom(int operation, int sock, uint32_t events, UserOutput* output) {
  epoll_event event{};
  event.events = events;
  event.data.ptr = output;
  return epoll_ctl(rooms, operation, sock, &event) == 0;
}

}  // namespace

bool OpenUserOutputs() {
  rooms = epoll_create1(EPOLL_CLOEXEC);
  return rooms != -1;
}

int UserOutputsDescriptor() {
  return rooms;
}

// ---- One user -----------------------------------------------------------------------------------

UserOutput::~UserOutput() {
  if (!watched_) return;
  const MutexLock lock(rooms_mutex);
  ControlRoom(EPOLL_CTL_DEL, sock_, 0, this);
}

bool UserOutput::Watch() {
  // Tells of errors once; what it waits for comes later.
  watched_ = ControlRoom(EPOLL_CTL_ADD, sock_, EPOLLONESHOT, this);
  return watched_;
}

void UserOutput::AwaitRoom() {
  ControlRoom(EPOLL_CTL_MOD, sock_, EPOLLOUT | EPOLLONESHOT, this);
}

// Sends as much as there is room for. False when the connection has failed.
bool UserOutput::SendNow(const char** bytes, size_t* count) {
  const ssize_t sent = TEMP_FAILURE_RETRY(send(sock_, *bytes, *count, MSG_DONTWAIT));
  if (sent < 0) return errno == EAGAIN;
  const auto taken = static_cast<size_t>(sent);
  queue_.NoteSent(*bytes, taken);
  *bytes += taken;
  *count -= taken;
  return true;
}

void UserOutput::CountLeftOut(size_t count) {
  if (count == 0) return;
  counters.bytes_not_shown.Add(count);
  if (!slow_) counters.slow_readers.Add();
  slow_ = true;
}

bool UserOutput::Send(const char* bytes, size_t count) {
  const MutexLock lock(mutex_);
  // The input monitor has found that or is about to; it must not cost the users after this one
  // anything.
  if (failed_) return true;
  const bool waited = !queue_.IsEmpty();
  if (!waited && !SendNow(&bytes, &count)) return false;
  if (count == 0) return true;
  CountLeftOut(queue_.Append(bytes, count));
  if (!waited) AwaitRoom();
  return true;
}

bool UserOutput::IsEmpty() {
  const MutexLock lock(mutex_);
  return queue_.IsEmpty();
}

bool UserOutput::HasFailed() {
  const MutexLock lock(mutex_);
  return failed_;
}

namespace {

// Leaves no more than so many bytes in the message.
void Shorten(msghdr* message, size_t most) {
  for (size_t i = 0; i < message->msg_iovlen; ++i) {
    iovec& piece = message->msg_iov[i];
    piece.iov_len = std::min(piece.iov_len, most);
    most -= piece.iov_len;
  }
}

}  // namespace

// Sends for one turn. False when the connection has failed.
bool UserOutput::SendFromQueue() {
  const MutexLock lock(mutex_);
  for (size_t left = kTurn; left > 0 && !queue_.IsEmpty();) {
    iovec pieces[OutputQueue::kPieces];
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = static_cast<size_t>(queue_.Front(pieces));
    Shorten(&message, left);
    const ssize_t sent = TEMP_FAILURE_RETRY(sendmsg(sock_, &message, MSG_DONTWAIT));
    if (sent < 0 && errno == EAGAIN) break;
    if (sent < 0) {
      failed_ = true;
      queue_.Clear();
      return false;
    }
    queue_.Consume(static_cast<size_t>(sent));
    left -= std::min(left, static_cast<size_t>(sent));
  }
  if (!queue_.IsEmpty()) AwaitRoom();
  return true;
}

// ---- All users ----------------------------------------------------------------------------------

bool SendWaitingOutput() {
  const int64_t end = MonotonicMicroseconds() + kSendingTime;
  bool failed = false;
  const MutexLock lock(rooms_mutex);
  for (;;) {
    epoll_event events[kMostAtOnce];
    const int count = epoll_wait(rooms, events, kMostAtOnce, 0);
    for (int i = 0; i < count; ++i) {
      if (!static_cast<UserOutput*>(events[i].data.ptr)->SendFromQueue()) failed = true;
    }
    if (count <= 0 || MonotonicMicroseconds() >= end) return failed;
  }
}

// ---- Users who have left the lists --------------------------------------------------------------

namespace {

// Input that nobody has read would make the kernel take back what was sent last (RFC 1122,
// section 4.2.2.13).
void ThrowInputAway(int sock) {
  constexpr size_t kPart = size_t{1} << 20;
  constexpr int kMostParts = 8;  // more than a socket holds; who goes on typing must not keep us
  for (int i = 0; i < kMostParts; ++i) {
    if (recv(sock, nullptr, kPart, MSG_DONTWAIT | MSG_TRUNC) <= 0) return;
  }
}

}  // namespace

void ClosingOutputs::Close(UserOutput* output) {
  const int sock = output->sock_;
  delete output;  // nothing looks after the socket any longer
  ThrowInputAway(sock);
  close(sock);
}

void ClosingOutputs::Add(std::unique_ptr<UserOutput> output) {
  UserOutput* added = output.release();
  if (added->IsEmpty()) return Close(added);
  added->close_at_ = MonotonicMicroseconds() + kClosingTime;
  added->next_ = first_;
  first_ = added;
}

void ClosingOutputs::CloseDone() {
  if (first_ == nullptr) return;
  const int64_t now = MonotonicMicroseconds();
  for (UserOutput** link = &first_; *link != nullptr;) {
    UserOutput* output = *link;
    if (now < output->close_at_ && !output->IsEmpty()) {
      link = &output->next_;
    } else {
      *link = output->next_;
      Close(output);
    }
  }
}

void ClosingOutputs::Shorten(timeval* wait) const {
  int64_t longest = wait->tv_sec * kMicrosecondsPerSecond + wait->tv_usec;
  const int64_t now = MonotonicMicroseconds();
  for (const UserOutput* output = first_; output != nullptr; output = output->next_) {
    longest = std::clamp<int64_t>(output->close_at_ - now, 0, longest);
  }
  wait->tv_sec = longest / kMicrosecondsPerSecond;
  wait->tv_usec = longest % kMicrosecondsPerSecond;
}

}  // namespace zevd
