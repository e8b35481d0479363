#include "journal_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "debug_support.h"
#include "journal_fields.h"
#include "waker.h"

namespace {

using journal::Field;
using journal::FieldReader;
using journal::GetNumber;
using journal::Kind;
using zevd::JournalQueue;

struct Queued {
  Kind kind;
  uint32_t console;
  std::string payload;
};

// Takes out what Front() gives.
std::vector<Queued> TakeBatch(JournalQueue& queue) {
  std::vector<Queued> records;
  const auto batch = queue.Front();
  size_t at = 0;
  while (at < batch.size()) {
    const char* record = &batch[at];
    const auto length = GetNumber<uint32_t>(record + journal::kRecordLengthAt);
    records.push_back(
        {static_cast<Kind>(GetNumber<uint8_t>(record + journal::kRecordKindAt)),
         GetNumber<uint32_t>(record + journal::kRecordConsoleAt),
         std::string(record + journal::kRecordHeaderSize, length - journal::kRecordHeaderSize)});
    at += length;
  }
  EXPECT_EQ(at, batch.size());
  queue.Drop(batch.size());
  return records;
}

std::vector<Queued> TakeAll(JournalQueue& queue) {
  std::vector<Queued> all;
  while (queue.Waiting() > 0) {
    for (Queued& record : TakeBatch(queue)) all.push_back(std::move(record));
  }
  return all;
}

class JournalQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(zevd::journal_waker.descriptor() != -1 || zevd::journal_waker.Open());
    ASSERT_TRUE(queue_->SwitchOn("started"));
    ASSERT_EQ(TakeAll(*queue_).size(), 1U);
  }

  void FillUp(const std::string& payload) {
    while (queue_->Losses().records == 0) queue_->Push(Kind::kOutput, 1, payload);
  }

  // Never freed, as the daemon's own: the ring is not, either.
  static inline auto& kept_ = *new std::vector<JournalQueue*>;
  JournalQueue* queue_ = kept_.emplace_back(new JournalQueue);
};

TEST_F(JournalQueueTest, RecordsComeOutAsTheyWentIn) {
  queue_->Push(Kind::kOutput, 7, std::string("a\0b", 3));
  queue_->Push(Kind::kConnected, 8, {});
  const auto records = TakeAll(*queue_);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].kind, Kind::kOutput);
  EXPECT_EQ(records[0].console, 7U);
  EXPECT_EQ(records[0].payload, std::string("a\0b", 3));
  EXPECT_EQ(records[1].kind, Kind::kConnected);
  EXPECT_EQ(queue_->Waiting(), 0U);
  EXPECT_TRUE(queue_->Front().empty());
}

TEST_F(JournalQueueTest, NothingIsTakenWhileItIsOff) {
  queue_->SwitchOff("bye");
  queue_->Push(Kind::kOutput, 1, "lost");
  const auto records = TakeAll(*queue_);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].kind, Kind::kStopped);
  EXPECT_EQ(queue_->Losses().records, 0U);
}

TEST_F(JournalQueueTest, ManySizesGoRoundTheRingUnharmed) {
  uint32_t number = 0;
  for (int round = 0; round < 40; ++round) {
    std::vector<std::string> sent;
    for (size_t bytes = 0; bytes < JournalQueue::kSize / 3; bytes += sent.back().size()) {
      sent.emplace_back((number * 7919) % 16384, static_cast<char>(number));
      queue_->Push(Kind::kOutput, ++number, sent.back());
    }
    const auto got = TakeAll(*queue_);
    ASSERT_EQ(got.size(), sent.size());
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i].payload, sent[i]);
  }
  EXPECT_EQ(queue_->Losses().records, 0U);
}

TEST_F(JournalQueueTest, AGapStandsWhereRecordsAreMissing) {
  const std::string payload(1000, 'x');
  FillUp(payload);
  queue_->Push(Kind::kOutput, 1, payload);
  const auto before = TakeAll(*queue_);
  queue_->Push(Kind::kOutput, 2, "next");
  const auto after = TakeAll(*queue_);
  const Queued& gap = before.back();
  ASSERT_EQ(gap.kind, Kind::kGap);
  EXPECT_EQ(FieldReader(gap.payload).Number(Field::kCount), 2);
  EXPECT_EQ(FieldReader(gap.payload).Number(Field::kBytes), 2080);
  EXPECT_EQ(FieldReader(gap.payload).Text(Field::kReason), "The disk was too slow.");
  EXPECT_LE(*FieldReader(gap.payload).Number(Field::kBegin),
            *FieldReader(gap.payload).Number(Field::kEnd));
  ASSERT_EQ(after.size(), 1U);
  EXPECT_EQ(after[0].payload, "next");
  EXPECT_EQ(queue_->Losses().records, 2U);
  EXPECT_EQ(queue_->Losses().gaps, 1U);
}

