#include "server/lib/Api.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/RRM.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TempFolder.h"

namespace rrm {
namespace {

using test::CapturedLog;
using test::TempFolder;

class PlainApi : public Api {
 public:
  using Api::Api;
  bool connect() override { return true; }
  void stop() override {}
  void run() override {}
};

constexpr char kTwoSites[] = R"({"patterns":[{"pattern":"p1","dca_threshold":40}],)"
                             R"("domains":[{"domain":"d1","pattern":"p1","time_zone":"3:00"},)"
                             R"({"domain":"d2","pattern":"p1","time_zone":"-5:30"},)"
                             R"({"domain":"d3","pattern":"common","time_zone":"0:00"}]})";

class ApiCommands : public testing::Test {
 protected:
  /// The reply to a request, or "none".
  std::string ask(const std::string& request) {
    return api_.process_request(JsonReader(request.c_str())).value_or("none");
  }
  std::string header() const {
    return R"({"version":"2.1","server":")" + config_.host_name() +
           R"(","wavelom_version":"1.9.1.323-amd64")";
  }
  /// The domains whose workers the last commands ended.
  std::vector<std::string> restarted() const {
    std::vector<std::string> domains;
    for (const std::string& text : log_.texts(LogLevel::Debug)) {
      const std::string start = "Worker with domain '";
      if (text.rfind(start, 0) == 0)
        domains.push_back(text.substr(start.size(), text.rfind('\'') - start.size()));
    }
    return domains;
  }
  std::string saved() const { return folder_.read("c.conf"); }

  TempFolder folder_;
  GlobalConfig config_{folder_.file("c.conf"), kTwoSites};
  RRM rrm_{&config_};
  PlainApi api_{rrm_, config_};
  CapturedLog log_;
};

// --- configuration: get ------------------------------------------------------------------------

TEST_F(ApiCommands, GetGlobalReturnsTheHeaderAndTheThirteenOptions) {
  EXPECT_EQ(
      ask(R"({"cfg":{"operation":"get","level":"global"}})"),
      R"({"version":"2.1","enabled":1,"api_port":8089,"cli_api_port":8082,"listen_port":8099,)"
      R"("use_https":0,"report_delete_at_time_utc":"21:00",)"
      R"("reports_path":"/var/lib/tavro-wavelom/reports","www_path":"/opt/tavro-wavelom/www",)"
      R"("vrrp_enabled":0,"vrrp_timeout":15,"vrrp_backup_path":"/tmp/tavro-wavelom/backup",)"
      R"("vrrp_state_file":"/tmp/keep.mode","use_wildcard_80211r":0})");
}

TEST_F(ApiCommands, GetPatternsListsCommonFirst) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"get","level":"pattern"}})"),
            R"({"version":"2.1","patterns":[{"name":"common"},{"name":"p1"}]})");
}

TEST_F(ApiCommands, GetOfAPatternReturnsItsSettings) {
  DomainConfig expected;
  expected.dca_threshold = 40;
  JsonWriter writer("2.1");
  expected.to_json(writer);
  EXPECT_EQ(ask(R"({"cfg":{"operation":"get","level":"pattern","pattern":"p1"}})"), writer.str());
  JsonWriter common("2.1");
  DomainConfig().to_json(common);
  EXPECT_EQ(ask(R"({"cfg":{"operation":"get","level":"pattern","pattern":"common"}})"),
            common.str());
}

TEST_F(ApiCommands, GetOfAnUnknownPatternGetsNoReply) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"get","level":"pattern","pattern":"nosuch"}})"), "none");
}

TEST_F(ApiCommands, GetDomainsListsNamePatternAndTimeZone) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"get","level":"domain"}})"),
            R"({"version":"2.1","domains":[{"name":"d1","config":"p1","time_zone":"3:00"},)"
            R"({"name":"d2","config":"p1","time_zone":"-5:30"},)"
            R"({"name":"d3","config":"common","time_zone":"0:00"}]})");
}

