#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "server/lib/Api.h"
#include "server/lib/RRM.h"
#include "tests/support/Engine.h"
#include "tests/support/RecordingWorker.h"
#include "tests/support/TempFolder.h"

/// Commands that concern one domain, on a domain worker without a thread.
namespace rrm {
namespace {

using test::Engine;
using test::RadioSpec;

class PlainApi : public Api {
 public:
  using Api::Api;
  bool connect() override { return true; }
  void stop() override {}
  void run() override {}
};

class ApiDomain : public testing::Test {
 protected:
  ApiDomain() { engine_.rrm().workers().insert("site", engine_.shared_worker()); }

  /// The reply without its header.
  std::string body(const std::string& command) { return body_of(api_, command); }
  std::string body_of(Api& api, const std::string& command) {
    const std::string request = "{\"rrm\":" + command + "}";
    const std::string reply = api.process_request(JsonReader(request.c_str())).value_or("none");
    const std::string header = R"({"version":"2.1","server":")" + engine_.global().host_name() +
                               R"(","wavelom_version":"1.9.1.323-amd64")";
    EXPECT_EQ(reply.substr(0, header.size()), header);
    return reply.substr(header.size());
  }

  Engine engine_;
  PlainApi api_{engine_.rrm(), engine_.global()};
};

TEST_F(ApiDomain, StatusListCountsTheAccessPointsOfTheThreeMaps) {
  engine_.subscribe(1, {RadioSpec{}});
  engine_.subscribe(2, {RadioSpec{}});
  engine_.subscribe(3, {RadioSpec{}});
  engine_.close_session(102);
  EXPECT_EQ(body("{}"), R"(,"domains":[{"name":"site","ap-count":2,"unanswered-ap-count":0,)"
                        R"("deleted-ap-count":1,"common-config":0}]})");
}

TEST_F(ApiDomain, DomainAloneReturnsItsDetails) {
  engine_.subscribe(1, {RadioSpec{}});
  const std::string text = body(R"({"domain":"site"})");
  EXPECT_EQ(text.substr(0, 37), R"(,"details":{"name":"site","metrics":{)");
  EXPECT_NE(text.find(R"("ap-count":1)"), std::string::npos);
}

TEST_F(ApiDomain, AccessPointIsDescribedByItsMacInEitherCase) {
  engine_.subscribe(1, {RadioSpec{}});
  const auto ap = engine_.ap(1);
  ap->base_mac = MacAddress::from_text("00:11:22:AB:CD:EF");
  engine_.worker().aps().insert(ap);
  const std::string text = body(R"({"domain":"site","ap":"00:11:22:AB:CD:EF"})");
  EXPECT_EQ(text.substr(0, 46), R"(,"active-ap":{"mac":"00:11:22:AB:CD:EF","activ)");
  EXPECT_EQ(text.find("\"error\""), std::string::npos);
  EXPECT_EQ(body(R"({"domain":"site","ap":"00:11:22:ab:cd:ef"})"), text);
}

TEST_F(ApiDomain, DeletedAccessPointIsDescribedAsDeleted) {
  engine_.subscribe(1, {RadioSpec{}});
  engine_.close_session(101);
  EXPECT_EQ(body(R"({"domain":"site","ap":"00:11:22:00:01:00"})").substr(0, 39),
            R"(,"deleted-ap":{"mac":"00:11:22:00:01:00)");
}

TEST_F(ApiDomain, UnansweredAccessPointIsDescribedAndCountedAsUnanswered) {
  engine_.subscribe(1, {RadioSpec{.channel = 0}});
  engine_.worker().aps().move_without_active_radio(engine_.worker().unanswered_aps(), 3);
  EXPECT_EQ(body(R"({"domain":"site","ap":"00:11:22:00:01:00"})").substr(0, 42),
            R"(,"unanswered-ap":{"mac":"00:11:22:00:01:00)");
  EXPECT_EQ(body("{}"), R"(,"domains":[{"name":"site","ap-count":0,"unanswered-ap-count":1,)"
                        R"("deleted-ap-count":0,"common-config":0}]})");
}

TEST_F(ApiDomain, CommandWaitsForWhatTheWorkerIsDoing) {
  std::atomic<bool> held{false};
  std::atomic<bool> released{false};
  std::thread busy([&] {
    engine_.worker().run_locked([&] {
      held = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      released = true;
    });
  });
  while (!held) std::this_thread::yield();
  EXPECT_EQ(body(R"({"domain":"site","ap":"x"})"), R"(,"error":"ap not found"})");
  EXPECT_TRUE(released);
  busy.join();
}

TEST_F(ApiDomain, WorkerThatHasEndedMeanwhileLeavesTheReplyAsItIs) {
  engine_.subscribe(1, {RadioSpec{}});
  engine_.worker().abort();
  EXPECT_EQ(body(R"({"domain":"site","ap":"00:11:22:00:01:00"})"), "}");
  EXPECT_TRUE(engine_.log().has(LogLevel::Debug, "Worker absent."));
}

TEST_F(ApiDomain, LinksOfAnAccessPointAreIncludedOnRequest) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;
  config.use_80211r = true;
  Engine engine(config);
  PlainApi api(engine.rrm(), engine.global());
  engine.rrm().workers().insert("site", engine.shared_worker());
  engine.subscribe(1, {RadioSpec{.vaps = {{.id = 1, .ssid = "a", .k = true, .r = true}}}});
  const std::string text =
      body_of(api, R"({"domain":"site","ap":"00:11:22:00:01:00","fbt-links":{}})");
  EXPECT_EQ(
      text.substr(0, 88),
      R"(,"active-ap":{"board":"KV-810","mac":"00:11:22:00:01:00","serial":"S1","hw":"A","radios")");
  EXPECT_NE(text.find("fbt-rrb-key"), std::string::npos);
}

