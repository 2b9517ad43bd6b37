// Whole planning rounds: the real process, real websockets, and a clock that runs ten times as
// fast.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "server/lib/report_fields.h"
#include "tests/support/FreePort.h"
#include "tests/support/HttpClient.h"
#include "tests/support/ProcessUnderTest.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WebsockClients.h"

namespace {

using rrm::test::free_port;
using rrm::test::http_post;
using rrm::test::ProcessUnderTest;
using rrm::test::TcpClient;
using rrm::test::TempFolder;
using rrm::test::wait_until;
using rrm::test::WebsockClients;

using Texts = std::vector<std::string>;

constexpr const char* kFasterClock = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1";
constexpr int kPatience_ms = 60000;
constexpr int kAps = 2;

/// Base MAC of access point n, which is also that of its only radio.
std::string mac(int ap) { return "00:11:22:00:0" + std::to_string(ap) + ":00"; }

std::string from_ap(const char* cmd, int ap, const std::string& members) {
  return std::string(R"({"service":"rrm","version":"2.4","cmd":")") + cmd +
         R"(","domain":"site1","ap-mac":")" + mac(ap) + R"(",)" + members + "}";
}

std::string radios(int channel, int power) {
  return R"("radios":[{"id":0,"status":1,"channel":)" + std::to_string(channel) +
         R"(,"band":5,"power":)" + std::to_string(power) +
         R"(,"power-max":20,"power-min":5,"bandwidth":20,"available-channels":"36,40"}])";
}

/// What the controller tells an access point of its radio.
std::string told(int channel, int power) {
  return R"("radios":[{"id":0,"channel":)" + std::to_string(channel) + R"(,"band":5,"power":)" +
         std::to_string(power) +
         R"(,"bandwidth":20,"primary-channel":"none","tavro-sta-rssi-thr-low":-75,)"
         R"("tavro-sta-rssi-thr-high":-65,"tavro-roam-attempt-timeout":600,)"
         R"("tavro-client-rssi-renew":15,"tavro-client-max-age":20,"tavro-try-no-balance":2,)"
         R"("no-balance-enterprise":0}])";
}

std::string heard(const std::string& bssid, int rssi, int channel) {
  return R"({"bssid":")" + bssid + R"(","rssi":)" + std::to_string(rssi) + R"(,"channel":)" +
         std::to_string(channel) + R"(,"band":5,"bandwidth":20,"tx-power":15})";
}

std::string to_ap(const char* cmd, const std::string& members) {
  return std::string(R"({"service":"rrm","version":"2.4","cmd":")") + cmd + "\"," + members + "}";
}

std::string subscribed(int ap) {
  return to_ap("subscribe-response",
               R"("status":"success","domain":"site1","ap-mac":")" + mac(ap) +
                   R"(","config":{"use-tpc":1,"use-dca":1,"use-load-balance":0,"use-80211r":0,)" +
                   R"("use-80211v":0,)" + told(36, 15) + "}");
}

std::string mode_requested(int ap) {
  return to_ap("rrm-request-mode", R"("domain":"site1","ap-mac":")" + mac(ap) + "\"");
}

std::string scan_requested(int ap) {
  return to_ap("rrm-update", R"("domain":"site1","ap-mac":")" + mac(ap) +
                                 R"(","rrm-scan-delay":0,"rrm-scan-channels":"36 40 ",)" +
                                 R"("rrm-scan-channels-list":{"2":"","5":"36 40 ","6":""},)" +
                                 R"("tavro-rrm-scanning":1)");
}

std::string planned(int ap, int channel, int power) {
  return to_ap("rrm-info", R"("ap-mac":")" + mac(ap) +
                               R"(","config":{"use-tpc":1,"use-dca":1,"use-load-balance":0,)" +
                               R"("use-80211v":0,)" + told(channel, power) + "}");
}

