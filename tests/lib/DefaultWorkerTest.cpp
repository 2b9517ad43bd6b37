#include "server/lib/DefaultWorker.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/Envelope.h"
#include "server/lib/RRM.h"
#include "tests/support/CapturedLog.h"

namespace rrm {
namespace {

/// Keeps what is sent instead of sending it.
class RecordingRRM : public RRM {
 public:
  using RRM::RRM;
  void send_text(const char* text, const SessionAddress& address) override {
    if (fails) throw std::runtime_error("cannot send");
    sent.emplace_back(text, address.id);
  }

  std::vector<std::pair<std::string, std::uint32_t>> sent;
  bool fails = false;
};

class DefaultWorkerTest : public testing::Test {
 protected:
  void process(const char* text) { worker_->process_message(JsonReader(text), {nullptr, 0, 7}); }

  test::CapturedLog log_;
  GlobalConfig config_;
  RecordingRRM rrm_{&config_};
  std::shared_ptr<DefaultWorker> worker_ = std::make_shared<DefaultWorker>(&rrm_);
};

TEST_F(DefaultWorkerTest, AnswersASubscriptionOnItsSession) {
  worker_->enqueue_message(JsonReader(R"({"service":"rrm","cmd":"subscribe-request"})"),
                           {nullptr, 0, 7});
  worker_->process_queues();
  ASSERT_EQ(rrm_.sent.size(), 1U);
  EXPECT_EQ(rrm_.sent[0].first, R"({"service":"rrm","version":"2.4","cmd":"subscribe-response"})");
  EXPECT_EQ(rrm_.sent[0].second, 7U);
}

TEST_F(DefaultWorkerTest, IgnoresEverythingElse) {
  for (const char* text : {R"({"service":"rrm","cmd":"rrm-response"})",
                           R"({"service":"rrm-internal","cmd":"subscribe-request"})",
                           R"({"cmd":"subscribe-request"})", "{}", "[]", "null"})
    process(text);
  EXPECT_TRUE(rrm_.sent.empty());
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(DefaultWorkerTest, TakesTheStopMessage) {
  process(kStopDocument);
  EXPECT_TRUE(worker_->is_stopped());
  EXPECT_TRUE(log_.has(LogLevel::Debug, "Aborting default-domain"));
}

TEST_F(DefaultWorkerTest, AnExceptionIsLoggedAndRaisedAndTheWorkerGoesOn) {
  rrm_.fails = true;
  process(R"({"service":"rrm","cmd":"subscribe-request"})");
  EXPECT_TRUE(
      log_.has(LogLevel::Error, "Exception at processing message on default worker: cannot send"));
  ASSERT_EQ(log_.events().size(), 1U);
  EXPECT_EQ(log_.events()[0].first, EventCode::DefaultWorkerThrew);
  rrm_.fails = false;
  process(R"({"service":"rrm","cmd":"subscribe-request"})");
  EXPECT_EQ(rrm_.sent.size(), 1U);
}

TEST_F(DefaultWorkerTest, HasItsNameAndQueuesAndNoStatus) {
  EXPECT_EQ(worker_->name(), "default-domain");
  EXPECT_EQ(worker_->queue_capacity(), 2048U);
  JsonWriter writer;
  worker_->get_status(writer);
  worker_->get_status_full(writer);
  EXPECT_EQ(writer.str(), "{}");
}

}  // namespace
}  // namespace rrm