TEST_F(ApiCommands, UnknownLevelsAndOperationsGetTheBareHeader) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"get","level":"moon"}})"), R"({"version":"2.1"})");
  EXPECT_EQ(ask(R"({"cfg":{"operation":"sing","level":"global"}})"), R"({"version":"2.1"})");
}

TEST_F(ApiCommands, MissingMandatoryMembersGetNoReply) {
  for (const char* command :
       {"{}", R"({"operation":"get"})", R"({"level":"global"})", R"({"operation":1,"level":2})",
        R"({"operation":"set","level":"global"})",
        R"({"operation":"set","level":"global","config":7})",
        R"({"operation":"set","level":"pattern","config":{"use_dca":0}})",
        R"({"operation":"set","level":"domain","config":{"domain":"d1"}})",
        R"({"operation":"add","level":"pattern"})",
        R"({"operation":"add","level":"pattern","config":{}})",
        R"({"operation":"add","level":"domain","config":{"pattern":"p1"}})",
        R"({"operation":"remove","level":"domain"})",
        R"({"operation":"remove","level":"domain","domain":""})",
        R"({"operation":"remove","level":"pattern","config":{"pattern":"p1"}})", "null", "[]", "7",
        R"("get")"})
    EXPECT_EQ(ask("{\"cfg\":" + std::string(command) + "}"), "none") << command;
  EXPECT_EQ(config_.domains().size(), 3U);
  EXPECT_EQ(config_.pattern_names().size(), 1U);
}

TEST_F(ApiCommands, EveryAnsweredCommandSavesTheFile) {
  folder_.write("c.conf", "");
  EXPECT_EQ(ask(R"({"cfg":{"operation":"get","level":"pattern","pattern":"nosuch"}})"), "none");
  EXPECT_EQ(saved(), "");
  EXPECT_NE(ask(R"({"cfg":{"operation":"get","level":"global"}})"), "none");
  EXPECT_EQ(saved().substr(0, 22), "{\n    \"version\": \"2.1\"");
  folder_.write("c.conf", "");
  EXPECT_NE(ask(R"({"cfg":{"operation":"sing","level":"global"}})"), "none");
  EXPECT_NE(saved(), "");
}

// --- configuration: set ------------------------------------------------------------------------

TEST_F(ApiCommands, SetGlobalAppliesSavesAndRestartsEverything) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"set","level":"global","config":{"enabled":0}}})"),
            R"({"version":"2.1","invalid_parameters":[],"operation":"set","level":"global"})");
  EXPECT_FALSE(config_.enabled);
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Global config changed"));
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Wavelom version 1.9.1.323-amd64 disabled\n"))
      << "restarted with the new options";
  EXPECT_NE(saved().find("\"enabled\": 0"), std::string::npos);
}

TEST_F(ApiCommands, SetGlobalOfTheSameValuesRestartsNothing) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"set","level":"global","config":{"enabled":1}}})"),
            R"({"version":"2.1","invalid_parameters":[],"operation":"set","level":"global"})");
  EXPECT_TRUE(log_.texts(LogLevel::Debug).empty());
}

TEST_F(ApiCommands, SetGlobalListsInvalidOptionsAndAppliesNone) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"set","level":"global",)"
                R"("config":{"api_port":70000,"enabled":0,"vrrp_timeout":0}}})"),
            R"({"version":"2.1","invalid_parameters":[{"api_port":70000},{"vrrp_timeout":0}],)"
            R"("operation":"set","level":"global"})");
  EXPECT_TRUE(config_.enabled);
}

TEST_F(ApiCommands, SetPatternWithAnInvalidOptionListsItAndChangesNothing) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"set","level":"pattern",)"
                R"("config":{"pattern":"p1","dca_threshold":500}}})"),
            R"({"version":"2.1","invalid_parameters":[{"dca_threshold":500}],"operation":"set",)"
            R"("level":"pattern","pattern":"p1"})");
  EXPECT_EQ(config_.get_pattern_config("p1")->dca_threshold, 40);
  EXPECT_TRUE(restarted().empty());
}

