#include "server/ApiWeb.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <new>
#include <string>
#include <string_view>
#include <thread>

#include "server/ApiCli.h"
#include "tests/server/WebApi.h"
#include "tests/support/CapturedLog.h"

namespace {

using rrm::test::http_get;
using rrm::test::http_post;
using rrm::test::HttpReply;
using rrm::test::TcpClient;

TEST_F(WebApi, PostReceivesTheDomainStatusListAsJson) {
  start();
  const HttpReply reply = http_post(port_, R"({"rrm":{}})");
  EXPECT_EQ(reply.status, 200);
  EXPECT_TRUE(reply.has("content-type: application/json"));
  EXPECT_TRUE(reply.has("server: http"));
  EXPECT_TRUE(reply.has("content-length: " + std::to_string(reply.body.size())));
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

TEST_F(WebApi, RoleIsSwitchedThroughTheVrrpWorker) {
  start();
  EXPECT_EQ(http_post(port_, R"({"vrrp":{"role":"backup"}})").status, 200);
  EXPECT_EQ(parts_->rrm.get_vrrp_role(), rrm::VrrpRole::Backup);
  parts_->config.listen_port = 0;
  parts_->config.vrrp_enabled = true;
  parts_->config.vrrp_backup_path = std::string();
  EXPECT_EQ(http_post(port_, R"({"vrrp":{"role":"master"}})").status, 200);
  EXPECT_TRUE(log_.has(el::Level::Error, "backup_path  invalid")) << "it looks for backups";
}

TEST_F(WebApi, StopEndsTheLoopAndClosesThePort) {
  start();
  EXPECT_EQ(http_post(port_, R"({"rrm":{}})").status, 200);
  end();
  EXPECT_FALSE(TcpClient(port_).is_connected());
}

TEST_F(WebApi, WithoutItsCertificateTheLoopGoesOnWithoutHttp) {
  FrontEndParts parts(R"("api_port":0,"use_https":1)");
  ApiWeb api(&parts.rrm, &parts.vrrp,
             {.certificate = folder_.file("no.pem"), .private_key = folder_.file("no.key.pem")});
  EXPECT_EQ(api.port(), 0);
  EXPECT_TRUE(log_.has(el::Level::Error, "HTTP service is not available."));
  int passes = 0;
  api.set_between_passes([&] {
    if (++passes == 2) api.stop();
  });
  api.run();
  EXPECT_EQ(passes, 2);
}

/// Sends every request elsewhere, as a route of the front-end would.
int redirect_all(lws* wsi, lws_callback_reasons reason, void*, void*, std::size_t) {
  auto* const api = static_cast<ApiWeb*>(lws_context_user(lws_get_context(wsi)));
  return reason == LWS_CALLBACK_HTTP ? api->redirect_302(wsi, "/www/wavelom/") : 0;
}

TEST_F(WebApi, RedirectAnswersWithTheLocationAndKeepsTheConnection) {
  FrontEndParts parts(R"("api_port":0)");
  ApiWeb api(&parts.rrm, &parts.vrrp);
  const std::array<lws_protocols, 2> protocols{
      lws_protocols{"http", redirect_all, 0, 0, 0, nullptr, 0}, lws_protocols{}};
  lws_context_creation_info info{};
  info.protocols = protocols.data();
  info.user = &api;
  info.gid = static_cast<gid_t>(-1);
  info.uid = static_cast<uid_t>(-1);
  lws_context* const context = lws_create_context(&info);
  ASSERT_NE(context, nullptr);
  const int port = lws_get_vhost_listen_port(lws_get_vhost_by_name(context, "default"));
  std::atomic<bool> done = false;
  std::thread thread([&] {
    while (!done) lws_service(context, 0);
  });
  TcpClient client(port);
  for (int i = 0; i < 2; ++i) {
    const HttpReply reply = rrm::test::ask(client, "GET /x HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(reply.status, 302) << i;
    EXPECT_TRUE(reply.has("location: /www/wavelom/")) << reply.headers;
  }
  done = true;
  lws_cancel_service(context);
  thread.join();
  lws_context_destroy(context);
  EXPECT_TRUE(log_.has(el::Level::Debug, "Redirect to /www/wavelom/"));
}

TEST_F(WebApi, BusyPortLeavesTheLoopWithoutHttp) {
  FrontEndParts parts(R"("cli_api_port":0)");
  const ApiCli other(&parts.rrm, &parts.vrrp);
  parts.config.api_port = other.port();
  const ApiWeb api(&parts.rrm, &parts.vrrp);
  EXPECT_EQ(api.port(), 0);
  EXPECT_TRUE(log_.has(el::Level::Error, "HTTP service is not available."));
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
  for (int pass = 0; pass < 601; ++pass) api.run_periodic_duties();
  EXPECT_EQ(checks(), 1);
  api.run_periodic_duties();
  EXPECT_EQ(checks(), 2);
  EXPECT_EQ(library.count(rrm::LogLevel::Debug,
                          "RRM::check_old_reports entered: report_delete_at_time_utc=\"21:00\", "
                          "reports_path=\"/var/lib/tavro-wavelom/reports\"."),
            2U);
}

/// Stands in for memory that runs out over the reports.
void throw_on_report_check(const char*, int, const char*, rrm::LogLevel, const char* format,
                           std::va_list) {
  if (std::string_view(format).starts_with("RRM::check_old_reports")) throw std::bad_alloc();
}

TEST_F(WebApi, ReportCheckThatMemoryDoesNotSufficeForIsDueAgainInTheNextRound) {
  const rrm::test::CapturedLog library;
  FrontEndParts parts(R"("api_port":0)");
  ApiWeb api(&parts.rrm, &parts.vrrp);
  rrm::set_log_sink(&throw_on_report_check);
  for (int pass = 0; pass < 1203; ++pass) EXPECT_NO_THROW(api.run_periodic_duties());
  EXPECT_EQ(count("std::bad_alloc"), 1U);
  EXPECT_NO_THROW(api.run_periodic_duties());
  EXPECT_EQ(count("std::bad_alloc"), 2U);
}

TEST_F(WebApi, EveryPassRunsTheDueTimersOfTheVrrpWorker) {
  start(R"(,"vrrp_enabled":1,"vrrp_timeout":1,"vrrp_backup_path":"")");
  parts_->vrrp.on_domain_changed("site");
  EXPECT_TRUE(
      rrm::test::wait_until([&] { return log_.has(el::Level::Error, "backup_path  invalid"); }));
}

TEST_F(WebApi, TrafficShortensAPass) {
  FrontEndParts parts(R"("api_port":0)");
  ApiWeb api(&parts.rrm, &parts.vrrp);
  std::atomic<int> passes = 0;
  api.set_between_passes([&] { ++passes; });
  std::thread thread([&] { api.run(); });
  // Requests one after another: each ends a pass of its own.
  for (int i = 0; i < 50; ++i) EXPECT_EQ(http_get(api.port(), "/").status, 404);
  EXPECT_GE(passes.load(), 50);
  api.stop();
  thread.join();
}

TEST_F(WebApi, ProcessUsesItsCertificateFilesAndLimits) {
  const ApiWeb::Settings settings;
  EXPECT_EQ(settings.certificate, "/etc/tavro-wavelom/cert/server.pem");
  EXPECT_EQ(settings.private_key, "/etc/tavro-wavelom/cert/server.key.pem");
  EXPECT_EQ(settings.longest_body, 8'388'608U);
  EXPECT_EQ(settings.most_body_bytes, 67'108'864U);
  EXPECT_EQ(settings.most_connections, 4096U);
  EXPECT_EQ(settings.reply_timeout, 60);
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
