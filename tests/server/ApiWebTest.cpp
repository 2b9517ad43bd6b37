#include "server/ApiWeb.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>

#include "tests/server/CapturedProcessLog.h"
#include "tests/server/FrontEndParts.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/HttpClient.h"
#include "tests/support/TempFolder.h"

namespace {

using rrm::test::http_get;
using rrm::test::http_post;
using rrm::test::HttpReply;
using rrm::test::post_text;
using rrm::test::read_reply;
using rrm::test::TcpClient;
using rrm::test::TempFolder;

class WebApi : public testing::Test {
 protected:
  WebApi() {
    folder_.write("index.html", "<html>the site</html>");
    folder_.write("app.js", "let x;");
  }
  ~WebApi() override { end(); }

  void start(const std::string& options = "") {
    parts_ = std::make_unique<FrontEndParts>(R"("api_port":0,"www_path":")" + folder_.path() +
                                             "\"" + options);
    api_ = std::make_unique<ApiWeb>(
        &parts_->rrm, &parts_->vrrp,
        ApiWeb::Files{folder_.file("server.pem"), folder_.file("server.key.pem")});
    thread_ = std::thread([this] { api_->run(); });
    port_ = api_->port();
  }
  void end() {
    if (!thread_.joinable()) return;
    api_->stop();
    thread_.join();
  }
  std::size_t corrupted() const {
    const auto texts = log_.texts(el::Level::Error);
    return static_cast<std::size_t>(
        std::count(texts.begin(), texts.end(), "Receive corrupted JSON-request."));
  }

  TempFolder folder_;
  CapturedProcessLog log_;
  std::unique_ptr<FrontEndParts> parts_;
  std::unique_ptr<ApiWeb> api_;
  std::thread thread_;
  int port_ = 0;
};

TEST_F(WebApi, PostReceivesTheDomainStatusListAsJson) {
  start();
  const HttpReply reply = http_post(port_, R"({"rrm":{}})");
  EXPECT_EQ(reply.status, 200);
  EXPECT_NE(reply.headers.find("content-type: application/json\r\n"), std::string::npos);
  EXPECT_NE(reply.headers.find("server: http\r\n"), std::string::npos);
  EXPECT_EQ(reply.body, R"({"version":"2.1","server":")" + parts_->config.host_name() +
                            R"(","wavelom_version":"1.9.1.323-amd64","domains":[]})");
}

TEST_F(WebApi, BrokenBodyReceives400AndIsLogged) {
  start();
  EXPECT_EQ(http_post(port_, "{").status, 400);
  EXPECT_EQ(corrupted(), 1U);
}

TEST_F(WebApi, BodyWithoutACommandReceives400AndIsLogged) {
  start();
  EXPECT_EQ(http_post(port_, R"({"x":1})").status, 400);
  EXPECT_EQ(corrupted(), 1U);
}

TEST_F(WebApi, CommandWithoutAReplyReceives400) {
  start();
  EXPECT_EQ(
      http_post(port_, R"({"cfg":{"operation":"get","level":"pattern","pattern":"no"}})").status,
      400);
  EXPECT_EQ(corrupted(), 0U);
}

TEST_F(WebApi, ExceptionOfACommandReceives400AndIsLogged) {
  start();
  EXPECT_EQ(http_post(port_, R"({"rrm":{"domain":"d","report":1}})").status, 400);
  EXPECT_TRUE(log_.has(el::Level::Error, "process_rrm_cmd_get_report: Invalid argument 'cmd'."));
}

TEST_F(WebApi, ServesTheDefaultDocumentAndFilesOfTheWebRoot) {
  start();
  const HttpReply page = http_get(port_, "/www/wavelom/");
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.body, "<html>the site</html>");
  EXPECT_EQ(http_get(port_, "/www/wavelom/app.js").body, "let x;");
}

TEST_F(WebApi, BodyInSeveralChunksIsProcessedOnceWhenTheLastHasArrived) {
  start();
  TcpClient client(port_);
  const std::string request = post_text(R"({"vrrp":{}})");
  for (std::size_t at = 0; at < request.size(); at += 30) {
    ASSERT_TRUE(client.send(request.substr(at, 30)));
    // The pieces must not be joined before the server has read them.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(read_reply(client).status, 200);
  EXPECT_EQ(corrupted(), 0U);
}

TEST_F(WebApi, KeptConnectionServesOneRequestAfterAnother) {
  start();
  TcpClient client(port_);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(client.send(post_text(R"({"vrrp":{}})")));
    const HttpReply reply = read_reply(client);
    EXPECT_EQ(reply.status, 200) << i;
    EXPECT_NE(reply.body.find("\"role\":\"master\""), std::string::npos) << i;
  }
}

