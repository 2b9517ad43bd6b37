#include "server/lib/ConfigDomain.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "server/lib/Overloaded.h"
#include "tests/support/CapturedLog.h"

namespace rrm {
namespace {

using test::CapturedLog;

constexpr char kDefaults[] =
    R"({"use_tavro_rrm_scan":1,"use_dca":1,"use_tpc":1,"use_hd_mode":1,"dca_threshold":25,)"
    R"("ap_rssi_threshold_2g":-70,"ap_rssi_threshold_5g":-70,"ap_rssi_threshold_6g":-70,)"
    R"("hysteresis_2g":2,"hysteresis_5g":2,"hysteresis_6g":2,"optimization_time":"00:00",)"
    R"("use_optimization_time":0,"use_optimization_event":1,"away_timeout":120,)"
    R"("blacklist_thr_low":-75,"blacklist_thr_high":-65,"blacklist_timeout":30,)"
    R"("load_balance_sta_low":5,"load_balance_sta_high":20,"roam_attempt_timeout":600,)"
    R"("sta_load_balance_period":60,"load_balance_roam_count_min":2,)"
    R"("load_balance_roam_count_max":4,"use_all_ap_balance":0,"use_balance":1,)"
    R"("client_rssi_renew":15,"client_max_age":20,"client_try_no_balance":2,)"
    R"("no_balance_enterprise":0,"use_rrm_report":1,"report_days_to_live":93,"use_80211k":1,)"
    R"("use_80211r":1,"use_80211v":0,"fbt_reassoc_deadline":1000,"fbt_over_ds":0})";

std::string json_of(const DomainConfig& config) {
  JsonWriter writer;
  config.to_json(writer);
  return writer.str();
}

struct Verdict {
  bool valid;
  std::string errors;
};

Verdict validate(const std::string& text) {
  const JsonReader reader(text.c_str());
  JsonWriter document;
  JsonWriter errors = JsonWriter::array(document, "errors");
  const bool valid = DomainConfig::validate(reader, errors);
  return {valid, errors.str()};
}

bool take(DomainConfig& config, const std::string& text) {
  return config.apply(JsonReader(text.c_str()));
}

TEST(DomainConfig, WritesItsDefaultsAs37MembersFromScanToFbtOverDs) {
  EXPECT_EQ(json_of(DomainConfig()), kDefaults);
  EXPECT_EQ(domain_options().size(), 37U);
  EXPECT_STREQ(domain_options().front().key, "use_tavro_rrm_scan");
  EXPECT_STREQ(domain_options().back().key, "fbt_over_ds");
}

TEST(DomainConfig, TableHasNoKeyTwiceAndEveryDefaultInItsRange) {
  const DomainConfig defaults;
  std::set<std::string> keys;
  for (const DomainOption& option : domain_options()) {
    EXPECT_TRUE(keys.insert(option.key).second) << option.key;
    std::visit(Overloaded{[](const DomainOption::Flag&) {},
                          [&](const DomainOption::Number& number) {
                            EXPECT_LE(number.min, defaults.*number.field) << option.key;
                            EXPECT_GE(number.max, defaults.*number.field) << option.key;
                          },
                          [&](const DomainOption::Time& time) {
                            EXPECT_LE(time.min, defaults.*time.seconds) << option.key;
                            EXPECT_GE(time.max, defaults.*time.seconds) << option.key;
                          }},
               option.kind);
  }
}

TEST(DomainConfig, TakesBothEndsOfEveryRangeAndNothingBeyond) {
  for (const DomainOption& option : domain_options()) {
    const auto* number = std::get_if<DomainOption::Number>(&option.kind);
    if (number == nullptr) continue;
    const auto text = [&](std::int64_t value) {
      return "{\"" + std::string(option.key) + "\":" + std::to_string(value) + "}";
    };
    for (const std::int64_t value : {std::int64_t{number->min}, std::int64_t{number->max}}) {
      DomainConfig config;
      take(config, text(value));
      EXPECT_EQ(config.*number->field, value) << option.key;
    }
    for (const std::int64_t value :
         {number->min - std::int64_t{1}, number->max + std::int64_t{1}}) {
      DomainConfig config;
      EXPECT_FALSE(take(config, text(value))) << option.key;
      EXPECT_EQ(config, DomainConfig()) << option.key;
      EXPECT_EQ(validate(text(value)).errors, "[" + text(value) + "]");
    }
  }
}

TEST(DomainConfig, TakesEveryFlagByItself) {
  for (const DomainOption& option : domain_options()) {
    const auto* flag = std::get_if<DomainOption::Flag>(&option.kind);
    if (flag == nullptr) continue;
    DomainConfig config;
    const bool other = !(config.*flag->field);
    EXPECT_TRUE(take(config, "{\"" + std::string(option.key) + (other ? "\":7}" : "\":0}")));
    EXPECT_EQ(config.*flag->field, other) << option.key;
    config.*flag->field = !other;
    EXPECT_EQ(config, DomainConfig()) << option.key << " changed another field";
  }
}

TEST(DomainConfig, ReadsBackWhatItWrote) {
  DomainConfig config;
  ASSERT_TRUE(take(config, R"({"use_dca":0,"hysteresis_6g":9,"optimization_time":"04:30",)"
                           R"("fbt_reassoc_deadline":268431360})"));
  DomainConfig copy;
  EXPECT_TRUE(take(copy, json_of(config)));
  EXPECT_EQ(copy, config);
  EXPECT_FALSE(take(copy, json_of(config))) << "nothing differs any more";
}

TEST(DomainConfig, DcaThresholdOf150IsIgnoredByApplyAndReportedByValidate) {
  const CapturedLog log;
  DomainConfig config;
  EXPECT_FALSE(take(config, R"({"dca_threshold":150})"));
  EXPECT_EQ(config.dca_threshold, 25);
  EXPECT_TRUE(log.records().empty());

  const Verdict verdict = validate(R"({"dca_threshold":150})");
  EXPECT_FALSE(verdict.valid);
  EXPECT_EQ(verdict.errors, R"([{"dca_threshold":150}])");
  ASSERT_EQ(log.records().size(), 1U);
  EXPECT_EQ(log.records()[0].text,
            "Invalid value for 'dca_threshold': 150 (allowed range: [0, 99])");
  EXPECT_EQ(log.records()[0].level, LogLevel::Warning);
}

TEST(DomainConfig, ClientLimitsOfLoadBalancingBoundEachOther) {
  const CapturedLog log;
  EXPECT_EQ(validate(R"({"load_balance_sta_low":30})").errors, R"([{"load_balance_sta_low":30}])");
  EXPECT_TRUE(log.has(LogLevel::Warning,
                      "Invalid value for 'load_balance_sta_low': 30 (allowed range: [1, 20])"));
  EXPECT_TRUE(validate(R"({"load_balance_sta_low":30,"load_balance_sta_high":30})").valid);
  EXPECT_EQ(validate(R"({"load_balance_sta_high":4})").errors, R"([{"load_balance_sta_high":4}])");
  EXPECT_TRUE(log.has(LogLevel::Warning,
                      "Invalid value for 'load_balance_sta_high': 4 (allowed range: [5, 100])"));
  EXPECT_EQ(validate(R"({"load_balance_sta_high":6,"load_balance_sta_low":7})").errors,
            R"([{"load_balance_sta_low":7},{"load_balance_sta_high":6}])");
  DomainConfig config;
  EXPECT_TRUE(take(config, R"({"load_balance_sta_low":100})")) << "reading does not tie them";
  EXPECT_EQ(config.load_balance_sta_low, 100);
  EXPECT_FALSE(take(config, R"({"load_balance_sta_low":101})"));
  EXPECT_TRUE(take(config, R"({"load_balance_sta_high":1})"));
  EXPECT_EQ(config.load_balance_sta_high, 1);
  EXPECT_FALSE(take(config, R"({"load_balance_sta_high":0})"));
}

TEST(DomainConfig, ListsFaultsFlagsFirstThenDeadlineThenTheOthers) {
  std::string text = "{";
  for (const DomainOption& option : domain_options()) {
    if (text.size() > 1) text += ",";
    text += "\"" + std::string(option.key) + "\":\"99999999999999999999\"";
  }
  const Verdict verdict = validate(text + "}");
  EXPECT_FALSE(verdict.valid);
  EXPECT_EQ(
      verdict.errors,
      R"([{"use_tavro_rrm_scan":0},{"use_dca":0},{"use_tpc":0},{"use_hd_mode":0},)"
      R"({"use_all_ap_balance":0},{"use_balance":0},{"no_balance_enterprise":0},)"
      R"({"use_rrm_report":0},{"use_80211k":0},{"use_optimization_time":0},)"
      R"({"use_optimization_event":0},{"use_80211r":0},{"fbt_over_ds":0},{"use_80211v":0},)"
      R"({"fbt_reassoc_deadline":0},{"dca_threshold":0},{"ap_rssi_threshold_2g":0},)"
      R"({"ap_rssi_threshold_5g":0},{"ap_rssi_threshold_6g":0},{"hysteresis_2g":0},)"
      R"({"hysteresis_5g":0},{"hysteresis_6g":0},{"optimization_time":"99999999999999999999"},)"
      R"({"away_timeout":0},{"blacklist_thr_low":0},{"blacklist_thr_high":0},)"
      R"({"blacklist_timeout":0},{"load_balance_sta_low":0},{"load_balance_sta_high":0},)"
      R"({"roam_attempt_timeout":0},{"sta_load_balance_period":0},)"
      R"({"load_balance_roam_count_min":0},{"load_balance_roam_count_max":0},)"
      R"({"client_rssi_renew":0},{"client_max_age":0},{"client_try_no_balance":0},)"
      R"({"report_days_to_live":0}])");
}

TEST(DomainConfig, FlagThatDoesNotFitIsReportedWithTheRangeOfAFlag) {
  const CapturedLog log;
  EXPECT_EQ(validate(R"({"use_dca":"99999999999999999999"})").errors, R"([{"use_dca":0}])");
  EXPECT_TRUE(log.has(LogLevel::Warning, "Invalid value for 'use_dca': 0 (allowed range: [0, 1])"));
  EXPECT_TRUE(validate(R"({"use_dca":-17})").valid) << "any integer is a flag";
}

TEST(DomainConfig, FlagGivenAsTextOneIsTrueAndAsFloatIsFalse) {
  DomainConfig config;
  EXPECT_TRUE(take(config, R"({"use_80211v":"1"})"));
  EXPECT_TRUE(config.use_80211v);
  EXPECT_TRUE(take(config, R"({"use_80211v":2.5})"));
  EXPECT_FALSE(config.use_80211v);
}

TEST(DomainConfig, NumberOfMoreThan32BitsIsCutBeforeItsRangeIsTested) {
  DomainConfig config;
  EXPECT_TRUE(take(config, R"({"dca_threshold":4294967338})"));
  EXPECT_EQ(config.dca_threshold, 42);
  EXPECT_TRUE(validate(R"({"dca_threshold":4294967338})").valid);
}

struct TimeCase {
  const char* name;
  const char* text;
  bool taken;
  std::int32_t seconds;
};

class OptimizationTime : public testing::TestWithParam<TimeCase> {};

TEST_P(OptimizationTime, IsReadLikeAScannedPairOfNumbers) {
  const TimeCase& param = GetParam();
  const std::string text = "{\"optimization_time\":\"" + std::string(param.text) + "\"}";
  DomainConfig config;
  EXPECT_EQ(take(config, text), param.taken);
  EXPECT_EQ(config.optimization_time, param.taken ? param.text : "00:00");
  EXPECT_EQ(config.optimization_time_s, param.taken ? param.seconds : 0);
  EXPECT_EQ(validate(text).valid, param.taken);
  EXPECT_EQ(validate(text).errors, param.taken ? "[]" : "[" + text + "]");
}

INSTANTIATE_TEST_SUITE_P(Text, OptimizationTime,
                         testing::Values(TimeCase{"LastMinute", "23:59", true, 86340},
                                         TimeCase{"EndOfDay", "24:00", true, 86400},
                                         TimeCase{"BehindTheDay", "24:01", false, 0},
                                         TimeCase{"Negative", "-1:30", false, 0},
                                         TimeCase{"SixCharactersOutOfRange", "123:45", false, 0},
                                         TimeCase{"ThreeParts", "1:2:3", true, 3720},
                                         TimeCase{"SixtyMinutes", "10:60", false, 0},
                                         TimeCase{"TrailingTextWithinSix", "7:05ab", true, 25500},
                                         TimeCase{"SevenCharacters", "07:05ab", false, 0},
                                         TimeCase{"NegativeZeroHours", "-0:30", true, 1800},
                                         TimeCase{"FourDigitsOfHours", "0001:2", false, 0},
                                         TimeCase{"ThreeDigitsOfMinutes", "1:123", true, 4320},
                                         TimeCase{"NoColon", "1200", false, 0},
                                         TimeCase{"Empty", "", false, 0}),
                         [](const auto& row) { return row.param.name; });

TEST(DomainConfig, TimeThatIsNoTextIsIgnoredAndListedAsEmpty) {
  const CapturedLog log;
  DomainConfig config;
  EXPECT_FALSE(take(config, R"({"optimization_time":600})"));
  EXPECT_EQ(validate(R"({"optimization_time":600})").errors, R"([{"optimization_time":""}])");
  EXPECT_TRUE(log.has(LogLevel::Warning,
                      "Invalid time value for 'optimization_time': 'null' (allowed range: "
                      "[0, 86400] in seconds)"));
}

TEST(DomainConfig, ReportTextLeavesOutSixGigahertzAndLaterOptions) {
  EXPECT_EQ(DomainConfig().to_string(","),
            "1,1,1,1,25,-70,-70,2,2,0,120,-75,-65,30,5,20,0,1,15,20,2,0,1,93,1");
  EXPECT_EQ(DomainConfig().to_string("; ").substr(0, 12), "1; 1; 1; 1; ");
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
  return parts;
}

TEST(DomainConfig, ReportTextHasEveryValueInItsPlace) {
  using C = DomainConfig;
  const std::variant<bool C::*, std::int32_t C::*> fields[] = {
      &C::use_tavro_rrm_scan,
      &C::use_dca,
      &C::use_tpc,
      &C::use_hd_mode,
      &C::dca_threshold,
      &C::ap_rssi_threshold_2g,
      &C::ap_rssi_threshold_5g,
      &C::hysteresis_2g,
      &C::hysteresis_5g,
      &C::spare_value,
      &C::away_timeout,
      &C::blacklist_thr_low,
      &C::blacklist_thr_high,
      &C::blacklist_timeout,
      &C::load_balance_sta_low,
      &C::load_balance_sta_high,
      &C::use_all_ap_balance,
      &C::use_balance,
      &C::client_rssi_renew,
      &C::client_max_age,
      &C::client_try_no_balance,
      &C::no_balance_enterprise,
      &C::use_rrm_report,
      &C::report_days_to_live,
      &C::use_80211k,
  };
  for (std::size_t place = 0; place < std::size(fields); ++place) {
    C config;
    std::visit(Overloaded{[&](bool C::*field) { config.*field = !(config.*field); },
                          [&](std::int32_t C::*field) { config.*field = 777; }},
               fields[place]);
    const std::vector<std::string> before = split(C().to_string(","));
    const std::vector<std::string> after = split(config.to_string(","));
    ASSERT_EQ(after.size(), std::size(fields));
    for (std::size_t i = 0; i < after.size(); ++i)
      EXPECT_EQ(after[i] != before[i], i == place) << i << " of " << place;
  }
}

TEST(DomainConfig, ReadsTheReportTextBackFromAnyField) {
  DomainConfig config;
  config.use_tpc = false;
  config.dca_threshold = 41;
  config.spare_value = 3;
  config.report_days_to_live = 7;
  config.use_80211k = false;
  DomainConfig copy;
  EXPECT_TRUE(copy.from_csv("1.1,2026.01.02,03:04:05," + config.to_string(","), 3, ','));
  EXPECT_EQ(copy, config);
}

TEST(DomainConfig, RefusesReportTextsWithMissingOrBrokenFields) {
  DomainConfig config;
  const std::string whole = DomainConfig().to_string(",");
  EXPECT_FALSE(config.from_csv("", 0, ','));
  EXPECT_FALSE(config.from_csv(whole.substr(0, whole.rfind(',')), 0, ','));
  EXPECT_FALSE(config.from_csv(whole, 1, ',')) << "one field short";
  EXPECT_FALSE(config.from_csv("x" + whole, 0, ','));
  EXPECT_FALSE(config.from_csv("99999999999," + whole, 0, ','));
}

TEST(DomainConfig, EqualityCoversSpareFixedAndBothFormsOfTheTime) {
  for (std::int32_t DomainConfig::*field :
       {&DomainConfig::spare_value, &DomainConfig::optimization_time_s,
        &DomainConfig::tavro_scan_factor_a, &DomainConfig::tavro_scan_factor_b,
        &DomainConfig::default_max_power, &DomainConfig::default_min_power,
        &DomainConfig::planning_delay, &DomainConfig::scan_wait, &DomainConfig::channel_scan_time,
        &DomainConfig::tick_period}) {
    DomainConfig other;
    other.*field += 1;
    EXPECT_NE(other, DomainConfig());
  }
  DomainConfig other;
  other.optimization_time = "0:0";
  EXPECT_NE(other, DomainConfig());
  const DomainConfig fixed;
  EXPECT_EQ(fixed.tavro_scan_factor_a * fixed.tavro_scan_factor_b, 6);
  EXPECT_EQ(fixed.default_max_power, 16);
  EXPECT_EQ(fixed.default_min_power, 10);
  EXPECT_EQ(fixed.planning_delay, 20);
  EXPECT_EQ(fixed.scan_wait, 15);
  EXPECT_EQ(fixed.channel_scan_time, 5);
  EXPECT_EQ(fixed.tick_period, 10);
}

}  // namespace
}  // namespace rrm
