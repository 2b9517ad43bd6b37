#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "server/ApiWeb.h"
#include "tests/server/CapturedProcessLog.h"
#include "tests/server/FrontEndParts.h"
#include "tests/support/HttpClient.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WebsockClients.h"

/// An HTTP(S) front-end on a free port of loopback, running on a thread of its own.
class WebApi : public testing::Test {
 protected:
  WebApi() {
    std::filesystem::create_directory(folder_.file("www"));
    folder_.write("www/index.html", "<html>the site</html>");
    folder_.write("www/app.js", "let x;");
  }
  ~WebApi() override { end(); }

  /// @param options  further members of the configuration's "global", each with a leading comma
  void start(const std::string& options = "") {
    parts_ = std::make_unique<FrontEndParts>(R"("api_port":0,"www_path":")" + folder_.file("www") +
                                             "\"" + options);
    settings_.certificate = folder_.file("server.pem");
    settings_.private_key = folder_.file("server.key.pem");
    api_ = std::make_unique<ApiWeb>(&parts_->rrm, &parts_->vrrp, settings_);
    thread_ = std::thread([this] { api_->run(); });
    port_ = api_->port();
  }
  void end() {
    if (!thread_.joinable()) return;
    api_->stop();
    thread_.join();
  }
  std::size_t count(const std::string& error) const {
    const auto texts = log_.texts(el::Level::Error);
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), error));
  }
  std::size_t corrupted() const { return count("Receive corrupted JSON-request."); }
  bool wait_connections(std::size_t number) const {
    return rrm::test::wait_until([&] { return api_->connection_count() == number; });
  }
  /// So many domains make a long reply to a request for their list.
  void add_domains(int number) {
    for (int i = 0; i < number; ++i)
      parts_->config.domain_add("domain-" + std::to_string(i), {"common", 0, "0:00"});
  }

  rrm::test::TempFolder folder_;
  CapturedProcessLog log_;
  ApiWeb::Settings settings_;
  std::unique_ptr<FrontEndParts> parts_;
  std::unique_ptr<ApiWeb> api_;
  std::thread thread_;
  int port_ = 0;
};
