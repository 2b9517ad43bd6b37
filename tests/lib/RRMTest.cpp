#include "server/lib/RRM.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/DefaultWorker.h"
#include "server/lib/Envelope.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/WebsockServerWorker.h"
#include "server/lib/report_alarm.h"
#include "server/lib/report_fields.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/NoNewThreads.h"
#include "tests/support/RecordingWorker.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WebsockClients.h"

namespace rrm {
namespace {

using test::RecordingWorker;
using test::wait_until;
using Texts = std::vector<std::string>;

constexpr char kConfig[] =
    R"({"domains":[{"domain":"site","pattern":"common","time_zone":"00:00"},)"
    R"({"domain":"other","pattern":"common","time_zone":"03:00"}]})";

const SessionAddress kSession{reinterpret_cast<lws*>(0x1000), 0, 5};

std::string subscription(const std::string& domain) {
  return R"({"service":"rrm","cmd":"subscribe-request","domain":")" + domain +
         R"(","ap-mac":"02:00:00:00:00:01","version":"2.4"})";
}

class RRMTest : public testing::Test {
 protected:
  RRMTest() { config_.listen_port = 0; }

  std::shared_ptr<RecordingWorker> add_worker(const std::string& name) {
    auto worker = std::make_shared<RecordingWorker>(name, &rrm_);
    rrm_.workers().insert(name, worker);
    return worker;
  }
  void receive(const std::string& text, const SessionAddress& address = kSession) {
    rrm_.process_incoming_message(JsonReader(text.c_str()), address);
  }
  std::size_t created(const std::string& name = "site") const {
    return log_.count(LogLevel::Debug, "Created new worker '" + name + "'.");
  }

  test::CapturedLog log_;
  GlobalConfig config_{"", kConfig};
  RRM rrm_{&config_};
};

// --- routing

TEST_F(RRMTest, RoutesAMessageWithItsSessionToTheWorkerOfItsDomain) {
  const auto site = add_worker("site");
  const auto other = add_worker("other");
  receive(R"({"domain":"other","cmd":"x"})");
  EXPECT_EQ(site->queue_size(), 0U);
  ASSERT_EQ(other->queue_size(), 1U);
  other->process_queues();
  EXPECT_EQ(other->records(),
            (std::vector<RecordingWorker::Record>{{R"({"domain":"other","cmd":"x"})", kSession}}));
}

TEST_F(RRMTest, AResponseForADomainWithoutWorkerIsDroppedAndCreatesNone) {
  receive(R"({"service":"rrm","cmd":"rrm-response","domain":"site","ap-mac":"02:00:00:00:00:01"})");
  EXPECT_EQ(rrm_.workers().size(), 0U);
  EXPECT_TRUE(log_.records().empty());
  EXPECT_TRUE(log_.events().empty());
}

TEST_F(RRMTest, ASubscriptionBringsItsDomainToLife) {
  receive(subscription("site"));
  EXPECT_EQ(created(), 1U);
  const auto worker = rrm_.find_worker("site");
  ASSERT_NE(worker, nullptr);
  EXPECT_EQ(worker->name(), "site");
  EXPECT_EQ(worker->queue_capacity(), 2048U);
  EXPECT_TRUE(worker->is_started());
  EXPECT_TRUE(wait_until([&] { return worker->queue_size() == 0; }));
}

TEST_F(RRMTest, ANewWorkerHasTheTimeZoneOfItsDomain) {
  const auto worker = std::dynamic_pointer_cast<RrmWorker>(rrm_.make_rrm_worker("other", 1));
  ASSERT_NE(worker, nullptr);
  EXPECT_EQ(worker->time_zone_s(), 3 * 3600);
}

TEST_F(RRMTest, ADomainWhoseThreadCannotBeStartedIsGivenUpAndComesToLifeLater) {
  auto no_threads = std::make_unique<test::NoNewThreads>();
  receive(subscription("site"));
  rrm_.restore_domains(R"([{"name":"site"},{"name":"other"}])");
  no_threads.reset();
  EXPECT_EQ(rrm_.workers().size(), 0U);
  const std::string reason = "': Resource temporarily unavailable";
  EXPECT_EQ(log_.texts(LogLevel::Error),
            (Texts{"Exception at processing message for domain 'site" + reason,
                   "Exception at processing message for domain 'site" + reason,
                   "Exception at processing message for domain 'other" + reason}));
  EXPECT_EQ(log_.events().size(), 3U);
  receive(subscription("site"));
  EXPECT_EQ(created(), 1U);
  EXPECT_TRUE(rrm_.find_worker("site")->is_started());
}

