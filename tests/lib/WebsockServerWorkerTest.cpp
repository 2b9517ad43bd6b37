#include "server/lib/WebsockServerWorker.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "server/lib/Envelope.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/FakeClock.h"
#include "tests/support/FewDescriptors.h"
#include "tests/support/FileLimit.h"
#include "tests/support/FreePort.h"
#include "tests/support/HttpClient.h"
#include "tests/support/LoopbackServer.h"
#include "tests/support/NoNewThreads.h"
#include "tests/support/VirtualSleep.h"

namespace rrm {
namespace {

using test::FakeClock;
using test::RawClient;
using test::RecordingWorker;
using test::wait_until;
using test::WebsockClients;
using Texts = std::vector<std::string>;

/// A message for the recording domain, its document in the form in which it is recorded.
std::string numbered(int number) {
  return R"({"domain":"site","n":)" + std::to_string(number) + "}";
}

std::string of_size(std::size_t size) {
  const std::string head = R"({"domain":"site","filler":")";
  return head + std::string(size - head.size() - 2, 'x') + "\"}";
}

class WebsockServerTest : public testing::Test {
 protected:
  /// Among the messages of the recording domain, which also hears of sessions that close.
  bool has_arrived(const std::string& text) const {
    const auto texts = server_.site->texts();
    return std::find(texts.begin(), texts.end(), text) != texts.end();
  }

  FakeClock clock_;  // no second ends, so that no flood is seen among many messages
  test::CapturedLog log_;
  test::LoopbackServer server_;
};

class WebsockClientsTest : public WebsockServerTest {
 protected:
  /// Whether a fresh session still gets its message through.
  bool still_serves() {
    const std::size_t client = clients_.open_all(1);
    const std::string text = numbered(static_cast<int>(1000000 + client));
    clients_.send(client, text);
    return wait_until([&] { return has_arrived(text); });
  }

  WebsockClients clients_{server_.port()};
};

// --- sessions

TEST_F(WebsockClientsTest, EverySessionGetsTheNextIdWhichIsNeverUsedAgain) {
  clients_.open_all(2);
  const auto first = server_.wait_sessions(2);
  EXPECT_EQ(first[0].id, 1U);
  EXPECT_EQ(first[1].id, 2U);
  EXPECT_EQ(first[0].tsi, 0);
  clients_.close(0);
  clients_.close(1);
  server_.wait_sessions(0);
  clients_.open_all(1);
  EXPECT_EQ(server_.wait_sessions(1)[0].id, 3U);
}

TEST_F(WebsockClientsTest, ReportsItsSessionsWithTheirPeers) {
  clients_.open_all(2);
  server_.wait_sessions(2);
  const std::string expected =
      R"({"websock-sessions":[{"id":1,"peer":"127.0.0.1"},{"id":2,"peer":"127.0.0.1"}]})";
  JsonWriter status;
  server_.server().get_status(status);
  EXPECT_EQ(status.str(), expected);
  JsonWriter full;
  server_.server().get_status_full(full);
  EXPECT_EQ(full.str(), expected);
}

TEST_F(WebsockClientsTest, AClosedSessionIsForgottenAndEveryDomainHearsOfIt) {
  clients_.open_all(1);
  const auto address = server_.wait_sessions(1)[0];
  EXPECT_TRUE(server_.rrm.is_session_alive(address));
  clients_.close(0);
  server_.wait_sessions(0);
  EXPECT_FALSE(server_.rrm.is_session_alive(address));
  ASSERT_TRUE(server_.wait_records(1));
  EXPECT_EQ(
      server_.site->records()[0],
      (RecordingWorker::Record{R"({"service":"rrm-internal","cmd":"drop-session"})", address}));
}

TEST_F(WebsockClientsTest, AnUpgradeNeedsTheSubprotocolOnWhateverPath) {
  const std::size_t elsewhere = clients_.open("websock-rrm", "/");
  EXPECT_TRUE(clients_.wait_open(elsewhere));
  server_.wait_sessions(1);
  RawClient without(server_.port());
  EXPECT_TRUE(without.handshake("")) << "but it gets no session";
  RawClient wrong(server_.port());
  EXPECT_FALSE(wrong.handshake("no-such-protocol"));
  EXPECT_TRUE(still_serves());
  EXPECT_EQ(server_.wait_sessions(2).size(), 2U);
}

/// Stands in for memory that runs out while a message is received or sent.
void throw_on_traffic(const char*, int, const char*, LogLevel, const char* format, std::va_list) {
  const std::string_view text(format);
  if (text.starts_with("Recv") || text.starts_with("Send")) throw std::bad_alloc();
}

TEST_F(WebsockClientsTest, AMessageThatMemoryDoesNotHoldEndsItsConnectionOnly) {
  RawClient client(server_.port());
  ASSERT_TRUE(client.handshake());
  const std::size_t other = clients_.open_all(1);
  server_.wait_sessions(2);
  set_log_sink(&throw_on_traffic);
  ASSERT_TRUE(client.send_frame(RawClient::Text, numbered(1)));
  EXPECT_TRUE(client.wait_end());
  set_log_sink(nullptr);
  server_.wait_sessions(1);
  clients_.send(other, numbered(2));
  EXPECT_TRUE(wait_until([&] { return has_arrived(numbered(2)); }));
  EXPECT_FALSE(has_arrived(numbered(1)));
  EXPECT_TRUE(wait_until([&] { return server_.server().backlog() == 0; }))
      << "nor does it count any longer";
}

TEST_F(WebsockClientsTest, AnAnswerThatMemoryDoesNotHoldEndsItsConnectionOnly) {
  RawClient client(server_.port());
  ASSERT_TRUE(client.handshake());
  const SessionAddress address = server_.wait_sessions(1)[0];
  set_log_sink(&throw_on_traffic);
  server_.server().enqueue_text("{}", address);
  EXPECT_TRUE(client.wait_end());
  set_log_sink(nullptr);
  server_.wait_sessions(0);
  EXPECT_TRUE(still_serves());
}

TEST_F(WebsockClientsTest, RecordsWhatLibwebsocketsCallsItFor) {
  clients_.open_all(1);
  clients_.send(0, numbered(1));
  ASSERT_TRUE(server_.wait_records(1));
  clients_.close(0);
  server_.wait_sessions(0);
  for (const char* text :
       {"LWS_CALLBACK_PROTOCOL_INIT", "LWS_CALLBACK_ESTABLISHED", "LWS_CALLBACK_RECEIVE",
        "LWS_CALLBACK_CLOSED", "Starting 1 lws threads", R"(Recv {"domain":"site","n":1})"})
    EXPECT_TRUE(log_.has(LogLevel::Debug, text)) << text;
  const auto texts = log_.texts(LogLevel::Debug);
  EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
    return text.starts_with("libwebsocket-debug> 16: ");
  })) << "its own lines of every level, too";
}

