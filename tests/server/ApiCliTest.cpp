#include "server/ApiCli.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/server/CapturedProcessLog.h"
#include "tests/server/FrontEndParts.h"
#include "tests/support/FewDescriptors.h"
#include "tests/support/FileLimit.h"
#include "tests/support/HttpClient.h"
#include "tests/support/WebsockClients.h"

namespace {

using rrm::test::FewDescriptors;
using rrm::test::TcpClient;

constexpr char kError[] = R"({"status":"error"})";
constexpr char kGetDomains[] = R"({"cfg":{"operation":"get","level":"domain"}})";
constexpr char kGetGlobal[] = R"({"cfg":{"operation":"get","level":"global"}})";

class TcpApi : public testing::Test {
 protected:
  explicit TcpApi(ApiCli::Settings settings = {}) : api_(&parts_.rrm, &parts_.vrrp, settings) {
    thread_ = std::thread([this] { api_.run(); });
  }
  ~TcpApi() override { end(); }
  void end() {
    api_.stop();
    if (thread_.joinable()) thread_.join();
  }
  /// One request and its reply.
  static std::string ask(TcpClient& client, const std::string& request) {
    std::string reply;
    if (!client.send(request) || !client.receive(reply)) return "closed";
    return reply;
  }
  /// Processor time that the loop uses while it should only wait, in milliseconds.
  long busy_ms() {
    clockid_t clock{};
    ::pthread_getcpuclockid(thread_.native_handle(), &clock);
    const auto used = [clock] {
      timespec time{};
      ::clock_gettime(clock, &time);
      return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
    };
    const long before = used();
    ::poll(nullptr, 0, 200);
    return used() - before;
  }
  /// So many domains make a long reply to kGetDomains.
  void add_domains(int number) {
    for (int i = 0; i < number; ++i)
      parts_.config.domain_add("domain-" + std::to_string(i), {"common", 0, "0:00"});
  }
  bool has_debug(const std::string& text) const { return log_.has(el::Level::Debug, text); }

  CapturedProcessLog log_;
  FrontEndParts parts_{R"("cli_api_port":0)"};
  ApiCli api_;
  std::thread thread_;
};

TEST_F(TcpApi, AnswersSeveralRequestsOnOneConnection) {
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, kGetGlobal).substr(0, 28), R"({"version":"2.1","enabled":1)");
  EXPECT_NE(ask(client, R"({"vrrp":{}})").find("\"role\":\"master\""), std::string::npos);
  EXPECT_TRUE(has_debug("REQUEST STR: " + std::string(kGetGlobal)));
}

TEST_F(TcpApi, EmptyCfgGetsAnError) {
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, R"({"cfg":{}})"), kError);
}

TEST_F(TcpApi, UnknownMembersGetAnErrorAndKeepTheConnectionOpen) {
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
}

TEST_F(TcpApi, BrokenTextIsLoggedAsNullAndGetsAnError) {
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, "{"), kError);
  EXPECT_TRUE(has_debug("REQUEST STR: null"));
  EXPECT_EQ(ask(client, std::string("\0\xff\x80{}", 5)), kError);
}

TEST_F(TcpApi, RequestInTwoReadsIsTwoBrokenTexts) {
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, R"({"vrrp")"), kError);
  EXPECT_EQ(ask(client, R"(:{}})"), kError);
}

TEST_F(TcpApi, TwoRequestsInOneReadAreOneBrokenText) {
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, R"({"vrrp":{}}{"vrrp":{}})"), kError);
  EXPECT_NE(ask(client, R"({"vrrp":{}})").find("success"), std::string::npos) << "one reply only";
}