TEST_F(RRMTest, SubscriptionsOfANewDomainAtOnceOnSeveralThreadsCreateExactlyOneWorker) {
  for (int round = 1; round <= 20; ++round) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back([&] { receive(subscription("site")); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(created(), static_cast<std::size_t>(round));
    ASSERT_TRUE(rrm_.remove_worker("site"));
  }
}

TEST_F(RRMTest, TwoSubscriptionsOfANewDomainAtOnceBothReachTheOneWorker) {
  // Every subscription of a session that is not open any more leaves one such record behind.
  const auto handled = [&] {
    return log_.count(LogLevel::Debug, "process_message subscribe-request for 02:00:00:00:00:01");
  };
  for (std::size_t round = 1; round <= 20; ++round) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
      threads.emplace_back([&] {
        JsonReader document(subscription("site").c_str());
        ++ready;
        while (ready < 2) sched_yield();
        rrm_.process_incoming_message(std::move(document), kSession);
      });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(created(), round);
    EXPECT_EQ(rrm_.workers().size(), 1U);
    ASSERT_TRUE(wait_until([&] { return handled() == 2 * round; })) << handled();
    ASSERT_TRUE(rrm_.remove_worker("site"));
  }
}

TEST_F(RRMTest, MessagesThatMeetAnExistingWorkerAtOnceAllReachIt) {
  const auto site = add_worker("site");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) receive(subscription("site"));
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(site->queue_size(), 400U);
  EXPECT_EQ(created(), 0U);
}

class NoDomain : public RRMTest, public testing::WithParamInterface<const char*> {};

TEST_P(NoDomain, IsDroppedSilently) {
  receive(GetParam());
  EXPECT_EQ(rrm_.workers().size(), 0U);
  EXPECT_TRUE(log_.records().empty());
}

INSTANTIATE_TEST_SUITE_P(Messages, NoDomain,
                         testing::Values(R"({"cmd":"subscribe-request"})",
                                         R"({"cmd":"subscribe-request","domain":""})",
                                         R"({"cmd":"subscribe-request","domain":7})",
                                         R"({"cmd":"subscribe-request","domain":["site"]})",
                                         R"({"domain":"site"})", R"({"domain":"site","cmd":{}})",
                                         "[]", "[1,2]", "7", "\"text\"", "true"));

TEST_F(RRMTest, WithTheControllerDisabledNoMessageIsRoutedAtAll) {
  config_.enabled = false;
  const auto site = add_worker("site");
  receive(R"({"domain":"site","cmd":"rrm-response"})");
  receive(subscription("other"));
  EXPECT_EQ(site->queue_size(), 0U);
  EXPECT_EQ(rrm_.workers().size(), 1U);
}

TEST_F(RRMTest, AnUnparsableTextIsReportedAndDropped) {
  receive("{broken");
  EXPECT_EQ(log_.texts(LogLevel::Error),
            (Texts{"process_incoming_message: json parse failed or null root"}));
  EXPECT_EQ(log_.events(),
            (std::vector<std::pair<EventCode, std::string>>{{EventCode::TextDoesNotParse, ""}}));
}

TEST_F(RRMTest, ADomainThatIsNotConfiguredCreatesNoWorker) {
  receive(subscription("nowhere"));
  EXPECT_EQ(rrm_.workers().size(), 0U);
  EXPECT_EQ(log_.texts(LogLevel::Error),
            (Texts{"Exception at processing message for domain 'nowhere': Domain not found"}));
  ASSERT_EQ(log_.events().size(), 1U);
  EXPECT_EQ(log_.events()[0].first, EventCode::WorkerNotCreated);
}

struct InternalCase {
  const char* name;
  const char* service;
  const char* text;
};

class InternalService : public RRMTest, public testing::WithParamInterface<InternalCase> {};

TEST_P(InternalService, FromAnAccessPointIsRefusedRecordedAsInvalidAndRaised) {
  const auto site = add_worker("site");
  receive(GetParam().text);
  EXPECT_EQ(site->queue_size(), 0U);
  EXPECT_EQ(rrm_.workers().size(), 1U);
  EXPECT_EQ(log_.texts(LogLevel::Warning), (Texts{"Incoming message validation failed"}));
  EXPECT_TRUE(
      log_.has(LogLevel::Debug, std::string("process_incoming_message: session 5 sent service '") +
                                    GetParam().service + "', refused"));
  EXPECT_EQ(log_.events(),
            (std::vector<std::pair<EventCode, std::string>>{{EventCode::MessageInvalid, ""}}));
}

INSTANTIATE_TEST_SUITE_P(
    Messages, InternalService,
    testing::Values(
        InternalCase{"DropSession", "rrm-internal",
                     R"({"service":"rrm-internal","cmd":"drop-session","domain":"site"})"},
        InternalCase{"PingSession", "rrm-internal",
                     R"({"service":"rrm-internal","cmd":"ping-session","domain":"site"})"},
        InternalCase{"StopLoadBalancer", "rrm-internal",
                     R"({"service":"rrm-internal","cmd":"stop-load-balancer","domain":"site"})"},
        InternalCase{"Subscription", "rrm-internal",
                     R"({"service":"rrm-internal","cmd":"subscribe-request","domain":"other"})"},
        InternalCase{"Stop", "internal-ipc",
                     R"({"service":"internal-ipc","cmd":"stop","domain":"site"})"},
        InternalCase{"TheLastOfTwoServicesCounts", "internal-ipc",
                     R"({"service":"rrm","service":"internal-ipc","cmd":"stop","domain":"site"})"}),
    [](const auto& test) { return test.param.name; });