struct ReasonCase {
  lws_callback_reasons reason;
  const char* record;  ///< null for none
};

class Reason : public testing::TestWithParam<ReasonCase> {};

TEST_P(Reason, IsRecordedByItsNameOrNotAtAll) {
  const test::CapturedLog log;
  EXPECT_EQ(
      WebsockServerWorker::worker_lws_callback(nullptr, GetParam().reason, nullptr, nullptr, 0), 0);
  const auto records = log.records();
  if (GetParam().record == nullptr) {
    EXPECT_TRUE(records.empty());
    return;
  }
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].text, GetParam().record);
  EXPECT_EQ(records[0].level, LogLevel::Debug);
  EXPECT_EQ(records[0].function, "worker_lws_callback");
}

#define NAMED(reason) \
  ReasonCase { reason, #reason }
INSTANTIATE_TEST_SUITE_P(
    Of, Reason,
    testing::Values(NAMED(LWS_CALLBACK_ESTABLISHED), NAMED(LWS_CALLBACK_RECEIVE),
                    NAMED(LWS_CALLBACK_RECEIVE_PONG), NAMED(LWS_CALLBACK_CLOSED),
                    NAMED(LWS_CALLBACK_CLOSED_HTTP), NAMED(LWS_CALLBACK_EVENT_WAIT_CANCELLED),
                    NAMED(LWS_CALLBACK_CLIENT_CONNECTION_ERROR),
                    NAMED(LWS_CALLBACK_CLIENT_ESTABLISHED), NAMED(LWS_CALLBACK_CLIENT_RECEIVE),
                    NAMED(LWS_CALLBACK_CLIENT_RECEIVE_PONG), NAMED(LWS_CALLBACK_CLIENT_WRITEABLE),
                    NAMED(LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED),
                    NAMED(LWS_CALLBACK_PROTOCOL_INIT), NAMED(LWS_CALLBACK_PROTOCOL_DESTROY),
                    NAMED(LWS_CALLBACK_WSI_CREATE), ReasonCase{LWS_CALLBACK_WSI_DESTROY, nullptr},
                    ReasonCase{LWS_CALLBACK_SERVER_WRITEABLE, nullptr},
                    ReasonCase{LWS_CALLBACK_GET_THREAD_ID, nullptr}),
    [](const auto& test) { return "Number" + std::to_string(test.param.reason); });
#undef NAMED

// --- receiving

TEST_F(WebsockClientsTest, AMessageInSeveralFragmentsReachesTheDispatcherOnceAndComplete) {
  clients_.open_all(1);
  const auto address = server_.wait_sessions(1)[0];
  clients_.send_fragments(0, {R"({"domain")", R"(:"si)", "", R"(te","n":)", "7}"});
  clients_.send(0, numbered(8));
  ASSERT_TRUE(server_.wait_records(2));
  EXPECT_EQ(server_.site->texts(), (Texts{numbered(7), numbered(8)}));
  EXPECT_EQ(server_.site->records()[0].second, address);
}

TEST_F(WebsockServerTest, OnlyAWholeMessageIsASignOfActivity) {
  RawClient ap(server_.port());
  ASSERT_TRUE(ap.handshake());
  server_.wait_sessions(1);
  const auto session = server_.server().sessions().at(0);
  const std::int64_t established_s = session->last_activity_s;
  FakeClock::now_s += 5;
  ap.send_frame(RawClient::Text, R"({"domain":)", false);
  ASSERT_TRUE(wait_until([&] { return server_.server().backlog() == 10; }));
  EXPECT_EQ(session->last_activity_s, established_s);
  ap.send_frame(RawClient::Continuation, R"("site"})");
  ASSERT_TRUE(server_.wait_records(1));
  EXPECT_EQ(session->last_activity_s, established_s + 5);
}

class MessageSize : public WebsockClientsTest, public testing::WithParamInterface<std::size_t> {};

TEST_P(MessageSize, ArrivesWholeAndGoesOutWhole) {
  clients_.open_all(1);
  const auto address = server_.wait_sessions(1)[0];
  const std::string text = of_size(GetParam());
  clients_.send(0, text);
  ASSERT_TRUE(server_.wait_records(1));
  EXPECT_EQ(server_.site->records()[0].first, text);
  server_.rrm.send_text(text.c_str(), address);
  EXPECT_EQ(clients_.wait_received(0), (Texts{text}));
  EXPECT_TRUE(wait_until([&] { return server_.server().backlog() == 0; }));
}

INSTANTIATE_TEST_SUITE_P(Bytes, MessageSize,
                         testing::Values(100, 125, 126, 4079, 4080, 4081, 4095, 4096, 4097, 65535,
                                         65536, 70000, 300000, 3000000));

TEST_F(WebsockClientsTest, FragmentsOfDifferentSessionsAreNotMixed) {
  constexpr int kSessions = 20;
  clients_.open_all(kSessions);
  for (int part = 0; part < 2; ++part) server_.wait_sessions(kSessions);
  for (int i = 0; i < kSessions; ++i) {
    const std::string text = numbered(i);
    Texts letters;
    for (const char letter : text) letters.push_back(std::string(1, letter));
    clients_.send_fragments(static_cast<std::size_t>(i), letters);
  }
  ASSERT_TRUE(server_.wait_records(kSessions));
  Texts expected;
  for (int i = 0; i < kSessions; ++i) expected.push_back(numbered(i));
  EXPECT_THAT(server_.site->texts(), testing::UnorderedElementsAreArray(expected));
}

TEST_F(WebsockClientsTest, MessagesOfOneSessionKeepTheirOrder) {
  clients_.open_all(1);
  for (int i = 0; i < 3000; ++i) clients_.send(0, numbered(i));
  ASSERT_TRUE(server_.wait_records(3000));
  const auto texts = server_.site->texts();
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(texts[static_cast<std::size_t>(i)], numbered(i));
}

TEST_F(WebsockClientsTest, AnExceptionWhileRoutingIsLoggedAndRaisedAndTheNextMessageGetsThrough) {
  class Throwing : public RecordingWorker {
   public:
    using RecordingWorker::RecordingWorker;
    void enqueue_message(JsonReader&&, const SessionAddress&) override {
      throw std::runtime_error("cannot take it");
    }
  };
  server_.rrm.workers().insert("bad", std::make_shared<Throwing>("bad", &server_.rrm));
  clients_.open_all(1);
  clients_.send(0, R"({"domain":"bad"})");
  clients_.send(0, numbered(1));
  ASSERT_TRUE(server_.wait_records(1));
  EXPECT_EQ(log_.texts(LogLevel::Error),
            (Texts{"Exception at processing message on websock-server-worker: cannot take it"}));
  EXPECT_EQ(log_.events().at(0).first, EventCode::ParsingThreadThrew);
}

// --- floods

class FloodTest : public testing::Test {
 protected:
  void send(int count) {
    for (int i = 0; i < count; ++i) clients_.send(0, numbered(i));
    sent_ += static_cast<std::size_t>(count);
    ASSERT_TRUE(wait_until([&] {
      const auto texts = server_.site->texts();
      return static_cast<std::size_t>(std::count_if(
                 texts.begin(), texts.end(),
                 [](const auto& text) { return text.rfind(R"({"domain")", 0) == 0; })) == sent_;
    }));
  }
  void next_second(std::int64_t seconds = 1) { FakeClock::now_s += seconds; }
  std::size_t stops() const { return log_.count(LogLevel::Info, "rrm: stop-load-balancer:"); }

  FakeClock clock_;
  test::CapturedLog log_;
  test::LoopbackServer server_;
  WebsockClients clients_{server_.port()};
  std::size_t sent_ = 0;
};

TEST_F(FloodTest, Of1024MessagesInOneSecondPausesLoadBalancingOnceAndNotAgainWithin29Seconds) {
  clients_.open_all(1);
  const auto address = server_.wait_sessions(1)[0];
  send(1024);
  EXPECT_EQ(stops(), 0U);
  next_second();
  send(1);
  EXPECT_EQ(stops(), 1U);
  ASSERT_TRUE(server_.wait_records(1026));
  const auto records = server_.site->records();
  EXPECT_EQ(std::count(records.begin(), records.end(),
                       RecordingWorker::Record{
                           R"({"service":"rrm-internal","cmd":"stop-load-balancer"})", address}),
            1);

  send(1100);
  next_second();
  send(1100);
  next_second(28);  // 29 s after the stop
  send(1100);
  EXPECT_EQ(stops(), 1U);
  next_second();
  send(1);
  EXPECT_EQ(stops(), 2U);
}

TEST_F(FloodTest, OfAllSessionsTogetherIsOneToo) {
  clients_.open_all(2);
  server_.wait_sessions(2);
  for (int i = 0; i < 511; ++i) clients_.send(1, R"({"domain":"site","other":1})");
  sent_ += 511;
  send(513);
  EXPECT_EQ(stops(), 0U);
  next_second();
  send(1);
  EXPECT_EQ(stops(), 1U);
}

TEST_F(FloodTest, Of1023MessagesInOneSecondIsNone) {
  clients_.open_all(1);
  send(1023);
  next_second();
  send(1023);
  next_second();
  send(1);
  EXPECT_EQ(stops(), 0U);
}

// --- sending

TEST_F(WebsockClientsTest, SendsTextsAndDocumentsInTheOrderTheyWereQueued) {
  clients_.open_all(1);
  const auto address = server_.wait_sessions(1)[0];
  server_.rrm.send_text(R"({"a" : 1})", address);
  server_.rrm.send_message(R"({"b" : 2})", address);
  server_.rrm.send_serialized("plain", address);
  server_.rrm.send_message_force(R"({"c" : [true]})", address);
  const auto received = clients_.wait_received(0, 4);
  EXPECT_THAT(received, testing::UnorderedElementsAre(R"({"a" : 1})", R"({"b":2})", "plain",
                                                      R"({"c":[true]})"));
  EXPECT_TRUE(log_.has(LogLevel::Debug, R"(Send {"b":2})"));
}

TEST_F(WebsockClientsTest, FarMoreMessagesThanItsQueueHoldsReachASessionInTheirOrder) {
  clients_.open_all(1);
  const auto address = server_.wait_sessions(1)[0];
  for (int i = 0; i < 2000; ++i) server_.rrm.send_text(numbered(i).c_str(), address);
  const auto received = clients_.wait_received(0, 2000);
  ASSERT_EQ(received.size(), 2000U);
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(received[static_cast<std::size_t>(i)], numbered(i));
}

TEST_F(WebsockClientsTest, ManyThreadsSendToManySessions) {
  constexpr std::size_t kSessions = 30;
  clients_.open_all(kSessions);
  const auto addresses = server_.wait_sessions(kSessions);
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t)
    producers.emplace_back([&] {
      for (int i = 0; i < 25; ++i)
        for (const auto& address : addresses) server_.rrm.send_text(numbered(i).c_str(), address);
    });
  for (std::thread& producer : producers) producer.join();
  for (std::size_t client = 0; client < kSessions; ++client)
    EXPECT_EQ(clients_.wait_received(client, 100).size(), 100U);
}

