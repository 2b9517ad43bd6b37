#include "tools/fleet/Report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "server/lib/JsonReader.h"
#include "tools/fleet/Progress.h"

namespace rrm::fleet {
namespace {

using testing::HasSubstr;

/// A report with a figure in every place.
Report sample_report() {
  Report report;
  report.seed = 7;
  report.elapsed = 61250;
  report.aps = 3;
  report.subscribed = 3;
  report.all_subscribed_after = 150;
  report.counters.attempts = 4;
  report.counters.lost = 1;
  report.counters.sent = 9;
  report.counters.sent_bytes = 1250000;
  report.domains.push_back({"lab", 3, 3, 2, Stage::Planned, {20000, 15000, 4500, 2000, 10}});
  report.measured = 1;
  report.before[0] = {{-60, -50}, {-55, -60}, {20, 20}, {{1, 2}}};
  report.after[0] = {{-70, -80}, {-72}, {12, 10}, {{1, 1}, {11, 1}}};
  return report;
}

TEST(ReportText, ShowsStagesAndBothSituations) {
  const std::string text = to_text(sample_report());
  EXPECT_THAT(text, HasSubstr("Subscribed    3 of 3; all of them after 0.1 s\n"));
  EXPECT_THAT(text,
              HasSubstr("Connections   4 started, 0 failed, 1 lost; 0 subscriptions refused\n"));
  EXPECT_THAT(text, HasSubstr("Messages      9 sent (1.2 MB), 0 received (0.0 MB)\n"));
  EXPECT_THAT(text, HasSubstr("lab                      3      2      20.0       15.0       4.5"
                              "         2.0    0.0    41.5\n"));
  EXPECT_THAT(text, HasSubstr("2.4 GHz, 2 radios\n"));
  EXPECT_THAT(
      text, HasSubstr("  interference and noise, mean            -55.0    -75.0 dBm     -20.0\n"));
  EXPECT_THAT(
      text, HasSubstr("  loudest co-channel neighbour, mean      -57.5    -72.0 dBm     -14.5\n"));
  EXPECT_THAT(text, HasSubstr("  radios that hear one above -68 dBm          2        0\n"));
  EXPECT_THAT(text, HasSubstr("  radios that hear none                       0        1\n"));
  EXPECT_THAT(text, HasSubstr("  channels before      1:2\n"));
  EXPECT_THAT(text, HasSubstr("  channels after       1:1  11:1\n"));
}

TEST(ReportText, HasNoMeanOfNeighboursThatNobodyHears) {
  Report report = sample_report();
  report.after[0].loudest_dbm.clear();
  EXPECT_THAT(
      to_text(report),
      HasSubstr("  loudest co-channel neighbour, mean      -57.5        - dBm         -\n"));
}

TEST(ReportText, SaysSoWhenThereWasNoRound) {
  Report report = sample_report();
  report.measured = 0;
  EXPECT_THAT(to_text(report), HasSubstr("No domain has finished a round"));
}

TEST(ReportText, StaysWithin100Columns) {
  Report report = sample_report();
  for (int channel = 1; channel < 60; ++channel) report.after[0].channels[channel] = 100;
  const std::string text = to_text(report);
  for (std::size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    EXPECT_LE(end - begin, 100u) << text.substr(begin, end - begin);
  }
  EXPECT_THAT(text, HasSubstr("59:100"));
}

TEST(ReportJson, HoldsTheSameFigures) {
  const std::string text = to_json(sample_report());
  const JsonReader report(text.c_str());
  EXPECT_EQ(report.get_int("elapsed_ms"), 61250);
  EXPECT_EQ(report.get_int("all_subscribed_after_ms"), 150);
  EXPECT_EQ(report.child("counters").get_int("sessions_lost"), 1);
  EXPECT_EQ(report.child("domains").child(0).child("stage_ms").get_int("waiting"), 20000);
  EXPECT_STREQ(report.child("domains").child(0).get_str("stage"), "planned");
  const JsonReader band = report.child("air").child("2");
  EXPECT_EQ(band.get_int("radios"), 2);
  EXPECT_THAT(band.child("before").text(), HasSubstr(R"("interference_mean_dbm":-55.0)"));
  EXPECT_EQ(band.child("after").get_int("with_co_channel"), 1);
  EXPECT_EQ(band.child("after").child("channels").get_int("11"), 1);
  EXPECT_FALSE(report.child("air").has("6")) << "no radios there";
}

/// What Progress writes into a file, which is no terminal.
class ProgressLines : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(file = std::tmpfile(), nullptr); }
  void TearDown() override { std::fclose(file); }
  std::string written() {
    std::rewind(file);
    std::string text;
    for (int c; (c = std::fgetc(file)) != EOF;) text += static_cast<char>(c);
    return text;
  }
  std::FILE* file = nullptr;
};

/// Accepts everything and does nothing.
class NoConnections : public Connections {
 public:
  void open(std::uint32_t) override {}
  void send(std::uint32_t, std::string) override {}
  void close(std::uint32_t) override {}
};

TEST(StatusLines, NameTheFleetAndItsDomains) {
  World world(Scenario::of_size(5, 2, 1));
  NoConnections connections;
  FleetRun run(world, {}, connections, 0);
  run.advance(0);
  run.on_open(5, 0);
  run.on_text(6, 0, R"({"service":"rrm","cmd":"subscribe-response","status":"success"})");
  const std::vector<std::string> lines = status_lines(run, 1500, 200, 10);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "   1.5 s  1/5 subscribed, 1 open, 0 lost, 0 refused, 1 sent, 1 received");
  EXPECT_EQ(lines[1], "site-1           subscribing [######..............] 1/3 subscribed");
  EXPECT_EQ(lines[2], "site-2           subscribing [....................] 0/2 subscribed");
}

TEST(StatusLines, SumUpTheDomainsThatDoNotFitAndStayWithinTheTerminal) {
  World world(Scenario::of_size(5, 5, 1));
  NoConnections connections;
  const FleetRun run(world, {}, connections, 0);
  const std::vector<std::string> lines = status_lines(run, 0, 30, 2);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[3], "and 3 more: 3 subscribing");
  for (const std::string& line : lines) EXPECT_LE(line.size(), 30u);
}

TEST_F(ProgressLines, AreOnePerChangeAndASummaryEveryTenSeconds) {
  World world(Scenario::of_size(2, 1, 1));
  NoConnections connections;
  FleetRun run(world, {}, connections, 0);
  Progress progress(file);
  progress.show(run, 0);
  progress.show(run, 5000);
  run.advance(5000);
  for (std::uint32_t ap = 0; ap < 2; ++ap) {
    run.on_open(5100, ap);
    run.on_text(5100, ap, R"({"service":"rrm","cmd":"subscribe-response","status":"success"})");
  }
  progress.show(run, 5200);
  progress.show(run, 10000);
  EXPECT_EQ(written(),
            "   0.0 s  0/2 subscribed, 0 open, 0 lost, 0 refused, 0 sent, 0 received\n"
            "   5.2 s  site-1           waiting     [####################] 2/2 planning delay\n"
            "  10.0 s  2/2 subscribed, 2 open, 0 lost, 0 refused, 2 sent, 2 received\n");
}

}  // namespace
}  // namespace rrm::fleet