TEST_F(RRMTest, ALongHostileDomainNameIsOnlyAnUnknownOne) {
  receive(subscription(std::string(100000, '%') + "../../etc/passwd"));
  EXPECT_EQ(rrm_.workers().size(), 0U);
}

// --- sessions

TEST_F(RRMTest, AClosedSessionIsForgottenByEveryDomainThroughTheirForceQueues) {
  const auto site = add_worker("site");
  const auto other = add_worker("other");
  receive(R"({"domain":"site","cmd":"earlier"})");
  rrm_.on_session_closed(kSession);
  for (const auto& worker : {site, other}) {
    worker->process_queues();
    ASSERT_EQ(worker->records().size(), 1U);
    EXPECT_EQ(worker->records()[0].first, R"({"service":"rrm-internal","cmd":"drop-session"})");
    EXPECT_EQ(worker->records()[0].second, kSession);
  }
}

TEST_F(RRMTest, ALoadBalancerStopReachesEveryDomain) {
  const auto site = add_worker("site");
  const auto other = add_worker("other");
  rrm_.stop_load_balancer_at_rrm_worker(kSession);
  EXPECT_TRUE(log_.has(LogLevel::Info, "rrm: stop-load-balancer:"));
  for (const auto& worker : {site, other}) {
    worker->process_queues();
    EXPECT_EQ(worker->texts(), (Texts{R"({"service":"rrm-internal","cmd":"stop-load-balancer"})"}));
  }
}

TEST_F(RRMTest, DroppingASessionIsRecordedWithItsForce) {
  rrm_.drop_session_at_websock_worker(kSession, true);
  rrm_.drop_session_at_websock_worker(kSession, false);
  EXPECT_TRUE(log_.has(LogLevel::Debug, "drop_session_at_websock_worker: 5 force: 1"));
  EXPECT_TRUE(log_.has(LogLevel::Debug, "drop_session_at_websock_worker: 5 force: 0"));
  EXPECT_TRUE(log_.has(LogLevel::Debug,
                       "enqueue_message_force: no live websocket session for wsi (dropped id=5)"));
  EXPECT_TRUE(log_.has(LogLevel::Debug,
                       "enqueue_message: no live websocket session for wsi (dropped id=5)"));
}

TEST_F(RRMTest, PingsWaitBehindWhatWasSentAndForcedMessagesDoNot) {
  rrm_.ping_session(kSession);
  EXPECT_EQ(log_.texts(LogLevel::Debug),
            (Texts{"enqueue_message: no live websocket session for wsi (dropped id=5)"}));
  log_.clear();
  rrm_.send_message_force("{}", kSession);
  EXPECT_EQ(log_.texts(LogLevel::Debug),
            (Texts{"enqueue_message_force: no live websocket session for wsi (dropped id=5)"}));
}

TEST_F(RRMTest, SendingToASessionThatIsNotThereIsDropped) {
  rrm_.send_text("{}", kSession);
  EXPECT_EQ(log_.count(LogLevel::Debug,
                       "enqueue_serialized: no live websocket session for wsi (dropped id=5)"),
            1U);
  rrm_.send_serialized("{}", kSession);
  EXPECT_EQ(log_.count(LogLevel::Debug,
                       "enqueue_serialized: no live websocket session for wsi (dropped id=5)"),
            2U);
  rrm_.send_text(nullptr, kSession);
  EXPECT_EQ(log_.records().size(), 2U);
  EXPECT_FALSE(rrm_.is_session_alive(kSession));
}

TEST_F(RRMTest, AnOutgoingTextThatDoesNotParseIsReportedAndNotSent) {
  rrm_.send_message("{nope", kSession);
  EXPECT_EQ(log_.texts(LogLevel::Error), (Texts{"send_message json null"}));
  EXPECT_EQ(log_.texts(LogLevel::Debug), (Texts{"send_message str: {nope"}));
  EXPECT_TRUE(log_.has_event(EventCode::TextDoesNotParse));
  log_.clear();
  rrm_.send_message(nullptr, kSession);
  EXPECT_EQ(log_.texts(LogLevel::Debug), (Texts{"send_message str: "}));
  log_.clear();
  rrm_.send_message("{}", kSession);
  EXPECT_TRUE(log_.texts(LogLevel::Error).empty());
  EXPECT_TRUE(log_.has(LogLevel::Debug,
                       "enqueue_message: no live websocket session for wsi (dropped id=5)"));
}

// --- life