TEST_F(ApiCommands, SetPatternRestartsItsDomainsOnceEach) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"set","level":"pattern",)"
                R"("config":{"pattern":"p1","dca_threshold":41}}})"),
            R"({"version":"2.1","invalid_parameters":[],"operation":"set","level":"pattern",)"
            R"("pattern":"p1"})");
  EXPECT_EQ(restarted(), (std::vector<std::string>{"d1", "d2"}));
  EXPECT_EQ(config_.get_domain_config("d2").dca_threshold, 41);
}

TEST_F(ApiCommands, SetDomainMovesItToAnotherPatternAndTimeZone) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"set","level":"domain",)"
                R"("config":{"domain":"d1","pattern":"common","time_zone":"1:00"}}})"),
            R"({"version":"2.1","invalid_parameters":[],"operation":"set","level":"domain"})");
  EXPECT_EQ(*config_.get_domain_info("d1"), (DomainInfo{"common", 3600, "1:00"}));
  EXPECT_EQ(restarted(), std::vector<std::string>{"d1"});
}

TEST_F(ApiCommands, SetDomainWithoutATimeZoneKeepsIt) {
  ask(R"({"cfg":{"operation":"set","level":"domain","config":{"domain":"d1","pattern":"common"}}})");
  EXPECT_EQ(*config_.get_domain_info("d1"), (DomainInfo{"common", 10800, "3:00"}));
}

TEST_F(ApiCommands, SetDomainWithAnInvalidTimeZoneListsItAndChangesNothing) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"set","level":"domain",)"
                R"("config":{"domain":"d1","pattern":"common","time_zone":"15:00"}}})"),
            R"({"version":"2.1","invalid_parameters":[{"time_zone":"15:00"}],"operation":"set",)"
            R"("level":"domain"})");
  EXPECT_EQ(*config_.get_domain_info("d1"), (DomainInfo{"p1", 10800, "3:00"}));
  EXPECT_TRUE(restarted().empty());
}

// --- configuration: add and remove -------------------------------------------------------------

TEST_F(ApiCommands, AddsAPattern) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"add","level":"pattern",)"
                R"("config":{"pattern":"p2","use_dca":0}}})"),
            R"({"version":"2.1","invalid_parameters":[],"operation":"add","pattern":"p2",)"
            R"("add_status":"Success"})");
  EXPECT_FALSE(config_.get_pattern_config("p2")->use_dca);
  EXPECT_NE(saved().find("\"pattern\": \"p2\""), std::string::npos);
}

TEST_F(ApiCommands, EveryFailureToAddAPatternSaysPatternExists) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"add","level":"pattern","config":{"pattern":"p1"}}})"),
            R"({"version":"2.1","invalid_parameters":[],"operation":"add","pattern":"p1",)"
            R"("add_status":"Pattern exists"})");
  EXPECT_EQ(ask(R"({"cfg":{"operation":"add","level":"pattern",)"
                R"("config":{"pattern":"p2","dca_threshold":100}}})"),
            R"({"version":"2.1","invalid_parameters":[{"dca_threshold":100}],"operation":"add",)"
            R"("pattern":"p2","add_status":"Pattern exists"})");
  EXPECT_EQ(config_.get_pattern_config("p2"), std::nullopt);
}

TEST_F(ApiCommands, AddsADomain) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"add","level":"domain",)"
                R"("config":{"domain":"d4","pattern":"common","time_zone":"+14:00"}}})"),
            R"({"version":"2.1","invalid_parameters":[],"operation":"add","domain":"d4",)"
            R"("add_status":"Success"})");
  EXPECT_EQ(*config_.get_domain_info("d4"), (DomainInfo{"common", 50400, "+14:00"}));
  EXPECT_EQ(restarted(), std::vector<std::string>{"d4"});
}