class PlanningRound : public testing::Test {
 protected:
  void SetUp() override {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the faster clock and the sanitizer both stand in for the C library's calls";
#endif
    if (std::filesystem::exists("/etc/tavro-wavelom/wavelom_logger.conf"))
      GTEST_SKIP() << "this machine has a logger configuration of its own";
    ASSERT_TRUE(std::filesystem::exists(kFasterClock)) << "the package faketime is missing";
    configure();
  }
  void configure() {
    folder_.write("c.conf", R"({"global":{"api_port":)" + std::to_string(web_port_) +
                                R"(,"cli_api_port":)" + std::to_string(tcp_port_) +
                                R"(,"listen_port":)" + std::to_string(ap_port_) +
                                R"(,"www_path":")" + folder_.path() + R"(","reports_path":")" +
                                reports_.path() +
                                R"("},"common":{"use_hd_mode":0,"use_balance":0,"use_80211k":0,)" +
                                R"("use_80211r":0,"use_80211v":0,"use_optimization_event":1,)" +
                                R"("use_optimization_time":0},"domains":[{"domain":"site1",)" +
                                R"("pattern":"common","time_zone":"0:00"}]})");
  }
  void start() {
    process_ = std::make_unique<ProcessUnderTest>(
        folder_.path(),
        Texts{"/usr/bin/env", std::string("LD_PRELOAD=") + kFasterClock, "FAKETIME=+0 x10",
              "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0", WAVELOM_EXECUTABLE,
              "c.conf"});
    for (const int port : {web_port_, ap_port_})
      ASSERT_TRUE(wait_until([&] { return TcpClient(port).is_connected(); }, kPatience_ms))
          << process_->output() << process_->errors();
  }
  /// Lets both access points connect, subscribe, measure and receive their plan. Each finds the
  /// stage's message as its next one, and no other in between.
  void lead_round() {
    WebsockClients clients(ap_port_);
    const std::size_t first = clients.open_all(kAps);
    const auto expect = [&](std::size_t count, const auto& text_for) {
      for (int ap = 1; ap <= kAps; ++ap) {
        const std::size_t client = first + static_cast<std::size_t>(ap) - 1;
        wait_until([&] { return clients.received(client).size() >= count; }, kPatience_ms);
        const Texts texts = clients.received(client);
        ASSERT_EQ(texts.size(), count) << process_->output();
        EXPECT_EQ(texts.back(), text_for(ap));
      }
    };
    const auto send = [&](const char* cmd, const auto& members_for) {
      for (int ap = 1; ap <= kAps; ++ap)
        clients.send(first + static_cast<std::size_t>(ap) - 1, from_ap(cmd, ap, members_for(ap)));
    };

    send("subscribe-request", [](int ap) {
      return R"("factory":{"board":"KV-810","hw":"A","serial":"S","mac":")" + mac(ap) + R"("},)" +
             radios(36, 15);
    });
    expect(1, subscribed);
    expect(2, mode_requested);
    send("rrm-mode-response", [](int) { return radios(36, 15); });
    expect(3, scan_requested);
    // 1 hears 2 at -50 dBm, 2 hears 1 at -66, both on 36; 2 also hears a stranger on 40 at -40.
    send("rrm-response", [](int ap) {
      return radios(36, 15) + R"(,"rf-environment":[[)" +
             (ap == 1 ? heard(mac(2), -50, 36)
                      : heard(mac(1), -66, 36) + "," + heard("66:00:00:00:00:01", -40, 40)) +
             "]]";
    });
    // 1 chooses first: 36 costs 15 + 35 + 50 + 35 + 15 = 150, on 40 only 15 are left. 2 stays: 36
    // costs 10 + 18 now, 40 100 + 180. Then 1 is 4 dB too loud for 2 (threshold -70), 2 is 20 dB
    // too loud for 1 but may not go below 5 dBm.
    expect(4, [](int ap) { return ap == 1 ? planned(1, 40, 11) : planned(2, 36, 5); });
  }
  std::string report(const char* file) { return reports_.read(std::string("report") + file); }

  /// Lines of the three files that a round at this date leaves.
  static std::string index_line(const std::string& date) { return "1.1," + date + "\n"; }
  static std::string settings_line(const std::string& date) {
    return "1.1," + date + ",1,1,1,0,25,-70,-70,2,2,0,120,-75,-65,30,5,20,0,0,15,20,2,0,1,93,0\n";
  }
  static std::string radio_lines(const std::string& date) {
    const std::string one = mac(1) + "," + mac(1);
    const std::string two = mac(2) + "," + mac(2);
    return "1.1," + date + "," + one + ",15,11,36,40,0,20,20,5,0,36 40,-1,-1,-1,-1,0,0\n" +  //
           "1.1," + date + "," + two + ",15,5,36,36,0,20,20,5,0,36 40,-1,-1,-1,-1,0,0\n";
  }
  /// The date of the last line of the index.
  std::string last_date() {
    const std::string index = report("_idx_site1.txt");
    return index.size() < 20 ? "" : index.substr(index.size() - 20, 19);
  }

  TempFolder folder_;
  TempFolder reports_;
  int web_port_ = free_port();
  int tcp_port_ = free_port();
  int ap_port_ = free_port();
  std::unique_ptr<ProcessUnderTest> process_;
};

TEST_F(PlanningRound, LeadsTwoAccessPointsToTheirPlanAndLeavesItsReport) {
  start();
  lead_round();
  const std::string date = last_date();
  std::int64_t time = 0;
  EXPECT_EQ(rrm::reports::parse_date_time_fields_to_time_t(date, time), 0) << date;
  EXPECT_EQ(report("_idx_site1.txt"), index_line(date));
  EXPECT_EQ(report("_cfg_site1.txt"), settings_line(date));
  EXPECT_EQ(report("_site1.txt"), radio_lines(date));
  EXPECT_EQ(reports_.entries(), 3U);
  process_->signal(SIGINT);
  EXPECT_EQ(process_->wait(kPatience_ms), 0) << process_->errors();
}

TEST_F(PlanningRound, OfAProcessThatFollowsAKilledOneAppendsToWhatThatLeft) {
  start();
  process_->signal(SIGKILL);
  process_->wait();
  // Killed in the midst of an append, and earlier in the midst of a deletion.
  reports_.write("report_idx_site1.txt.old", "1.1,2024-05-01,03:15:00\n1.1,2024-05-02,03:1");
  reports_.write("report_cfg_site1.txt", settings_line("2024-05-01,03:15:00"));
  reports_.write("report_site1.txt", radio_lines("2024-05-01,03:15:00") + "1.1,2024-05-02,03:1");
  reports_.write("report_site1.txt.start_status", "");
  start();
  lead_round();
  const std::string date = last_date();
  EXPECT_EQ(report("_idx_site1.txt"),
            index_line("2024-05-01,03:15:00") + "1.1,2024-05-02,03:1\n" + index_line(date));
  EXPECT_EQ(report("_cfg_site1.txt"), settings_line("2024-05-01,03:15:00") + settings_line(date));
  EXPECT_EQ(report("_site1.txt"),
            radio_lines("2024-05-01,03:15:00") + "1.1,2024-05-02,03:1\n" + radio_lines(date));
  EXPECT_EQ(reports_.entries(), 3U);
  const std::string last =
      http_post(web_port_, R"({"rrm":{"domain":"site1","last_report":1}})").body;
  EXPECT_NE(last.find(R"("id":")" + date + R"(,site1")"), std::string::npos) << last;
  process_->signal(SIGINT);
  EXPECT_EQ(process_->wait(kPatience_ms), 0) << process_->errors();
}

}  // namespace