TEST_F(WebsockClientsTest, QueueingForASessionThatIsNotThereIsDropped) {
  const SessionAddress nobody{reinterpret_cast<lws*>(0x1000), 0, 9};
  server_.rrm.send_text("{}", nobody);
  EXPECT_TRUE(log_.has(LogLevel::Debug,
                       "enqueue_serialized: no live websocket session for wsi (dropped id=9)"));
  EXPECT_FALSE(server_.rrm.is_session_alive(nobody));
}

TEST_F(WebsockClientsTest, AReplyToASessionThatHasSinceReconnectedIsDroppedAsStale) {
  clients_.open_all(1);
  SessionAddress stale = server_.wait_sessions(1)[0];
  clients_.close(0);
  server_.wait_sessions(0);
  server_.rrm.send_text("late", stale);  // its connection is gone
  clients_.open_all(1);
  const auto live = server_.wait_sessions(1)[0];
  stale.wsi = live.wsi;  // as when the new connection stands where the old one stood
  server_.rrm.send_text("late", stale);
  EXPECT_TRUE(log_.has(LogLevel::Debug,
                       "enqueue_serialized: BaseSession stale or mismatched (msg id=1 tsi=0 vs "
                       "live id=2 tsi=0)"));
  SessionAddress elsewhere = live;
  elsewhere.tsi = 3;
  server_.rrm.drop_session_at_websock_worker(elsewhere, true);
  EXPECT_TRUE(log_.has(LogLevel::Debug,
                       "enqueue_message_force: BaseSession stale or mismatched (msg id=2 tsi=3 vs "
                       "live id=2 tsi=0)"));
  server_.rrm.send_text("fresh", live);
  EXPECT_EQ(clients_.wait_received(1), (Texts{"fresh"}));
  EXPECT_TRUE(clients_.received(0).empty());
}

