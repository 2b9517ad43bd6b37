#include "server/lib/PingWorker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/CapturedLog.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LoopbackServer.h"

namespace rrm {
namespace {

using test::FakeClock;
using test::RawClient;
using test::wait_until;

constexpr std::int64_t kStart_s = 1000;

class PingWorkerTest : public testing::Test {
 protected:
  PingWorkerTest() : client_(server_.port()) {
    client_.handshake();
    address_ = server_.wait_sessions(1).at(0);
  }

  /// A second in which the check runs as the worker would run it.
  void check_at(std::int64_t second) {
    FakeClock::now_s = kStart_s + second;
    ping_->check_sessions(kStart_s + second);
  }
  bool is_pinged() {
    const auto frame = client_.receive_frame();
    return frame.opcode == RawClient::Ping && frame.payload == "lws_ping";
  }
  std::size_t drops() const {
    return log_.count(LogLevel::Debug, "drop_session_at_websock_worker: " +
                                           std::to_string(address_.id) + " force: 1");
  }
  std::size_t pings() const { return log_.count(LogLevel::Debug, "Send lws_ping"); }
  /// Whether nothing was sent that the client has not yet received.
  bool is_quiet() {
    server_.rrm.send_text("behind it", address_);
    return client_.receive_frame().payload == "behind it";
  }

