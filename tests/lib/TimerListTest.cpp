#include "server/lib/TimerList.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "tests/support/FakeClock.h"

namespace rrm {
namespace {

constexpr std::int64_t kStart_s = 1000;

class TimerListTest : public testing::Test {
 public:
  using Note = std::function<TimerList::Callback(const std::string& name)>;

 protected:
  TimerList::Callback note(const std::string& name) {
    return [this, name] { ran_ += name; };
  }

  test::FakeClock clock_{kStart_s};
  TimerList list_;
  std::string ran_;
};

TEST_F(TimerListTest, RunsEntriesOfTheSameSecondInTheOrderTheyWereAdded) {
  list_.add(note("a"), 1, 5);
  list_.add(note("b"), 2, 5);
  list_.add(note("c"), 3, 5);
  list_.run_due(kStart_s + 5);
  EXPECT_EQ(ran_, "abc");
  EXPECT_TRUE(list_.empty());
}

TEST_F(TimerListTest, RunsInTheOrderOfDeadlinesWhateverTheOrderOfAdding) {
  list_.add(note("late"), 1, 30);
  list_.add(note("early "), 2, 10);
  list_.add(note("middle "), 3, 20);
  list_.run_due(kStart_s + 30);
  EXPECT_EQ(ran_, "early middle late");
}

TEST_F(TimerListTest, KeepsWhatIsNotDueYet) {
  list_.add(note("a"), 1, 10);
  list_.add(note("b"), 2, 20);
  list_.run_due(kStart_s + 10);
  EXPECT_EQ(ran_, "a");
  EXPECT_EQ(list_.size(), 1U);
  list_.run_due(kStart_s + 19);
  EXPECT_EQ(ran_, "a");
  list_.run_due(kStart_s + 20);
  EXPECT_EQ(ran_, "ab");
}

TEST_F(TimerListTest, AnEntryIsDueExactlyAtItsDeadline) {
  list_.add(note("a"), 1, 10);
  list_.run_due(kStart_s + 9);
  EXPECT_EQ(ran_, "");
  list_.run_due(kStart_s + 10);
  EXPECT_EQ(ran_, "a");
}

struct ChangeCase {
  const char* name;
  std::function<void(TimerList& list, const TimerListTest::Note& note)> change;
  const char* ran;  ///< three seconds later
};

class TimerListChange : public TimerListTest, public testing::WithParamInterface<ChangeCase> {};

TEST_P(TimerListChange, LeavesWhatRuns) {
  GetParam().change(list_, [this](const std::string& name) { return note(name); });
  list_.run_due(kStart_s + 3);
  EXPECT_EQ(ran_, GetParam().ran);
  EXPECT_TRUE(list_.empty());
}

INSTANTIATE_TEST_SUITE_P(Of, TimerListChange,
                         testing::Values(ChangeCase{"RearmWithAnIdThatIsNotPresentSimplyAdds",
                                                    [](auto& list, const auto& note) {
                                                      list.rearm(note("a"), 7, 1);
                                                    },
                                                    "a"},
                                         ChangeCase{"RearmReplacesEveryEntryOfTheIdAndNoOther",
                                                    [](auto& list, const auto& note) {
                                                      list.add(note("old"), 7, 1);
                                                      list.add(note("old"), 7, 2);
                                                      list.add(note("other "), 8, 2);
                                                      list.rearm(note("new"), 7, 3);
                                                    },
                                                    "other new"},
                                         ChangeCase{"RemoveTakesEveryEntryOfTheIdAndNoOther",
                                                    [](auto& list, const auto& note) {
                                                      list.add(note("a"), 1, 1);
                                                      list.add(note("b"), 2, 1);
                                                      list.add(note("c"), 1, 1);
                                                      list.remove(1);
                                                    },
                                                    "b"},
                                         ChangeCase{"RemoveOfAnIdThatIsNotPresentTakesNothing",
                                                    [](auto& list, const auto& note) {
                                                      list.add(note("a"), 1, 1);
                                                      list.remove(2);
                                                    },
                                                    "a"},
                                         ChangeCase{"ClearForgetsEverything",
                                                    [](auto& list, const auto& note) {
                                                      list.add(note("a"), 1, 0);
                                                      list.add(note("b"), 2, 3);
                                                      list.clear();
                                                    },
                                                    ""}),
                         [](const auto& test) { return test.param.name; });

TEST_F(TimerListTest, AnEntryAddedWithDelay1DuringRunDueIsNotRunByTheSameCall) {
  list_.add(
      [this] {
        ran_ += "a";
        list_.add(note("again"), 1, 1);
      },
      1, 0);
  list_.run_due(kStart_s);
  EXPECT_EQ(ran_, "a");
  EXPECT_EQ(list_.size(), 1U);
  list_.run_due(kStart_s + 1);
  EXPECT_EQ(ran_, "aagain");
}

TEST_F(TimerListTest, AnEntryRearmedWithDelay0DuringRunDueIsRemovedWithoutRunning) {
  list_.add(
      [this] {
        ran_ += "a";
        list_.rearm(note("never"), 1, 0);
      },
      1, 0);
  list_.run_due(kStart_s + 1);
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
  list_.run_due(kStart_s);
  EXPECT_EQ(ran_, "ab");
  list_.run_due(kStart_s);
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
  EXPECT_THROW(list_.run_due(kStart_s), std::bad_function_call);
}

TEST_F(TimerListTest, PollOnAnEmptyListDoesNothing) {
  list_.poll();
  EXPECT_TRUE(list_.empty());
}

TEST_F(TimerListTest, TheLongestDelayDoesNotWrap) {
  list_.add(note("a"), 1, 4294967295U);
  list_.poll();
  EXPECT_EQ(ran_, "");
  list_.run_due(kStart_s + 4294967295LL);
  EXPECT_EQ(ran_, "a");
}

TEST_F(TimerListTest, PollRunsWhatIsDueByTheClock) {
  list_.add(note("a"), 1, 2);
  test::FakeClock::now_s = kStart_s + 1;
  list_.poll();
  EXPECT_EQ(ran_, "");
  test::FakeClock::now_s = kStart_s + 2;
  list_.poll();
  EXPECT_EQ(ran_, "a");
}

/// On the system's clock, which alone can be slept by.
TEST(TimerListOnTheSystemClock, RunAndWaitSleepsUntilTheFirstDeadlineAndRunsIt) {
  TimerList list;
  int first = 0;
  int second = 0;
  int due = 0;
  list.add([&] { ++due; }, 3, 0);
  list.add([&] { ++first; }, 1, 1);
  list.add([&] { ++second; }, 2, 1000);
  list.run_and_wait();
  EXPECT_EQ(due, 1) << "what is due already is no deadline to wait for";
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(list.size(), 1U);
}

TEST(TimerListOnTheSystemClock, ASignalDoesNotEndASleepEarly) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction old {};
  ASSERT_EQ(sigaction(SIGALRM, &action, &old), 0);
  const itimerval every_10_ms{{0, 10000}, {0, 10000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &every_10_ms, nullptr);
  const auto start = std::chrono::steady_clock::now();
  TimerList::sleep_seconds(1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &old, nullptr);
}

TEST_F(TimerListTest, RunAndWaitReturnsAtOnceWhenNothingIsLeft) {
  list_.add(note("a"), 1, 0);
  list_.run_and_wait();
  EXPECT_EQ(ran_, "a");
}

}  // namespace
}  // namespace rrm