TEST_F(WebsockClientsTest, SessionsThatComeOneAfterAnotherAreAllServed) {
  // Whatever memory of the last one its connection is given.
  for (std::size_t i = 0; i < 20; ++i) {
    const std::size_t client = clients_.open_all(1);
    const auto address = server_.wait_sessions(1).at(0);
    const Texts texts{"one", "two", "three", "four", "five"};
    for (const std::string& text : texts) server_.rrm.send_text(text.c_str(), address);
    ASSERT_EQ(clients_.wait_received(client, texts.size()), texts) << i;
    clients_.close(client);
    server_.wait_sessions(0);
  }
}

TEST_F(WebsockClientsTest, NullTextsAndTheControllersOwnStopAreNotSent) {
  clients_.open_all(1);
  const auto address = server_.wait_sessions(1)[0];
  server_.rrm.send_text(nullptr, address);
  server_.server().enqueue_message(JsonReader(R"({"service":"internal-ipc","cmd":"x"})"), address);
  server_.rrm.send_text("next", address);
  EXPECT_EQ(clients_.wait_received(0), (Texts{"next"}));
}

TEST_F(WebsockClientsTest, ANullDocumentIsReportedAndNotSent) {
  clients_.open_all(1);
  const auto address = server_.wait_sessions(1)[0];
  server_.server().enqueue_message(JsonReader("{broken"), address);
  ASSERT_TRUE(wait_until([&] { return log_.has(LogLevel::Error, "ws_send json null"); }));
  EXPECT_TRUE(wait_until([&] { return log_.has_event(EventCode::NullDocument); }));
  server_.rrm.send_text("next", address);
  EXPECT_EQ(clients_.wait_received(0), (Texts{"next"}));
}

/// The server's own end of the connection whose other end is the client's.
int server_end_of(const RawClient& client) {
  const auto port_of = [](int fd, auto get_name) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    return get_name(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 ? address.sin_port : 0;
  };
  const int wanted = port_of(client.fd(), ::getsockname);
  for (int fd = 0; fd < 1024; ++fd)
    if (port_of(fd, ::getpeername) == wanted) return fd;
  return -1;
}

TEST_F(WebsockServerTest, AMessageThatCannotBeSentIsReported) {
  RawClient client(server_.port());
  ASSERT_TRUE(client.handshake());
  const auto address = server_.wait_sessions(1)[0];
  ASSERT_EQ(::shutdown(server_end_of(client), SHUT_WR), 0);
  server_.rrm.send_text("hello", address);
  ASSERT_TRUE(wait_until([&] { return log_.has_event(EventCode::SendFailed); }));
  EXPECT_TRUE(log_.has(LogLevel::Error, "Can't send msg type [0] to websocket (ret=-1 len=5)"));
}

TEST_F(WebsockServerTest, APingThatCannotBeSentIsReported) {
  RawClient client(server_.port());
  ASSERT_TRUE(client.handshake());
  const auto address = server_.wait_sessions(1)[0];
  ASSERT_EQ(::shutdown(server_end_of(client), SHUT_WR), 0);
  server_.rrm.ping_session(address);
  ASSERT_TRUE(wait_until([&] { return log_.has_event(EventCode::SendFailed); }));
  EXPECT_TRUE(log_.has(LogLevel::Error, "Can't send msg type [5] to websocket (ret=-1 len=8)"));
}

// --- dropping

class Drop : public WebsockClientsTest, public testing::WithParamInterface<bool> {};

TEST_P(Drop, ClosesThatSessionWithCode1000Done) {
  clients_.open_all(2);
  const auto addresses = server_.wait_sessions(2);
  server_.rrm.send_text("last words", addresses[0]);
  ASSERT_TRUE(
      wait_until([&] { return clients_.received(0).size() + clients_.received(1).size() == 1; }));
  const std::size_t closed = clients_.received(0).empty() ? 1 : 0;
  server_.rrm.drop_session_at_websock_worker(addresses[0], GetParam());
  ASSERT_TRUE(wait_until([&] { return server_.server().session_count() == 1; }));
  ASSERT_TRUE(clients_.wait_closed(closed));
  EXPECT_EQ(clients_.close_reason(closed), (std::pair<int, std::string>(1000, "done")));
  EXPECT_TRUE(log_.has(LogLevel::Debug, "cmd:drop-session 1"));
  EXPECT_EQ(server_.wait_sessions(1)[0], addresses[1]);
  EXPECT_TRUE(wait_until([&] {
    return !server_.site->records().empty() && server_.site->records()[0].second == addresses[0];
  }));
}

TEST_P(Drop, NothingFollowsTheCloseFrame) {
  RawClient ap(server_.server().port());
  ASSERT_TRUE(ap.handshake());
  const auto address = server_.wait_sessions(1)[0];
  server_.rrm.drop_session_at_websock_worker(address, GetParam());
  for (int i = 0; i < 10; ++i) server_.rrm.send_text("too late", address);
  const auto frame = ap.receive_frame();
  EXPECT_EQ(frame.opcode, RawClient::Close);
  EXPECT_EQ(frame.payload,
            "\x03\xe8"
            "done");
  for (int i = 0; i < 10; ++i) {
    server_.rrm.send_text("later still", address);
    usleep(1000);
  }
  EXPECT_EQ(ap.receive_frame(50).opcode, -1);
}

INSTANTIATE_TEST_SUITE_P(Force, Drop, testing::Bool(),
                         [](const auto& test) { return test.param ? "Yes" : "No"; });

/// The same for messages of the normal and of the force ring.
struct Ring {
  const char* name;
  void (*send)(RRM& rrm, const std::string& text, const SessionAddress& address);
  const char* overflow;
};

constexpr Ring kNormalRing = {"Normal",
                              [](RRM& rrm, const std::string& text, const SessionAddress& address) {
                                rrm.send_text(text.c_str(), address);
                              },
                              "per-wsi queue overflow: outgoing message dropped for session 1"};
constexpr Ring kForceRing = {
    "Force",
    [](RRM& rrm, const std::string& text, const SessionAddress& address) {
      rrm.send_message_force(text.c_str(), address);
    },
    "per-wsi force queue overflow: outgoing message dropped for session 1"};

/// Sends to a client that reads nothing until a message is given up without any waiting, because
/// one before was given up after a minute and none has gone out since.
bool fill_queue(test::LoopbackServer& server, const SessionAddress& address,
                const test::CapturedLog& log, const Ring& ring = kNormalRing) {
  const std::string text = of_size(1000000);
  return wait_until([&] {
    const test::VirtualSleep sleep;
    const std::size_t before = log.count(LogLevel::Error, ring.overflow);
    ring.send(server.rrm, text, address);
    return test::sleeps == 0 && log.count(LogLevel::Error, ring.overflow) == before + 1;
  });
}

