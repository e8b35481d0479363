#include "util.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "cancellation.h"
#include "clock.h"
#include "error.h"
#include "liveness.h"
#include "telnet_bytes.h"
#include "user.h"

namespace zevd {

namespace {

constexpr unsigned char kFirstCommand = 128;  // lower bytes begin no telnet command

constexpr unsigned char kEtx = 3;
constexpr unsigned char kBackspace = 8;
constexpr unsigned char kLineFeed = 10;
constexpr unsigned char kCarriageReturn = 13;
constexpr unsigned char kDelete = 127;

constexpr int64_t kAfterCarriageReturn = 100;  // microseconds to wait for the rest of a line end

constexpr time_t kLookForPeer = 10;  // seconds between checks that a silent client is still there

// Waits until `sock` has something to read. poll() takes descriptors of any number, select() does
// not. Returns what ppoll() does.
int PollReadable(int sock, int64_t limit_us, const sigset_t* mask) {
  pollfd readable = {sock, POLLIN, 0};
  const timespec limit = {limit_us / kMicrosecondsPerSecond,
                          limit_us % kMicrosecondsPerSecond * 1000};
  return ppoll(&readable, 1, &limit, mask);
}

// For the short waits for bytes that come at once or not at all.
int WaitReadable(int sock, int64_t limit_us) {
  return PollReadable(sock, limit_us, nullptr);
}

// The same for a client, who may take long: the calling thread can be cancelled meanwhile. The
// signal that ends the wait is unblocked only during the wait, so it cannot come too early. A
// cancelled thread ends in EndIfCancelled() and never inside a system call.
int WaitForClient(int sock, int64_t limit_us) {
  const sigset_t while_waiting = BlockedWhileWaiting();
  const int64_t deadline = MonotonicMicroseconds() + limit_us;
  for (;;) {
    const int64_t left = std::max<int64_t>(deadline - MonotonicMicroseconds(), 0);
    const int ready = PollReadable(sock, left, &while_waiting);
    if (ready >= 0 || errno != EINTR) return ready;
    EndIfCancelled();
  }
}

int ReadError() {
  SetUserError(kReadError);
  return -1;
}

// 0 when there is input, -2 when there was none for `wait_time` seconds (0 or less: no limit), -1
// when the client has vanished: one who takes a prompt and goes would hold a login place for long.
int AwaitInput(int sock, time_t wait_time) {
  for (time_t waited = 0; wait_time <= 0 || waited < wait_time; waited += kLookForPeer) {
    const time_t part = wait_time <= 0 ? kLookForPeer : std::min(wait_time - waited, kLookForPeer);
    const int ready = WaitForClient(sock, part * kMicrosecondsPerSecond);
    if (ready < 0) {
      DEBUG_AS("ReadLineWithTimeout", kError, "select() failed : %s\n", strerror(errno));
      TERMINATE(kTerminated);
    }
    if (ready > 0) return 0;
    if (HasVanished(sock)) return ReadError();
  }
  SetUserError(kTimedOut);
  return -2;
}

// Looks at up to `size` bytes without consuming them.
int Peek(int sock, char* buf, int size) {
  const ssize_t count = recv(sock, buf, static_cast<size_t>(size), MSG_PEEK);
  if (count <= 0) {
    DEBUG_AS("ReadLineWithTimeout", kDetail, "recv() returned %d : %s\n", static_cast<int>(count),
             strerror(errno));
  }
  return static_cast<int>(count);
}

bool TakeByte(int sock, char* byte) {
  return recv(sock, byte, 1, 0) == 1;
}

void SendByte(int sock, unsigned char byte) {
  send(sock, &byte, 1, 0);
}

/// The state of one character-at-a-time read.
class LineEditor {
 public:
  LineEditor(int sock, char* buf, int size, bool echo)
      : sock_(sock), buf_(buf), size_(size), echo_(echo) {}

  int count() const { return count_; }
  bool interrupted() const { return interrupted_; }

  /// Handles up to `available` bytes, ending at a line end. False when a read fails.
  bool Take(int available) {
    bool line_ended = false;
    for (int taken = 0; taken < available && count_ < size_ - 1 && !line_ended; ++taken) {
      char byte = 0;
      if (!TakeByte(sock_, &byte)) return false;
      line_ended = Handle(static_cast<unsigned char>(byte));
    }
    return true;
  }

  /// True when the line is complete: a line end is stored or the buffer is full. A carriage return
  /// on its own is answered with a line feed.
  bool Complete() {
    if (count_ == 0) return false;
    if (count_ == size_ - 1) return true;
    if (buf_[count_ - 1] == kCarriageReturn) {
      SendByte(sock_, kLineFeed);
      return true;
    }
    return buf_[count_ - 1] == kLineFeed;
  }

  void Terminate() { buf_[count_] = '\0'; }

 private:
  // True when the byte ends the line.
  bool Handle(unsigned char byte) {
    switch (byte) {
      case kLineFeed:
        EchoAndStore(byte);
        return true;
      case kCarriageReturn:
        EchoAndStore(byte);
        FinishCarriageReturn();
        return true;
      case kBackspace:
      case kDelete:
        Erase();
        return false;
      case kEtx:
        Interrupt();
        return true;
      default:
        if (echo_) SendByte(sock_, byte);
        Store(byte);
        return false;
    }
  }