  FakeClock clock_{kStart_s};
  test::CapturedLog log_;
  test::LoopbackServer server_;
  RawClient client_;
  SessionAddress address_;
  std::shared_ptr<PingWorker> ping_ = std::make_shared<PingWorker>(&server_.rrm);
};

TEST_F(PingWorkerTest, ASilentSessionIsPingedEveryTenSecondsFrom30To90AndDroppedAt91) {
  std::vector<std::int64_t> pinged;
  for (std::int64_t second = 1; second <= 90; ++second) {
    check_at(second);
    if (second >= 30 && second % 10 == 0 && is_pinged()) pinged.push_back(second);
  }
  EXPECT_EQ(pinged, (std::vector<std::int64_t>{30, 40, 50, 60, 70, 80, 90}));
  EXPECT_TRUE(is_quiet());
  EXPECT_EQ(pings(), 7U);
  EXPECT_EQ(drops(), 0U);

  check_at(91);
  EXPECT_EQ(drops(), 1U);
  const auto frame = client_.receive_frame();
  EXPECT_EQ(frame.opcode, RawClient::Close);
  EXPECT_EQ(frame.payload, std::string("\x03\xe8", 2) + "done");
  // The domain hears of it at once, and again when the connection has closed.
  EXPECT_TRUE(server_.wait_records(1));
  EXPECT_EQ(server_.site->records()[0].first, R"({"service":"rrm-internal","cmd":"drop-session"})");
  EXPECT_EQ(server_.site->records()[0].second, address_);
  EXPECT_EQ(server_.server().session_count(), 1U) << "its end is not agreed upon yet";
  client_.send_frame(RawClient::Close, std::string("\x03\xe8", 2));
  EXPECT_TRUE(wait_until([&] { return server_.server().session_count() == 0; }));
}

TEST_F(PingWorkerTest, ASessionThatSendsAMessageEvery20SecondsIsNeverPinged) {
  for (std::int64_t second = 1; second <= 200; ++second) {
    check_at(second);
    if (second % 20 != 0) continue;
    const std::size_t before = server_.site->records().size();
    client_.send_frame(RawClient::Text, R"({"domain":"site"})");
    ASSERT_TRUE(server_.wait_records(before + 1));
  }
  EXPECT_TRUE(is_quiet());
  EXPECT_EQ(pings(), 0U);
  EXPECT_EQ(drops(), 0U);
}

TEST_F(PingWorkerTest, APongResetsTheSilenceSoThatAnAccessPointThatOnlyAnswersPingsStays) {
  for (std::int64_t second = 1; second <= 200; ++second) {
    check_at(second);
    if (second % 30 != 0) continue;
    ASSERT_TRUE(is_pinged());
    client_.send_frame(RawClient::Pong, "lws_ping");
    ASSERT_TRUE(wait_until(
        [&] { return server_.server().sessions().at(0)->last_activity_s == kStart_s + second; }));
  }
  EXPECT_TRUE(is_quiet());
  EXPECT_EQ(pings(), 6U);
  EXPECT_EQ(drops(), 0U);
  EXPECT_EQ(server_.server().session_count(), 1U);
}

TEST_F(PingWorkerTest, ACheckThatIsLateByASecondSkipsAPing) {
  check_at(29);
  check_at(31);
  check_at(40);
  EXPECT_TRUE(is_pinged());
  EXPECT_TRUE(is_quiet());
  EXPECT_EQ(pings(), 1U);
}

TEST_F(PingWorkerTest, ASessionWithoutPongIsGoneAfterTheTimeOut) {
  server_.server().set_time_limits(1, 5);
  check_at(30);
  EXPECT_TRUE(is_pinged());
  EXPECT_TRUE(client_.wait_end());
  EXPECT_TRUE(wait_until([&] { return server_.server().session_count() == 0; }));
}

TEST_F(PingWorkerTest, APongKeepsASessionBeyondTheTimeOut) {
  server_.server().set_time_limits(3, 5);  // leaves a busy machine the time to answer
  RawClient talking(server_.port());
  ASSERT_TRUE(talking.handshake());
  const SessionAddress other = server_.wait_sessions(2)[1];
  RawClient silent(server_.port());
  ASSERT_TRUE(silent.handshake());
  server_.wait_sessions(3);
  check_at(30);
  EXPECT_TRUE(is_pinged());
  client_.send_frame(RawClient::Pong, "lws_ping");
  EXPECT_EQ(talking.receive_frame().opcode, RawClient::Ping);
  talking.send_frame(RawClient::Text, R"({"domain":"site"})");  // a message is as good as a pong
  // The silent one's end tells that the time-out has passed for all.
  EXPECT_TRUE(silent.wait_end());
  EXPECT_EQ(server_.wait_sessions(2), (std::vector<SessionAddress>{address_, other}));
  client_.send_frame(RawClient::Text, R"({"domain":"site"})");
  EXPECT_TRUE(wait_until([&] {
    const auto records = server_.site->records();
    return !records.empty() && records.back().first == R"({"domain":"site"})";
  }));
}

TEST_F(PingWorkerTest, ChecksOnceASecondByItselfBetweenStartAndStop) {
  ping_->start();
  EXPECT_TRUE(wait_until([&] { return ping_->is_ready(); }));
  FakeClock::now_s = kStart_s + 30;
  EXPECT_TRUE(is_pinged());
  ping_->run_locked([] {});  // the check of that second is over and the next one is armed
  FakeClock::now_s = kStart_s + 39;
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  FakeClock::now_s = kStart_s + 40;
  EXPECT_TRUE(is_pinged());
  ping_->stop();
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Start worker Ping-worker"));
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Stop worker Ping-worker"));
  FakeClock::now_s = kStart_s + 50;
  server_.rrm.send_text("a ping would come first", address_);
  EXPECT_EQ(client_.receive_frame().payload, "a ping would come first");
  EXPECT_EQ(pings(), 2U);

  ping_->start();
  EXPECT_TRUE(wait_until([&] { return ping_->is_ready(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(is_quiet()) << "a check of before the stop is not made";
  FakeClock::now_s = kStart_s + 60;
  EXPECT_TRUE(is_pinged());
  ping_->stop();
  EXPECT_TRUE(is_quiet());
  EXPECT_EQ(pings(), 3U);
}

TEST_F(PingWorkerTest, HasItsNameAndQueuesAndNoStatus) {
  EXPECT_EQ(ping_->name(), "Ping-worker");
  EXPECT_EQ(ping_->queue_capacity(), 2048U);
  JsonWriter writer;
  ping_->get_status(writer);
  ping_->get_status_full(writer);
  ping_->process_message(JsonReader("{}"), kNoSession);
  EXPECT_EQ(writer.str(), "{}");
}

}  // namespace
}  // namespace rrm