class StuckPeer : public WebsockServerTest, public testing::WithParamInterface<Ring> {};

TEST_P(StuckPeer, AMessageForItIsDroppedReportedAndHoldsNobodyAgain) {
  RawClient stuck(server_.port());
  ASSERT_TRUE(stuck.handshake());
  const auto address = server_.wait_sessions(1)[0];
  ASSERT_TRUE(fill_queue(server_, address, log_, GetParam()));
  const std::size_t reported = log_.count(LogLevel::Error, GetParam().overflow);
  EXPECT_GE(reported, 2U);
  EXPECT_EQ(log_.texts(LogLevel::Error).size(), reported);
  const auto events = log_.events();
  EXPECT_EQ(
      std::count_if(events.begin(), events.end(),
                    [](const auto& event) { return event.first == EventCode::WebsocketOverflow; }),
      static_cast<std::ptrdiff_t>(reported));
}

INSTANTIATE_TEST_SUITE_P(With, StuckPeer, testing::Values(kNormalRing, kForceRing),
                         [](const auto& test) { return test.param.name; });

TEST_F(WebsockServerTest, AProducerThatWaitsForASessionGivesUpWhenItCloses) {
  RawClient stuck(server_.port());
  ASSERT_TRUE(stuck.handshake());
  const auto address = server_.wait_sessions(1)[0];
  std::atomic<int> sent{0};
  std::atomic<bool> closed{false};
  std::thread producer([&] {
    const std::string text = of_size(1000000);
    while (!closed) {
      server_.rrm.send_text(text.c_str(), address);
      ++sent;
    }
  });
  // It stands still when the sockets' buffers and the queue are full.
  ASSERT_TRUE(wait_until([&] {
    const int before = sent;
    usleep(50000);
    return before > 16 && sent == before;
  }));
  closed = true;
  stuck.reset();
  producer.join();
  EXPECT_FALSE(log_.has(LogLevel::Error, kNormalRing.overflow));
}

TEST_F(WebsockServerTest, AProducerThatWaitsForASessionGivesUpWhenTheControllerStops) {
  RawClient stuck(server_.port());
  ASSERT_TRUE(stuck.handshake());
  const auto address = server_.wait_sessions(1)[0];
  server_.site->on_message = [&](const JsonReader&) {
    const std::string text = of_size(1000000);
    for (int i = 0; i < 1000; ++i) server_.rrm.send_text(text.c_str(), address);
  };
  server_.site->enqueue_message(JsonReader("{}"), address);
  ASSERT_TRUE(server_.wait_records(1));
  server_.rrm.stop();
  EXPECT_TRUE(stuck.wait_end());
}

TEST_F(WebsockServerTest, ASessionThatIsDroppedButTakesNothingMoreIsCutOff) {
  server_.server().set_time_limits(40, 1);
  RawClient stuck(server_.port());
  ASSERT_TRUE(stuck.handshake());
  const auto address = server_.wait_sessions(1)[0];
  ASSERT_TRUE(fill_queue(server_, address, log_));
  server_.rrm.drop_session_at_websock_worker(address, true);
  EXPECT_TRUE(wait_until([&] { return server_.server().session_count() == 0; }));
}

/// Holds the parsing thread with its first message until it is let go.
class Blocked : public RecordingWorker {
 public:
  using RecordingWorker::RecordingWorker;
  void enqueue_message(JsonReader&&, const SessionAddress&) override {
    ++entered;
    wait_until([&] { return open.load(); }, 2 * test::kPatience_ms);
  }
  std::atomic<int> entered{0};
  std::atomic<bool> open{false};
};

class BusyParserTest : public WebsockServerTest {
 protected:
  BusyParserTest() {
    server_.rrm.workers().insert("blocked", blocked_);
    client_.handshake();
    client_.send_frame(RawClient::Text, R"({"domain":"blocked"})");
    EXPECT_TRUE(wait_until([&] { return blocked_->entered == 1; }));
  }
  ~BusyParserTest() override { blocked_->open = true; }

  std::shared_ptr<Blocked> blocked_ = std::make_shared<Blocked>("blocked", &server_.rrm);
  RawClient client_{server_.port()};
};

TEST_F(BusyParserTest, AFullParsingQueueDropsTheMessageAndReportsIt) {
  {
    const test::VirtualSleep sleep;
    for (int i = 0; i < 2049; ++i) client_.send_frame(RawClient::Text, numbered(i));
    EXPECT_TRUE(wait_until([&] {
      return log_.has(LogLevel::Error,
                      "jsonificator_queue overflow: message dropped from session 1");
    }));
  }
  EXPECT_TRUE(wait_until([&] { return log_.has_event(EventCode::WebsocketOverflow); }));
  blocked_->open = true;
  EXPECT_TRUE(server_.wait_records(2048));
  EXPECT_EQ(server_.site->texts().back(), numbered(2047));
}

TEST_F(BusyParserTest, MessagesOfASessionThatHasClosedMeanwhileAreNotParsed) {
  {
    RawClient gone(server_.port());
    ASSERT_TRUE(gone.handshake());
    gone.send_frame(RawClient::Text, numbered(1));
    gone.send_frame(RawClient::Text, "{broken");
    EXPECT_TRUE(wait_until([&] { return log_.has(LogLevel::Debug, "Recv {broken"); }));
  }
  server_.wait_sessions(1);
  client_.send_frame(RawClient::Text, numbered(2));
  blocked_->open = true;
  EXPECT_TRUE(wait_until([&] { return has_arrived(numbered(2)); }));
  EXPECT_FALSE(has_arrived(numbered(1)));
  EXPECT_TRUE(log_.texts(LogLevel::Error).empty());
  EXPECT_TRUE(wait_until([&] { return server_.server().backlog() == 0; }));
}

// --- many

TEST(WebsockServer, TwoThousandSessionsSpeakAndAreAnswered) {
  // Without a log, which would keep all that libwebsockets has to say.
  const FakeClock clock;
  test::LoopbackServer server;
  WebsockClients clients(server.port());
  constexpr std::size_t kSessions = 2000;
  clients.open_all(kSessions);
  const auto addresses = server.wait_sessions(kSessions);
  ASSERT_EQ(addresses.size(), kSessions);
  for (std::size_t client = 0; client < kSessions; ++client)
    clients.send(client, numbered(static_cast<int>(client)));
  ASSERT_TRUE(server.wait_records(kSessions));
  for (const auto& [text, address] : server.site->records())
    server.rrm.send_text(text.c_str(), address);
  for (std::size_t client = 0; client < kSessions; ++client)
    ASSERT_EQ(clients.wait_received(client), (Texts{numbered(static_cast<int>(client))}));
  for (std::size_t client = 0; client < kSessions; ++client) clients.close(client);
  EXPECT_TRUE(server.wait_sessions(0).empty());
}