TEST_F(TcpApi, ClientThatEndsItsInputStillGetsItsReply) {
  add_domains(20'000);
  TcpClient client(api_.port(), 4096);
  ASSERT_TRUE(client.send(kGetDomains));
  client.end_input();
  const std::string reply = client.receive_all();
  EXPECT_GT(reply.size(), 1'000'000U);
  EXPECT_TRUE(reply.ends_with("}]}"));
}

TEST_F(TcpApi, ClientThatHasReadALongReplyAsksAgain) {
  add_domains(100'000);  // more than the buffers of both sockets hold
  TcpClient client(api_.port(), 4096);
  ASSERT_TRUE(client.send(kGetDomains));
  ::poll(nullptr, 0, 20);
  EXPECT_GT(client.receive_until("}]}").size(), 5'000'000U);
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
}

TEST_F(TcpApi, RestOfAReplyThatItsClientDidNotWaitForReachesNobodyElse) {
  add_domains(100'000);
  TcpClient steady(api_.port());
  TcpClient hasty(api_.port(), 4096);
  ASSERT_TRUE(hasty.send(kGetDomains));
  ::poll(nullptr, 0, 20);
  EXPECT_EQ(ask(steady, R"({"foo":1})"), kError);
  hasty.reset();
  // Twice, so that the loop has certainly looked at the other one since.
  for (int i = 0; i < 2; ++i) EXPECT_EQ(ask(steady, R"({"foo":1})"), kError);
  TcpClient next(api_.port());  // has the descriptor of the one before
  EXPECT_EQ(ask(next, R"({"foo":1})"), kError);
}

TEST_F(TcpApi, InterruptedPollIsLoggedAndTheLoopGoesOn) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction old {};
  ASSERT_EQ(::sigaction(SIGALRM, &action, &old), 0);
  const auto interrupted = [&] {
    ::pthread_kill(thread_.native_handle(), SIGALRM);
    ::poll(nullptr, 0, 2);
    return log_.has(el::Level::Error, "select: Interrupted system call");
  };
  EXPECT_TRUE(rrm::test::wait_until(interrupted));
  ::sigaction(SIGALRM, &old, nullptr);
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
}

TEST_F(TcpApi, ConnectionWithoutADescriptorIsLoggedAndAcceptedLater) {
  if (!FewDescriptors::kPossible) GTEST_SKIP() << FewDescriptors::kWhyNot;
  auto few = std::make_unique<FewDescriptors>(1);
  TcpClient client(api_.port());
  EXPECT_TRUE(client.is_connected());
  EXPECT_TRUE(rrm::test::wait_until(
      [&] { return log_.has(el::Level::Error, "accept: Too many open files"); }));
  few.reset();
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
}

TEST_F(TcpApi, ListensOnEveryAddress) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
  address.sin_port = htons(static_cast<std::uint16_t>(api_.port()));
  EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  ::close(fd);
}

TEST_F(TcpApi, RequestOfMoreThan4095BytesIsCut) {
  TcpClient client(api_.port());
  const std::string padding(5000, ' ');
  ASSERT_TRUE(client.send(R"({"vrrp":{)" + padding + "}}"));
  const std::string errors = std::string(kError) + kError;
  EXPECT_EQ(client.receive_until(errors), errors);
  const std::string just_fits = R"({"vrrp":{)" + std::string(4095 - 11, ' ') + "}}";
  EXPECT_NE(ask(client, just_fits).find("success"), std::string::npos);
}

TEST_F(TcpApi, ExceptionOfACommandIsLoggedAndGetsAnError) {
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, R"({"rrm":{"domain":"d","report":1}})"), kError);
  EXPECT_TRUE(log_.has(el::Level::Error, "process_rrm_cmd_get_report: Invalid argument 'cmd'."));
}

TEST_F(TcpApi, RoleIsSwitchedThroughTheVrrpWorker) {
  TcpClient client(api_.port());
  EXPECT_NE(ask(client, R"({"vrrp":{"role":"backup"}})").find(R"("status":"success")"),
            std::string::npos);
  EXPECT_EQ(parts_.rrm.get_vrrp_role(), rrm::VrrpRole::Backup);
  parts_.config.listen_port = 0;
  parts_.config.vrrp_enabled = true;
  parts_.config.vrrp_backup_path = std::string();
  EXPECT_NE(ask(client, R"({"vrrp":{"role":"master"}})").find(R"("status":"success")"),
            std::string::npos);
  EXPECT_TRUE(log_.has(el::Level::Error, "backup_path  invalid")) << "it looks for backups";
}

