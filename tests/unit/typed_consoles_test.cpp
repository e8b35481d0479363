// The pause that ends when a console answers at which a user has just typed.
#include "typed_consoles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "clock.h"
#include "failure_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using test::Call;
using test::FailCall;
using test::SendText;
using test::SocketPair;

constexpr int64_t kPause = 200'000;  // microseconds
constexpr std::chrono::microseconds kNearlyWhole(kPause * 95 / 100);
constexpr int64_t kEchoTime = TypedConsoles::kEchoTime * 1000;

class TypedConsolesTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(typed_.Open()); }

  /// True when a pause lasts as long as it shall, false when an echo ends it.
  bool PauseIsWhole() const {
    const auto start = std::chrono::steady_clock::now();
    typed_.Pause(kPause);
    return std::chrono::steady_clock::now() - start >= kNearlyWhole;
  }

  TypedConsoles typed_;
  SocketPair console_;  // `theirs` prints
};

TEST_F(TypedConsolesTest, PauseWithoutConsolesIsWhole) {
  EXPECT_TRUE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, ConsoleThatIsSilentDoesNotEndThePause) {
  typed_.Typed(console_.ours.get());
  EXPECT_TRUE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, EchoEndsThePause) {
  const test::FakePassageOfTime time(1);
  typed_.Typed(console_.ours.get());
  std::thread echo([&] { SendText(console_.theirs.get(), "x"); });
  const auto start = std::chrono::steady_clock::now();
  typed_.Pause(999'999);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  echo.join();
}

TEST_F(TypedConsolesTest, OnlyConsolesAtWhichSomebodyTypedCount) {
  const test::FakePassageOfTime time(1);
  const SocketPair other;
  typed_.Typed(other.ours.get());
  SendText(console_.theirs.get(), "x");
  EXPECT_TRUE(PauseIsWhole());
  SendText(other.theirs.get(), "x");
  EXPECT_FALSE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, AnswerIsAnEchoForATenthOfASecond) {
  test::FakePassageOfTime time(1);
  SendText(console_.theirs.get(), "x");
  typed_.Typed(console_.ours.get());
  time.Pass(kEchoTime - 1000);
  EXPECT_FALSE(PauseIsWhole());
  time.Pass(2000);
  EXPECT_TRUE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, LaterKeyProlongsTheTime) {
  test::FakePassageOfTime time(1);
  SendText(console_.theirs.get(), "x");
  for (int key = 0; key < 3; ++key) {
    typed_.Typed(console_.ours.get());
    time.Pass(kEchoTime - 1000);
  }
  EXPECT_FALSE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, ConsoleThatPrintsUnaskedIsForgottenUntilTheNextKey) {
  test::FakePassageOfTime time(1);
  SendText(console_.theirs.get(), "x");
  typed_.Typed(console_.ours.get());
  time.Pass(kEchoTime + 2000);
  test::FakeClock clock;
  EXPECT_TRUE(PauseIsWhole());
  EXPECT_EQ(clock.sleeps().size(), 1U);  // the rest of a pause that it ended
  EXPECT_TRUE(PauseIsWhole());
  EXPECT_EQ(clock.sleeps().size(), 1U);
  typed_.Typed(console_.ours.get());
  EXPECT_FALSE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, RestOfThePauseIsNotWatched) {
  const SocketPair quick;
  test::FakePassageOfTime time(1);
  SendText(console_.theirs.get(), "x");
  typed_.Typed(console_.ours.get());
  time.Pass(kEchoTime + 2000);
  typed_.Typed(quick.ours.get());
  std::thread echo([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    SendText(quick.theirs.get(), "x");
  });
  EXPECT_TRUE(PauseIsWhole());
  echo.join();
  EXPECT_FALSE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, EchoAmongManyThatPrintUnaskedEndsThePause) {
  std::vector<SocketPair> others(70);  // more than one look finds
  test::FakePassageOfTime time(1);
  for (const SocketPair& other : others) {
    SendText(other.theirs.get(), "x");
    typed_.Typed(other.ours.get());
  }
  time.Pass(kEchoTime + 2000);
  typed_.Typed(console_.ours.get());
  SendText(console_.theirs.get(), "x");
  int whole = 0;
  while (PauseIsWhole()) ASSERT_LT(++whole, 2);
}

// The kernel keeps the lower half of the time.
TEST_F(TypedConsolesTest, TimeMayPassAPowerOfTwo) {
  test::FakePassageOfTime time(1);
  constexpr int64_t kWrap = (int64_t{1} << 32) * 1000;
  time.Pass(kWrap - MonotonicMicroseconds() % kWrap - kEchoTime / 2);
  SendText(console_.theirs.get(), "x");
  typed_.Typed(console_.ours.get());
  EXPECT_FALSE(PauseIsWhole());
  time.Pass(kEchoTime - 1000);
  EXPECT_FALSE(PauseIsWhole());
  time.Pass(2000);
  EXPECT_TRUE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, ClosedConsoleIsForgotten) {
  typed_.Typed(console_.ours.get());
  SendText(console_.theirs.get(), "x");
  console_.ours.Reset();
  EXPECT_TRUE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, WithoutMemoryForItAnEchoWaits) {
  {
    const FailCall failure(Call::kEpollCtl, ENOMEM, 2, 1);
    typed_.Typed(console_.ours.get());
    EXPECT_EQ(failure.calls(), 2);  // it is not known yet, and then not taken
  }
  SendText(console_.theirs.get(), "x");
  EXPECT_TRUE(PauseIsWhole());
}

TEST_F(TypedConsolesTest, InterruptedPauseIsWhole) {
  const FailCall failure(Call::kPpoll, EINTR, 1, 1);
  EXPECT_TRUE(PauseIsWhole());
  EXPECT_EQ(failure.calls(), 1);
}

TEST(TypedConsolesOpenTest, FailsWithoutADescriptor) {
  const FailCall failure(Call::kEpollCreate, EMFILE);
  TypedConsoles typed;
  EXPECT_FALSE(typed.Open());
  EXPECT_EQ(errno, EMFILE);
}

TEST(TypedConsolesOpenTest, PauseTakesPlaceWithoutIt) {
  const TypedConsoles typed;
  const SocketPair console;
  typed.Typed(console.ours.get());
  const auto start = std::chrono::steady_clock::now();
  typed.Pause(kPause);
  EXPECT_GE(std::chrono::steady_clock::now() - start, kNearlyWhole);
}

}  // namespace