TEST_F(RRMTest, StartsTheServiceWorkersAsMaster) {
  rrm_.start();
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Wavelom version 1.9.1.323-amd64 start\n"));
  EXPECT_TRUE(rrm_.websock_server().is_started());
  EXPECT_TRUE(rrm_.default_worker().is_started());
  EXPECT_TRUE(wait_until([&] { return rrm_.websock_server().port() != 0; }));
  EXPECT_TRUE(wait_until([&] { return log_.has(LogLevel::Debug, "Start worker Ping-worker"); }));
  rrm_.stop();
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Stop worker Ping-worker"));
  EXPECT_FALSE(rrm_.default_worker().is_started());
  EXPECT_FALSE(rrm_.websock_server().is_started());
  EXPECT_EQ(rrm_.websock_server().port(), 0);
}

TEST_F(RRMTest, StartsNothingWhenDisabled) {
  config_.enabled = false;
  rrm_.start();
  EXPECT_EQ(log_.texts(LogLevel::Debug), (Texts{"Wavelom version 1.9.1.323-amd64 disabled\n"}));
  EXPECT_FALSE(rrm_.websock_server().is_started());
}

TEST_F(RRMTest, StopCancelsEveryDomainAndForgetsIt) {
  const auto site = add_worker("site");
  site->start();
  rrm_.stop();
  EXPECT_EQ(rrm_.workers().size(), 0U);
  EXPECT_FALSE(site->is_started());
  EXPECT_EQ(site->disconnects, 1);
  const auto records = log_.records();
  const auto cancel = std::find_if(records.begin(), records.end(), [](const auto& record) {
    return record.text == "Cancel domain site";
  });
  ASSERT_NE(cancel, records.end());
  EXPECT_EQ(cancel->function, "operator()");
  EXPECT_EQ(cancel->level, LogLevel::Debug);
}

TEST_F(RRMTest, NoDomainComesToLifeOnceItIsStopped) {
  rrm_.stop();
  receive(subscription("site"));
  EXPECT_EQ(rrm_.workers().size(), 0U);
  EXPECT_EQ(created(), 0U);
}

TEST_F(RRMTest, RestartServesAgainWithTheConfigurationAsItIsNow) {
  rrm_.start();
  ASSERT_TRUE(wait_until([&] { return rrm_.websock_server().port() != 0; }));
  rrm_.restart();
  EXPECT_EQ(log_.count(LogLevel::Debug, "Wavelom version 1.9.1.323-amd64 start\n"), 2U);
  const auto texts = log_.texts(LogLevel::Debug);
  EXPECT_TRUE(std::none_of(texts.begin(), texts.end(), [](const std::string& text) {
    return text.starts_with("Wavelom start in vrrp mode");
  })) << "there is no role to preserve";
  EXPECT_TRUE(wait_until([&] { return rrm_.websock_server().port() != 0; }));
  receive(subscription("site"));
  EXPECT_EQ(created(), 1U);
  config_.enabled = false;
  rrm_.restart();
  EXPECT_FALSE(rrm_.websock_server().is_started());
  EXPECT_EQ(rrm_.workers().size(), 0U);
}

TEST_F(RRMTest, StoppingWhileSubscriptionsArriveLeavesNoWorkerBehind) {
  rrm_.start();
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&] {
      while (!done) {
        receive(subscription("site"));
        receive(subscription("other"));
      }
    });
  ASSERT_TRUE(wait_until([&] { return created() > 0 && created("other") > 0; }));
  rrm_.stop();
  done = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(rrm_.workers().size(), 0U);
}

// --- removing

TEST_F(RRMTest, RemovingAnUnknownWorkerStillWritesTheErasedRecord) {
  EXPECT_FALSE(rrm_.remove_worker("nowhere"));
  EXPECT_EQ(log_.texts(LogLevel::Debug), (Texts{"Worker with domain 'nowhere' erased."}));
}

TEST_F(RRMTest, RemovingAWorkerStopsItAndLeavesTheOthers) {
  const auto site = add_worker("site");
  const auto other = add_worker("other");
  site->start();
  EXPECT_TRUE(rrm_.remove_worker("site"));
  EXPECT_FALSE(site->is_started());
  EXPECT_EQ(rrm_.find_worker("site"), nullptr);
  EXPECT_EQ(rrm_.find_worker("other"), other);
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Worker with domain 'site' erased."));
}

TEST_F(RRMTest, RemovingAWorkerDropsTheSessionsWhoseMessagesStillWait) {
  const auto site = add_worker("site");
  const auto nth_session = [](std::uint32_t id) {
    return SessionAddress{kSession.wsi, kSession.tsi, id};
  };
  receive(subscription("site"), nth_session(6));
  receive(subscription("site"), nth_session(7));
  receive(subscription("site"), nth_session(6));
  rrm_.on_session_closed(nth_session(8));
  EXPECT_TRUE(rrm_.remove_worker("site"));
  for (const auto& [id, drops] : std::vector<std::pair<int, std::size_t>>{{6, 1}, {7, 1}, {8, 0}})
    EXPECT_EQ(log_.count(LogLevel::Debug,
                         "drop_session_at_websock_worker: " + std::to_string(id) + " force: 1"),
              drops)
        << id;
  EXPECT_EQ(site->record_count(), 0U);
}