TEST_F(WebsockClientsTest, SessionsThatComeAndGoUnderTrafficLoseOnlyTheirOwnMessages) {
  clients_.open_all(1);
  const auto steady = server_.wait_sessions(1)[0];
  std::atomic<bool> done{false};
  std::thread sender([&] {
    for (int i = 0; i < 500; ++i) server_.rrm.send_text(numbered(i).c_str(), steady);
    done = true;
  });
  for (int round = 0; round < 5 || !done; ++round) {
    const std::size_t first = clients_.open_all(20);
    for (const auto& session : server_.server().sessions())
      server_.rrm.send_text("hello", session->address);
    for (std::size_t client = first; client < first + 20; ++client) clients_.close(client);
  }
  sender.join();
  auto received = clients_.wait_received(0, 500);
  std::erase(received, "hello");
  ASSERT_TRUE(wait_until([&] {
    received = clients_.received(0);
    std::erase(received, "hello");
    return received.size() == 500;
  }));
  for (int i = 0; i < 500; ++i) ASSERT_EQ(received[static_cast<std::size_t>(i)], numbered(i));
}

// --- hostile peers

struct HostileText {
  const char* name;
  std::string bytes;
};

class Hostile : public WebsockClientsTest, public testing::WithParamInterface<HostileText> {};

TEST_P(Hostile, TextHarmsNeitherItsSessionNorOthers) {
  RawClient hostile(server_.port());
  ASSERT_TRUE(hostile.handshake());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(hostile.send_frame(RawClient::Text, GetParam().bytes));
  ASSERT_TRUE(hostile.send_frame(RawClient::Text, numbered(1)));
  EXPECT_TRUE(wait_until([&] { return has_arrived(numbered(1)); }));
  EXPECT_TRUE(still_serves());
}

std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, Hostile,
    testing::Values(HostileText{"Empty", ""}, HostileText{"Broken", "{\"domain\":\"site\","},
                    HostileText{"NoJson", "GET / HTTP/1.1\r\n\r\n"},
                    HostileText{"NulBytes", std::string("{\"dom\0ain\":\"site\"}\0\0", 21)},
                    HostileText{"OnlyNul", std::string(5000, '\0')},
                    HostileText{"InvalidUtf8", "{\"domain\":\"\xff\xfe\xc0\x80\xed\xa0\x80\"}"},
                    HostileText{"DeepArrays", repeated("[", 200000)},
                    HostileText{"DeepObjects", repeated("{\"a\":", 200000)},
                    HostileText{"MillionEntries", "{\"cmd\":[" + repeated("0,", 1000000) + "0]}"},
                    HostileText{"MillionKeys", "{" + repeated("\"a\":{},", 300000) + "\"b\":0}"},
                    HostileText{"DuplicateKeys",
                                R"({"domain":"none","domain":7,"cmd":"a","cmd":"b"})"},
                    HostileText{"AbsurdNumbers", R"({"n":1e99999,"m":-99999999999999999999999})"},
                    HostileText{"WrongTypes", R"({"domain":{"site":1},"cmd":[],"service":7})"},
                    HostileText{"FormatText", R"(%s%n%s%n%p%999999d)"},
                    HostileText{"InternalStop", kStopDocument},
                    HostileText{"InternalStopOfADomain",
                                R"({"service":"internal-ipc","cmd":"stop","domain":"site"})"},
                    HostileText{"InternalStopForNobody",
                                R"({"service":"internal-ipc","cmd":"stop","domain":"none"})"}),
    [](const auto& test) { return test.param.name; });

TEST_F(WebsockClientsTest, AnAccessPointCannotSpeakForTheController) {
  clients_.open_all(2);
  const auto addresses = server_.wait_sessions(2);
  for (const char* command : {"drop-session", "ping-session", "stop-load-balancer"})
    clients_.send(
        0, std::string(R"({"service":"rrm-internal","domain":"site","cmd":")") + command + "\"}");
  clients_.send(0, R"({"service":"internal-ipc","domain":"site","cmd":"stop"})");
  clients_.send(0, numbered(1));
  ASSERT_TRUE(server_.wait_records(1));
  EXPECT_EQ(server_.site->texts(), (Texts{numbered(1)}));
  EXPECT_EQ(log_.texts(LogLevel::Warning), Texts(4, "Incoming message validation failed"));
  EXPECT_FALSE(server_.site->is_stopped());
  EXPECT_EQ(server_.wait_sessions(2), addresses);
}

TEST_F(WebsockClientsTest, BinaryFramesAreTakenLikeTexts) {
  clients_.open_all(1);
  clients_.send_binary(0, numbered(5));
  clients_.send_binary(0, std::string("\x00\x01\x02\xff", 4));
  ASSERT_TRUE(server_.wait_records(1));
  EXPECT_EQ(server_.site->texts(), (Texts{numbered(5)}));
  EXPECT_TRUE(wait_until([&] { return log_.has_event(EventCode::TextDoesNotParse); }));
}

TEST_F(WebsockClientsTest, HalfOpenConnectionsHarmNobody) {
  RawClient silent(server_.port());
  RawClient half_request(server_.port());
  half_request.send_bytes("GET /zunt/rrm HTTP/1.1\r\nHost: x\r\nUpgr");
  RawClient half_frame(server_.port());
  ASSERT_TRUE(half_frame.handshake());
  half_frame.send_bytes(std::string("\x81\xfe\x10", 3));  // 4 KB are announced, nothing follows
  RawClient half_message(server_.port());
  ASSERT_TRUE(half_message.handshake());
  half_message.send_frame(RawClient::Text, "{\"domain\":", false);
  EXPECT_TRUE(still_serves());
  half_frame.reset();
  half_message.reset();
  half_request.reset();
  EXPECT_TRUE(still_serves());
  EXPECT_TRUE(wait_until([&] { return server_.server().backlog() == 0; }));
  EXPECT_EQ(server_.wait_sessions(2).size(), 2U);
}

class BrokenFrame : public WebsockClientsTest, public testing::WithParamInterface<HostileText> {};

