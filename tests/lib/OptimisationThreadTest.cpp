#include "server/lib/OptimisationThread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "tests/support/CapturedLog.h"
#include "tests/support/NoNewThreads.h"

namespace rrm::test {
namespace {

OptimisationResult result_named(const char* message) {
  OptimisationResult result;
  result.message = message;
  return result;
}

/// Waits until it is done, for about thirty seconds at the most.
bool ends(const OptimisationThread& thread) {
  for (int i = 0; i < 30000 && !thread.done(); ++i) ::usleep(1000);
  return thread.done();
}

TEST(OptimisationThread, GivesItsResultAwayOnce) {
  OptimisationThread thread;
  thread.launch([](const auto&) { return result_named("one"); });
  ASSERT_TRUE(ends(thread));
  const auto result = thread.take();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->message, "one");
  EXPECT_EQ(thread.take(), nullptr);
}

TEST(OptimisationThread, StartsAfreshAfterAnEarlierOne) {
  OptimisationThread thread;
  thread.launch([](const auto&) { return result_named("one"); });
  thread.stop();  // drops the result and leaves the flag to cancel set
  std::atomic<bool> release{false};
  std::atomic<bool> was_cancelled{true};
  thread.launch([&](const std::atomic<bool>& cancel) {
    was_cancelled = cancel.load();
    while (!release) std::this_thread::yield();
    return result_named("two");
  });
  EXPECT_FALSE(thread.done());
  release = true;
  ASSERT_TRUE(ends(thread));
  const auto result = thread.take();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->message, "two");
  EXPECT_FALSE(was_cancelled);
}

TEST(OptimisationThread, StopAsksItToEndWaitsForItAndDropsItsResult) {
  OptimisationThread thread;
  bool ended = false;  // read after the join only
  thread.launch([&ended](const std::atomic<bool>& cancel) {
    while (!cancel) std::this_thread::yield();
    ended = true;
    return result_named("cancelled");
  });
  thread.stop();
  EXPECT_TRUE(ended);
  EXPECT_EQ(thread.take(), nullptr);
}

TEST(OptimisationThread, IsStoppedByItsDestruction) {
  bool ended = false;
  {
    OptimisationThread thread;
    thread.launch([&ended](const std::atomic<bool>& cancel) {
      while (!cancel) std::this_thread::yield();
      ended = true;
      return result_named("");
    });
  }
  EXPECT_TRUE(ended);
}

TEST(OptimisationThread, LeavesNoResultWhenItThrows) {
  CapturedLog log;
  OptimisationThread thread;
  thread.launch([](const auto&) -> OptimisationResult { throw std::runtime_error("boom"); });
  ASSERT_TRUE(ends(thread));
  EXPECT_EQ(thread.take(), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Error, "Exception at optimization thread: boom"));
  thread.launch([](const auto&) -> OptimisationResult { throw 7; });
  ASSERT_TRUE(ends(thread));
  EXPECT_EQ(thread.take(), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Error, "Exception at optimization thread"));
}

TEST(OptimisationThread, LeavesNoResultWhenItCannotBeStarted) {
  CapturedLog log;
  OptimisationThread thread;
  {
    const NoNewThreads none;
    thread.launch([](const auto&) { return result_named("one"); });
  }
  EXPECT_TRUE(thread.done());
  EXPECT_EQ(thread.take(), nullptr);
  const auto errors = log.texts(LogLevel::Error);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(errors[0].starts_with("Optimization thread not started: ")) << errors[0];
  thread.launch([](const auto&) { return result_named("two"); });
  ASSERT_TRUE(ends(thread));
  EXPECT_NE(thread.take(), nullptr);
}

}  // namespace
}  // namespace rrm::test