TEST_F(RRMTest, RemovingAWorkerDropsTheSessionsOfItsAccessPoints) {
  rrm_.start();
  ASSERT_TRUE(wait_until([&] { return rrm_.websock_server().port() != 0; }));
  test::WebsockClients clients(rrm_.websock_server().port());
  clients.open_all(2);
  const auto subscribe = [&](std::size_t client, const char* domain, const char* mac) {
    clients.send(client, std::string(R"({"service":"rrm","version":"2.4",)") +
                             R"("cmd":"subscribe-request","domain":")" + domain +
                             R"(","ap-mac":")" + mac +
                             R"(","factory":{"board":"B","hw":"H","serial":"S","mac":")" + mac +
                             R"("},"radios":[]})");
    EXPECT_FALSE(clients.wait_received(client).empty());
  };
  subscribe(0, "site", "0a:11:22:00:01:00");
  subscribe(1, "other", "0a:11:22:00:02:00");
  EXPECT_TRUE(rrm_.remove_worker("site"));
  ASSERT_TRUE(clients.wait_closed(0));
  EXPECT_EQ(clients.close_reason(0), (std::pair<int, std::string>(1000, "done")));
  EXPECT_TRUE(wait_until([&] { return rrm_.websock_server().session_count() == 1; }));
  EXPECT_TRUE(clients.is_open(1));
  const auto texts = log_.texts(LogLevel::Debug);
  EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                          [](const auto& text) { return text.rfind("Drop session ", 0) == 0; }),
            1);
  EXPECT_EQ(log_.count(LogLevel::Debug, "Drop session 0A:11:22:00:01:00(1) on worker 'site'.") +
                log_.count(LogLevel::Debug, "Drop session 0A:11:22:00:01:00(2) on worker 'site'."),
            1U);
  EXPECT_EQ(log_.count(LogLevel::Debug, "drop_session_at_websock_worker: 1 force: 1") +
                log_.count(LogLevel::Debug, "drop_session_at_websock_worker: 2 force: 1"),
            1U);
}

TEST_F(RRMTest, ARemovedDomainComesBackWithItsNextSubscription) {
  receive(subscription("site"));
  rrm_.remove_worker("site");
  receive(subscription("site"));
  EXPECT_EQ(created(), 2U);
}

TEST_F(RRMTest, TheEndOfAWorkerThatTheMapNoLongerHoldsChangesNothing) {
  const auto site = add_worker("site");
  const RecordingWorker stranger("site", &rrm_);
  rrm_.stop_domain_event("site", &stranger);
  rrm_.stop_domain_event("nowhere", site.get());
  EXPECT_EQ(rrm_.find_worker("site"), site);
  rrm_.stop_domain_event("site", site.get());
  EXPECT_EQ(rrm_.find_worker("site"), nullptr);
}

TEST_F(RRMTest, AnExceptionAtTheEndOfAWorkerIsLoggedAndRaised) {
  // The map's lock refuses the thread that holds it already, which is the one way to fail there.
  std::mutex& lock = rrm_.workers().mutex();
  ASSERT_EQ(::pthread_mutex_destroy(lock.native_handle()), 0);
  pthread_mutexattr_t checking;
  ASSERT_EQ(::pthread_mutexattr_init(&checking), 0);
  ASSERT_EQ(::pthread_mutexattr_settype(&checking, PTHREAD_MUTEX_ERRORCHECK), 0);
  ASSERT_EQ(::pthread_mutex_init(lock.native_handle(), &checking), 0);
  {
    const std::lock_guard held(lock);
    rrm_.stop_domain_event("site", nullptr);
  }
  EXPECT_TRUE(log_.has(LogLevel::Error,
                       "Exception at processing stop_domain_event: Resource deadlock avoided"));
  EXPECT_TRUE(log_.has_event(EventCode::WorkerExitThrew));
}

// --- restoring

TEST_F(RRMTest, RestoresEveryDomainOfTheBackups) {
  rrm_.restore_domains(R"([{"name":"site"},{"name":"other","aps":[]}])");
  EXPECT_EQ(rrm_.workers().size(), 2U);
  EXPECT_EQ(created("site"), 1U);
  EXPECT_EQ(created("other"), 1U);
  EXPECT_TRUE(rrm_.find_worker("site")->is_started());
}

