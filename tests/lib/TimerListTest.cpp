#include "server/lib/TimerList.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace rrm {
namespace {

class TimerListTest : public testing::Test {
 protected:
  std::function<void()> note(const std::string& name) {
    return [this, name] { ran_ += name; };
  }

  TimerList list_;
  std::string ran_;
};

/// A point by which everything added so far with at most `delay_s` is due.
std::int64_t after(std::int64_t delay_s) { return TimerList::now_seconds() + delay_s; }

TEST_F(TimerListTest, RunsEntriesOfTheSameSecondInTheOrderTheyWereAdded) {
  // The second hand may move between two adds; the order holds either way.
  list_.add(note("a"), 1, 5);
  list_.add(note("b"), 2, 5);
  list_.add(note("c"), 3, 5);
  list_.run_due(after(5));
  EXPECT_EQ(ran_, "abc");
  EXPECT_TRUE(list_.empty());
}

TEST_F(TimerListTest, RunsInTheOrderOfDeadlinesWhateverTheOrderOfAdding) {
  list_.add(note("late"), 1, 30);
  list_.add(note("early "), 2, 10);
  list_.add(note("middle "), 3, 20);
  list_.run_due(after(30));
  EXPECT_EQ(ran_, "early middle late");
}

TEST_F(TimerListTest, KeepsWhatIsNotDueYet) {
  list_.add(note("a"), 1, 10);
  list_.add(note("b"), 2, 20);
  list_.run_due(after(10));
  EXPECT_EQ(ran_, "a");
  EXPECT_EQ(list_.size(), 1U);
  list_.run_due(after(19) - 1);
  EXPECT_EQ(ran_, "a");
  list_.run_due(after(20));
  EXPECT_EQ(ran_, "ab");
}

TEST_F(TimerListTest, AnEntryIsDueExactlyAtItsDeadline) {
  const std::int64_t before = TimerList::now_seconds();
  list_.add(note("a"), 1, 10);
  list_.run_due(before + 9);
  EXPECT_EQ(ran_, "");
  list_.run_due(TimerList::now_seconds() + 10);
  EXPECT_EQ(ran_, "a");
}

TEST_F(TimerListTest, RearmWithAnIdThatIsNotPresentSimplyAdds) {
  list_.rearm(note("a"), 7, 1);
  EXPECT_EQ(list_.size(), 1U);
  list_.run_due(after(1));
  EXPECT_EQ(ran_, "a");
}

TEST_F(TimerListTest, RearmReplacesEveryEntryOfTheId) {
  list_.add(note("old"), 7, 1);
  list_.add(note("old"), 7, 2);
  list_.add(note("other"), 8, 2);
  list_.rearm(note("new"), 7, 3);
  EXPECT_EQ(list_.size(), 2U);
  list_.run_due(after(3));
  EXPECT_EQ(ran_, "othernew");
}

TEST_F(TimerListTest, RemoveTakesEveryEntryOfTheIdAndNoOther) {
  list_.add(note("a"), 1, 1);
  list_.add(note("b"), 2, 1);
  list_.add(note("c"), 1, 1);
  list_.remove(1);
  list_.run_due(after(1));
  EXPECT_EQ(ran_, "b");
}

TEST_F(TimerListTest, ClearForgetsEverything) {
  list_.add(note("a"), 1, 0);
  list_.clear();
  EXPECT_EQ(list_.size(), 0U);
  list_.poll();
  EXPECT_EQ(ran_, "");
}

TEST_F(TimerListTest, AnEntryAddedWithDelay1DuringRunDueIsNotRunByTheSameCall) {
  list_.add(
      [this] {
        ran_ += "a";
        list_.add(note("again"), 1, 1);
      },
      1, 0);
  list_.run_due(TimerList::now_seconds());
  EXPECT_EQ(ran_, "a");
  EXPECT_EQ(list_.size(), 1U);
  list_.run_due(after(1));
  EXPECT_EQ(ran_, "aagain");
}

TEST_F(TimerListTest, AnEntryRearmedWithDelay0DuringRunDueIsRemovedWithoutRunning) {
  list_.add(
      [this] {
        ran_ += "a";
        list_.rearm(note("never"), 1, 0);
      },
      1, 0);
  list_.run_due(after(1));
  EXPECT_EQ(ran_, "a");
  EXPECT_TRUE(list_.empty());
}

TEST_F(TimerListTest, ACallbackMayRemoveOtherDueEntriesWhichStillRunOnce) {
  list_.add(
      [this] {
        ran_ += "a";
        list_.clear();
      },
      1, 0);
  list_.add(note("b"), 2, 0);
  list_.run_due(after(0));
  EXPECT_EQ(ran_, "ab");
  list_.run_due(after(0));
  EXPECT_EQ(ran_, "ab");
}

TEST_F(TimerListTest, ReleasesTheCallbacksItRemoves) {
  const auto held = std::make_shared<int>(0);
  list_.add([held] {}, 1, 10);
  EXPECT_EQ(held.use_count(), 2);
  list_.remove(1);
  EXPECT_EQ(held.use_count(), 1);
  list_.add([held] {}, 1, 0);
  list_.poll();
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(TimerListTest, AnEntryWithoutACallbackThrowsOutOfRunDue) {
  list_.add({}, 1, 0);
  EXPECT_THROW(list_.run_due(after(0)), std::bad_function_call);
}

TEST_F(TimerListTest, PollOnAnEmptyListDoesNothing) {
  list_.poll();
  EXPECT_TRUE(list_.empty());
}

TEST_F(TimerListTest, TheLongestDelayDoesNotWrap) {
  list_.add(note("a"), 1, 4294967295U);
  list_.poll();
  EXPECT_EQ(ran_, "");
  list_.run_due(after(4294967295LL));
  EXPECT_EQ(ran_, "a");
}

TEST_F(TimerListTest, RunAndWaitSleepsUntilTheFirstDeadlineAndRunsIt) {
  list_.add(note("a"), 1, 1);
  list_.add(note("b"), 2, 100);
  list_.run_and_wait();
  EXPECT_EQ(ran_, "a");
  EXPECT_EQ(list_.size(), 1U);
}

TEST_F(TimerListTest, RunAndWaitReturnsAtOnceWhenNothingIsLeft) {
  list_.add(note("a"), 1, 0);
  list_.run_and_wait();
  EXPECT_EQ(ran_, "a");
}

}  // namespace
}  // namespace rrm