TEST_F(ApiDomain, UnknownAccessPointIsAnError) {
  for (const char* mac : {"\"00:11:22:00:09:00\"", "\"rubbish\"", "7", "null"})
    EXPECT_EQ(body(R"({"domain":"site","ap":)" + std::string(mac) + "}"),
              R"(,"error":"ap not found"})");
}

TEST_F(ApiDomain, OptimisationStartsOnlyForTheTextTrueAndOnlyOnce) {
  engine_.subscribe(1, {RadioSpec{}});
  EXPECT_EQ(body(R"({"domain":"site","start_optimization":1})"), R"(,"status":"failure"})");
  EXPECT_EQ(body(R"({"domain":"site","start_optimization":"TRUE"})"), R"(,"status":"failure"})");
}

TEST_F(ApiDomain, OptimisationThatIsStartedIsASuccess) {
  DomainConfig config = Engine::quiet_config();
  config.use_dca = true;
  config.use_tpc = true;
  Engine engine(config);
  engine.rrm().workers().insert("site", engine.shared_worker());
  PlainApi api(engine.rrm(), engine.global());
  engine.subscribe(1, {RadioSpec{}});
  const JsonReader request(R"({"rrm":{"domain":"site","start_optimization":"true"}})");
  EXPECT_NE(api.process_request(request)->find(R"("status":"success"})"), std::string::npos);
  EXPECT_NE(api.process_request(request)->find(R"("status":"failure"})"), std::string::npos);
}

TEST_F(ApiDomain, AccessPointComesBeforeOptimisationAndReports) {
  EXPECT_EQ(body(R"({"domain":"site","ap":"x","start_optimization":"true","last_report":1})"),
            R"(,"error":"ap not found"})");
  EXPECT_EQ(body(R"({"domain":"site","start_optimization":"no","last_report":1})"),
            R"(,"status":"failure"})");
}

TEST_F(ApiDomain, AccessPointThatSeveralMapsHoldIsDescribedForEachOfThem) {
  engine_.subscribe(1, {RadioSpec{}});
  engine_.worker().aps_to_delete().insert(engine_.ap(1));
  engine_.worker().unanswered_aps().insert(engine_.ap(1));
  const std::string text = body(R"({"domain":"site","ap":"00:11:22:00:01:00"})");
  std::size_t last = 0;
  for (const std::string key : {"active-ap", "deleted-ap", "unanswered-ap"}) {
    const std::size_t place = text.find(",\"" + key + R"(":{"mac":"00:11:22:00:01:00")");
    ASSERT_NE(place, std::string::npos) << key;
    EXPECT_GE(place, last) << key;
    last = place;
  }
  EXPECT_EQ(text.find("\"error\""), std::string::npos);
}

/// A domain with a worker, a place in the configuration and an empty folder for its reports.
class ApiDomainReports : public ApiDomain {
 protected:
  ApiDomainReports() {
    engine_.global().reports_path = folder_.path();
    engine_.global().domain_add("site", {"common", 0, "0:00"});
  }

  test::TempFolder folder_;
};

constexpr char kOneDay[] = R"("report_list":{"date_start":"2024-05-01,00:00:00 UTC",)"
                           R"("date_finish":"2024-05-02,00:00:00 UTC"})";

TEST_F(ApiDomainReports, QueriesAreAnsweredInPlaceOfTheWorkersDetails) {
  EXPECT_EQ(body(R"({"domain":"site",)" + std::string(kOneDay) + "}"),
            R"(,"data":[],"count":0,"status":"success"})");
  EXPECT_EQ(body(R"({"domain":"site","last_report":1})"), R"(,"status":"success"})");
}

TEST_F(ApiDomainReports, TheListComesBeforeTheLastReport) {
  const std::string both = std::string(R"(,"last_report":1,)") + kOneDay + "}";
  for (const char* domain : {"site", "elsewhere"}) {
    engine_.global().domain_add("elsewhere", {"common", 0, "0:00"});
    EXPECT_EQ(body(R"({"domain":")" + std::string(domain) + '"' + both),
              R"(,"data":[],"count":0,"status":"success"})")
        << domain;
  }
}

TEST_F(ApiDomainReports, AReportComesBeforeEverythingElse) {
  const std::string id = "2024-05-01,03:15:00,site";
  const std::string reply = R"(,"report":{"id":")" + id +
                            R"(","domain":"site","date":"2024-05-01,03:15:00 UTC"},)" +
                            R"("status":"failure"})";
  for (const char* others : {"", R"(,"ap":"x")", R"(,"start_optimization":"true")",
                             R"(,"last_report":1)", R"(,"report_list":{})"})
    EXPECT_EQ(body(R"({"domain":"site","report":")" + id + '"' + others + "}"), reply) << others;
}

TEST_F(ApiDomain, WorkersThatAreNoDomainsHaveOnlyTheirName) {
  engine_.rrm().workers().clear();
  engine_.rrm().workers().insert("odd", nullptr);
  EXPECT_EQ(body(R"({"domain":"odd"})"), R"(,"error":"domain not found"})");
  EXPECT_EQ(body("{}"), R"(,"domains":[{"name":"odd"}]})");
  engine_.rrm().workers().clear();
  engine_.rrm().workers().insert("odd", std::make_shared<test::RecordingWorker>("odd"));
  EXPECT_EQ(body(R"({"domain":"odd"})"), R"(,"error":"domain not found"})");
  EXPECT_EQ(body("{}"), R"(,"domains":[{"name":"odd"}]})");
  engine_.rrm().workers().clear();
}

}  // namespace
}  // namespace rrm