TEST_F(TcpApi, ClosedClientLeavesTheList) {
  {
    TcpClient first(api_.port());
    TcpClient second(api_.port());
    EXPECT_EQ(ask(first, R"({"foo":1})"), kError);
    EXPECT_EQ(ask(second, R"({"foo":1})"), kError);
    second.reset();
    EXPECT_EQ(ask(first, R"({"foo":1})"), kError) << "another's end leaves it alone";
    EXPECT_EQ(ask(first, R"({"foo":1})"), kError);
  }
  EXPECT_TRUE(log_.has(el::Level::Error, "recv: Connection reset by peer"));
  TcpClient last(api_.port());
  EXPECT_EQ(ask(last, R"({"foo":1})"), kError);
  // The ends came before the last request, and the loop serves what is ready one after another.
  EXPECT_EQ(ask(last, R"({"foo":1})"), kError);
  EXPECT_EQ(ask(last, R"({"foo":1})"), kError);
  end();
  EXPECT_EQ(api_.connection_count(), 1U);
}

TEST_F(TcpApi, ManyClientsAreServedAtOnce) {
  std::vector<std::unique_ptr<TcpClient>> clients;
  for (int i = 0; i < 50; ++i) {
    clients.push_back(std::make_unique<TcpClient>(api_.port()));
    // Answered, so accepted: the next connection finds room in the listening socket's queue.
    ASSERT_EQ(ask(*clients.back(), R"({"foo":1})"), kError);
  }
  for (const auto& client : clients) ASSERT_TRUE(client->send(R"({"foo":1})"));
  for (const auto& client : clients) EXPECT_EQ(client->receive_until(kError), kError);
}

TEST_F(TcpApi, ClientThatReadsLateLosesNothing) {
  for (int i = 0; i < 4000; ++i)
    parts_.config.domain_add(std::string(100, 'x') + std::to_string(i), {"common", 0, ""});
  TcpClient late(api_.port());
  TcpClient other(api_.port());
  // More than the buffers of both sockets hold.
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(late.send(kGetDomains));
    ASSERT_EQ(ask(other, R"({"foo":1})"), kError) << i;
  }
  const std::string start = R"({"version":"2.1","domains":[{"name":"xxx)";
  std::string reply;
  while (reply.size() < 1'000'000 && late.receive(reply)) {
  }
  EXPECT_EQ(reply.substr(0, start.size()), start);
  const std::size_t second = reply.find(start, 1);
  ASSERT_LT(second, reply.size());
  TcpClient reader(api_.port());
  ASSERT_TRUE(reader.send(kGetDomains));
  EXPECT_EQ(reader.receive_until("]}"), reply.substr(0, second));
}

TEST_F(TcpApi, ThousandsOfClientsAreServed) {
  constexpr int kClients = 1500;
  rlimit files{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 2 * kClients + 100) GTEST_SKIP() << "too few file descriptors";
  std::vector<std::unique_ptr<TcpClient>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<TcpClient>(api_.port()));
    ASSERT_EQ(ask(*clients.back(), R"({"foo":1})"), kError) << i;
  }
  EXPECT_EQ(ask(*clients.front(), R"({"foo":1})"), kError);
}

TEST_F(TcpApi, LoopWaitsQuietlyWithOpenConnectionsAndUrgentData) {
  TcpClient client(api_.port());
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
  EXPECT_LT(busy_ms(), 50) << "a connection that can be written to keeps the loop busy";
  ASSERT_TRUE(client.send_urgent());
  EXPECT_LT(busy_ms(), 50) << "urgent data keeps the loop busy";
  EXPECT_NE(ask(client, R"({"vrrp":{}})"), "closed");
}

