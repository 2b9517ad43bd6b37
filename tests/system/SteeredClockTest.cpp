#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/system/Process.h"

namespace {

using rrm::test::wait_until;

/// The process under a clock that runs ten times faster.
class SteeredClock : public Process {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers and a preloaded library do not go together";
#endif
    if (::access(kLauncher, X_OK) != 0) GTEST_SKIP() << "the package faketime is not installed";
    ::setenv("TZ", "UTC", 1);
    Process::SetUp();
  }
  /// Interrupts the process that the launcher has started; the launcher ends with its status.
  int interrupt() {
    const std::string id = std::to_string(process_->pid());
    pid_t controller = 0;
    std::ifstream("/proc/" + id + "/task/" + id + "/children") >> controller;
    if (controller <= 0 || ::kill(controller, SIGINT) != 0) return -1;
    const int status = process_->wait();
    if (status != 0) ADD_FAILURE() << process_->errors();
    return status;
  }
  bool says(const std::string& text) const {
    return process_->output().find(text) != std::string::npos;
  }

  static constexpr char kLauncher[] = "/usr/bin/faketime";
};

TEST_F(SteeredClock, DutiesOfSecondsMinutesAndDaysRunFasterAndAnInterruptEndsItWithStatus0) {
  folder_.write("keep.mode", "MASTER\n");
  configure(R"(,"report_delete_at_time_utc":"21:00","vrrp_enabled":1,"vrrp_timeout":20,)"
            R"("vrrp_state_file":")" +
            folder_.file("keep.mode") + R"(","vrrp_backup_path":")" + folder_.file("backup") +
            "\"");
  // The first look at the daily deletion, a minute after the start, comes behind its time.
  start_with({kLauncher, "-f", "@2031-05-06 20:59:30 x10"}, {"c.conf"});
  ASSERT_TRUE(is_serving(web_port_)) << process_->errors();
  ASSERT_TRUE(is_serving(ap_port_));
  EXPECT_TRUE(says("2031-05-06 ")) << "the clock is not steered";
  rrm::test::WebsockClients clients(ap_port_);
  const std::size_t ap = clients.open_all(1);
  clients.send(ap, R"({"service":"rrm","version":"2.4","cmd":"subscribe-request",)"
                   R"("domain":"site1","ap-mac":"00:11:22:00:01:00",)"
                   R"("factory":{"board":"B","hw":"H","serial":"S",)"
                   R"("mac":"00:11:22:00:01:00"},"radios":[]})");
  EXPECT_FALSE(clients.wait_received(ap).empty());
  // Both would take longer than the patience of these waits by an unsteered clock.
  EXPECT_TRUE(wait_until([&] { return folder_.has("backup/site1.json"); }, 15000))
      << "the backup waits 20 s for further changes";
  EXPECT_TRUE(wait_until([&] { return says("Report alarm fired: trigger=\"21:00\" UTC"); }, 30000));
  EXPECT_TRUE(says("ApiWeb periodic tick: invoking check_old_reports."));
  EXPECT_EQ(interrupt(), 0);
}

TEST_F(SteeredClock, AConnectionWithoutTheSubprotocolEndsAfterAMinuteAndAHalf) {
  configure("");
  start_with({kLauncher, "-f", "+0 x100"}, {"c.conf"});
  ASSERT_TRUE(is_serving(ap_port_)) << process_->errors();
  rrm::test::RawClient stranger(ap_port_);
  ASSERT_TRUE(stranger.handshake(""));
  EXPECT_TRUE(stranger.send_frame(rrm::test::RawClient::Text, "{}"));
  EXPECT_TRUE(stranger.wait_end());
  EXPECT_EQ(interrupt(), 0);
}

TEST_F(SteeredClock, AnAccessPointThatKeepsTalkingIsNeverPingedNorHungUpOn) {
  configure("");
  start_with({kLauncher, "-f", "+0 x100"}, {"c.conf"});
  ASSERT_TRUE(is_serving(ap_port_)) << process_->errors();
  rrm::test::RawClient ap(ap_port_);
  ASSERT_TRUE(ap.handshake());
  // 330 seconds of the process, a message in every fifth of them. Five minutes are what the library
  // by itself allows between two pongs.
  for (int i = 0; i < 66; ++i) {
    if (!ap.send_frame(rrm::test::RawClient::Text, "{}")) ADD_FAILURE() << "message " << i;
    const auto frame = ap.receive_frame(50);
    if (frame.opcode == rrm::test::RawClient::Ping && frame.payload == "lws_ping") {
      // The machine has kept this test waiting for half a minute of that clock.
      EXPECT_TRUE(ap.send_frame(rrm::test::RawClient::Pong, frame.payload));
      continue;
    }
    EXPECT_EQ(frame.opcode, -1) << "message " << i << ": " << frame.payload;
    if (HasFailure()) break;
  }
  EXPECT_EQ(interrupt(), 0);
}

}  // namespace