TEST_F(RRMTest, ARestoredDomainHasTheAccessPointsOfItsBackup) {
  rrm_.restore_domains(R"([{"name":"site","rrm-status":0,"fbt-status":0,)"
                       R"("aps":[{"mac":"00:11:22:00:01:00","board":"B","hw":"H","serial":"S"}],)"
                       R"("unanswered-aps":[],"deleted-aps":[]}])");
  const auto worker = std::dynamic_pointer_cast<RrmWorker>(rrm_.find_worker("site"));
  ASSERT_NE(worker, nullptr);
  worker->run_locked([&] {
    EXPECT_NE(worker->aps_to_delete().find(MacAddress::from_text("00:11:22:00:01:00")), nullptr);
  });
}

TEST_F(RRMTest, ADomainThatAlreadyHasAWorkerIsNotRestored) {
  const auto site = add_worker("site");
  rrm_.restore_domains(R"([{"name":"site"}])");
  EXPECT_EQ(rrm_.find_worker("site"), site);
  EXPECT_EQ(created(), 0U);
}

TEST_F(RRMTest, AnUnknownDomainAmongTheBackupsDoesNotKeepTheOthersFromComingBack) {
  rrm_.restore_domains(R"([{"name":"nowhere"},{},7,null,{"name":"site"}])");
  EXPECT_EQ(rrm_.workers().size(), 1U);
  EXPECT_EQ(created(), 1U);
}

TEST_F(RRMTest, NothingToRestoreIsNoError) {
  for (const char* text : {static_cast<const char*>(nullptr), "", "{broken", "[]", "{}", "7"})
    rrm_.restore_domains(text);
  EXPECT_EQ(rrm_.workers().size(), 0U);
  EXPECT_TRUE(log_.records().empty());
}

// --- VRRP

TEST_F(RRMTest, WithVrrpItStartsAsBackupAndServesNobodyUntilItIsMaster) {
  config_.vrrp_enabled = true;
  EXPECT_EQ(rrm_.get_vrrp_role(), VrrpRole::Master);
  rrm_.start();
  EXPECT_EQ(log_.texts(LogLevel::Debug),
            (Texts{"Wavelom version 1.9.1.323-amd64 start\n", "Wavelom start in vrrp mode\n"}));
  EXPECT_EQ(rrm_.get_vrrp_role(), VrrpRole::Backup);
  EXPECT_FALSE(rrm_.websock_server().is_started());

  rrm_.update_vrrp_role(VrrpRole::Master, R"([{"name":"site"}])");
  EXPECT_TRUE(log_.has(LogLevel::Info, "VRRP role: backup -> master"));
  EXPECT_EQ(rrm_.get_vrrp_role(), VrrpRole::Master);
  EXPECT_TRUE(rrm_.websock_server().is_started());
  EXPECT_EQ(created(), 1U);
  EXPECT_TRUE(wait_until([&] { return rrm_.websock_server().port() != 0; }));
  const auto records = log_.texts(LogLevel::Debug);
  EXPECT_LT(std::find(records.begin(), records.end(), "Created new worker 'site'."),
            std::find(records.begin(), records.end(), "Starting 1 lws threads"))
      << "an access point that was served first would have created its domain without the backup";

  rrm_.update_vrrp_role(VrrpRole::Master, nullptr);
  EXPECT_EQ(log_.texts(LogLevel::Warning),
            (Texts{"try to switch VRRP role to the same: master -> master"}));

  rrm_.update_vrrp_role(VrrpRole::Backup, nullptr);
  EXPECT_TRUE(log_.has(LogLevel::Info, "VRRP role: master -> backup"));
  EXPECT_FALSE(rrm_.websock_server().is_started());
  EXPECT_EQ(rrm_.workers().size(), 0U);
}

TEST_F(RRMTest, NewMasterRestoresItsDomainsBeforeItLetsAccessPointsIn) {
  config_.vrrp_enabled = true;
  rrm_.start();
  log_.clear();
  rrm_.update_vrrp_role(VrrpRole::Master, R"([{"name":"site"}])");
  ASSERT_TRUE(wait_until([&] { return log_.has(LogLevel::Debug, "Starting 1 lws threads"); }));
  const Texts records = log_.texts(LogLevel::Debug);
  const auto position = [&](const std::string& text) {
    return std::find(records.begin(), records.end(), text) - records.begin();
  };
  EXPECT_LT(position("Created new worker 'site'."), position("Starting 1 lws threads"));
}

TEST_F(RRMTest, NewMasterReadsItsBackupsBeforeItStartsAnyThread) {
  config_.vrrp_enabled = true;
  rrm_.start();
  log_.clear();
  {
    // The restored domain, and after it the first service, is then refused its thread.
    const test::NoNewThreads none;
    EXPECT_THROW(
        rrm_.update_vrrp_role(VrrpRole::Master,
                              R"([{"name":"site","aps":[{"mac":"00:11:22:00:01:00","board":"B",)"
                              R"("hw":"H","serial":"S"}]}])"),
        std::system_error);
  }
  Texts texts;
  for (const auto& record : log_.records())
    if (record.level != LogLevel::Trace) texts.push_back(record.text);
  EXPECT_EQ(texts,
            (Texts{"VRRP role: backup -> master", "Restore ap '00:11:22:00:01:00' from backup",
                   "Exception at processing message for domain 'site': Resource "
                   "temporarily unavailable"}));
  EXPECT_EQ(rrm_.get_vrrp_role(), VrrpRole::Backup);
}

