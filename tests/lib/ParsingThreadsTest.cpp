#include "server/lib/ParsingThreads.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace rrm {
namespace {

std::size_t threads_of_the_process() {
  namespace fs = std::filesystem;
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

class ParsingThreadsTest : public testing::Test {
 protected:
  ~ParsingThreadsTest() override { end(); }

  void end() {
    stop_ = true;
    parsing_.join();
  }
  ReceivedText text(int number) const { return {std::to_string(number), session_}; }
  void wait_for(std::size_t count) const {
    for (int i = 0; i < 30000 && handled_count_ < count; ++i) usleep(1000);
    ASSERT_EQ(handled_count_, count);
  }

  const std::shared_ptr<WebsockSession> session_ = std::make_shared<WebsockSession>();
  std::atomic<bool> stop_{false};
  std::atomic<std::size_t> handled_count_{0};
  std::mutex mutex_;
  std::vector<std::string> handled_;  ///< guarded by mutex_
  ParsingThreads parsing_{[this](const ReceivedText& received) {
                            {
                              const std::lock_guard lock(mutex_);
                              handled_.push_back(received.text);
                            }
                            ++handled_count_;
                          },
                          stop_};
};

TEST_F(ParsingThreadsTest, OneThreadHandlesTextsInTheOrderOfTheirArrival) {
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(parsing_.push(text(i)));
  parsing_.start(1);
  parsing_.wake();
  wait_for(3);
  EXPECT_EQ(handled_, (std::vector<std::string>{"0", "1", "2"}));
}

TEST_F(ParsingThreadsTest, SeveralThreadsHandleEveryTextOnce) {
  constexpr int kTexts = 5000;
  parsing_.start(3);
  for (int i = 0; i < kTexts; ++i) ASSERT_TRUE(parsing_.push(text(i)));
  parsing_.wake();
  wait_for(kTexts);
  EXPECT_EQ(std::set<std::string>(handled_.begin(), handled_.end()).size(), kTexts);
}

TEST_F(ParsingThreadsTest, AProducerOfAFullQueueWakesThemAndWaitsForRoom) {
  parsing_.start(1);
  constexpr std::size_t kTexts = 2 * ParsingThreads::kCapacity;
  for (std::size_t i = 0; i < kTexts; ++i) ASSERT_TRUE(parsing_.push(text(0)));
  parsing_.wake();
  wait_for(kTexts);
}

TEST_F(ParsingThreadsTest, AProducerWhoWaitsForRoomGivesUpWhenTheyStopAndKeepsItsText) {
  for (std::size_t i = 0; i < ParsingThreads::kCapacity; ++i) ASSERT_TRUE(parsing_.push(text(0)));
  std::thread stopper([this] {
    usleep(20000);
    stop_ = true;
  });
  ReceivedText last = text(7);
  EXPECT_FALSE(parsing_.push(std::move(last)));
  EXPECT_EQ(last.text, "7");  // NOLINT(bugprone-use-after-move): that is the point
  stopper.join();
}

TEST_F(ParsingThreadsTest, StartAddsTheThreadsThatAreMissing) {
  parsing_.start(1);
  const std::size_t with_one = threads_of_the_process();
  parsing_.start(1);
  EXPECT_EQ(threads_of_the_process(), with_one);
  parsing_.start(3);
  EXPECT_EQ(threads_of_the_process(), with_one + 2);
}

TEST_F(ParsingThreadsTest, ThereAreNeverMoreThanAHundred) {
  parsing_.start(1);
  const std::size_t with_one = threads_of_the_process();
  parsing_.start(101);
  EXPECT_EQ(threads_of_the_process(), with_one + 99);
}

TEST_F(ParsingThreadsTest, WhatIsDiscardedIsNeverHandled) {
  ASSERT_TRUE(parsing_.push(text(1)));
  parsing_.discard();
  ASSERT_TRUE(parsing_.push(text(2)));
  parsing_.start(1);
  parsing_.wake();
  wait_for(1);
  EXPECT_EQ(handled_, std::vector<std::string>{"2"});
}

TEST_F(ParsingThreadsTest, WhatWaitsKeepsItsSession) {
  ASSERT_TRUE(parsing_.push(text(1)));
  EXPECT_EQ(session_.use_count(), 2);
  parsing_.discard();
  EXPECT_EQ(session_.use_count(), 1);
}

}  // namespace
}  // namespace rrm