TEST_F(WebApi, LongBodiesAndRepliesArriveWhole) {
  start();
  for (int i = 0; i < 3000; ++i)
    parts_->config.domain_add("domain-" + std::to_string(i), {"common", 0, "0:00"});
  const std::string padding(500'000, ' ');
  const HttpReply reply =
      http_post(port_, R"({"cfg":{"operation":"get","level":"domain")" + padding + "}}");
  EXPECT_EQ(reply.status, 200);
  EXPECT_GT(reply.body.size(), 150'000U);
  EXPECT_TRUE(reply.body.ends_with("}]}"));
}

TEST_F(WebApi, RubbishOnThePortHurtsNobody) {
  start();
  for (const std::string& bytes :
       {std::string("\0\1\2\3\xff\xfe\r\n\r\n", 10), std::string(100'000, 'A'),
        std::string("POST / HTTP/1.1\r\nContent-Length: -5\r\n\r\n"),
        std::string("POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n{}"),
        std::string("GET /%00%ff HTTP/9.9\r\n\r\n"), std::string("POST / HTTP/1.1\r\n")}) {
    TcpClient client(port_);
    client.send(bytes);
    client.reset();
  }
  EXPECT_EQ(http_post(port_, R"({"rrm":{}})").status, 200);
}

TEST_F(WebApi, RoleIsSwitchedThroughTheVrrpWorker) {
  start();
  EXPECT_EQ(http_post(port_, R"({"vrrp":{"role":"backup"}})").status, 200);
  EXPECT_EQ(parts_->rrm.get_vrrp_role(), rrm::VrrpRole::Backup);
}

TEST_F(WebApi, StopEndsTheLoopAndClosesThePort) {
  start();
  EXPECT_EQ(http_post(port_, R"({"rrm":{}})").status, 200);
  end();
  EXPECT_FALSE(TcpClient(port_).is_connected());
}

TEST_F(WebApi, WithoutItsCertificateTheLoopGoesOnWithoutHttp) {
  FrontEndParts parts(R"("api_port":0,"use_https":1)");
  ApiWeb api(&parts.rrm, &parts.vrrp, {folder_.file("no.pem"), folder_.file("no.key.pem")});
  EXPECT_EQ(api.port(), 0);
  EXPECT_TRUE(log_.has(el::Level::Error, "HTTP service is not available."));
  int passes = 0;
  api.set_between_passes([&] {
    if (++passes == 2) api.stop();
  });
  api.run();
  EXPECT_EQ(passes, 2);
}

TEST_F(WebApi, PlainRequestOnTheTlsPortIsRedirected) {
  const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=test" +
                              (" -keyout " + folder_.file("server.key.pem")) + " -out " +
                              folder_.file("server.pem") + " 2>/dev/null";
  if (std::system(command.c_str()) != 0) GTEST_SKIP() << "no openssl program";
  start(R"(,"use_https":1)");
  ASSERT_NE(port_, 0);
  const HttpReply reply = http_get(port_, "/www/wavelom/");
  EXPECT_GE(reply.status, 301);
  EXPECT_LE(reply.status, 302);
  EXPECT_NE(reply.headers.find("location: https://"), std::string::npos);
}

TEST_F(WebApi, ReportsAreCheckedInEvery602ndPass) {
  rrm::test::CapturedLog library;
  FrontEndParts parts(R"("api_port":0)");
  ApiWeb api(&parts.rrm, &parts.vrrp);
  const std::string record = "ApiWeb periodic tick: invoking check_old_reports.";
  const auto checks = [&] {
    const auto texts = log_.texts(el::Level::Debug);
    return std::count(texts.begin(), texts.end(), record);
  };
  for (int pass = 0; pass < 601; ++pass) api.run_periodic_duties();
  EXPECT_EQ(checks(), 0);
  api.run_periodic_duties();
  EXPECT_EQ(checks(), 1);
  for (int pass = 0; pass < 602; ++pass) api.run_periodic_duties();
  EXPECT_EQ(checks(), 2);
  EXPECT_EQ(library.count(rrm::LogLevel::Debug,
                          "RRM::check_old_reports entered: report_delete_at_time_utc=\"21:00\", "
                          "reports_path=\"/var/lib/tavro-wavelom/reports\"."),
            2U);
}

TEST_F(WebApi, IdlePassTakesATenthOfASecond) {
  FrontEndParts parts(R"("api_port":0)");
  ApiWeb api(&parts.rrm, &parts.vrrp);
  int passes = 0;
  const auto begin = std::chrono::steady_clock::now();
  api.set_between_passes([&] {
    if (++passes == 3) api.stop();
  });
  api.run();
  const auto lasted = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(passes, 3);
  EXPECT_GE(lasted, std::chrono::milliseconds(280)) << "the loop spins";
}

}  // namespace
