#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/FreePort.h"
#include "tests/support/HttpClient.h"
#include "tests/support/ProcessUnderTest.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WebsockClients.h"

/// The real process, started with a configuration and ports of its own.
class Process : public testing::Test {
 protected:
  void SetUp() override {
    struct stat state {};
    if (::stat("/etc/tavro-wavelom/wavelom_logger.conf", &state) == 0)
      GTEST_SKIP() << "this machine has a logger configuration of its own";
  }
  void configure(const std::string& members = "", const std::string& file = "c.conf") {
    folder_.write("index.html", "<html>site</html>");
    folder_.write(file, R"({"global":{"api_port":)" + std::to_string(web_port_) +
                            R"(,"cli_api_port":)" + std::to_string(tcp_port_) +
                            R"(,"listen_port":)" + std::to_string(ap_port_) + R"(,"www_path":")" +
                            folder_.path() + R"(","reports_path":")" + folder_.path() + "\"" +
                            members + R"(},"domains":[{"domain":"site1","pattern":"common",)" +
                            R"("time_zone":"3:00"}]})");
  }
  void start(const std::vector<std::string>& arguments = {"c.conf"}) { start_with({}, arguments); }
  /// @param launcher  a program with its arguments that runs the process
  void start_with(std::vector<std::string> launcher, const std::vector<std::string>& arguments) {
    launcher.emplace_back(WAVELOM_EXECUTABLE);
    launcher.insert(launcher.end(), arguments.begin(), arguments.end());
    process_ = std::make_unique<rrm::test::ProcessUnderTest>(folder_.path(), launcher);
  }
  bool is_serving(int port) {
    return rrm::test::wait_until([&] {
             return rrm::test::TcpClient(port).is_connected() || !process_->is_running();
           }) &&
           process_->is_running();
  }
  void start_and_wait() {
    start();
    ASSERT_TRUE(is_serving(web_port_)) << process_->output() << process_->errors();
    ASSERT_TRUE(is_serving(ap_port_)) << process_->output();
  }
  int interrupt() {
    process_->signal(SIGINT);
    const int status = process_->wait();
    if (status != 0) ADD_FAILURE() << process_->errors();
    return status;
  }
  std::string ask(const std::string& request) {
    return rrm::test::http_post(web_port_, request).body;
  }

  rrm::test::TempFolder folder_;
  int web_port_ = rrm::test::free_port();
  int tcp_port_ = rrm::test::free_port();
  int ap_port_ = rrm::test::free_port();
  std::unique_ptr<rrm::test::ProcessUnderTest> process_;
};