TEST_F(ApiCommands, DomainsThatCannotBeAddedAreNamed) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"add","level":"domain",)"
                R"("config":{"domain":"d1","pattern":"p1"}}})"),
            R"({"version":"2.1","invalid_parameters":[{"domain":"d1"}],"operation":"add",)"
            R"("domain":"d1","add_status":"Domain exists or chosen pattern not exists."})");
  EXPECT_EQ(ask(R"({"cfg":{"operation":"add","level":"domain",)"
                R"("config":{"domain":"d5","pattern":"common","time_zone":"x"}}})"),
            R"({"version":"2.1","invalid_parameters":[{"time_zone":"x"},{"domain":"d5"}],)"
            R"("operation":"add","domain":"d5",)"
            R"("add_status":"Domain exists or chosen pattern not exists."})");
  EXPECT_FALSE(config_.is_domain_exist("d5"));
}

TEST_F(ApiCommands, RemovesADomainAndStopsItsWorker) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"remove","level":"domain","domain":"d1"}})"),
            R"({"version":"2.1","operation":"remove","domain":"d1","remove_status":0})");
  EXPECT_FALSE(config_.is_domain_exist("d1"));
  EXPECT_EQ(restarted(), std::vector<std::string>{"d1"});
}

TEST_F(ApiCommands, RemovingAnUnknownDomainReturnsStatus1) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"remove","level":"domain","domain":"d9"}})"),
            R"({"version":"2.1","operation":"remove","domain":"d9","remove_status":1})");
  EXPECT_TRUE(restarted().empty());
}

TEST_F(ApiCommands, RemovingAPatternRemovesItsDomains) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"remove","level":"pattern","pattern":"p1"}})"),
            R"({"version":"2.1","operation":"remove","pattern":"p1","remove_status":0})");
  EXPECT_EQ(config_.domains().size(), 1U);
  EXPECT_EQ(restarted(), (std::vector<std::string>{"d1", "d2"}));
  EXPECT_EQ(ask(R"({"cfg":{"operation":"remove","level":"pattern","pattern":"p1"}})"),
            R"({"version":"2.1","operation":"remove","pattern":"p1","remove_status":1})");
  EXPECT_EQ(ask(R"({"cfg":{"operation":"remove","level":"global"}})"),
            R"({"version":"2.1","operation":"remove"})");
}

// --- state -------------------------------------------------------------------------------------

TEST_F(ApiCommands, EmptyRrmCommandListsTheDomainWorkers) {
  EXPECT_EQ(ask(R"({"rrm":{}})"), header() + R"(,"domains":[]})");
}

TEST_F(ApiCommands, DomainWithoutAWorkerIsNotFound) {
  EXPECT_EQ(ask(R"({"rrm":{"domain":"nosuch"}})"), header() + R"(,"error":"domain not found"})");
  EXPECT_EQ(ask(R"({"rrm":{"domain":"d1","ap":"00:11:22:33:44:55"}})"),
            header() + R"(,"error":"domain not found"})");
}

TEST_F(ApiCommands, SessionsAreListedOnlyWhenAskedForByANumber) {
  EXPECT_EQ(ask(R"({"rrm":{"sessions":0}})"), header() + "}");
  EXPECT_NE(ask(R"({"rrm":{"sessions":1}})"), header() + "}");
}

TEST_F(ApiCommands, DropSessionsAnswersWithTheHeader) {
  EXPECT_EQ(ask(R"({"rrm":{"drop_session":1,"ids":[1,2,4294967295,"3",null,{}]}})"),
            header() + "}");
  EXPECT_EQ(ask(R"({"rrm":{"drop_session":1}})"), header() + "}");
}