TEST_F(RRMTest, RestartInVrrpModeKeepsTheRole) {
  config_.vrrp_enabled = true;
  rrm_.start();
  rrm_.update_vrrp_role(VrrpRole::Master, nullptr);
  log_.clear();
  rrm_.restart();
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Wavelom start in vrrp mode, preserving role: master\n"));
  EXPECT_EQ(rrm_.get_vrrp_role(), VrrpRole::Master);
  EXPECT_TRUE(rrm_.websock_server().is_started());
}

TEST_F(RRMTest, RoleNames) {
  EXPECT_STREQ(vrrp_role_name(VrrpRole::Backup), "backup");
  EXPECT_STREQ(vrrp_role_name(VrrpRole::Master), "master");
  EXPECT_STREQ(vrrp_role_name(static_cast<VrrpRole>(9)), "unknown");
}

// --- reports

class RRMReportsTest : public RRMTest {
 protected:
  RRMReportsTest() {
    config_.reports_path = folder_.path();
    config_.report_delete_at_time_utc = std::string("00:00");  // at any time of the day it has come
    reports::reset_report_alarm();
  }
  ~RRMReportsTest() override { reports::reset_report_alarm(); }

  void write_reports(const std::string& domain) {
    for (const char* kind : {"report_", "report_cfg_", "report_idx_"})
      folder_.write(kind + domain + ".txt", "\n");
  }

  test::TempFolder folder_;
};

TEST_F(RRMReportsTest, TheCheckBeginsWithARecordOfItsSettings) {
  config_.report_delete_at_time_utc = std::string("x");
  rrm_.check_old_reports();
  ASSERT_FALSE(log_.texts(LogLevel::Debug).empty());
  EXPECT_EQ(log_.texts(LogLevel::Debug)[0],
            "RRM::check_old_reports entered: report_delete_at_time_utc=\"x\", reports_path=\"" +
                folder_.path() + "\".");
  EXPECT_FALSE(log_.has(LogLevel::Info, "Check old reports."));
}

TEST_F(RRMReportsTest, RunsOnceADayForActiveAndInactiveDomains) {
  const auto site = add_worker("site");
  rrm_.check_old_reports();
  EXPECT_EQ(log_.count(LogLevel::Info, "Check old reports."), 1U);
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Active domain: site"));
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Inactive domain: other\n"));
  rrm_.check_old_reports();
  EXPECT_EQ(log_.count(LogLevel::Info, "Check old reports."), 1U);
}

TEST_F(RRMReportsTest, DeletesTheFilesOfDomainsThatAreNotConfigured) {
  write_reports("gone");
  folder_.write("report_idx_half.txt", "");
  folder_.write("report_idx_.txt", "");
  folder_.write("report_idx_x.csv", "");
  rrm_.check_old_reports();
  EXPECT_TRUE(log_.has(LogLevel::Info, "Delete report files for domain: gone"));
  EXPECT_TRUE(log_.has(LogLevel::Info, "Delete report files for domain: half"));
  for (const char* kind : {"report_", "report_cfg_", "report_idx_"})
    EXPECT_FALSE(folder_.has(std::string(kind) + "gone.txt"));
  EXPECT_FALSE(folder_.has("report_idx_half.txt"));
  EXPECT_TRUE(folder_.has("report_idx_.txt"));
  EXPECT_TRUE(folder_.has("report_idx_x.csv"));
  EXPECT_TRUE(log_.texts(LogLevel::Error).empty());
}

TEST_F(RRMReportsTest, ADomainThatWaitsForItsPatternKeepsItsReports) {
  config_.load(JsonReader(R"({"domains":[{"domain":"waits","pattern":"late"}]})"));
  write_reports("waits");
  rrm_.check_old_reports();
  EXPECT_FALSE(log_.has(LogLevel::Info, "Delete report files for domain: waits"));
  for (const char* kind : {"report_", "report_cfg_", "report_idx_"})
    EXPECT_TRUE(folder_.has(std::string(kind) + "waits.txt")) << kind;
}

