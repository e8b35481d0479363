// What waits for one user: the bound, what is left out when it is reached, and the marks.
#include "output_queue.h"

#include <gtest/gtest.h>
#include <sys/uio.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "daemon_support.h"
#include "failure_support.h"
#include "long_text_support.h"
#include "options.h"
#include "random_patterns.h"

using namespace zevd;

namespace {

using namespace std::string_literals;
using test::AreSame;
using test::FailAllocation;
using test::LongLines;
using test::LongText;

constexpr size_t kMebibyte = size_t{1} << 20;

/// The room that a queue has without any memory.
constexpr size_t kInside = 2 * TelnetScan::kLongestCommand;

std::string Mark(uint64_t count) {
  return "\r\n[zevd: " + std::to_string(count) + " bytes were not shown]\r\n";
}

class OutputQueueTest : public ::testing::Test {
 protected:
  OutputQueueTest() { cons_buf_size = 0; }

  size_t Append(std::string_view bytes) { return queue_.Append(bytes.data(), bytes.size()); }

  /// The same while all memory is refused.
  size_t AppendWithoutMemory(std::string_view bytes) {
    const FailAllocation failure(1, FailAllocation::kForEver);
    return Append(bytes);
  }

  /// What Front() names, at most so many bytes of it.
  std::string Front(size_t most = SIZE_MAX) {
    iovec pieces[OutputQueue::kPieces];
    std::string front;
    const int count = queue_.Front(pieces);
    EXPECT_LE(count, OutputQueue::kPieces);
    EXPECT_EQ(count == 0, queue_.IsEmpty());
    for (int i = 0; i < count; ++i) {
      EXPECT_GT(pieces[i].iov_len, 0U);
      const size_t part = std::min(pieces[i].iov_len, most - front.size());
      front.append(static_cast<const char*>(pieces[i].iov_base), part);
    }
    return front;
  }

  /// Sends so many bytes of what waits, or all of it.
  std::string Send(size_t count) {
    const std::string sent = Front(count);
    queue_.Consume(sent.size());
    return sent;
  }

  std::string SendAll() {
    std::string all;
    while (!queue_.IsEmpty()) all += Send(SIZE_MAX);
    return all;
  }

  /// Bytes that need not wait.
  void SendDirectly(std::string_view bytes) { queue_.NoteSent(bytes.data(), bytes.size()); }