TEST_F(JournalQueueTest, AGapHasTheReasonOfItsBeginning) {
  queue_->SetReason("No space left on device");
  FillUp(std::string(5000, 'x'));
  queue_->SetReason(nullptr);
  const auto records = TakeAll(*queue_);
  EXPECT_EQ(FieldReader(records.back().payload).Text(Field::kReason), "No space left on device");
}

TEST_F(JournalQueueTest, NamesHaveRoomWhereOthersHaveNone) {
  FillUp(std::string(1000, 'x'));
  queue_->Push(Kind::kConsole, 3, "name");
  EXPECT_EQ(queue_->Losses().records, 1U);
  const auto records = TakeAll(*queue_);
  ASSERT_GE(records.size(), 2U);
  EXPECT_EQ(records.back().kind, Kind::kConsole);
  EXPECT_EQ(records[records.size() - 2].kind, Kind::kGap);
}

TEST_F(JournalQueueTest, WhatWaitsWhenItIsForgottenIsToldAsAGapLater) {
  FillUp(std::string(1000, 'x'));
  const auto lost_before = queue_->Losses().records;
  TakeBatch(*queue_);
  queue_->Push(Kind::kOutput, 1, "waits behind the gap");
  queue_->SwitchOff("stopped");
  const uint64_t untold = queue_->Forget();
  EXPECT_GT(untold, 7000U);
  EXPECT_EQ(queue_->Losses().records, untold);
  EXPECT_EQ(queue_->Losses().gaps, 0U);
  EXPECT_EQ(lost_before, 1U);
  EXPECT_EQ(queue_->Waiting(), 0U);
  ASSERT_TRUE(queue_->SwitchOn("again"));
  const auto records = TakeAll(*queue_);
  ASSERT_EQ(records.size(), 2U);
  ASSERT_EQ(records[0].kind, Kind::kGap);
  EXPECT_EQ(FieldReader(records[0].payload).Number(Field::kCount), static_cast<int64_t>(untold));
  EXPECT_LE(*FieldReader(records[0].payload).Number(Field::kBegin),
            *FieldReader(records[0].payload).Number(Field::kEnd));
  EXPECT_EQ(records[1].kind, Kind::kStarted);
  EXPECT_EQ(queue_->Forget(), 0U);
}

TEST_F(JournalQueueTest, NoGapFollowsAnotherWhereverTheRingEnds) {
  std::vector<Queued> all;
  for (size_t round = 0; round < 200; ++round) {
    const std::string payload(50000 + round * 37, 'x');
    const uint64_t lost = queue_->Losses().records;
    while (queue_->Losses().records < lost + 5) queue_->Push(Kind::kOutput, 1, payload);
    for (Queued& record : TakeBatch(*queue_)) all.push_back({record.kind, record.console, {}});
  }
  ASSERT_GT(queue_->Losses().gaps, 100U);
  const auto both_gaps = [](const Queued& record, const Queued& next) {
    return record.kind == Kind::kGap && next.kind == Kind::kGap;
  };
  EXPECT_EQ(std::ranges::adjacent_find(all, both_gaps), all.end());
}

TEST_F(JournalQueueTest, LostNamesAreAskedForOnceThereIsRoom) {
  FillUp(std::string(1000, 'x'));
  while (queue_->Losses().records < 2) queue_->Push(Kind::kConsole, 3, std::string(1000, 'n'));
  EXPECT_FALSE(queue_->WantsNames());
  TakeAll(*queue_);
  EXPECT_TRUE(queue_->WantsNames());
  EXPECT_FALSE(queue_->WantsNames());
}

TEST_F(JournalQueueTest, ManyThreadsLoseNothingUncounted) {
  constexpr uint32_t kThreads = 4;
  constexpr uint64_t kEach = 20000;
  std::atomic<bool> done{false};
  uint64_t seen = 0;
  uint64_t told_lost = 0;
  std::vector<uint64_t> next(kThreads, 0);
  const auto take = [&] {
    for (const Queued& record : TakeBatch(*queue_)) {
      if (record.kind == Kind::kGap) {
        told_lost += static_cast<uint64_t>(*FieldReader(record.payload).Number(Field::kCount));
        continue;
      }
      ASSERT_EQ(record.kind, Kind::kOutput);
      const auto number = GetNumber<uint64_t>(record.payload.data());
      ASSERT_GE(number, next[record.console]);
      next[record.console] = number + 1;
      ++seen;
    }
  };
  std::thread consumer([&] {
    while (!done) take();
    while (queue_->Waiting() > 0) take();
  });
  std::vector<std::thread> producers;
  for (uint32_t i = 0; i < kThreads; ++i) {
    producers.emplace_back([&, i] {
      char payload[700] = {};
      for (uint64_t number = 0; number < kEach; ++number) {
        journal::PutNumber(payload, number);
        queue_->Push(Kind::kOutput, i, {payload, sizeof payload});
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  done = true;
  consumer.join();
  EXPECT_EQ(seen + queue_->Losses().records, kThreads * kEach);
  EXPECT_EQ(told_lost, queue_->Losses().records);
}

}  // namespace