  void Store(unsigned char byte) {
    if (count_ < size_ - 1) buf_[count_++] = static_cast<char>(byte);
  }

  void EchoAndStore(unsigned char byte) {
    SendByte(sock_, byte);
    Store(byte);
  }

  // A telnet client ends a line with CR LF or CR NUL (RFC 854); the second byte mostly comes at
  // once.
  void FinishCarriageReturn() {
    char byte = 0;
    if (WaitReadable(sock_, kAfterCarriageReturn) <= 0) return;
    if (recv(sock_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 1) return;
    if (byte != kLineFeed && byte != '\0') return;
    TakeByte(sock_, &byte);
    if (byte != kLineFeed) return;
    Store(kLineFeed);
    // Kept: what is echoed is the first byte of the line, not the line feed. That byte of a
    // password must not be shown.
    if (echo_) SendByte(sock_, static_cast<unsigned char>(buf_[0]));
  }

  // The erasure is shown even when the typing is not.
  void Erase() {
    if (count_ == 0) return;
    SendByte(sock_, kBackspace);
    SendByte(sock_, ' ');
    SendByte(sock_, kBackspace);
    --count_;
  }

  void Interrupt() {
    count_ = 0;
    interrupted_ = true;
    SendByte(sock_, kCarriageReturn);
    SendByte(sock_, kLineFeed);
  }

  int sock_;
  char* buf_;
  int size_;
  bool echo_;
  int count_ = 0;
  bool interrupted_ = false;
};

/// Which byte of a telnet command comes next.
enum class TelnetState { kCommandStart, kCommand, kOption };

// True when `byte` belongs to the run of commands; moves `state` on.
bool ContinuesTelnetSequence(unsigned char byte, TelnetState* state) {
  switch (*state) {
    case TelnetState::kCommandStart:
      if (byte != telnet::kIac) return false;
      *state = TelnetState::kCommand;
      return true;
    case TelnetState::kCommand:
      if (byte < kFirstCommand) return false;
      *state = byte >= telnet::kWill && byte <= telnet::kDont ? TelnetState::kOption
                                                              : TelnetState::kCommandStart;
      return true;
    case TelnetState::kOption:
      *state = TelnetState::kCommandStart;
      return true;
  }
  return false;
}

// All waits for telnet bytes share one second for the life of the process; once it is used up, they
// only look. A negotiation follows the connection at once, so one that is late would only keep
// everybody waiting.
bool TelnetByteReady(int sock) {
  static std::atomic<int64_t> time_left{kMicrosecondsPerSecond};
  const int64_t begin = MonotonicMicroseconds();
  const int64_t limit = time_left;
  const int ready = WaitReadable(sock, limit);
  const int64_t slept = MonotonicMicroseconds() - begin;
  time_left = ready == 0 ? 0 : std::max<int64_t>(limit - slept, 0);
  return ready > 0;
}

}  // namespace

int ReadLineWithTimeout(int sock, char* buf, int size, time_t wait_time) {
  ENTERING();
  const int waited = AwaitInput(sock, wait_time);
  if (waited != 0) return waited;
  const int seen = Peek(sock, buf, size);
  if (seen <= 0) return -1;
  int count = 0;
  while (count < seen && count < size - 1) {
    if (!TakeByte(sock, &buf[count])) return ReadError();
    ++count;
    if (buf[count - 1] == kLineFeed) break;
  }
  buf[count] = '\0';
  return 0;
}

int ReadLine(int sock, char* buf, int size) {
  ENTERING();
  return ReadLineWithTimeout(sock, buf, size, 0);
}

int ReadCharAtATimeWithTimeout(int sock, char* buf, int size, int echo, time_t wait_time) {
  // The debug lines of this reader carry the name of the line reader.
  ENTERING_AS("ReadLineWithTimeout");
  LineEditor line(sock, buf, size, echo != 0);
  do {
    const int waited = AwaitInput(sock, wait_time);
    if (waited != 0) return waited;
    const int seen = Peek(sock, buf + line.count(), size - line.count());
    if (seen <= 0) return -1;
    if (static_cast<unsigned char>(buf[0]) == telnet::kIac) {
      DrainTelnetControlSequence(sock, buf, size);
      return 0;
    }
    if (!line.Take(seen)) return ReadError();
  } while (!line.interrupted() && !line.Complete());
  line.Terminate();
  return 0;
}

void DrainTelnetControlSequence(int sock, char* telnet_cmd, int size) {
  ENTERING();
  int count = 0;
  TelnetState state = TelnetState::kCommandStart;
  while (TelnetByteReady(sock)) {
    char byte = 0;
    if (recv(sock, &byte, 1, MSG_PEEK) != 1) break;
    if (!ContinuesTelnetSequence(static_cast<unsigned char>(byte), &state)) break;
    telnet_cmd[count++] = byte;
    if (!TakeByte(sock, &byte)) break;
    if (count == size - 1) {
      zev_debug(kInfo, "%s: Too many telnet characters. Buffer full\n", __func__);
      break;
    }
  }
  telnet_cmd[count] = '\0';
}

}  // namespace zevd