  test::OptionsGuard options_;
  OutputQueue queue_;
};

// ---- What comes out is what went in -------------------------------------------------------------

TEST_F(OutputQueueTest, NewQueueIsEmpty) {
  EXPECT_TRUE(queue_.IsEmpty());
  EXPECT_TRUE(AreSame(Front(), ""));
}

TEST_F(OutputQueueTest, BytesComeOutInTheirOrder) {
  EXPECT_EQ(Append("login: "), 0U);
  EXPECT_EQ(Append("\0\xFF\xFF\r\n"s), 0U);
  EXPECT_FALSE(queue_.IsEmpty());
  EXPECT_TRUE(AreSame(Send(3), "log"));
  EXPECT_TRUE(AreSame(SendAll(), "in: \0\xFF\xFF\r\n"s));
  EXPECT_TRUE(queue_.IsEmpty());
}

TEST_F(OutputQueueTest, NothingAppendedIsNothing) {
  EXPECT_EQ(Append(""), 0U);
  EXPECT_TRUE(queue_.IsEmpty());
  queue_.Consume(0);
  EXPECT_TRUE(queue_.IsEmpty());
}

TEST_F(OutputQueueTest, RingWrapsAndGrowsInEveryPosition) {
  const std::string text = LongText(200'000);
  for (const size_t sent : {1U, 100U, 255U, 4000U, 4095U, 4096U}) {
    SCOPED_TRACE(sent);
    std::string received;
    EXPECT_EQ(Append(text.substr(0, 4096)), 0U);
    received += Send(sent);
    EXPECT_EQ(Append(text.substr(4096, sent)), 0U);  // to the brim of the first ring
    EXPECT_EQ(Append(text.substr(4096 + sent)), 0U);
    EXPECT_TRUE(AreSame(received + SendAll(), text));
  }
}

TEST_F(OutputQueueTest, ClearedQueueIsEmptyAndGoesOn) {
  Append(LongText(2 * kMebibyte));
  Send(5);
  queue_.Clear();
  EXPECT_TRUE(queue_.IsEmpty());
  EXPECT_TRUE(AreSame(Front(), ""));
  EXPECT_EQ(Append("abc"), 0U);
  EXPECT_TRUE(AreSame(SendAll(), "abc"));
}

// ---- The bound of one queue ---------------------------------------------------------------------

TEST_F(OutputQueueTest, AMebibyteWaits) {
  const std::string text = LongText(kMebibyte);
  EXPECT_EQ(Append(text), 0U);
  EXPECT_TRUE(AreSame(SendAll(), text));
  for (size_t i = 0; i < kMebibyte; i += 1024) EXPECT_EQ(Append(text.substr(i, 1024)), 0U);
  EXPECT_TRUE(AreSame(SendAll(), text));
}

TEST_F(OutputQueueTest, WhatWaitedLongestIsLeftOutAndCounted) {
  const std::string text = LongText(kMebibyte + 1000);
  EXPECT_EQ(Append(text), 1000U);
  EXPECT_TRUE(AreSame(SendAll(), Mark(1000) + text.substr(1000)));
}

TEST_F(OutputQueueTest, AppendLongerThanTheQueueLeavesItsEnd) {
  const std::string text = LongText(5 * kMebibyte);
  EXPECT_EQ(Append(text), 4 * kMebibyte);
  EXPECT_TRUE(AreSame(SendAll(), Mark(4 * kMebibyte) + text.substr(4 * kMebibyte)));
}

TEST_F(OutputQueueTest, CountGrowsUntilTheMarkHasBegun) {
  const std::string text = LongText(kMebibyte + 30);
  Append(text.substr(0, kMebibyte));
  EXPECT_EQ(Append(text.substr(kMebibyte, 9)), 9U);
  EXPECT_TRUE(AreSame(Front(), Mark(9) + text.substr(9, kMebibyte)));
  EXPECT_EQ(Append(text.substr(kMebibyte + 9, 1)), 1U);
  EXPECT_TRUE(AreSame(Front(), Mark(10) + text.substr(10, kMebibyte)));
  EXPECT_EQ(Append(text.substr(kMebibyte + 10, 20)), 20U);
  EXPECT_TRUE(AreSame(SendAll(), Mark(30) + text.substr(30)));
}

TEST_F(OutputQueueTest, ReplayLongerThanAMebibyteFits) {
  cons_buf_size = 3'000'000;
  const std::string replay = LongText(3'000'000);
  EXPECT_EQ(Append(replay), 0U);
  EXPECT_EQ(Append("x"), 1U);
  EXPECT_TRUE(AreSame(SendAll(), Mark(1) + replay.substr(1) + "x"));
}

TEST_F(OutputQueueTest, ShorterReplayChangesNothing) {
  for (const int size : {-1, 1, 2048}) {
    cons_buf_size = size;
    EXPECT_EQ(Append(LongText(kMebibyte)), 0U);
    EXPECT_EQ(Append("x"), 1U);
    SendAll();
  }
}

// ---- Marks --------------------------------------------------------------------------------------

TEST_F(OutputQueueTest, MarkThatHasBegunIsSentWholeAndTheNextGapComesLater) {
  const std::string text = LongText(kMebibyte + 1000);
  for (size_t part = 1; part <= Mark(100).size(); ++part) {
    SCOPED_TRACE(part);
    Append(text.substr(0, kMebibyte + 100));
    EXPECT_TRUE(AreSame(Send(part), Mark(100).substr(0, part)));
    EXPECT_EQ(Append(text.substr(kMebibyte + 100, 900)), 900U);
    // 4096 bytes after the first mark stands the second.
    EXPECT_TRUE(AreSame(SendAll(), Mark(100).substr(part) + text.substr(100, 4096) + Mark(900) +
                                       text.substr(100 + 4096 + 900)));
    SendDirectly(LongText(4096));  // so that the next mark may come at once again
  }
}

TEST_F(OutputQueueTest, OutputBetweenMarksCountsFromTheEndOfTheMark) {
  const std::string text = LongText(kMebibyte + 1000);
  Append(text.substr(0, kMebibyte + 100));
  EXPECT_TRUE(AreSame(Send(Mark(100).size() + 3000), Mark(100) + text.substr(100, 3000)));
  EXPECT_EQ(Append(text.substr(kMebibyte + 100)), 0U);  // there is room
  EXPECT_EQ(Append(LongText(3000)), 900U);
  EXPECT_TRUE(AreSame(Send(SIZE_MAX), text.substr(3100, 1096)));
  EXPECT_TRUE(AreSame(SendAll(), Mark(900) + text.substr(3100 + 1096 + 900) + LongText(3000)));
}

TEST_F(OutputQueueTest, OutputThatDidNotWaitCountsBetweenMarksToo) {
  const std::string text = LongText(kMebibyte + 1);
  Append(text);
  EXPECT_TRUE(AreSame(Send(Mark(1).size()), Mark(1)));
  queue_.Clear();
  SendDirectly(LongText(4000));
  EXPECT_EQ(Append(text), 1U);
  EXPECT_TRUE(AreSame(SendAll(), text.substr(0, 96) + Mark(1) + text.substr(97)));
}

TEST_F(OutputQueueTest, GapThatHasNotBeenReachedGrowsInItsPlace) {
  const std::string text = LongText(2 * kMebibyte);
  Append(text.substr(0, kMebibyte + 1));
  EXPECT_TRUE(AreSame(Send(Mark(1).size()), Mark(1)));
  EXPECT_EQ(Append(text.substr(kMebibyte + 1, 10)), 10U);
  EXPECT_TRUE(AreSame(Send(96), text.substr(1, 96)));
  EXPECT_EQ(Append(text.substr(kMebibyte + 11, 100)), 4U);  // 96 of them have room
  EXPECT_TRUE(AreSame(Send(SIZE_MAX), text.substr(97, 4000)));
  EXPECT_TRUE(AreSame(SendAll(), Mark(14) + text.substr(1 + 4096 + 14, kMebibyte - 4000)));
}

TEST_F(OutputQueueTest, NewGapEndsBehindALineEndThatIsNear) {
  const std::string text = LongLines(kMebibyte + 5);
  const size_t left_out = text.find('\n') + 1;
  ASSERT_GT(left_out, 5U);
  EXPECT_EQ(Append(text), left_out);
  EXPECT_TRUE(AreSame(SendAll(), Mark(left_out) + text.substr(left_out)));
}

TEST_F(OutputQueueTest, GapIsProlongedToALineEndByFourKibibytesAtMost) {
  for (const size_t line_end : {1U, 4095U, 4096U, 4097U}) {
    SCOPED_TRACE(line_end);
    std::string text = LongText(kMebibyte + 10);
    text[10 + line_end - 1] = '\n';
    const size_t left_out = line_end <= 4096 ? 10 + line_end : 10;
    EXPECT_EQ(Append(text), left_out);
    EXPECT_TRUE(AreSame(SendAll(), Mark(left_out) + text.substr(left_out)));
  }
}

TEST_F(OutputQueueTest, GapThatEndsBehindALineIsNotProlonged) {
  std::string text = LongText(kMebibyte + 10);
  text[9] = '\n';
  text[20] = '\n';
  EXPECT_EQ(Append(text), 10U);
  EXPECT_TRUE(AreSame(SendAll(), Mark(10) + text.substr(10)));
}

// ---- Telnet commands ----------------------------------------------------------------------------

const std::vector<std::string>& Commands() {
  static const std::vector<std::string> commands = {
      "\xFF\xF1", "\xFF\xFF", "\xFF\xFB\x01", "\xFF\xFA\x18vt\n\xFF\xFF\n\xFF\xF0",
      "\xFF\xFA" + std::string(TelnetScan::kLongestCommand - 4, 's') + "\xFF\xF0"};
  return commands;
}

TEST_F(OutputQueueTest, GapNeverEndsInsideACommand) {
  for (const std::string& command : Commands()) {
    for (size_t cut = 0; cut <= command.size(); ++cut) {
      SCOPED_TRACE(::testing::PrintToString(command) + " after " + std::to_string(cut));
      // So many bytes too many that without the rule the gap would end there.
      const std::string text = command + LongText(kMebibyte + cut - command.size());
      const size_t left_out = cut == 0 ? 0 : command.size();
      EXPECT_EQ(Append(text), left_out);
      EXPECT_TRUE(AreSame(SendAll(), (cut == 0 ? "" : Mark(left_out)) + text.substr(left_out)));
    }
  }
}

TEST_F(OutputQueueTest, LineEndInsideACommandIsNoEndOfAGap) {
  const std::string command = "\xFF\xFA\x18vt\n\xFF\xF0";
  const std::string text = "ab" + command + LongText(kMebibyte - 1 - command.size());
  EXPECT_EQ(Append(text), 1U);
  EXPECT_TRUE(AreSame(SendAll(), Mark(1) + text.substr(1)));
}

TEST_F(OutputQueueTest, CommandOfWhichAPartWasSentIsSentWhole) {
  for (const bool waited : {false, true}) {
    for (const std::string& command : Commands()) {
      for (size_t cut = 1; cut <= command.size(); ++cut) {
        SCOPED_TRACE(::testing::PrintToString(command) + " after " + std::to_string(cut));
        if (waited) {
          Append(command);
          EXPECT_TRUE(AreSame(Send(cut), command.substr(0, cut)));
        } else {
          SendDirectly(command.substr(0, cut));
          Append(command.substr(cut));
        }
        const std::string text = LongText(kMebibyte);
        const size_t left_out = Append(text);
        EXPECT_EQ(left_out, command.size() - cut);
        const std::string mark = left_out == 0 ? "" : Mark(left_out);
        EXPECT_TRUE(AreSame(SendAll(), command.substr(cut) + mark + text.substr(left_out)));
      }
    }
  }
}

// In a short queue the gap comes as far as to a command of which a part is there. When the rest has
// come, all of it may be left out.
TEST_F(OutputQueueTest, CommandThatHasNotComeWholeIsNotCut) {
  for (const std::string& command : Commands()) {
    for (size_t cut = 1; cut < command.size(); ++cut) {
      SCOPED_TRACE(::testing::PrintToString(command) + " after " + std::to_string(cut));
      const std::string before = LongText(kInside - cut);
      const std::string after = LongText(kInside + 1 - command.size());
      EXPECT_EQ(AppendWithoutMemory(before + command.substr(0, cut)), 0U);
      const size_t left_out = before.size() + command.size();
      EXPECT_EQ(AppendWithoutMemory(command.substr(cut) + after), left_out);
      EXPECT_TRUE(AreSame(SendAll(), Mark(left_out) + after));
    }
  }
}

// ---- Memory -------------------------------------------------------------------------------------

TEST_F(OutputQueueTest, WithoutMemoryTheRoomIsInside) {
  const std::string text = LongText(kInside + 1);
  EXPECT_EQ(AppendWithoutMemory(text.substr(0, kInside)), 0U);
  EXPECT_EQ(AppendWithoutMemory(text.substr(kInside)), 1U);
  EXPECT_TRUE(AreSame(SendAll(), Mark(1) + text.substr(1)));
}

TEST_F(OutputQueueTest, QueueGrowsByLessWhenMemoryIsShort) {
  const std::string text = LongText(kMebibyte / 2);
  size_t left_out = 0;
  {
    const FailAllocation failure(1, 1);
    left_out = Append(text);
  }
  EXPECT_EQ(left_out, kMebibyte / 4);
  EXPECT_TRUE(AreSame(SendAll(), Mark(left_out) + text.substr(left_out)));
}

TEST_F(OutputQueueTest, QueueGrowsOnceThereIsMemoryAgain) {
  const std::string text = LongText(100'000);
  EXPECT_EQ(AppendWithoutMemory(text.substr(0, 300)), 300 - kInside);
  EXPECT_EQ(Append(text.substr(300)), 0U);
  EXPECT_TRUE(AreSame(SendAll(), Mark(300 - kInside) + text.substr(300 - kInside)));
}

// A queue that cannot grow may be too short to keep marks apart.
TEST_F(OutputQueueTest, QueueOfAnySizeGoesOnWithoutMemory) {
  constexpr size_t kFirstRing = 4096;
  for (size_t size = kInside; size <= 65536; size *= 2) {
    SCOPED_TRACE(size);
    const std::string text = LongText(4 * size);
    {
      const int refused = std::countr_zero(std::max(kFirstRing / size, size_t{1}));
      const FailAllocation failure(1, refused);  // until so much is asked for
      EXPECT_EQ(Append(std::string_view(text).substr(0, size)), 0U);
    }
    EXPECT_EQ(AppendWithoutMemory(text.substr(size, 20)), 20U);
    std::string received = Send(1);  // a mark has begun
    AppendWithoutMemory(text.substr(size + 20, size - 20));
    AppendWithoutMemory(text.substr(2 * size));
    received += SendAll();
    EXPECT_TRUE(received.starts_with(Mark(20)));
    EXPECT_TRUE(received.ends_with(text.substr(text.size() - 50)));
    SendDirectly(LongText(4096));
  }
}

TEST_F(OutputQueueTest, MemoryIsGivenBackWhenAllIsSent) {
  const std::string text = LongText(kMebibyte);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(Append(text), 0U);
    EXPECT_TRUE(AreSame(SendAll(), text));
    // Without what it had it is as short as a new queue.
    EXPECT_EQ(AppendWithoutMemory(text), text.size() - kInside);
    SendAll();
  }
}

// ---- The bound of all queues --------------------------------------------------------------------

class ManyQueuesTest : public OutputQueueTest {
 protected:
  using Queues = std::vector<std::unique_ptr<OutputQueue>>;

  // So many further queues, with `bytes` appended to each. Returns what was left out.
  static size_t Fill(Queues* queues, size_t count, const std::string& bytes) {
    size_t left_out = 0;
    for (size_t i = 0; i < count; ++i) {
      queues->push_back(std::make_unique<OutputQueue>());
      left_out += queues->back()->Append(bytes.data(), bytes.size());
    }
    return left_out;
  }

  // How many bytes a new queue takes without leaving anything out.
  static size_t RoomOfAnother() {
    const std::string text(kMebibyte, 'x');
    OutputQueue queue;
    return text.size() - queue.Append(text.data(), text.size());
  }
};

// 64 MiB, of which 16 KiB of each queue do not count.
constexpr size_t kCountedOfAFullQueue = kMebibyte - (size_t{16} << 10);
constexpr size_t kFullQueues = 64 * kMebibyte / kCountedOfAFullQueue;  // 65

TEST_F(ManyQueuesTest, AllQueuesTogetherHaveABound) {
  const std::string text(kMebibyte, 'x');
  Queues queues;
  EXPECT_EQ(Fill(&queues, kFullQueues, text), 0U);
  const size_t left = 64 * kMebibyte - kFullQueues * kCountedOfAFullQueue;
  ASSERT_EQ(left, size_t{16} << 10);
  EXPECT_EQ(RoomOfAnother(), left + (size_t{16} << 10));
}

TEST_F(ManyQueuesTest, SixteenKibibytesOfEachDoNotCount) {
  Queues queues;
  Fill(&queues, kFullQueues + 1, std::string(kMebibyte, 'x'));
  while (RoomOfAnother() > 16384) Fill(&queues, 1, std::string(32768, 'x'));
  EXPECT_EQ(Fill(&queues, 300, std::string(16384, 'x')), 0U);
  EXPECT_EQ(RoomOfAnother(), 16384U);
}

TEST_F(ManyQueuesTest, MemoryOfQueuesThatWereSentClearedOrDestroyedIsAvailableAgain) {
  const std::string text(kMebibyte, 'x');
  Queues queues;
  Fill(&queues, kFullQueues, text);
  EXPECT_LT(RoomOfAnother(), kMebibyte);
  queues.pop_back();
  EXPECT_EQ(RoomOfAnother(), kMebibyte);
  Fill(&queues, 1, text);
  EXPECT_LT(RoomOfAnother(), kMebibyte);
  queues.back()->Clear();
  EXPECT_EQ(RoomOfAnother(), kMebibyte);
  queues.back()->Append(text.data(), text.size());
  EXPECT_LT(RoomOfAnother(), kMebibyte);
  iovec pieces[OutputQueue::kPieces];
  EXPECT_GT(queues.back()->Front(pieces), 0);
  queues.back()->Consume(kMebibyte);
  EXPECT_TRUE(queues.back()->IsEmpty());
  EXPECT_EQ(RoomOfAnother(), kMebibyte);
}

TEST_F(ManyQueuesTest, RefusedMemoryIsNotCounted) {
  const std::string text = LongText(kMebibyte);
  for (int round = 0; round < 200; ++round) {
    AppendWithoutMemory(text);
    queue_.Clear();
  }
  Queues queues;
  EXPECT_EQ(Fill(&queues, kFullQueues, std::string(kMebibyte, 'x')), 0U);
}

// ---- Random sizes -------------------------------------------------------------------------------

/// What a console prints, in pieces, and where it may be cut.
class RandomOutput {
 public:
  explicit RandomOutput(test::Dice* dice) : dice_(*dice), may_be_cut_{true} {}

  const std::string& all() const { return all_; }
  bool MayBeCutAt(size_t place) const { return may_be_cut_[place]; }

  // The next `count` bytes; commands may go on in later ones.
  std::string Next(size_t count) {
    while (made_ + count > all_.size()) Make();
    made_ += count;
    return all_.substr(made_ - count, count);
  }

  // The bytes that Next() has returned.
  std::string_view printed() const { return std::string_view(all_).substr(0, made_); }

 private:
  void Make() {
    if (dice_.OneIn(3)) {
      const std::string command = RandomCommand();
      all_ += command;
      may_be_cut_.resize(all_.size(), false);
    } else {
      all_.append(dice_.Below(200), static_cast<char>('a' + dice_.Below(26)));
      if (dice_.OneIn(2)) all_ += "\r\n";
      may_be_cut_.resize(all_.size(), true);
    }
    may_be_cut_.push_back(true);
  }

  std::string RandomCommand() {
    if (!dice_.OneIn(4)) return dice_.Choose(Commands());
    std::string inside(dice_.Below(60), '\n');
    for (char& byte : inside) byte = static_cast<char>(dice_.Below(255));
    return "\xFF\xFA" + inside + "\xFF\xF0";
  }

  test::Dice& dice_;
  std::string all_;
  std::vector<bool> may_be_cut_;  // before the byte with this number, or at the end
  size_t made_ = 0;
};

/// Goes over what was received, and puts what the marks count in their places.
class Receipt {
 public:
  Receipt(const RandomOutput& output, std::string_view received) {
    constexpr std::string_view kBegin = "\r\n[zevd: ";
    const std::string_view printed = output.printed();
    for (;;) {
      const size_t text = std::min(received.find(kBegin), received.size());
      matches_ = matches_ && received.substr(0, text) == printed.substr(place_, text);
      place_ += text;
      received.remove_prefix(text);
      if (received.empty()) break;
      shortest_between_ = marks_ == 0 ? shortest_between_ : std::min(shortest_between_, text);
      const size_t count = std::stoull(std::string(received.substr(kBegin.size(), 20)));
      const std::string mark = Mark(count);
      torn_ = torn_ || !output.MayBeCutAt(place_) || !output.MayBeCutAt(place_ + count);
      matches_ = matches_ && received.substr(0, mark.size()) == mark;
      received.remove_prefix(std::min(mark.size(), received.size()));
      place_ += count;
      left_out_ += count;
      ++marks_;
    }
    matches_ = matches_ && place_ == printed.size();
  }

  bool Matches() const { return matches_; }
  bool TearsACommand() const { return torn_; }
  size_t left_out() const { return left_out_; }
  int marks() const { return marks_; }
  size_t shortest_between() const { return shortest_between_; }

 private:
  size_t place_ = 0;
  bool matches_ = true;
  bool torn_ = false;
  size_t left_out_ = 0;
  int marks_ = 0;
  size_t shortest_between_ = SIZE_MAX;
};

/// How one random test goes.
struct RandomCase {
  const char* name;
  size_t longest_append;
  size_t longest_send;
  int rounds;
  size_t memory_fails_in;  // one in so many appends; 0 for none
  int fewest_marks;        // so that the test is seen to reach what it is about
};

class RandomSizesTest : public OutputQueueTest, public ::testing::WithParamInterface<RandomCase> {
 protected:
  size_t AppendNext(RandomOutput* output, test::Dice* dice) {
    const RandomCase& run = GetParam();
    const std::string next = output->Next(dice->Below(run.longest_append));
    const bool fails = run.memory_fails_in != 0 && dice->OneIn(run.memory_fails_in);
    const FailAllocation failure(1, fails ? FailAllocation::kForEver : 0);
    return Append(next);
  }

  // As the daemon does it: bytes go past an empty queue as long as there is room.
  size_t Print(RandomOutput* output, test::Dice* dice, std::string* received) {
    if (!queue_.IsEmpty() || dice->OneIn(3)) return AppendNext(output, dice);
    const std::string direct = output->Next(dice->Below(300));
    SendDirectly(direct);
    *received += direct;
    return 0;
  }
};

TEST_P(RandomSizesTest, NothingIsLostUncountedAndNoCommandIsTorn) {
  const RandomCase& run = GetParam();
  test::Dice dice(test::Seed());
  RandomOutput output(&dice);
  std::string received;
  size_t left_out = 0;
  for (int round = 0; round < run.rounds; ++round) {
    left_out += Print(&output, &dice, &received);
    if (dice.OneIn(2)) received += Send(dice.Below(run.longest_send));
    if (dice.OneIn(200)) received += SendAll();
  }
  received += SendAll();
  const Receipt receipt(output, received);
  EXPECT_TRUE(receipt.Matches());
  EXPECT_FALSE(receipt.TearsACommand());
  EXPECT_EQ(receipt.left_out(), left_out);
  EXPECT_GE(receipt.marks(), run.fewest_marks);
  const size_t apart = run.memory_fails_in == 0 ? OutputQueue::kBetweenMarks : 0;
  EXPECT_GE(receipt.shortest_between(), apart);
}

INSTANTIATE_TEST_SUITE_P(Runs, RandomSizesTest,
                         ::testing::Values(RandomCase{"MuchAtOnce", 400'000, 300'000, 100, 0, 5},
                                           RandomCase{"LittleIsTaken", 60'000, 6'000, 1500, 0, 50},
                                           RandomCase{"ByteByByte", 30'000, 40, 1500, 0, 5},
                                           RandomCase{"MemoryComesAndGoes", 3'000, 1'500, 5000, 2,
                                                      50},
                                           RandomCase{"NoMemory", 300, 100, 5000, 1, 500}),
                         [](const auto& test_case) { return test_case.param.name; });

}  // namespace