TEST_F(ApiCommands, ReportQueriesOfADomainWithoutReports) {
  config_.reports_path = folder_.path();
  EXPECT_EQ(ask(R"({"rrm":{"domain":"d1","report_list":{"date_start":"2024-05-01,00:00:00 UTC",)"
                R"("date_finish":"2024-05-02,00:00:00 UTC"}}})"),
            header() + R"(,"data":[],"count":0,"status":"success"})");
  EXPECT_EQ(ask(R"({"rrm":{"domain":"d1","last_report":1}})"),
            header() + R"(,"status":"success"})");
  EXPECT_NE(ask(R"({"rrm":{"domain":"nosuch","last_report":1}})").find(R"("status":"failure")"),
            std::string::npos);
  EXPECT_TRUE(log_.has(LogLevel::Trace, "Domain \"nosuch\" not found"));
  EXPECT_NE(ask(R"({"rrm":{"domain":"d1","report":"2024-05-01,03:15:00,d1"}})")
                .find(R"("status":"failure")"),
            std::string::npos);
}

std::string invalid_argument_of(Api& api, const char* request) {
  try {
    api.process_request(JsonReader(request));
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "nothing thrown";
}

TEST_F(ApiCommands, UnusableReportMembersThrowTheNameOfTheirHandler) {
  EXPECT_EQ(invalid_argument_of(api_, R"({"rrm":{"domain":"d1","report":7}})"),
            "process_rrm_cmd_get_report: Invalid argument 'cmd'.");
  EXPECT_EQ(invalid_argument_of(api_, R"({"rrm":{"domain":"d1","report_list":7}})"),
            "process_rrm_cmd_get_report_list: Invalid argument 'cmd'.");
  EXPECT_EQ(invalid_argument_of(api_, R"({"rrm":{"domain":"d1","last_report":null}})"),
            "process_rrm_cmd_get_last_report: Invalid argument 'cmd'.");
  EXPECT_NE(ask(R"({"rrm":{}})"), "none") << "the lock is free again";
}

// --- role and envelope -------------------------------------------------------------------------

TEST_F(ApiCommands, VrrpWithoutARoleReportsTheCurrentOne) {
  EXPECT_EQ(ask(R"({"vrrp":{}})"), header() + R"(,"role":"master","status":"success"})");
}

TEST_F(ApiCommands, VrrpRoleObserverIsNotSupported) {
  const JsonReader command(R"({"role":"observer"})");
  EXPECT_EQ(api_.process_vrrp_command(command),
            header() + R"(,"status":"failure","error":"role not supported"})");
}

TEST_F(ApiCommands, VrrpRolesAreSwitched) {
  EXPECT_EQ(ask(R"({"vrrp":{"role":"backup"}})"), header() + R"(,"status":"success"})");
  EXPECT_EQ(rrm_.get_vrrp_role(), VrrpRole::Backup);
  EXPECT_TRUE(log_.has(LogLevel::Info, "VRRP role: master -> backup"));
  EXPECT_EQ(ask(R"({"vrrp":{}})"), header() + R"(,"role":"backup","status":"success"})");
}

TEST_F(ApiCommands, FirstOfCfgRrmAndVrrpIsProcessed) {
  EXPECT_EQ(ask(R"({"vrrp":{},"rrm":{},"cfg":{"operation":"x","level":"y"}})"),
            R"({"version":"2.1"})");
  EXPECT_EQ(ask(R"({"vrrp":{},"rrm":{"sessions":0}})"), header() + "}");
}

TEST_F(ApiCommands, OtherDocumentsAreNoRequests) {
  for (const char* text : {"", "{", "{}", "[]", "null", R"({"x":1})", R"(["cfg"])", R"("cfg")"}) {
    EXPECT_FALSE(Api::is_request(JsonReader(text))) << text;
    EXPECT_EQ(ask(text), "none") << text;
  }
  EXPECT_TRUE(Api::is_request(JsonReader(R"({"vrrp":null})")));
}

}  // namespace
}  // namespace rrm