TEST_F(RRMReportsTest, ConfiguredDomainsKeepTheReportsOfTheirDaysToLive) {
  bool invalid = false;
  bool changed = false;
  JsonWriter document;
  JsonWriter errors = JsonWriter::array(document, "errors");
  ASSERT_TRUE(config_.pattern_change("common", JsonReader(R"({"report_days_to_live":3})"), errors,
                                     invalid, changed));
  const auto line = [now = std::time(nullptr)](int days_ago) {
    return "1.1," + reports::format_time(now - days_ago * 86400 - 60) + "\n";
  };
  for (const std::string domain : {"site", "other"})
    for (const char* kind : {"report_", "report_cfg_", "report_idx_"})
      folder_.write(kind + domain + ".txt", line(4) + line(2));
  const auto site = add_worker("site");
  rrm_.check_old_reports();
  for (const std::string domain : {"site", "other"})
    for (const char* kind : {"report_", "report_cfg_", "report_idx_"})
      EXPECT_EQ(folder_.read(kind + domain + ".txt"), line(2)) << kind << domain;
  EXPECT_FALSE(log_.has(LogLevel::Info, "Delete report files for domain: other"));
}

TEST_F(RRMReportsTest, AFileThatCannotBeDeletedIsReportedAndRaisedOnce) {
  // A folder in the place of a file: remove() refuses it while something is inside.
  std::filesystem::create_directories(folder_.file("report_idx_gone.txt/inside"));
  std::filesystem::create_directories(folder_.file("report_gone.txt/inside"));
  rrm_.check_old_reports();
  const std::string head = "Error while delete \"" + folder_.path();
  EXPECT_EQ(log_.texts(LogLevel::Error),
            (Texts{head + "/report_gone.txt\", errno = 39: Directory not empty",
                   head + "/report_idx_gone.txt\", errno = 39: Directory not empty"}));
  EXPECT_EQ(log_.events().size(), 1U);
  EXPECT_EQ(log_.events()[0].first, EventCode::ReportCheckFailed);
}

TEST_F(RRMReportsTest, FailuresOfSeveralDomainsAreReportedEachAndRaisedOnce) {
  for (const char* index : {"report_idx_gone.txt/inside", "report_idx_lost.txt/inside"})
    std::filesystem::create_directories(folder_.file(index));
  folder_.write("report_cfg_lost.txt", "\n");
  rrm_.check_old_reports();
  EXPECT_EQ(log_.texts(LogLevel::Error).size(), 2U);
  EXPECT_EQ(log_.events().size(), 1U);
  EXPECT_FALSE(folder_.has("report_cfg_lost.txt"));
}

TEST_F(RRMReportsTest, SettingsThatCannotBeDeletedAreReportedAndRaisedToo) {
  std::filesystem::create_directories(folder_.file("report_cfg_gone.txt/inside"));
  folder_.write("report_idx_gone.txt", "");
  rrm_.check_old_reports();
  EXPECT_EQ(log_.texts(LogLevel::Error),
            (Texts{"Error while delete \"" + folder_.path() +
                   "/report_cfg_gone.txt\", errno = 39: Directory not empty"}));
  EXPECT_EQ(log_.events().size(), 1U);
}

TEST_F(RRMReportsTest, AMissingFolderIsReported) {
  config_.reports_path = folder_.file("missing");
  rrm_.check_old_reports();
  EXPECT_TRUE(log_.has(LogLevel::Error, "Could not open directory: " + folder_.file("missing")));
  EXPECT_EQ(log_.events().back().first, EventCode::ReportCheckFailed);
}

TEST_F(RRMReportsTest, AnEntryWithoutAWorkerIsReported) {
  rrm_.workers().insert("site", nullptr);
  rrm_.check_old_reports();
  rrm_.workers().clear();
  EXPECT_EQ(log_.texts(LogLevel::Error), (Texts{"site worker absent."}));
  EXPECT_TRUE(log_.has_event(EventCode::ReportCheckFailed, "site"));
}

TEST_F(RRMReportsTest, AFailureIsReportedForActiveAndInactiveDomainsApart) {
  const auto site = add_worker("site");
  config_.reports_path = std::string("");  // no path is a bad argument
  rrm_.check_old_reports();
  EXPECT_TRUE(log_.has(LogLevel::Error,
                       "Error call delete_old_reports_in_domain for active domain: site. Error "
                       "code = 22"));
  EXPECT_TRUE(log_.has(LogLevel::Error,
                       "Error call delete_old_reports_in_domain for inactive domain: other. Error "
                       "code = 22"));
  EXPECT_TRUE(log_.has_event(EventCode::ReportCheckFailed, "site"));
  EXPECT_TRUE(log_.has_event(EventCode::ReportCheckInactive, "other"));
}

TEST_F(RRMReportsTest, AnActiveDomainsReportsAreDeletedBetweenTwoOfItsMessages) {
  const auto site = add_worker("site");
  std::atomic<bool> busy{false};
  std::atomic<bool> checked{false};
  site->on_message = [&](const JsonReader&) {
    busy = true;
    wait_until([&] { return log_.has(LogLevel::Debug, "Active domain: site"); });
    EXPECT_FALSE(checked);
  };
  site->start();
  site->enqueue_message(JsonReader("{}"), kNoSession);
  ASSERT_TRUE(wait_until([&] { return busy.load(); }));
  rrm_.check_old_reports();
  checked = true;
}

}  // namespace
}  // namespace rrm
