#include "server/lib/Worker.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/RRM.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/RecordingWorker.h"
#include "tests/support/VirtualSleep.h"
#include "tests/support/WebsockClients.h"

namespace rrm {
namespace {

using test::RecordingWorker;
using test::wait_until;
using Texts = std::vector<std::string>;

JsonReader message(int number) {
  return JsonReader(("{\"n\":" + std::to_string(number) + "}").c_str());
}

SessionAddress session(std::uint32_t id) { return {nullptr, 0, id}; }

class WorkerTest : public testing::Test {
 protected:
  ~WorkerTest() override { worker_->stop(); }

  test::CapturedLog log_;
  std::shared_ptr<RecordingWorker> worker_ = std::make_shared<RecordingWorker>("w");
};

struct CapacityCase {
  int requested;
  std::size_t slots;
};

class WorkerCapacity : public testing::TestWithParam<CapacityCase> {};

TEST_P(WorkerCapacity, IsRaisedToAPowerOfTwo) {
  const RecordingWorker worker("w", nullptr, GetParam().requested);
  EXPECT_EQ(worker.queue_capacity(), GetParam().slots);
}

INSTANTIATE_TEST_SUITE_P(Requested, WorkerCapacity,
                         testing::Values(CapacityCase{0, 2}, CapacityCase{-5, 2},
                                         CapacityCase{1, 2}, CapacityCase{2, 2}, CapacityCase{3, 4},
                                         CapacityCase{1000, 1024}, CapacityCase{2048, 2048}),
                         [](const auto& test) { return "N" + std::to_string(test.index); });

TEST_F(WorkerTest, ProcessesMessagesInTheirOrderWithTheirSessions) {
  worker_->start();
  for (int i = 0; i < 100; ++i) worker_->enqueue_message(message(i), session(7));
  ASSERT_TRUE(wait_until([&] { return worker_->record_count() == 100; }));
  for (int i = 0; i < 100; ++i) {
    const auto record = worker_->records()[static_cast<std::size_t>(i)];
    EXPECT_EQ(record.first, "{\"n\":" + std::to_string(i) + "}");
    EXPECT_EQ(record.second, session(7));
  }
}

TEST_F(WorkerTest, AForceMessageGoesBeforeEverythingQueuedEarlier) {
  worker_->enqueue_message(message(1), kNoSession);
  worker_->enqueue_message(message(2), kNoSession);
  worker_->enqueue_message_force(message(3), kNoSession);
  EXPECT_EQ(worker_->queue_size(), 3U);
  worker_->start();
  ASSERT_TRUE(wait_until([&] { return worker_->record_count() == 3; }));
  EXPECT_EQ(worker_->texts(), (Texts{R"({"n":3})", R"({"n":1})", R"({"n":2})"}));
}

TEST_F(WorkerTest, ProcessQueuesTakesOneMessageAndTellsWhenThereWasNone) {
  worker_->enqueue_message(message(1), kNoSession);
  EXPECT_FALSE(worker_->process_queues());
  EXPECT_TRUE(worker_->process_queues());
  EXPECT_EQ(worker_->texts(), (Texts{R"({"n":1})"}));
}

TEST_F(WorkerTest, StopDiscardsEveryWaitingMessage) {
  // The first message holds the worker until the stop message stands in the queue.
  std::atomic<bool> busy{false};
  worker_->on_message = [&](const JsonReader&) {
    busy = true;
    wait_until([&] { return worker_->is_stopped(); });
  };
  worker_->start();
  worker_->enqueue_message(message(0), kNoSession);
  ASSERT_TRUE(wait_until([&] { return busy.load(); }));
  for (int i = 1; i < 50; ++i) worker_->enqueue_message(message(i), kNoSession);
  for (int i = 50; i < 99; ++i) worker_->enqueue_message_force(message(i), kNoSession);
  worker_->stop();
  EXPECT_EQ(worker_->texts(), (Texts{R"({"n":0})"}));
  EXPECT_EQ(worker_->queue_size(), 0U);
  EXPECT_EQ(worker_->disconnects, 1);
  EXPECT_FALSE(worker_->is_started());
  EXPECT_FALSE(worker_->is_ready());
}

TEST_F(WorkerTest, AStoppedOneCanBeStartedAgainAndDoesNotFindItsOwnStopMessage) {
  for (int round = 1; round <= 3; ++round) {
    worker_->start();
    worker_->enqueue_message(message(round), kNoSession);
    ASSERT_TRUE(
        wait_until([&] { return worker_->record_count() == static_cast<std::size_t>(round); }));
    worker_->stop();
    EXPECT_EQ(worker_->connects, round);
    EXPECT_EQ(worker_->disconnects, round);
  }
  worker_->stop();  // never started since: nothing to join, nothing left behind
  worker_->start();
  worker_->enqueue_message(message(4), kNoSession);
  EXPECT_TRUE(wait_until([&] { return worker_->record_count() == 4; }));
}

TEST_F(WorkerTest, StartOnAStartedOneDoesNothing) {
  worker_->start();
  ASSERT_TRUE(wait_until([&] { return worker_->is_ready(); }));
  worker_->start();
  worker_->enqueue_message(message(1), kNoSession);
  ASSERT_TRUE(wait_until([&] { return worker_->record_count() == 1; }));
  EXPECT_EQ(worker_->connects, 1);
  EXPECT_TRUE(worker_->is_ready());
}

TEST_F(WorkerTest, OneThatNoSharedPointerHoldsCannotStart) {
  RecordingWorker loose("w");
  EXPECT_THROW(loose.start(), std::bad_weak_ptr);
  EXPECT_FALSE(loose.is_started());
}

TEST_F(WorkerTest, TheStopMessageEndsItWithARecord) {
  worker_->start();
  worker_->enqueue_message(JsonReader(R"({"service":"internal-ipc","cmd":"stop"})"), kNoSession);
  ASSERT_TRUE(wait_until([&] { return worker_->disconnects == 1; }));
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Aborting w"));
  EXPECT_TRUE(worker_->is_stopped());
}

TEST_F(WorkerTest, OtherInternalMessagesAreTakenWithoutEffect) {
  EXPECT_TRUE(worker_->process_internal_ipc_msg(JsonReader(R"({"service":"internal-ipc"})")));
  EXPECT_TRUE(
      worker_->process_internal_ipc_msg(JsonReader(R"({"service":"internal-ipc","cmd":"go"})")));
  EXPECT_FALSE(worker_->process_internal_ipc_msg(JsonReader(R"({"service":"rrm","cmd":"stop"})")));
  EXPECT_FALSE(worker_->process_internal_ipc_msg(JsonReader("{}")));
  EXPECT_FALSE(worker_->is_stopped());
}

TEST_F(WorkerTest, AbortLetsItEndByItself) {
  worker_->on_message = [&](const JsonReader&) { worker_->abort(); };
  worker_->start();
  worker_->enqueue_message(message(1), kNoSession);
  EXPECT_TRUE(wait_until([&] { return worker_->disconnects == 1; }));
}

TEST_F(WorkerTest, ConnectIsCalledAgainUntilItSucceeds) {
  worker_->on_connect = [&] { return worker_->connects == 3; };
  worker_->enqueue_message(message(1), kNoSession);
  worker_->start();
  ASSERT_TRUE(wait_until([&] { return worker_->record_count() == 1; }));
  EXPECT_EQ(worker_->connects, 3);
}

TEST_F(WorkerTest, OneThatNeverConnectsCanBeStopped) {
  worker_->on_connect = [] {
    usleep(1000);
    return false;
  };
  worker_->start();
  ASSERT_TRUE(wait_until([&] { return worker_->connects > 2; }));
  worker_->stop();
  EXPECT_EQ(worker_->disconnects, 1);
}

TEST_F(WorkerTest, IsConnectedAnewWhenItIsNoLongerReady) {
  std::atomic<bool> lose{true};
  worker_->on_pass = [&] {
    if (lose.exchange(false)) worker_->Worker::disconnect();
  };
  worker_->start();
  EXPECT_TRUE(wait_until([&] { return worker_->connects == 2; }));
  worker_->stop();
}

TEST_F(WorkerTest, RunLockedNeverOverlapsAMessage) {
  int shared = 0;  // guarded by the processing lock alone
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  const auto change = [&] {
    if (++inside != 1) overlapped = true;
    ++shared;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
    --inside;
  };
  worker_->on_message = [&](const JsonReader&) { change(); };
  worker_->on_pass = change;
  worker_->start();
  for (int i = 0; i < 200; ++i) {
    worker_->enqueue_message(message(i), kNoSession);
    worker_->run_locked(change);
    // Long enough for the worker to take its turn, and not to end it.
    std::this_thread::sleep_for(std::chrono::microseconds(20));
  }
  ASSERT_TRUE(wait_until([&] { return worker_->record_count() == 200; }));
  EXPECT_GE(worker_->run_locked([&] { return shared; }), 600);
  EXPECT_FALSE(overlapped);
  worker_->stop();
}

/// One that waits for an hour when nobody wakes it.
class SleepyWorker : public Worker {
 public:
  SleepyWorker() : Worker("sleepy", nullptr, 2'000'000'000, 16, true) {}
  void process_message(const JsonReader& document, const SessionAddress&) override {
    if (!process_internal_ipc_msg(document)) ++messages;
  }
  void get_status(JsonWriter&) override {}
  void get_status_full(JsonWriter&) override {}

  std::atomic<int> messages{0};
};

TEST_F(WorkerTest, AMessageAndAStopWakeOneThatWaitsForItsDescriptor) {
  const auto sleepy = std::make_shared<SleepyWorker>();
  sleepy->start();
  for (int i = 1; i <= 5; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));  // it has gone to sleep again
    if (i % 2 == 0)
      sleepy->enqueue_message(message(i), kNoSession);
    else
      sleepy->enqueue_message_force(message(i), kNoSession);
    EXPECT_TRUE(wait_until([&] { return sleepy->messages == i; }));
  }
  sleepy->stop();
  EXPECT_EQ(sleepy->messages, 5);
}

TEST_F(WorkerTest, KeepsOffAfterAMessageWhileACallerOfRunLockedWaits) {
  const test::VirtualSleep sleep;
  std::atomic<bool> was_in{false};
  std::vector<bool> yielded;  // at each message: the loop has slept, or the caller is in already
  std::thread caller;
  worker_->on_message = [&](const JsonReader&) {
    yielded.push_back(test::sleeps > 0 || was_in);
    if (caller.joinable()) return;
    caller = std::thread([&] { worker_->run_locked([&] { was_in = true; }); });
    wait_until([&] { return worker_->waiting_count() == 1; });
  };
  for (int i = 0; i < 2; ++i) worker_->enqueue_message(message(i), kNoSession);
  worker_->start();
  ASSERT_TRUE(wait_until([&] { return worker_->record_count() == 2; }));
  caller.join();
  worker_->stop();
  EXPECT_EQ(yielded, (std::vector<bool>{false, true}));
  EXPECT_EQ(worker_->waiting_count(), 0);
}

TEST_F(WorkerTest, OnLoopRunsAlsoWhileIdle) {
  std::atomic<int> passes{0};
  worker_->on_pass = [&] { ++passes; };
  worker_->start();
  EXPECT_TRUE(wait_until([&] { return passes > 3; }));
  worker_->stop();
}

TEST_F(WorkerTest, EveryThreadIsNamedWorker) {
  std::string name;
  worker_->on_message = [&](const JsonReader&) {
    char text[16] = "";
    prctl(PR_GET_NAME, text);
    name = text;
  };
  worker_->start();
  worker_->enqueue_message(message(1), kNoSession);
  ASSERT_TRUE(wait_until([&] { return worker_->record_count() == 1; }));
  worker_->stop();
  EXPECT_EQ(name, "Worker");
  EXPECT_EQ(worker_->name(), "w");
}

TEST_F(WorkerTest, CallsTheEnqueueHookAfterEverySuccessfulEnqueue) {
  int calls = 0;
  worker_->set_enqueue_hook([&] { ++calls; });
  worker_->enqueue_message(message(1), kNoSession);
  worker_->enqueue_message_force(message(2), kNoSession);
  EXPECT_EQ(calls, 2);
}

TEST_F(WorkerTest, WorksWithoutAWakeUpDescriptor) {
  const auto plain = std::make_shared<RecordingWorker>("p", nullptr, 16, false);
  plain->start();
  ASSERT_TRUE(wait_until([&] { return plain->is_ready(); }));
  plain->enqueue_message(message(1), kNoSession);
  EXPECT_TRUE(wait_until([&] { return plain->record_count() == 1; }));
  plain->stop();
}

TEST_F(WorkerTest, AnIdleOneWaitsBetweenTwoPasses) {
  for (const bool with_wakeup : {false, true}) {
    const auto idle = std::make_shared<RecordingWorker>("i", nullptr, 16, with_wakeup);
    std::atomic<int> passes{0};
    idle->on_pass = [&] { ++passes; };
    const auto start = std::chrono::steady_clock::now();
    idle->start();
    EXPECT_TRUE(wait_until([&] { return passes >= 4; }));
    idle->stop();
    const auto waits = (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(10);
    EXPECT_LE(passes, waits + 2) << "10 ms each";
  }
}

/// One whose loop never waits.
class RestlessWorker : public Worker {
 public:
  RestlessWorker() : Worker("restless", nullptr, 0, 16, false) {}
  void process_message(const JsonReader& document, const SessionAddress&) override {
    process_internal_ipc_msg(document);
  }
  void on_loop() override {
    slept = test::sleeps;
    ++passes;
  }
  void get_status(JsonWriter&) override {}
  void get_status_full(JsonWriter&) override {}

  std::atomic<std::int64_t> slept{0};  ///< times, so far
  std::atomic<int> passes{0};
};

TEST_F(WorkerTest, OneWithoutAnIdleWaitGoesOnAtOnce) {
  const test::VirtualSleep sleep;
  const auto restless = std::make_shared<RestlessWorker>();
  restless->start();
  while (restless->passes < 100) sched_yield();
  restless->stop();
  EXPECT_EQ(restless->slept, 0);
}

TEST_F(WorkerTest, ManyProducersLoseNothing) {
  worker_->start();
  std::vector<std::thread> producers;
  for (int p = 0; p < 4; ++p)
    producers.emplace_back([&, p] {
      for (int i = 0; i < 3000; ++i) {
        if (i % 3 == 0)
          worker_->enqueue_message_force(message(i), session(static_cast<std::uint32_t>(p)));
        else
          worker_->enqueue_message(message(i), session(static_cast<std::uint32_t>(p)));
      }
    });
  for (std::thread& producer : producers) producer.join();
  EXPECT_TRUE(wait_until([&] { return worker_->record_count() == 12000; }));
  EXPECT_EQ(worker_->dropped_count(), 0U);
}

// --- full queues

TEST_F(WorkerTest, WithBothQueuesFullAMessageIsDroppedAfterAbout65SecondsAndReportedOnce) {
  const auto full = std::make_shared<RecordingWorker>("full", nullptr, 2);
  for (int i = 0; i < 2; ++i) {
    full->enqueue_message(message(i), kNoSession);
    full->enqueue_message_force(message(i), kNoSession);
  }
  int calls = 0;
  full->set_enqueue_hook([&] { ++calls; });
  const test::VirtualSleep sleep;
  full->enqueue_message(message(9), session(12));
  // 65409 sleeps: 1, 2, 4 ... 512 us, then 1 ms each.
  EXPECT_EQ(test::sleeps, 65409);
  EXPECT_EQ(test::slept_us, 1023 + 65399 * 1000);
  EXPECT_EQ(full->dropped_count(), 1U);
  EXPECT_EQ(log_.texts(LogLevel::Error),
            (Texts{"Worker 'full' queue overflow: message dropped from session 12"}));
  ASSERT_EQ(log_.events().size(), 1U);
  EXPECT_TRUE(log_.has_event(EventCode::QueueOverflow, "full"));

  full->enqueue_message_force(message(9), session(13));
  EXPECT_EQ(full->dropped_count(), 2U);
  EXPECT_TRUE(log_.has(LogLevel::Error,
                       "Worker 'full' force queue overflow: message dropped from session 13"));
  EXPECT_EQ(calls, 0) << "nothing was enqueued";
  EXPECT_EQ(full->queue_size(), 4U);
}

TEST_F(WorkerTest, AProducerOnAFullQueueIsServedWhenTheWorkerMakesRoom) {
  const auto small = std::make_shared<RecordingWorker>("small", nullptr, 2);
  for (int i = 0; i < 2; ++i) small->enqueue_message(message(i), kNoSession);
  std::thread producer([&] { small->enqueue_message(message(2), kNoSession); });
  small->start();
  producer.join();
  EXPECT_TRUE(wait_until([&] { return small->record_count() == 3; }));
  small->stop();
}

TEST_F(WorkerTest, AProducerOnAFullQueueIsLetGoWhenTheWorkerStops) {
  const auto small = std::make_shared<RecordingWorker>("small", nullptr, 2);
  for (int i = 0; i < 2; ++i) small->enqueue_message(message(i), kNoSession);
  small->abort();
  small->enqueue_message(message(2), kNoSession);  // would take a minute
  EXPECT_EQ(small->dropped_count(), 0U);
  EXPECT_TRUE(log_.events().empty());
}

TEST_F(WorkerTest, StopGetsThroughAFullQueueWithoutAConsumer) {
  const auto small = std::make_shared<RecordingWorker>("small", nullptr, 2);
  for (int i = 0; i < 2; ++i) small->enqueue_message(message(i), kNoSession);
  small->stop();
  EXPECT_EQ(small->queue_size(), 0U);
}

TEST_F(WorkerTest, ReleasesTheMessagesItStillHolds) {
  // Leaks are the sanitizer's to find; here only that it goes without a thread.
  auto short_lived = std::make_shared<RecordingWorker>("w");
  for (int i = 0; i < 10; ++i) short_lived->enqueue_message(message(i), kNoSession);
  const std::weak_ptr<Worker> watch = short_lived;
  short_lived.reset();
  EXPECT_TRUE(watch.expired());
}

// --- ends on its own

class OwnedWorkerTest : public testing::Test {
 protected:
  std::shared_ptr<RecordingWorker> add(const std::string& name) {
    auto worker = std::make_shared<RecordingWorker>(name, &rrm_);
    rrm_.workers().insert(name, worker);
    return worker;
  }

  test::CapturedLog log_;
  GlobalConfig config_;
  RRM rrm_{&config_};
};

TEST_F(OwnedWorkerTest, AnEscapedExceptionEndsItIsLoggedAndItsOwnerForgetsIt) {
  auto worker = add("site");
  worker->on_message = [](const JsonReader&) { throw std::runtime_error("no more"); };
  worker->start();
  worker->enqueue_message(message(1), kNoSession);
  ASSERT_TRUE(wait_until([&] { return rrm_.workers().size() == 0; }));
  EXPECT_EQ(log_.texts(LogLevel::Error), (Texts{"Unhandled exception 'no more' at worker Worker"}));
  for (const auto& record : log_.records()) {
    if (record.level == LogLevel::Error) {
      EXPECT_EQ(record.function, "func");
    }
  }
  EXPECT_TRUE(log_.has_event(EventCode::WorkerEnded, "Worker"));
  EXPECT_TRUE(worker->is_stopped());
  EXPECT_EQ(worker->disconnects, 0);
  // The processing lock is free again, and the thread lets go of the worker.
  worker->run_locked([] {});
  const std::weak_ptr<Worker> watch = worker;
  worker.reset();
  EXPECT_TRUE(wait_until([&] { return watch.expired(); }));
}

TEST_F(OwnedWorkerTest, AnEscapedThingThatIsNoExceptionIsLoggedWithoutText) {
  const auto worker = add("site");
  worker->on_pass = [] { throw 7; };
  worker->start();
  ASSERT_TRUE(wait_until([&] { return rrm_.workers().size() == 0; }));
  EXPECT_TRUE(log_.has(LogLevel::Error, "Unhandled exception at worker Worker"));
  EXPECT_TRUE(log_.has_event(EventCode::WorkerEnded, "Worker"));
}

TEST_F(OwnedWorkerTest, AnExceptionOutOfConnectEndsItToo) {
  const auto worker = add("site");
  worker->on_connect = []() -> bool { throw std::runtime_error("no port"); };
  worker->start();
  EXPECT_TRUE(wait_until([&] { return rrm_.workers().size() == 0; }));
  EXPECT_TRUE(log_.has(LogLevel::Error, "Unhandled exception 'no port' at worker Worker"));
}

TEST_F(OwnedWorkerTest, OneThatAbortsIsForgottenByItsOwner) {
  const auto worker = add("site");
  worker->start();
  worker->abort();
  EXPECT_TRUE(wait_until([&] { return rrm_.workers().size() == 0; }));
  EXPECT_EQ(worker->disconnects, 1);
}

TEST_F(OwnedWorkerTest, OneThatWasStoppedAndStartedAgainTellsItsOwnerOfItsEnd) {
  const auto worker = add("site");
  worker->start();
  worker->stop();
  EXPECT_EQ(rrm_.workers().size(), 1U);
  worker->start();
  worker->abort();
  EXPECT_TRUE(wait_until([&] { return rrm_.workers().size() == 0; }));
}

TEST_F(OwnedWorkerTest, OneThatIsStoppedTellsNobody) {
  const auto worker = add("site");
  worker->start();
  worker->stop();
  EXPECT_EQ(rrm_.workers().size(), 1U);
}

TEST_F(OwnedWorkerTest, OneThatEndsDoesNotTakeItsSuccessorAlong) {
  const auto old = std::make_shared<RecordingWorker>("site", &rrm_);
  const auto successor = add("site");
  successor->start();
  old->start();
  old->abort();
  ASSERT_TRUE(wait_until([&] { return old->disconnects == 1; }));
  old->join();
  EXPECT_EQ(rrm_.find_worker("site"), successor);
  successor->enqueue_message(message(1), kNoSession);
  EXPECT_TRUE(wait_until([&] { return successor->record_count() == 1; }));
}

TEST_F(OwnedWorkerTest, EndingAndBeingStoppedAtOnceDoNotHurtEachOther) {
  for (int i = 0; i < 200; ++i) {
    const auto worker = add("site");
    worker->start();
    std::thread ender([&] { worker->abort(); });
    worker->stop();
    ender.join();
    rrm_.workers().clear();
  }
}

}  // namespace
}  // namespace rrm