TEST_P(BrokenFrame, EndsAtMostItsOwnSession) {
  RawClient hostile(server_.port());
  ASSERT_TRUE(hostile.handshake());
  hostile.send_bytes(GetParam().bytes);
  EXPECT_TRUE(still_serves());
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, BrokenFrame,
    testing::Values(
        HostileText{"Unmasked", "\x81\x05hello"},
        HostileText{"ReservedBits", std::string("\xf1\x80\x00\x00\x00\x00", 6)},
        HostileText{"ReservedOpcode", std::string("\x83\x80\x00\x00\x00\x00", 6)},
        HostileText{"LongControlFrame", std::string("\x89\xfe\x01\x00\x00\x00\x00\x00", 8)},
        HostileText{"ContinuationOfNothing", std::string("\x80\x80\x00\x00\x00\x00", 6)},
        HostileText{"HugeLength", std::string("\x81\xff\x7f\xff\xff\xff\xff\xff\xff\xff", 10)},
        HostileText{"NegativeLength", std::string("\x81\xff\xff\xff\xff\xff\xff\xff\xff\xff", 10)},
        HostileText{"CloseWithOneByte", std::string("\x88\x81\x00\x00\x00\x00\x03", 7)},
        HostileText{"Noise", std::string(3000, '\xa5')}),
    [](const auto& test) { return test.param.name; });

class PlainRequest : public WebsockClientsTest, public testing::WithParamInterface<HostileText> {};

TEST_P(PlainRequest, IsNotFoundAndClosedAndHarmsNobody) {
  test::TcpClient client(server_.port());
  ASSERT_TRUE(client.send(GetParam().bytes));
  EXPECT_EQ(test::read_reply(client).status, 404);
  std::string rest;
  while (client.receive(rest)) {
  }
  EXPECT_EQ(rest.find("HTTP/1.1"), std::string::npos);
  EXPECT_TRUE(still_serves());
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, PlainRequest,
    testing::Values(HostileText{"OfAPage", "GET /x HTTP/1.1\r\nHost: a\r\n\r\n"},
                    HostileText{"InTheMount", "GET /zunt/rrm HTTP/1.1\r\nHost: a\r\n\r\n"},
                    HostileText{"WithABody", test::post_text("{}")},
                    HostileText{"JoinedToOthers", test::post_text("{}") + test::post_text("{}") +
                                                      test::post_text("[]") +
                                                      std::string(300, 'x')}),
    [](const auto& test) { return test.param.name; });

TEST_F(WebsockClientsTest, AnUpgradeToAnotherProtocolIsHungUp) {
  for (const std::string protocol : {"h2c", "irc"}) {
    test::TcpClient client(server_.port());
    ASSERT_TRUE(
        client.send("GET /zunt/rrm HTTP/1.1\r\nHost: a\r\nConnection: Upgrade, HTTP2-Settings\r\n"
                    "Upgrade: " +
                    protocol + "\r\nHTTP2-Settings: AAMAAABkAAQAAP__\r\n\r\n"));
    std::string reply;
    while (client.receive(reply)) {
    }
    EXPECT_EQ(reply.find("101"), std::string::npos) << protocol;
  }
  EXPECT_TRUE(still_serves());
}

TEST_F(WebsockClientsTest, AMessageThatNeverEndsIsCutOffWithItsSession) {
  RawClient endless(server_.port());
  ASSERT_TRUE(endless.handshake());
  const std::string megabyte(1 << 20, 'x');
  endless.send_frame(RawClient::Text, megabyte, false);
  for (int i = 0; i < 40; ++i)
    if (!endless.send_frame(RawClient::Continuation, megabyte, false)) break;
  EXPECT_TRUE(wait_until([&] { return server_.server().session_count() == 0; }));
  EXPECT_TRUE(wait_until([&] { return server_.server().backlog() == 0; }));
  ASSERT_EQ(log_.texts(LogLevel::Error).size(), 1U);
  EXPECT_THAT(
      log_.texts(LogLevel::Error)[0],
      testing::MatchesRegex("websocket message too long, [0-9]+ bytes and more; close session 1"));
  EXPECT_TRUE(still_serves());
}

TEST_F(WebsockClientsTest, AllSessionsTogetherMayHaveOnlySoMuchInTheMaking) {
  server_.server().set_largest_backlog(1000000);
  RawClient first(server_.port());
  ASSERT_TRUE(first.handshake());
  const auto address = server_.wait_sessions(1)[0];
  const std::string text = of_size(600000);
  first.send_frame(RawClient::Text, text.substr(0, 500000), false);
  ASSERT_TRUE(wait_until([&] { return server_.server().backlog() == 500000; }));
  RawClient second(server_.port());
  ASSERT_TRUE(second.handshake());
  second.send_frame(RawClient::Text, text);
  EXPECT_TRUE(second.wait_end());
  ASSERT_EQ(log_.texts(LogLevel::Error).size(), 1U);
  EXPECT_THAT(
      log_.texts(LogLevel::Error)[0],
      testing::MatchesRegex("websocket message too long, [0-9]+ bytes and more; close session 2"));
  first.send_frame(RawClient::Continuation, text.substr(500000));
  EXPECT_TRUE(wait_until([&] { return has_arrived(text); }));
  EXPECT_EQ(server_.wait_sessions(1), (std::vector<SessionAddress>{address}));
  EXPECT_TRUE(wait_until([&] { return server_.server().backlog() == 0; }));
}

TEST_F(WebsockClientsTest, AStormOfConnectionsThatAreResetAtOnceLeavesNothingBehind) {
  for (int i = 0; i < 300; ++i) {
    RawClient client(server_.port());
    if (i % 2 == 0) client.handshake();
    if (i % 4 == 0) client.send_frame(RawClient::Text, "{\"domain\":", i % 8 == 0);
    client.reset();
  }
  EXPECT_TRUE(still_serves());
  EXPECT_EQ(server_.wait_sessions(1).size(), 1U);
}

TEST_F(WebsockServerTest, ConnectionsThatWouldTakeTheLastDescriptorsAreRefused) {
  const test::FileLimit low(160);  // an eighth of it is spared
  std::vector<std::unique_ptr<RawClient>> clients;
  do {
    clients.push_back(std::make_unique<RawClient>(server_.port()));
  } while (clients.back()->handshake() && clients.size() < 200);
  EXPECT_GT(clients.size(), 30U);
  EXPECT_LT(clients.size(), 80U);
  // Each client's own socket stands in the same table.
  EXPECT_GE(clients.back()->fd(), 138);
  EXPECT_LT(clients.back()->fd(), 160);
  const auto warnings = log_.texts(LogLevel::Warning);
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_THAT(warnings[0],
              testing::MatchesRegex("too many open connections: descriptor 1[4-5][0-9] refused"));
  clients.resize(clients.size() - 6);  // the refused one and some that were served
  EXPECT_EQ(server_.wait_sessions(clients.size()).size(), clients.size());
  EXPECT_TRUE(RawClient(server_.port()).handshake());
}