TEST_F(TcpApi, StopEndsTheLoopWithOpenConnectionsAndAReplyThatNobodyReads) {
  add_domains(100'000);
  TcpClient client(api_.port());
  TcpClient silent(api_.port(), 4096);
  ASSERT_TRUE(silent.send(kGetDomains));
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
  end();
  EXPECT_EQ(api_.connection_count(), 2U);
}

/// Few connections, and little patience with those that do not read.
class TcpApiLimits : public TcpApi {
 protected:
  TcpApiLimits()
      : TcpApi({.most_connections = 3, .send_timeout = std::chrono::milliseconds(100)}) {}
};

TEST_F(TcpApiLimits, ClientThatNeverReadsHoldsUpNobodyAndLosesItsConnection) {
  add_domains(100'000);
  TcpClient silent(api_.port(), 4096);
  TcpClient client(api_.port());
  ASSERT_TRUE(silent.send(kGetDomains));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(ask(client, R"({"foo":1})"), kError) << i;
  // One poll of the loop is longer than its patience.
  ::poll(nullptr, 0, 1200);
  EXPECT_EQ(ask(client, R"({"foo":1})"), kError);
  end();
  EXPECT_EQ(api_.connection_count(), 1U);
}

TEST_F(TcpApiLimits, BeyondTheMostConnectionsTheOldestGivesWay) {
  std::vector<std::unique_ptr<TcpClient>> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(std::make_unique<TcpClient>(api_.port()));
    EXPECT_EQ(ask(*clients.back(), R"({"foo":1})"), kError) << i;
  }
  EXPECT_EQ(ask(*clients[0], R"({"foo":1})"), "closed");
  for (int i = 1; i < 4; ++i)
    EXPECT_EQ(ask(*clients[static_cast<std::size_t>(i)], R"({"foo":1})"), kError) << i;
}

TEST_F(TcpApi, NearTheLimitOfOpenFilesTheOldestGivesWay) {
  const rrm::test::FileLimit low(160);
  std::vector<std::unique_ptr<TcpClient>> clients;
  do {
    clients.push_back(std::make_unique<TcpClient>(api_.port()));
    ASSERT_EQ(ask(*clients.back(), R"({"foo":1})"), kError) << clients.size();
  } while (ask(*clients.front(), R"({"foo":1})") == kError && clients.size() < 100);
  // Each client's own socket stands in the same table.
  EXPECT_GT(clients.size(), 50U);
  EXPECT_LT(clients.size(), 80U);
  EXPECT_EQ(ask(*clients[1], R"({"foo":1})"), kError);
}

TEST(TcpApiPort, IsTakenAgainAtOnceWhenItsConnectionsWereOpen) {
  CapturedProcessLog log;
  FrontEndParts parts(R"("cli_api_port":0)");
  auto first = std::make_unique<ApiCli>(&parts.rrm, &parts.vrrp);
  std::thread thread([&] { first->run(); });
  TcpClient client(first->port());
  std::string reply;
  EXPECT_TRUE(client.send(R"({"foo":1})") && client.receive(reply));
  parts.config.cli_api_port = first->port();
  first->stop();
  thread.join();
  first.reset();
  EXPECT_EQ(client.receive_all(), "") << "closed with its server";
  const ApiCli second(&parts.rrm, &parts.vrrp);
  EXPECT_EQ(second.port(), parts.config.cli_api_port);
}

TEST(TcpApiPort, ProcessWithoutADescriptorIsLoggedAndRunReturns) {
  if (!FewDescriptors::kPossible) GTEST_SKIP() << FewDescriptors::kWhyNot;
  CapturedProcessLog log;
  FrontEndParts parts(R"("cli_api_port":0)");
  std::unique_ptr<ApiCli> api;
  {
    const FewDescriptors none(0);
    api = std::make_unique<ApiCli>(&parts.rrm, &parts.vrrp);
  }
  api->run();
  EXPECT_TRUE(log.has(el::Level::Error, "socket: Too many open files"));
}

TEST(TcpApiPort, BusyPortIsLoggedAndRunReturns) {
  CapturedProcessLog log;
  FrontEndParts parts(R"("cli_api_port":0)");
  ApiCli first(&parts.rrm, &parts.vrrp);
  parts.config.cli_api_port = first.port();
  ApiCli second(&parts.rrm, &parts.vrrp);
  EXPECT_EQ(second.port(), 0);
  second.run();
  const auto records = log.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].text, "bind: Address already in use");
  EXPECT_EQ(records[0].function, "connect");
}

}  // namespace
