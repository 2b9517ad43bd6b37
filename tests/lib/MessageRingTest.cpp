#include "server/lib/MessageRing.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/lib/SafeQueue.h"
#include "server/lib/SessionAddress.h"
#include "tests/support/VirtualSleep.h"

namespace rrm {
namespace {

TEST(MessageRing, OfCapacity16Takes16ValuesAndRefusesThe17th) {
  MessageRing<int> ring(16);
  for (int i = 0; i < 16; ++i) EXPECT_TRUE(ring.try_push(i)) << i;
  EXPECT_FALSE(ring.try_push(16));
  EXPECT_EQ(ring.size(), 16U);
  int out = -1;
  EXPECT_TRUE(ring.try_pop(out));
  EXPECT_EQ(out, 0);
  EXPECT_TRUE(ring.try_push(16));
}

TEST(MessageRing, OfTwoStillWorksAfterAMillionPairs) {
  MessageRing<int> ring(2);
  for (int i = 0; i < (1 << 20); ++i) {
    ASSERT_TRUE(ring.try_push(i));
    int out = -1;
    ASSERT_TRUE(ring.try_pop(out));
    ASSERT_EQ(out, i);
  }
  EXPECT_TRUE(ring.empty());
}

TEST(MessageRing, AnEmptyOneGivesNothingAndLeavesTheTargetAlone) {
  MessageRing<std::string> ring(4);
  std::string out = "kept";
  EXPECT_FALSE(ring.try_pop(out));
  EXPECT_EQ(out, "kept");
  EXPECT_EQ(ring.size(), 0U);
}

TEST(MessageRing, RaisesItsCapacityToAPowerOfTwo) {
  EXPECT_EQ(MessageRing<int>(0).capacity(), 2U);
  EXPECT_EQ(MessageRing<int>(1).capacity(), 2U);
  EXPECT_EQ(MessageRing<int>(3).capacity(), 4U);
  EXPECT_EQ(MessageRing<int>(1000).capacity(), 1024U);
  EXPECT_EQ(MessageRing<int>(2048).capacity(), 2048U);
}

TEST(MessageRing, KeepsAValueThatItRefuses) {
  MessageRing<std::unique_ptr<int>> ring(2);
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(ring.try_push(std::make_unique<int>(i)));
  auto third = std::make_unique<int>(2);
  EXPECT_FALSE(ring.try_push(std::move(third)));
  EXPECT_NE(third, nullptr);
}

TEST(MessageRing, ReleasesAPoppedValueAndWhatItStillHolds) {
  const auto value = std::make_shared<int>(0);
  {
    MessageRing<std::shared_ptr<int>> ring(4);
    ring.try_push(value);
    ring.try_push(value);
    std::shared_ptr<int> out;
    ring.try_pop(out);
    out.reset();
    EXPECT_EQ(value.use_count(), 2);
  }
  EXPECT_EQ(value.use_count(), 1);
}

TEST(MessageRing, BehavesAsABoundedDequeUnderRandomUse) {
  MessageRing<int> ring(8);
  std::deque<int> oracle;
  std::mt19937 random(20240501);
  for (int i = 0; i < 100000; ++i) {
    if (random() % 2 != 0) {
      const bool pushed = ring.try_push(i);
      ASSERT_EQ(pushed, oracle.size() < 8);
      if (pushed) oracle.push_back(i);
    } else {
      int out = -1;
      ASSERT_EQ(ring.try_pop(out), !oracle.empty());
      if (oracle.empty()) continue;
      ASSERT_EQ(out, oracle.front());
      oracle.pop_front();
    }
    ASSERT_EQ(ring.size(), oracle.size());
  }
}

/// Every producer's values must come out complete and, seen by one consumer, in their order.
void pass_values_between_threads(int producers, int consumers, std::size_t capacity) {
  constexpr int kValues = 20000;
  using Value = std::pair<std::string, SessionAddress>;
  MessageRing<Value> ring(capacity);
  std::atomic<int> left{producers * kValues};
  std::vector<std::vector<std::vector<std::uint32_t>>> seen(
      static_cast<std::size_t>(consumers),
      std::vector<std::vector<std::uint32_t>>(static_cast<std::size_t>(producers)));
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      for (std::uint32_t i = 0; i < kValues; ++i) {
        Value value{std::to_string(i), {nullptr, p, i}};
        while (!ring.try_push(std::move(value))) sched_yield();
      }
    });
  }
  for (int c = 0; c < consumers; ++c) {
    threads.emplace_back([&, c] {
      Value value;
      while (left > 0) {
        if (!ring.try_pop(value)) {
          sched_yield();
          continue;
        }
        --left;
        EXPECT_EQ(value.first, std::to_string(value.second.id));
        seen[static_cast<std::size_t>(c)][static_cast<std::size_t>(value.second.tsi)].push_back(
            value.second.id);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::size_t total = 0;
  for (const auto& consumer : seen)
    for (const auto& values : consumer) {
      total += values.size();
      EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
    }
  EXPECT_EQ(total, static_cast<std::size_t>(producers) * kValues);
  EXPECT_TRUE(ring.empty());
}

TEST(MessageRing, LosesNothingFromOneProducerToOneConsumer) {
  pass_values_between_threads(1, 1, 64);
}

TEST(MessageRing, LosesNothingFromManyProducersToOneConsumer) {
  pass_values_between_threads(4, 1, 16);
}

TEST(MessageRing, LosesNothingBetweenManyProducersAndManyConsumersOnATinyRing) {
  pass_values_between_threads(3, 3, 2);
}

TEST(PushBackoff, GivesUpWhenTheCountReaches65537) {
  // Counting from 1, the give-up count is reached by the 65536th failure.
  const test::VirtualSleep no_minute;
  PushBackoff backoff;
  int waits = 1;
  while (backoff.wait()) ++waits;
  EXPECT_EQ(waits, 65536);
}

TEST(PushBackoff, SleepsFromAttempt128OnTwiceAsLongEachTimeUpToAMillisecond) {
  const test::VirtualSleep counted;
  PushBackoff backoff;
  for (int attempt = 2; attempt <= 127; ++attempt) backoff.wait();
  EXPECT_EQ(test::sleeps, 0);
  std::int64_t last_us = 0;
  for (const std::int64_t expected_us : {1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1000, 1000}) {
    backoff.wait();
    EXPECT_EQ(test::slept_us - last_us, expected_us);
    last_us = test::slept_us;
  }
}

TEST(PushWithBackoff, PushesAtOnceIntoARingWithRoom) {
  MessageRing<std::string> ring(2);
  EXPECT_TRUE(push_with_backoff(ring, std::string("a"), [] { return true; }));
  EXPECT_EQ(ring.size(), 1U);
}

TEST(PushWithBackoff, LetsGoOfAFullRingAsSoonAsToldTo) {
  MessageRing<int> ring(2);
  ring.try_push(1);
  ring.try_push(2);
  int asked = 0;
  EXPECT_FALSE(push_with_backoff(ring, 3, [&] { return ++asked == 200; }));
  EXPECT_EQ(asked, 200);
}

TEST(PushWithBackoff, WaitsUntilAConsumerMakesRoom) {
  MessageRing<int> ring(2);
  ring.try_push(1);
  ring.try_push(2);
  int asked = 0;
  EXPECT_TRUE(push_with_backoff(ring, 3, [&] {
    int out = 0;
    if (++asked == 150) ring.try_pop(out);
    return false;
  }));
  EXPECT_EQ(asked, 150);
}

TEST(SafeQueue, HoldsTwoRingsOf16AndDrainsTheForceRingFirst) {
  _SafeQueue<int> queue;
  EXPECT_EQ(alignof(_SafeQueue<int>), 64U);
  EXPECT_EQ(queue.normal.capacity(), 16U);
  EXPECT_EQ(queue.force.capacity(), 16U);
  EXPECT_EQ(queue.tsi, -1);
  EXPECT_TRUE(queue.empty());
  queue.force.try_push(2);
  EXPECT_FALSE(queue.empty());
  queue.normal.try_push(1);
  int out = 0;
  ASSERT_TRUE(queue.try_pop(out));
  EXPECT_EQ(out, 2);
  ASSERT_TRUE(queue.try_pop(out));
  EXPECT_EQ(out, 1);
  EXPECT_FALSE(queue.try_pop(out));
}

TEST(SafeQueue, IsNoLongerCloggedOnceAMessageIsTaken) {
  _SafeQueue<int> queue;
  queue.clogged = true;
  int out = 0;
  EXPECT_FALSE(queue.try_pop(out));
  EXPECT_TRUE(queue.clogged) << "nothing was taken";
  queue.normal.try_push(1);
  EXPECT_TRUE(queue.try_pop(out));
  EXPECT_FALSE(queue.clogged);
}

}  // namespace
}  // namespace rrm
