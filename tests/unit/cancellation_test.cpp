// How a thread that waits for its client is asked to end.
#include "cancellation.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <vector>

#include "relay_support.h"
#include "util.h"

using namespace zevd;

namespace {

/// A thread that cannot be cancelled, except where a reader lets it.
class Uncancellable {
 public:
  template <typename Body>
  explicit Uncancellable(Body body) : body_(body) {
    EXPECT_EQ(pthread_create(&thread_, nullptr, Start, this), 0);
  }

  void Cancel() { CancelServiceThread(thread_); }

  /// True when the thread was cancelled.
  bool Join() {
    void* result = nullptr;
    pthread_join(thread_, &result);
    return result == PTHREAD_CANCELED;
  }

 private:
  static void* Start(void* self) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    static_cast<Uncancellable*>(self)->body_();
    return nullptr;
  }

  std::function<void()> body_;
  pthread_t thread_{};
};

class CancellationTest : public test::RelayTest {
 protected:
  int sock() const { return pair_.ours.get(); }

  test::SocketPair pair_;
};

TEST_F(CancellationTest, ThreadsAreCancelledWhileTheyWait) {
  char buf[16];
  const std::vector<std::function<void()>> readers = {
      [&] { ReadLine(sock(), buf, sizeof buf); },
      [&] { ReadLineWithTimeout(sock(), buf, sizeof buf, 60); },
      [&] { ReadCharAtATimeWithTimeout(sock(), buf, sizeof buf, 1, 60); },
      [&] { ReadCharAtATimeWithTimeout(sock(), buf, sizeof buf, 1, 0); },
  };
  for (const auto& reader : readers) {
    Uncancellable thread(reader);
    thread.Cancel();
    EXPECT_TRUE(thread.Join());
  }
}

TEST_F(CancellationTest, CancellationStateIsRestored) {
  test::SendText(pair_.theirs.get(), "one\ntwo\n");
  int state = -1;
  Uncancellable thread([&] {
    char buf[16];
    ReadLine(sock(), buf, sizeof buf);
    ReadCharAtATimeWithTimeout(sock(), buf, sizeof buf, 1, 10);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  });
  EXPECT_FALSE(thread.Join());
  EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
}

}  // namespace
