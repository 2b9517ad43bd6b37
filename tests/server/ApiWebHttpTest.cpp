#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "server/lib/Descriptors.h"
#include "tests/server/WebApi.h"
#include "tests/support/FileLimit.h"

/// How the HTTP(S) front-end speaks the protocol: with by-hand clients over real sockets.
namespace {

using rrm::test::ask;
using rrm::test::http_get;
using rrm::test::http_post;
using rrm::test::HttpReply;
using rrm::test::post_text;
using rrm::test::read_reply;
using rrm::test::TcpClient;

constexpr char kAskRole[] = R"({"vrrp":{}})";
constexpr char kAskDomains[] = R"({"cfg":{"operation":"get","level":"domain"}})";

bool tells_role(const HttpReply& reply) {
  return reply.status == 200 && reply.body.ends_with(R"("role":"master","status":"success"})");
}

std::string request(const std::string& line, const std::string& headers = "",
                    const std::string& body = "") {
  return line + "\r\nHost: localhost\r\n" + headers + "\r\n" + body;
}

std::string get(const std::string& path) { return request("GET " + path + " HTTP/1.1"); }

/// A POST whose body comes in chunks of so many bytes.
std::string chunked_post(const std::string& body, std::size_t chunk) {
  std::string chunks;
  for (std::size_t at = 0; at < body.size(); at += chunk) {
    const std::string data = body.substr(at, chunk);
    char size[20];
    std::snprintf(size, sizeof(size), "%zx\r\n", data.size());
    chunks += size + data + "\r\n";
  }
  return request("POST / HTTP/1.1", "Transfer-Encoding: chunked\r\n", chunks + "0\r\n\r\n");
}

class WebHttp : public WebApi {
 protected:
  /// Sends it in pieces that the server reads one by one.
  static void trickle(TcpClient& client, const std::string& bytes, std::size_t piece) {
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      ASSERT_TRUE(client.send(bytes.substr(at, piece)));
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  /// Processor time of the server's thread so far.
  double busy_s() {
    clockid_t clock{};
    timespec time{};
    EXPECT_EQ(::pthread_getcpuclockid(thread_.native_handle(), &clock), 0);
    EXPECT_EQ(::clock_gettime(clock, &time), 0);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  }
  /// The reply to bytes that end their connection.
  HttpReply refusal(const std::string& bytes) {
    TcpClient client(port_);
    const HttpReply reply = ask(client, bytes);
    std::string more;
    EXPECT_FALSE(client.receive(more)) << "the connection stays open";
    return reply;
  }
};

// --- several requests of a connection ------------------------------------------------------------

TEST_F(WebHttp, KeptConnectionServesOneRequestAfterAnother) {
  start();
  TcpClient client(port_);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(tells_role(ask(client, post_text(kAskRole)))) << i;
  EXPECT_EQ(ask(client, get("/www/wavelom/")).body, "<html>the site</html>");
  EXPECT_TRUE(tells_role(ask(client, post_text(kAskRole))));
  EXPECT_EQ(api_->connection_count(), 1U);
  EXPECT_EQ(corrupted(), 0U);
}

TEST_F(WebHttp, OfRequestsJoinedInOnePieceTheFirstIsServedAndTheConnectionCloses) {
  start();
  const std::string command = post_text(R"({"vrrp":{}})");
  const std::string file = "GET /www/wavelom/ HTTP/1.1\r\nHost: a\r\n\r\n";
  const std::string missing = "GET /www/wavelom/none HTTP/1.1\r\nHost: a\r\n\r\n";
  const std::string redirected = "GET /www/wavelom HTTP/1.1\r\nHost: a\r\n\r\n";
  for (const std::string& first : {command, file, missing, redirected})
    for (const std::string& second :
         {command, command + command, file + command, command + "rest"}) {
      SCOPED_TRACE(first + second);
      TcpClient client(port_);
      ASSERT_TRUE(client.send(first + second));
      std::string bytes;
      while (client.receive(bytes)) {
      }
      EXPECT_TRUE(bytes.starts_with("HTTP/1.")) << bytes;
      // The library itself refuses some of them before it asks.
      EXPECT_EQ(bytes.find("HTTP/1.1 200", 1), std::string::npos) << bytes;
    }
  EXPECT_EQ(http_post(port_, R"({"rrm":{}})").status, 200);
}

TEST_F(WebHttp, FilesAndCommandsMayFollowEachOtherOnAConnection) {
  start();
  TcpClient client(port_);
  for (const char* path : {"/www/wavelom/", "/none", "/www/wavelom", "/www/wavelom/app.js"}) {
    ASSERT_TRUE(client.send(std::string("GET ") + path + " HTTP/1.1\r\nHost: a\r\n\r\n"));
    EXPECT_NE(read_reply(client).status, 0) << path;
    ASSERT_TRUE(client.send(post_text(R"({"vrrp":{}})")));
    EXPECT_EQ(read_reply(client).status, 200) << path;
  }
}

TEST_F(WebHttp, BodyInSeveralChunksIsProcessedOnceWhenTheLastHasArrived) {
  start();
  TcpClient client(port_);
  trickle(client, post_text(kAskRole), 7);
  EXPECT_TRUE(tells_role(read_reply(client)));
  EXPECT_EQ(corrupted(), 0U);
}

TEST_F(WebHttp, BodyOfTheLastRequestIsForgotten) {
  start();
  TcpClient client(port_);
  EXPECT_TRUE(tells_role(ask(client, post_text(kAskRole))));
  EXPECT_TRUE(tells_role(ask(client, post_text(kAskRole)))) << "not both bodies joined";
}

TEST_F(WebHttp, ClosedConnectionsLeaveTheTable) {
  start();
  {
    TcpClient kept(port_);
    TcpClient broken(port_);
    TcpClient half(port_);
    EXPECT_TRUE(tells_role(ask(kept, post_text(kAskRole))));
    EXPECT_EQ(ask(broken, post_text("{")).status, 400);
    ASSERT_TRUE(half.send("POST / HTTP/1.1\r\nContent-Length: 50\r\n\r\n{"));
    half.reset();
  }
  EXPECT_TRUE(wait_connections(0));
}

// --- files ---------------------------------------------------------------------------------------

struct PathCase {
  const char* name;
  const char* path;
};

class WebPath : public WebHttp, public testing::WithParamInterface<PathCase> {};

TEST_P(WebPath, IsNotFoundAndTheConnectionServesOn) {
  folder_.write("secret", "key");
  start();
  TcpClient client(port_);
  EXPECT_EQ(ask(client, get(GetParam().path)).status, 404);
  // The reply to HEAD has no body: what follows it is the next reply's first line.
  ASSERT_TRUE(client.send(request("HEAD " + std::string(GetParam().path) + " HTTP/1.1")));
  const std::string head = client.receive_until("\r\n\r\n");
  EXPECT_EQ(head.substr(0, 12), "HTTP/1.1 404");
  EXPECT_EQ(ask(client, get("/www/wavelom/app.js")).body, "let x;");
  EXPECT_TRUE(tells_role(ask(client, post_text(kAskRole))));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, WebPath,
    testing::Values(PathCase{"Root", "/"}, PathCase{"OutsideTheMount", "/nosuch"},
                    PathCase{"BesideTheMount", "/www/other"},
                    PathCase{"MissingFile", "/www/wavelom/nosuch.js"},
                    PathCase{"MissingFolder", "/www/wavelom/no/such/"},
                    PathCase{"OutOfTheRoot", "/www/wavelom/../secret"},
                    PathCase{"OutOfTheRootEscaped", "/www/wavelom/%2e%2e/secret"}),
    [](const auto& row) { return row.param.name; });

TEST_F(WebHttp, APipeAmongTheFilesIsNotFoundAndHoldsUpNobody) {
  ASSERT_EQ(::mkfifo(folder_.file("www/pipe.js").c_str(), 0600), 0);
  start();
  TcpClient client(port_);
  EXPECT_EQ(ask(client, get("/www/wavelom/pipe.js")).status, 404);
  EXPECT_EQ(ask(client, get("/www/wavelom/app.js")).body, "let x;");
}

TEST_F(WebHttp, HeadOfAFileHasItsLengthAndNoBody) {
  start();
  TcpClient client(port_);
  ASSERT_TRUE(client.send(request("HEAD /www/wavelom/app.js HTTP/1.1")));
  const std::string head = client.receive_until("\r\n\r\n");
  EXPECT_EQ(head.substr(0, 15), "HTTP/1.1 200 OK");
  EXPECT_NE(head.find("content-length: 6\r\n"), std::string::npos);
  EXPECT_TRUE(tells_role(ask(client, post_text(kAskRole))));
}

TEST_F(WebHttp, FolderWithoutItsSlashIsRedirectedToTheDefaultDocument) {
  start();
  const HttpReply reply = http_get(port_, "/www/wavelom");
  EXPECT_EQ(reply.status, 301);
  EXPECT_NE(reply.headers.find("location: "), std::string::npos);
  EXPECT_NE(reply.headers.find("/www/wavelom/\r\n"), std::string::npos);
}

TEST_F(WebHttp, OtherMethodsWithoutABodyAreNotFound) {
  start();
  for (const char* method : {"OPTIONS", "DELETE"})
    EXPECT_EQ(http_get(port_, "/").status, 404) << method;
  TcpClient client(port_);
  EXPECT_EQ(ask(client, request("OPTIONS / HTTP/1.1")).status, 404);
  EXPECT_EQ(ask(client, request("DELETE / HTTP/1.1")).status, 404);
}

// --- bodies --------------------------------------------------------------------------------------

TEST_F(WebHttp, AnyMethodWithABodyIsACommand) {
  start();
  TcpClient client(port_);
  for (const char* method : {"POST", "PUT", "PATCH", "DELETE", "GET"})
    EXPECT_TRUE(tells_role(ask(client, request(std::string(method) + " /any HTTP/1.1",
                                               "Content-Length: 11\r\n", kAskRole))))
        << method;
}

TEST_F(WebHttp, BodyForAFileIsNotAllowedAndNotTakenForTheNextRequest) {
  start();
  const std::string inner = get("/www/wavelom/app.js");
  for (const char* path : {"/www/wavelom/", "/www/wavelom/app.js"}) {
    const std::string line = "POST " + std::string(path) + " HTTP/1.1";
    const std::string length = "Content-Length: " + std::to_string(inner.size()) + "\r\n";
    EXPECT_EQ(refusal(request(line, length, inner)).status, 405) << path;
    EXPECT_EQ(refusal(request(line, "Transfer-Encoding: chunked\r\n", inner)).status, 405) << path;
  }
  TcpClient client(port_);
  EXPECT_TRUE(tells_role(
      ask(client, request("POST /www/wavelomer HTTP/1.1", "Content-Length: 11\r\n", kAskRole))))
      << "another path is no file's";
}

TEST_F(WebHttp, CommandWithoutABodyReceives400AndIsLogged) {
  start();
  EXPECT_EQ(refusal(request("POST / HTTP/1.1")).status, 400);
  EXPECT_EQ(refusal(request("POST / HTTP/1.1", "Content-Length: 0\r\n")).status, 400);
  EXPECT_EQ(refusal(request("PUT / HTTP/1.0")).status, 400);
  EXPECT_EQ(corrupted(), 3U);
}

TEST_F(WebHttp, LongBodiesAndRepliesArriveWhole) {
  start();
  add_domains(3000);
  const std::string padding(500'000, ' ');
  const HttpReply reply = http_post(port_, kAskDomains + padding);
  EXPECT_EQ(reply.status, 200);
  EXPECT_GT(reply.body.size(), 150'000U);
  EXPECT_TRUE(reply.body.ends_with("}]}"));
}

constexpr char kTooLong[] = "Request body of more than 50000 bytes refused.";

TEST_F(WebHttp, BodyUpToTheLimitIsTakenAndALongerOneReceives413AndIsLogged) {
  settings_.longest_body = 50'000;
  start();
  const std::string fits = kAskRole + std::string(50'000 - sizeof(kAskRole) + 1, ' ');
  ASSERT_EQ(fits.size(), 50'000U);
  EXPECT_TRUE(tells_role(http_post(port_, fits)));
  EXPECT_EQ(count(kTooLong), 0U);
  EXPECT_EQ(refusal(post_text(fits + " ")).status, 413);
  EXPECT_EQ(count(kTooLong), 1U);
  EXPECT_TRUE(tells_role(http_post(port_, kAskRole))) << "others go on";
}

TEST_F(WebHttp, OfBodiesThatDoNotEndTheLongestGivesWayToOthers) {
  settings_.most_body_bytes = 100'000;
  start();
  const auto begin_body = [&](TcpClient& client, std::size_t bytes) {
    ASSERT_TRUE(client.send(request("POST / HTTP/1.1", "Content-Length: 60000\r\n") +
                            std::string(bytes, ' ')));
  };
  std::vector<std::unique_ptr<TcpClient>> clients;
  for (const std::size_t bytes : {20'000U, 50'000U}) {
    clients.push_back(std::make_unique<TcpClient>(port_));
    begin_body(*clients.back(), bytes);
  }
  TcpClient chunked(port_);
  const std::string chunk = "9c40\r\n" + std::string(40'000, ' ');
  ASSERT_TRUE(chunked.send(request("POST / HTTP/1.1", "Transfer-Encoding: chunked\r\n", chunk)));
  EXPECT_EQ(clients[1]->receive_all(), "") << "the longest is closed without an answer";
  EXPECT_EQ(count("Too many bytes of unfinished request bodies, the longest one is dropped."), 1U);
  EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
  // Room that closed and answered requests have left.
  chunked.reset();
  ASSERT_TRUE(clients[0]->send(kAskRole + std::string(40'000 - sizeof(kAskRole) + 1, ' ')));
  EXPECT_TRUE(tells_role(read_reply(*clients[0])));
  ASSERT_TRUE(wait_connections(1));
  TcpClient late(port_);
  begin_body(late, 60'000 - sizeof(kAskRole) + 1);
  TcpClient later(port_);
  begin_body(later, 39'000);
  ASSERT_TRUE(late.send(kAskRole));
  EXPECT_TRUE(tells_role(read_reply(late)));
  EXPECT_EQ(count("Too many bytes of unfinished request bodies, the longest one is dropped."), 1U);
}

TEST_F(WebHttp, ABodyThatIsTooLongForAllTogetherIsDropped) {
  settings_.most_body_bytes = 30'000;
  start();
  TcpClient client(port_);
  ASSERT_TRUE(client.send(request("POST / HTTP/1.1", "Content-Length: 50000\r\n") +
                          std::string(40'000, ' ')));
  EXPECT_EQ(client.receive_all(), "");
  EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
}

TEST_F(WebHttp, LengthOfABodyMustBeANumberThatFits) {
  start();
  for (const char* length : {"-5", "x", "1x", "0x10", "1,1"})
    EXPECT_EQ(refusal(request("POST / HTTP/1.1", std::string("Content-Length: ") + length + "\r\n",
                              kAskRole))
                  .status,
              400)
        << length;
  EXPECT_EQ(refusal(request("POST / HTTP/1.1", "Content-Length: 8388609\r\n")).status, 413);
  EXPECT_EQ(refusal(request("POST / HTTP/1.1", "Content-Length: 99999999999999999999\r\n")).status,
            413);
  EXPECT_EQ(corrupted(), 0U);
}

TEST_F(WebHttp, ClientThatAsksFirstIsToldToSendItsBody) {
  start();
  TcpClient client(port_);
  ASSERT_TRUE(
      client.send(request("POST / HTTP/1.1", "Content-Length: 11\r\nExpect: 100-continue\r\n")));
  EXPECT_EQ(client.receive_until("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  EXPECT_TRUE(tells_role(ask(client, kAskRole)));
}

TEST_F(WebHttp, BodyInChunkedCodingIsAnsweredAndEndsItsConnection) {
  start();
  for (const std::size_t chunk : {1U, 4U, 11U}) {
    const HttpReply reply = refusal(chunked_post(kAskRole, chunk));
    EXPECT_TRUE(tells_role(reply)) << chunk;
    EXPECT_TRUE(reply.has("connection: close"));
  }
  TcpClient slow(port_);
  trickle(slow, chunked_post(kAskRole, 5), 6);
  EXPECT_TRUE(tells_role(read_reply(slow)));
  EXPECT_EQ(corrupted(), 0U);
}

TEST_F(WebHttp, LongBodyInChunkedCodingArrivesWhole) {
  start();
  EXPECT_TRUE(tells_role(refusal(chunked_post(std::string(300'000, ' ') + kAskRole, 4099))));
}

TEST_F(WebHttp, ChunkedBodyBeyondTheLimitReceives413AndIsLogged) {
  settings_.longest_body = 50'000;
  start();
  EXPECT_EQ(refusal(chunked_post(std::string(50'001, ' '), 10'000)).status, 413);
  EXPECT_EQ(count(kTooLong), 1U);
}

TEST_F(WebHttp, BodyWhoseEndIsUnclearReceives400) {
  start();
  EXPECT_EQ(refusal(request("POST / HTTP/1.1", "Transfer-Encoding: chunked\r\n", "zz\r\n")).status,
            400);
  EXPECT_EQ(refusal(request("POST / HTTP/1.1",
                            "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n", "0\r\n\r\n"))
                .status,
            400);
  EXPECT_EQ(refusal(request("POST / HTTP/1.1", "Transfer-Encoding: gzip\r\n")).status, 501);
}

TEST_F(WebHttp, NothingMayFollowAChunkedBodyBeforeItsReply) {
  start();
  TcpClient client(port_);
  ASSERT_TRUE(client.send(chunked_post(kAskRole, 20) + chunked_post(kAskRole, 20)));
  const std::string replies = client.receive_all();
  EXPECT_EQ(replies.find("HTTP/1.1 200"), replies.rfind("HTTP/1.1 ")) << "one reply at most";
}

TEST_F(WebHttp, SlowBodyHoldsUpNobody) {
  start();
  TcpClient slow(port_);
  ASSERT_TRUE(slow.send(request("POST / HTTP/1.1", "Content-Length: 11\r\n", "{\"vr")));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
  EXPECT_TRUE(tells_role(ask(slow, "rp\":{}}")));
}

// --- versions ------------------------------------------------------------------------------------

TEST_F(WebHttp, RequestOfHttp10IsAnsweredWholeAndTheConnectionCloses) {
  start();
  add_domains(3000);
  TcpClient client(port_);
  ASSERT_TRUE(client.send("POST / HTTP/1.0\r\nContent-Length: " +
                          std::to_string(sizeof(kAskDomains) - 1) + "\r\n\r\n" + kAskDomains));
  const std::string reply = client.receive_all();
  EXPECT_EQ(reply.substr(0, 15), "HTTP/1.0 200 OK");
  EXPECT_GT(reply.size(), 150'000U);
  EXPECT_TRUE(reply.ends_with("}]}"));
}

TEST_F(WebHttp, ClientThatWantsToCloseIsAnsweredFirst) {
  start();
  EXPECT_TRUE(tells_role(refusal(
      request("POST / HTTP/1.1", "Connection: close\r\nContent-Length: 11\r\n", kAskRole))));
}

TEST_F(WebHttp, UpgradeToAWebsocketIsRefused) {
  start();
  EXPECT_EQ(refusal(request("GET / HTTP/1.1",
                            "Connection: Upgrade\r\nUpgrade: websocket\r\n"
                            "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Protocol: http\r\n"
                            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"))
                .status,
            501);
  EXPECT_TRUE(wait_connections(0));
}

TEST_F(WebHttp, UpgradeToHttp2IsRefused) {
  start();
  EXPECT_EQ(refusal(request("POST / HTTP/1.1",
                            "Connection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\n"
                            "HTTP2-Settings: AAMAAABkAARAAAAAAAIAAAAA\r\nContent-Length: 11\r\n",
                            kAskRole))
                .status,
            501);
  EXPECT_TRUE(wait_connections(0));
  EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
}

// --- hostile clients -----------------------------------------------------------------------------

TEST_F(WebHttp, RubbishOnThePortHurtsNobody) {
  start();
  for (const std::string& bytes :
       {std::string("\0\1\2\3\xff\xfe\r\n\r\n", 10), std::string(100'000, 'A'),
        std::string("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"),
        std::string("GET /%00%ff HTTP/9.9\r\n\r\n"), std::string("POST / HTTP/1.1\r\n"),
        std::string("\r\n\r\n\r\n"),
        std::string("GET ") + std::string(9000, '/') + " HTTP/1.1\r\n\r\n",
        std::string("GET / HTTP/1.1\r\n") + std::string(9000, 'h') + ": 1\r\n\r\n",
        std::string("POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\n\0\0\0", 41)}) {
    TcpClient client(port_);
    client.send(bytes);
    client.reset();
  }
  EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
  EXPECT_TRUE(wait_connections(0));
}

TEST_F(WebHttp, ClientThatNeverReadsHoldsUpNobodyAndLosesItsConnection) {
  settings_.reply_timeout = 1;
  start();
  add_domains(100'000);
  TcpClient stuck(port_, 4096);
  ASSERT_TRUE(stuck.send(post_text(kAskDomains)));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
  EXPECT_TRUE(wait_connections(0));
  EXPECT_FALSE(stuck.receive_all().ends_with("}]}")) << "the reply was short enough to fit";
}

TEST_F(WebHttp, FurtherBytesOfAClientThatDoesNotReadDoNotKeepTheServerBusy) {
  folder_.write("www/large.js", std::string(20'000'000, ' '));
  start();
  add_domains(100'000);
  for (const std::string& request : {get("/www/wavelom/large.js"), post_text(kAskDomains)}) {
    TcpClient stuck(port_, 4096);
    ASSERT_TRUE(stuck.send(request + "x"));
    std::string begin;
    ASSERT_TRUE(stuck.receive(begin));
    EXPECT_EQ(begin.substr(0, 15), "HTTP/1.1 200 OK");
    const double before = busy_s();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_LT(busy_s() - before, 0.2) << "it spins";
    EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
  }
}

TEST_F(WebHttp, LargeFileArrivesWholeAndTheConnectionServesOn) {
  folder_.write("www/large.js", std::string(3'000'000, 'y'));
  start();
  TcpClient client(port_);
  EXPECT_EQ(ask(client, get("/www/wavelom/large.js")).body, std::string(3'000'000, 'y'));
  EXPECT_TRUE(tells_role(ask(client, post_text(kAskRole))));
}

TEST_F(WebHttp, StopIsNotHeldUpByClientsOfAnyKind) {
  start();
  add_domains(100'000);
  TcpClient idle(port_);
  TcpClient silent(port_, 4096);
  TcpClient slow(port_);
  ASSERT_TRUE(silent.send(post_text(kAskDomains)));
  ASSERT_TRUE(slow.send(request("POST / HTTP/1.1", "Content-Length: 11\r\n", "{")));
  EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
  end();
  EXPECT_EQ(api_->connection_count(), 0U);
  EXPECT_FALSE(TcpClient(port_).is_connected());
}

TEST_F(WebHttp, ThousandsOfConnectionsAreServed) {
  constexpr int kClients = 2000;
  rlimit files{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 2 * kClients + 100) GTEST_SKIP() << "too few file descriptors";
  start();
  std::vector<std::unique_ptr<TcpClient>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<TcpClient>(port_));
    ASSERT_TRUE(clients.back()->is_connected()) << i;
    ASSERT_TRUE(clients.back()->send(post_text(kAskRole)));
  }
  int served = 0;
  for (const auto& client : clients) served += tells_role(read_reply(*client)) ? 1 : 0;
  EXPECT_EQ(served, kClients);
  clients.clear();
  EXPECT_TRUE(wait_connections(0));
}

TEST_F(WebHttp, BeyondTheMostConnectionsTheOneIdleTheLongestGivesWay) {
  settings_.most_connections = 3;
  start();
  TcpClient first(port_);
  TcpClient second(port_);
  TcpClient third(port_);
  for (TcpClient* client : {&first, &second, &third, &first})
    EXPECT_TRUE(tells_role(ask(*client, post_text(kAskRole))));
  TcpClient fourth(port_);
  EXPECT_TRUE(tells_role(ask(fourth, post_text(kAskRole))));
  std::string nothing;
  EXPECT_FALSE(second.receive(nothing)) << "it was closed";
  EXPECT_TRUE(wait_connections(3));
  for (TcpClient* client : {&first, &third, &fourth})
    EXPECT_TRUE(tells_role(ask(*client, post_text(kAskRole))));
  EXPECT_EQ(count("Too many HTTP connections, the one idle the longest is closed."), 1U);
}

TEST_F(WebHttp, ConnectionsThatWouldTakeTheLastDescriptorsAreRefused) {
  start();
  const rrm::test::FileLimit low(160);
  std::vector<std::unique_ptr<TcpClient>> clients;
  do {
    clients.push_back(std::make_unique<TcpClient>(port_));
  } while (tells_role(ask(*clients.back(), post_text(kAskRole))) && clients.size() < 200);
  // Each client's own socket stands in the same table.
  EXPECT_GT(clients.size(), 40U);
  EXPECT_LT(clients.size(), 80U);
  EXPECT_TRUE(rrm::descriptors_available(8)) << "some are left";
  EXPECT_TRUE(tells_role(ask(*clients.front(), post_text(kAskRole))));
  clients.resize(clients.size() - 6);  // the refused one and some that were served
  EXPECT_TRUE(wait_connections(clients.size()));
  EXPECT_TRUE(tells_role(http_post(port_, kAskRole)));
}

}  // namespace
