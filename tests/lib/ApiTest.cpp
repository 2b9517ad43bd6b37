#include "server/lib/Api.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/RRM.h"
#include "server/lib/WebsockServerWorker.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/RecordingWorker.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WebsockClients.h"

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
  ApiCommands() : ApiCommands(true) {}
  explicit ApiCommands(bool with_file)
      : config_(with_file ? folder_.file("c.conf") : "", kTwoSites) {}

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
  GlobalConfig config_;
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
       {"{}",
        R"({"operation":"get"})",
        R"({"level":"global"})",
        R"({"operation":1,"level":2})",
        R"({"operation":"set","level":"global"})",
        R"({"operation":"set","level":"global","config":7})",
        R"({"operation":"set","level":"pattern","config":{"use_dca":0}})",
        R"({"operation":"set","level":"domain","config":{"domain":"d1"}})",
        R"({"operation":"set","level":"domain","config":{"pattern":"p1"}})",
        R"({"operation":"add","level":"global"})",
        R"({"operation":"add","level":"pattern"})",
        R"({"operation":"add","level":"pattern","config":{}})",
        R"({"operation":"add","level":"domain","config":{"pattern":"p1"}})",
        R"({"operation":"add","level":"domain","config":{"domain":"d9"}})",
        R"({"operation":"remove","level":"domain"})",
        R"({"operation":"remove","level":"domain","domain":""})",
        R"({"operation":"remove","level":"pattern","config":{"pattern":"p1"}})",
        "null",
        "[]",
        "7",
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

/// Runs something when its domain is restarted.
class WatchedWorker : public test::RecordingWorker {
 public:
  using RecordingWorker::RecordingWorker;
  void stop() override {
    if (on_stop) on_stop();
    RecordingWorker::stop();
  }

  std::function<void()> on_stop;
};

TEST_F(ApiCommands, TheFileIsSavedBeforeDomainsAreRestarted) {
  const auto worker = std::make_shared<WatchedWorker>("d1", &rrm_);
  rrm_.workers().insert("d1", worker);
  std::string at_restart;
  worker->on_stop = [&] { at_restart = saved(); };
  ask(R"({"cfg":{"operation":"set","level":"pattern",)"
      R"("config":{"pattern":"p1","dca_threshold":41}}})");
  EXPECT_NE(at_restart.find("\"dca_threshold\": 41"), std::string::npos);
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
  EXPECT_EQ(restarted(), std::vector<std::string>{"d1"});
}

TEST_F(ApiCommands, SetDomainRestartsItEvenWhenNothingChanged) {
  EXPECT_EQ(ask(R"({"cfg":{"operation":"set","level":"domain",)"
                R"("config":{"domain":"d1","pattern":"nosuch"}}})"),
            R"({"version":"2.1","invalid_parameters":[],"operation":"set","level":"domain"})");
  EXPECT_EQ(*config_.get_domain_info("d1"), (DomainInfo{"p1", 10800, "3:00"}));
  ask(R"({"cfg":{"operation":"set","level":"domain","config":{"domain":"d3","pattern":"common"}}})");
  EXPECT_EQ(restarted(), (std::vector<std::string>{"d1", "d3"}));
}

TEST_F(ApiCommands, SetPatternThatChangesNothingRestartsNothing) {
  for (const char* config : {R"({"pattern":"p1","dca_threshold":40})", R"({"pattern":"p1"})",
                             R"({"pattern":"nosuch","dca_threshold":41})"})
    ask(R"({"cfg":{"operation":"set","level":"pattern","config":)" + std::string(config) + "}}");
  EXPECT_TRUE(restarted().empty());
}

TEST_F(ApiCommands, FailedAddsRestartNothing) {
  ask(R"({"cfg":{"operation":"add","level":"domain","config":{"domain":"d1","pattern":"p1"}}})");
  ask(R"({"cfg":{"operation":"add","level":"pattern","config":{"pattern":"p1"}}})");
  EXPECT_TRUE(restarted().empty());
}

// --- configuration: every option at its bounds -------------------------------------------------

struct Bounds {
  const char* key;
  long min, max;
};

constexpr Bounds kGlobalBounds[] = {
    {"api_port", 0, 65535},
    {"cli_api_port", 0, 65535},
    {"listen_port", 0, 65535},
    {"vrrp_timeout", 1, 60},
};

constexpr Bounds kDomainBounds[] = {
    {"dca_threshold", 0, 99},
    {"ap_rssi_threshold_2g", -100, -1},
    {"ap_rssi_threshold_5g", -100, -1},
    {"ap_rssi_threshold_6g", -100, -1},
    {"hysteresis_2g", 1, 10},
    {"hysteresis_5g", 1, 10},
    {"hysteresis_6g", 1, 10},
    {"away_timeout", 10, 3600},
    {"blacklist_thr_low", -100, -1},
    {"blacklist_thr_high", -100, -1},
    {"blacklist_timeout", 5, 3600},
    {"roam_attempt_timeout", 0, 86400},
    {"sta_load_balance_period", 0, 86400},
    {"load_balance_roam_count_min", 0, 100},
    {"load_balance_roam_count_max", 0, 100},
    {"client_rssi_renew", 1, 300},
    {"client_max_age", 0, 300},
    {"client_try_no_balance", 1, 10},
    {"report_days_to_live", 1, 37200},
    {"fbt_reassoc_deadline", 1000, 268431360},
};

constexpr const char* kGlobalFlags[] = {"enabled", "use_https", "vrrp_enabled",
                                        "use_wildcard_80211r"};
constexpr const char* kDomainFlags[] = {"use_tavro_rrm_scan",
                                        "use_dca",
                                        "use_tpc",
                                        "use_hd_mode",
                                        "use_optimization_time",
                                        "use_optimization_event",
                                        "use_all_ap_balance",
                                        "use_balance",
                                        "no_balance_enterprise",
                                        "use_rrm_report",
                                        "use_80211k",
                                        "use_80211r",
                                        "use_80211v",
                                        "fbt_over_ds"};

class ApiOptions : public ApiCommands {
 protected:
  /// A change of a global option restarts the services: on a port that nobody else wants.
  ApiOptions() : ApiCommands(false) { config_.listen_port = 0; }

  /// The list of refused options of a "set" at a level ("global" or "pattern", which is p1).
  std::string refused(const std::string& level, const std::string& members) {
    const bool pattern = level == "pattern";
    const std::string reply =
        ask(R"({"cfg":{"operation":"set","level":")" + level + R"(","config":{)" +
            (pattern ? R"("pattern":"p1",)" : "") + members + "}}}");
    const std::string start = R"({"version":"2.1","invalid_parameters":)";
    const std::string end =
        R"(,"operation":"set","level":")" + level + (pattern ? R"(","pattern":"p1"})" : R"("})");
    if (reply.size() < start.size() + end.size() || !reply.starts_with(start) ||
        !reply.ends_with(end))
      return reply;
    return reply.substr(start.size(), reply.size() - start.size() - end.size());
  }
  std::string value_of(const std::string& level, const std::string& key) {
    const std::string reply =
        ask(R"({"cfg":{"operation":"get","level":")" + level + R"(","pattern":"p1"}})");
    const JsonReader document(reply.c_str());
    return document.child(key).c_str();
  }
  void expect_bounds(const std::string& level, const Bounds& option) {
    const std::string key = option.key;
    const auto set = [&](long value) {
      return refused(level, "\"" + key + "\":" + std::to_string(value));
    };
    for (const long value : {option.min, option.max}) {
      EXPECT_EQ(set(value), "[]") << key << " " << value;
      EXPECT_EQ(value_of(level, key), std::to_string(value));
    }
    for (const long value : {option.min - 1, option.max + 1}) {
      EXPECT_EQ(set(value), "[{\"" + key + "\":" + std::to_string(value) + "}]");
      EXPECT_EQ(value_of(level, key), std::to_string(option.max)) << "as it was";
    }
  }
  void expect_flag(const std::string& level, const std::string& key) {
    for (const auto& [text, stored] : {std::pair("0", "0"), {"1", "1"}, {"0", "0"}, {"-7", "1"}}) {
      EXPECT_EQ(refused(level, "\"" + key + "\":" + text), "[]");
      EXPECT_EQ(value_of(level, key), stored) << key << " " << text;
    }
    EXPECT_EQ(refused(level, "\"" + key + R"(":"99999999999999999999")"), "[{\"" + key + "\":0}]");
  }
  void expect_time(const std::string& level, const std::string& key, const char* latest,
                   const char* later) {
    for (const char* text : {"0:00", latest}) {
      EXPECT_EQ(refused(level, "\"" + key + "\":\"" + text + "\""), "[]");
      EXPECT_EQ(value_of(level, key), "\"" + std::string(text) + "\"");
    }
    for (const char* text : {"-1:00", later, "12:60", "noon", ""}) {
      EXPECT_EQ(refused(level, "\"" + key + "\":\"" + text + "\""),
                "[{\"" + key + "\":\"" + text + "\"}]");
      EXPECT_EQ(value_of(level, key), "\"" + std::string(latest) + "\"");
    }
    EXPECT_EQ(refused(level, "\"" + key + "\":7"), "[{\"" + key + "\":\"\"}]");
  }
};

TEST_F(ApiOptions, GlobalNumbersAreTakenAtBothBoundsAndRefusedBeyond) {
  config_.enabled = false;  // no service listens on a bound
  for (const Bounds& option : kGlobalBounds) expect_bounds("global", option);
}

TEST_F(ApiOptions, GlobalFlagsTakeAnyIntegerThatFits) {
  for (const char* key : kGlobalFlags) expect_flag("global", key);
}

TEST_F(ApiOptions, DeletionTimeReachesFromMidnightToTheLastMinute) {
  expect_time("global", "report_delete_at_time_utc", "23:59", "24:00");
}

TEST_F(ApiOptions, GlobalTextsAreTakenAsTheyStand) {
  for (const char* key : {"reports_path", "www_path", "vrrp_backup_path", "vrrp_state_file"}) {
    for (const char* text : {"\"/some/where\"", "\"\""}) {
      EXPECT_EQ(refused("global", "\"" + std::string(key) + "\":" + text), "[]");
      EXPECT_EQ(value_of("global", key), text);
    }
    EXPECT_EQ(refused("global", "\"" + std::string(key) + "\":7"), "[]");
    EXPECT_EQ(value_of("global", key), "\"\"") << "a number is no text and is passed over";
  }
}

TEST_F(ApiOptions, DomainNumbersAreTakenAtBothBoundsAndRefusedBeyond) {
  for (const Bounds& option : kDomainBounds) expect_bounds("pattern", option);
}

TEST_F(ApiOptions, ClientLimitsOfLoadBalancingBoundEachOther) {
  constexpr std::pair<const char*, const char*> kCases[] = {
      {R"("load_balance_sta_low":1,"load_balance_sta_high":1)", "[]"},
      {R"("load_balance_sta_low":100,"load_balance_sta_high":100)", "[]"},
      {R"("load_balance_sta_low":0)", R"([{"load_balance_sta_low":0}])"},
      {R"("load_balance_sta_low":20)", "[]"},
      {R"("load_balance_sta_low":21)", R"([{"load_balance_sta_low":21}])"},
      {R"("load_balance_sta_high":5)", "[]"},
      {R"("load_balance_sta_high":4)", R"([{"load_balance_sta_high":4}])"},
      {R"("load_balance_sta_high":101)", R"([{"load_balance_sta_high":101}])"},
      {R"("load_balance_sta_low":30,"load_balance_sta_high":29)",
       R"([{"load_balance_sta_low":30},{"load_balance_sta_high":29}])"},
  };
  for (const auto& [members, list] : kCases)
    EXPECT_EQ(refused("pattern", members), list) << members;
}

TEST_F(ApiOptions, DomainFlagsTakeAnyIntegerThatFits) {
  for (const char* key : kDomainFlags) expect_flag("pattern", key);
}

TEST_F(ApiOptions, OptimisationTimeReachesFromMidnightToMidnight) {
  expect_time("pattern", "optimization_time", "24:00", "24:01");
}

TEST_F(ApiOptions, NoOptionIsForgottenHere) {
  EXPECT_EQ(std::size(kGlobalBounds) + std::size(kGlobalFlags) + 1 + 4, global_options().size());
  EXPECT_EQ(std::size(kDomainBounds) + std::size(kDomainFlags) + 1 + 2, domain_options().size());
}

TEST_F(ApiOptions, AllRefusedOptionsAreListedInTheValidatorsOrder) {
  EXPECT_EQ(refused("pattern", R"("hysteresis_6g":0,"use_dca":"99999999999999999999",)"
                               R"("optimization_time":"x","dca_threshold":100,"away_timeout":9)"),
            R"([{"use_dca":0},{"dca_threshold":100},{"hysteresis_6g":0},)"
            R"({"optimization_time":"x"},{"away_timeout":9}])");
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

TEST_F(ApiCommands, DomainComesBeforeDroppedSessionsAndTheseBeforeTheList) {
  EXPECT_EQ(ask(R"({"rrm":{"sessions":1,"drop_session":0}})"), header() + "}");
  EXPECT_EQ(ask(R"({"rrm":{"sessions":1,"drop_session":1,"domain":"d9"}})"),
            header() + R"(,"error":"domain not found"})");
}

TEST_F(ApiCommands, DropSessionsAnswersWithTheHeader) {
  EXPECT_EQ(ask(R"({"rrm":{"drop_session":1,"ids":[1,2,4294967295,"3",null,{}]}})"),
            header() + "}");
  EXPECT_EQ(ask(R"({"rrm":{"drop_session":1}})"), header() + "}");
}

TEST_F(ApiCommands, AddedPatternRestartsTheDomainsThatHaveWaitedForIt) {
  config_.load(JsonReader(R"({"domains":[{"domain":"w","pattern":"late"}]})"));
  EXPECT_NE(ask(R"({"cfg":{"operation":"add","level":"pattern","config":{"pattern":"late"}}})"),
            "none");
  EXPECT_EQ(log_.count(LogLevel::Debug, "Worker with domain 'w' erased."), 1U);
}

TEST_F(ApiCommands, FailedReportQueriesAreLogged) {
  config_.reports_path = folder_.path();
  const auto logs = [&](const char* command, const char* text) {
    log_.clear();
    EXPECT_NE(ask("{\"rrm\":" + std::string(command) + "}").find(R"("status":"failure")"),
              std::string::npos);
    EXPECT_TRUE(log_.has(LogLevel::Debug, text))
        << testing::PrintToString(log_.texts(LogLevel::Debug));
  };
  logs(R"({"domain":"nosuch","report_list":{}})", "errors = 22");
  logs(R"({"domain":"nosuch","last_report":1})",
       "Error call 'reports::get_last_radio_report'. Exit code: 2.");
  logs(R"({"domain":"d1","report":"2024-05-01,03:15:00,d1"})",
       "Error call 'reports::get_radio_report'. Exit code: 2.");
}

TEST_F(ApiCommands, DropSessionsClosesExactlyTheNamedOnesWhateverTheirOrder) {
  config_.listen_port = 0;
  rrm_.start();
  ASSERT_TRUE(test::wait_until([&] { return rrm_.websock_server().port() != 0; }));
  test::WebsockClients clients(rrm_.websock_server().port());
  clients.open_all(4);
  ASSERT_TRUE(test::wait_until([&] { return rrm_.websock_server().session_count() == 4; }));
  EXPECT_EQ(ask(R"({"rrm":{"drop_session":1,"ids":[4,99,1,3]}})"), header() + "}");
  EXPECT_TRUE(test::wait_until([&] { return rrm_.websock_server().session_count() == 1; }));
  for (const int id : {1, 3, 4})
    EXPECT_EQ(log_.count(LogLevel::Debug,
                         "drop_session_at_websock_worker: " + std::to_string(id) + " force: 1"),
              1U);
  EXPECT_NE(ask(R"({"rrm":{"sessions":1}})").find(R"("websock-sessions":[{"id":2,)"),
            std::string::npos);
}

TEST_F(ApiCommands, ReportQueriesOfADomainWithoutReports) {
  config_.reports_path = folder_.path();
  EXPECT_EQ(ask(R"({"rrm":{"domain":"d1","report_list":{"date_start":"2024-05-01,00:00:00 UTC",)"
                R"("date_finish":"2024-05-02,00:00:00 UTC"}}})"),
            header() + R"(,"data":[],"count":0,"status":"success"})");
  for (const char* value : {"1", "0", "null", "[]"})
    EXPECT_EQ(ask(R"({"rrm":{"domain":"d1","last_report":)" + std::string(value) + "}}"),
              header() + R"(,"status":"success"})")
        << value;
  EXPECT_NE(ask(R"({"rrm":{"domain":"nosuch","last_report":1}})").find(R"("status":"failure")"),
            std::string::npos);
  EXPECT_TRUE(log_.has(LogLevel::Trace, "Domain \"nosuch\" not found"));
  EXPECT_NE(
      ask(R"({"rrm":{"domain":"nosuch","report_list":{"date_start":"2024-05-01,00:00:00 UTC",)"
          R"("date_finish":"2024-05-02,00:00:00 UTC"}}})")
          .find(R"("status":"failure")"),
      std::string::npos);
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
  config_.listen_port = 0;
  EXPECT_EQ(ask(R"({"vrrp":{"role":"master","domains":[{"name":"d1"}]}})"),
            header() + R"(,"status":"success"})");
  EXPECT_EQ(rrm_.get_vrrp_role(), VrrpRole::Master);
  EXPECT_NE(rrm_.find_worker("d1"), nullptr) << "restored";
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
  for (const char* text : {R"({"cfg":7})", R"({"rrm":{}})", R"({"vrrp":null})"})
    EXPECT_TRUE(Api::is_request(JsonReader(text))) << text;
}

}  // namespace
}  // namespace rrm