void throw_on_refusal(const char*, int, const char*, LogLevel, const char* format, std::va_list) {
  if (std::string_view(format).starts_with("too many open connections")) throw std::bad_alloc();
}

TEST_F(WebsockServerTest, ARefusalThatMemoryDoesNotRecordIsOneAllTheSame) {
  ++FakeClock::now_s;  // one record a second
  set_log_sink(&throw_on_refusal);
  {
    const test::FileLimit low(160);
    std::vector<std::unique_ptr<RawClient>> clients;
    do {
      clients.push_back(std::make_unique<RawClient>(server_.port()));
    } while (clients.back()->handshake() && clients.size() < 200);
    EXPECT_LT(clients.size(), 80U);
  }
  EXPECT_TRUE(RawClient(server_.port()).handshake());
  set_log_sink(nullptr);
}

// --- the worker's own life

TEST_F(WebsockServerTest, ComesBackAfterAStopWithItsSessionsGone) {
  for (int round = 0; round < 3; ++round) {
    RawClient client(server_.port());
    ASSERT_TRUE(client.handshake());
    ASSERT_EQ(server_.wait_sessions(1).size(), 1U);
    server_.server().stop();
    EXPECT_EQ(server_.server().session_count(), 0U);
    EXPECT_TRUE(client.wait_end());
    server_.rrm.send_text("{}", {reinterpret_cast<lws*>(0x1000), 0, 1});
    server_.server().start();
    ASSERT_TRUE(wait_until([&] { return server_.port() != 0; }));
  }
}

/// A port on which somebody else listens.
class TakenPort {
 public:
  TakenPort() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(number_));
    EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener_, 1), 0);
  }
  ~TakenPort() { release(); }
  TakenPort(const TakenPort&) = delete;
  TakenPort& operator=(const TakenPort&) = delete;

  void release() {
    if (listener_ >= 0) close(std::exchange(listener_, -1));
  }
  int number() const { return number_; }

 private:
  const int number_ = test::free_port();
  int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST(WebsockServer, TriesAgainWhileItsPortIsTakenAndCanBeStoppedMeanwhile) {
  test::CapturedLog log;
  TakenPort port;
  GlobalConfig config;
  config.listen_port = port.number();
  RRM rrm(&config);
  rrm.websock_server().start();
  const test::VirtualSleep sleep;  // no real pause between the attempts
  EXPECT_TRUE(wait_until([] { return test::slept_us >= 2000000; }));
  EXPECT_EQ(rrm.websock_server().port(), 0);
  rrm.websock_server().stop();
  rrm.websock_server().start();
  port.release();
  EXPECT_TRUE(wait_until([&] { return rrm.websock_server().port() != 0; }));
  EXPECT_EQ(rrm.websock_server().port(), config.listen_port);
  EXPECT_TRUE(RawClient(rrm.websock_server().port()).handshake());
}

/// A server that tries to listen on a taken port: what the test prepares meanwhile meets the first
/// attempt that gets the port.
class WaitingServer : public testing::Test {
 protected:
  void SetUp() override {
    config_.listen_port = port_.number();
    rrm_.websock_server().start();
    ASSERT_TRUE(wait_until([] { return test::slept_us >= 1000000; }));
  }

  bool has_logged(const std::string& text) {
    return wait_until([&] {
      const Texts errors = log_.texts(LogLevel::Error);
      return std::find(errors.begin(), errors.end(), text) != errors.end();
    });
  }
  bool serves() {
    return wait_until([&] { return rrm_.websock_server().port() == config_.listen_port; }) &&
           RawClient(config_.listen_port).handshake();
  }

  const test::CapturedLog log_;
  const test::VirtualSleep sleep_;
  TakenPort port_;
  GlobalConfig config_;
  RRM rrm_{&config_};
};

TEST_F(WaitingServer, TriesAgainWhileItsThreadsCannotBeStarted) {
  auto no_threads = std::make_unique<test::NoNewThreads>();
  port_.release();
  EXPECT_TRUE(
      has_logged("threads of the access-point server cannot be started: "
                 "Resource temporarily unavailable"));
  no_threads.reset();
  EXPECT_TRUE(serves());
}

TEST(WebsockServer, TriesAgainWhileItsLoopWouldGetNoDescriptors) {
  if (!test::FewDescriptors::kPossible) GTEST_SKIP() << test::FewDescriptors::kWhyNot;
  const test::CapturedLog log;
  const test::VirtualSleep sleep;
  GlobalConfig config;
  config.listen_port = 0;
  RRM rrm(&config);
  auto few = std::make_unique<test::FewDescriptors>(0);
  rrm.websock_server().start();
  EXPECT_TRUE(wait_until([] { return test::slept_us >= 2000000; }));
  EXPECT_EQ(rrm.websock_server().port(), 0);
  EXPECT_EQ(log.texts(LogLevel::Error).at(0),
            "too few descriptors are left for the access-point server");
  few.reset();
  EXPECT_TRUE(wait_until([&] { return rrm.websock_server().port() != 0; }));
  EXPECT_TRUE(RawClient(rrm.websock_server().port()).handshake());
}

TEST(WebsockServer, LinesOfLibwebsocketsBecomeDebugRecordsWithoutTheirEnd) {
  const test::CapturedLog log;
  WebsockServerWorker::logger_callback(4, "a notice\n");
  WebsockServerWorker::logger_callback(1024, "no end");
  WebsockServerWorker::logger_callback(1, "");
  WebsockServerWorker::logger_callback(2, "a line\r\n");
  EXPECT_EQ(log.texts(LogLevel::Debug),
            (Texts{"libwebsocket-debug> 4: a notice", "libwebsocket-debug> 1024: no end",
                   "libwebsocket-debug> 1: ", "libwebsocket-debug> 2: a line"}));
}

TEST(WebsockServer, ALineOfLibwebsocketsThatMemoryDoesNotRecordIsLost) {
  const test::CapturedLog log;
  set_log_sink([](const char*, int, const char*, LogLevel, const char*, std::va_list) {
    throw std::bad_alloc();
  });
  EXPECT_NO_THROW(WebsockServerWorker::logger_callback(4, "a notice\n"));
}

TEST_F(WebsockServerTest, HasItsNameAndQueues) {
  EXPECT_EQ(server_.server().name(), "websock-server-worker");
  EXPECT_EQ(server_.server().queue_capacity(), 2048U);
  EXPECT_EQ(WebsockServerWorker::kPongTimeout_s, 40);
  EXPECT_EQ(WebsockServerWorker::kStuckPeer_s, 5);
  EXPECT_EQ(server_.wait_sessions(0).size(), 0U);
}

}  // namespace
}  // namespace rrm
