#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/JsonReader.h"
#include "tests/system/Process.h"

namespace {

using rrm::JsonReader;
using rrm::test::http_get;
using rrm::test::http_post;
using rrm::test::TcpClient;
using rrm::test::wait_until;
using rrm::test::WebsockClients;

TEST_F(Process, ServesManagementAndFilesAndEndsOnInterruptWithStatus0) {
  configure();
  start_and_wait();
  EXPECT_NE(ask(R"({"rrm":{}})").find(R"("wavelom_version":"1.9.1.323-amd64","domains":[]})"),
            std::string::npos);
  EXPECT_EQ(http_get(web_port_, "/www/wavelom/").body, "<html>site</html>");
  TcpClient tcp(tcp_port_);
  std::string reply;
  ASSERT_TRUE(tcp.send(R"({"vrrp":{}})"));
  ASSERT_TRUE(tcp.receive(reply));
  EXPECT_NE(reply.find(R"("role":"master")"), std::string::npos);
  EXPECT_EQ(interrupt(), 0);
  EXPECT_NE(process_->output().find("Shutting down."), std::string::npos);
  EXPECT_FALSE(TcpClient(web_port_).is_connected());
  EXPECT_FALSE(TcpClient(tcp_port_).is_connected());
  EXPECT_FALSE(TcpClient(ap_port_).is_connected());
}

TEST_F(Process, SetsTheLimitOfOpenFilesTo12288) {
  rlimit files{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
  if (::geteuid() != 0 && files.rlim_max < 12288) GTEST_SKIP() << "only root may raise the limit";
  configure();
  start_and_wait();
  std::ifstream limits("/proc/" + std::to_string(process_->pid()) + "/limits");
  const std::string text(std::istreambuf_iterator<char>(limits), {});
  EXPECT_NE(text.find("Max open files            12288                12288 "), std::string::npos)
      << text;
  EXPECT_EQ(interrupt(), 0);
}

TEST_F(Process, LimitOfOpenFilesThatCannotBeRaisedIsLoggedAndItGoesOn) {
  configure();
  std::vector<std::string> launcher{"/usr/bin/prlimit", "--nofile=1024:1024"};
  if (::geteuid() == 0)
    launcher.insert(launcher.end(), {"/usr/bin/setpriv", "--bounding-set=-sys_resource",
                                     "--inh-caps=-sys_resource"});
  start_with(launcher, {"c.conf"});
  ASSERT_TRUE(is_serving(web_port_)) << process_->output() << process_->errors();
  EXPECT_EQ(interrupt(), 0);
  EXPECT_THAT(
      process_->output(),
      testing::ContainsRegex(R"(DEBUG \[default\] .*\[increase_max_fds\] .*\] )"
                             "setrlimit\\(\\) failed with errno=1 Operation not permitted\n"));
}

TEST_F(Process, ExceptionEndsStartUpWithStatus1AndIsReportedWithErrno) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers have their own idea of where a stack may be";
#endif
  configure();
  // The stack of a new thread is then larger than all addresses there are.
  start_with({"/usr/bin/prlimit", "--stack=140737488355328:"}, {"c.conf"});
  EXPECT_EQ(process_->wait(), 1);
  const std::string text = "Resource temporarily unavailable, errno=12: Cannot allocate memory\n";
  EXPECT_THAT(process_->errors(), testing::HasSubstr("\nwavelom: main: " + text));
  EXPECT_THAT(process_->output(), testing::HasSubstr("ERROR [default] " + text));
  EXPECT_TRUE(process_->output().ends_with("INFO [default] Shutting down.\n"))
      << process_->output();
}

TEST_F(Process, SaysThatItUsesDefaultLoggerSettings) {
  configure();
  start_and_wait();
  EXPECT_EQ(interrupt(), 0);
  EXPECT_EQ(process_->output().substr(0, 63),
            "Logger cfg file does not exist. Using default logger settings.\n");
}

TEST_F(Process, NothingTakesThePlaceOfAClosedStandardError) {
  configure();
  start_with({"/bin/sh", "-c", R"(exec "$0" "$@" <&- >&- 2>&-)"}, {"c.conf"});
  ASSERT_TRUE(is_serving(web_port_));
  ASSERT_TRUE(is_serving(ap_port_));
  const std::string descriptors = "/proc/" + std::to_string(process_->pid()) + "/fd/";
  for (const char* number : {"0", "1", "2"})
    EXPECT_EQ(std::filesystem::read_symlink(descriptors + number), "/dev/null") << number;
  EXPECT_EQ(interrupt(), 0);
}

TEST_F(Process, RewritesItsConfigurationInNormalForm) {
  configure();
  start_and_wait();
  const std::string normal = folder_.read("c.conf");
  EXPECT_EQ(normal.substr(0, 60),
            "{\n    \"version\": \"2.1\",\n    \"global\": {\n        \"enabled\": 1");
  EXPECT_EQ(interrupt(), 0);
  EXPECT_EQ(rrm::GlobalConfig(folder_.file("c.conf")).get_time_zone("site1"), 10800);
  EXPECT_EQ(folder_.read("c.conf"), normal);
}

TEST_F(Process, AccessPointSubscribesOverWebsocketAndIsListed) {
  configure();
  start_and_wait();
  WebsockClients clients(ap_port_);
  const std::size_t ap = clients.open_all(1);
  clients.send(ap, R"({"service":"rrm","version":"2.4","cmd":"subscribe-request",)"
                   R"("domain":"site1","ap-mac":"00:11:22:00:01:00",)"
                   R"("factory":{"board":"B","hw":"H","serial":"S",)"
                   R"("mac":"00:11:22:00:01:00"},"radios":[]})");
  const auto replies = clients.wait_received(ap);
  ASSERT_FALSE(replies.empty());
  EXPECT_STREQ(JsonReader(replies[0].c_str()).get_str("cmd"), "subscribe-response");
  EXPECT_NE(ask(R"({"rrm":{}})").find(R"({"name":"site1","ap-count":1)"), std::string::npos);
  EXPECT_NE(ask(R"({"rrm":{"sessions":1}})"), "");
  EXPECT_EQ(interrupt(), 0) << "with an open session";
}

TEST_F(Process, ChangesOfTheConfigurationAreSaved) {
  configure();
  start_and_wait();
  EXPECT_NE(ask(R"({"cfg":{"operation":"add","level":"domain",)"
                R"("config":{"domain":"site2","pattern":"common"}}})")
                .find(R"("add_status":"Success")"),
            std::string::npos);
  EXPECT_EQ(http_post(web_port_, R"({"cfg":{"operation":"set","level":"global",)"
                                 R"("config":{"vrrp_timeout":20}}})")
                .status,
            200)
      << "which restarts the dispatcher";
  EXPECT_TRUE(is_serving(ap_port_));
  EXPECT_EQ(interrupt(), 0);
  const rrm::GlobalConfig config(folder_.file("c.conf"));
  EXPECT_TRUE(config.is_domain_exist("site2"));
  EXPECT_EQ(config.vrrp_timeout, 20);
}

TEST_F(Process, SettingsOfTheSecondArgumentOnAreIgnored) {
  configure();
  start({"c.conf", "other.conf", "--help"});
  EXPECT_TRUE(is_serving(web_port_));
  EXPECT_EQ(interrupt(), 0);
}

TEST_F(Process, InterruptDuringStartUpWaitsForTheFirstPass) {
  configure();
  for (int i = 0; i < 5; ++i) {
    start();
    ::usleep(static_cast<useconds_t>(3000 * (i + 1)));
    // Before the first line of main the signal still has its default effect.
    if (!wait_until([&] { return !process_->output().empty() || !process_->is_running(); })) FAIL();
    EXPECT_EQ(interrupt(), 0) << i;
  }
}

TEST_F(Process, BrokenConfigurationGivesTheDefaults) {
  folder_.write("c.conf", "{ this is no JSON");
  start();
  EXPECT_TRUE(wait_until([&] { return folder_.read("c.conf").find("2.1") != std::string::npos; }));
  EXPECT_TRUE(process_->is_running());
  EXPECT_EQ(interrupt(), 0);
  EXPECT_EQ(rrm::GlobalConfig(folder_.file("c.conf")).api_port, 8089);
}

TEST_F(Process, FaultsOfItsConfigurationAreLogged) {
  configure();
  std::string text = folder_.read("c.conf");
  text.replace(text.find("3:00"), 4, "33:00");
  folder_.write("c.conf", text);
  start_and_wait();
  EXPECT_EQ(interrupt(), 0);
  EXPECT_THAT(
      process_->output(),
      testing::ContainsRegex("WARNING \\[default\\] .*Invalid time value for 'time_zone': "
                             "'33:00' \\(allowed range: \\[-43200, 50400\\] in seconds\\)\n"));
}

TEST_F(Process, DisabledControllerServesManagementOnly) {
  configure(R"(,"enabled":0)");
  start();
  ASSERT_TRUE(is_serving(web_port_));
  EXPECT_NE(ask(R"({"rrm":{}})").find(R"("domains":[])"), std::string::npos);
  EXPECT_FALSE(TcpClient(ap_port_).is_connected());
  EXPECT_EQ(interrupt(), 0);
  EXPECT_NE(process_->output().find("Wavelom version 1.9.1.323-amd64 disabled"), std::string::npos);
}

TEST_F(Process, BackupControllerServesAccessPointsOnceItIsMaster) {
  folder_.write("keep.mode", "BACKUP\n");
  configure(R"(,"vrrp_enabled":1,"vrrp_state_file":")" + folder_.file("keep.mode") +
            R"(","vrrp_backup_path":")" + folder_.file("backup") + "\"");
  start();
  ASSERT_TRUE(is_serving(web_port_));
  EXPECT_NE(ask(R"({"vrrp":{}})").find(R"("role":"backup")"), std::string::npos);
  EXPECT_FALSE(TcpClient(ap_port_).is_connected());
  EXPECT_NE(ask(R"({"vrrp":{"role":"master"}})").find("success"), std::string::npos);
  EXPECT_TRUE(is_serving(ap_port_));
  EXPECT_EQ(interrupt(), 0);
}

TEST_F(Process, MasterByItsStateFileServesAccessPointsAndBacksUpTheirDomain) {
  folder_.write("keep.mode", "MASTER\n");
  configure(R"(,"vrrp_enabled":1,"vrrp_timeout":1,"vrrp_state_file":")" +
            folder_.file("keep.mode") + R"(","vrrp_backup_path":")" + folder_.file("backup") +
            "\"");
  start_and_wait();
  EXPECT_NE(ask(R"({"vrrp":{}})").find(R"("role":"master")"), std::string::npos);
  WebsockClients clients(ap_port_);
  clients.send(clients.open_all(1), R"({"service":"rrm","version":"2.4","cmd":"subscribe-request",)"
                                    R"("domain":"site1","ap-mac":"00:11:22:00:01:00",)"
                                    R"("factory":{"board":"B","hw":"H","serial":"S",)"
                                    R"("mac":"00:11:22:00:01:00"},"radios":[]})");
  EXPECT_TRUE(wait_until([&] { return folder_.has("backup/site1.json"); }));
  EXPECT_EQ(interrupt(), 0);
}

TEST_F(Process, BusyPortsLeaveItRunning) {
  configure();
  start_and_wait();
  const auto first = std::move(process_);
  start();
  EXPECT_TRUE(wait_until([&] {
    return process_->output().find("bind: Address already in use") != std::string::npos;
  }));
  EXPECT_TRUE(process_->is_running());
  EXPECT_EQ(interrupt(), 0);
  process_ = nullptr;
  first->signal(SIGINT);
  EXPECT_EQ(first->wait(), 0);
}

}  // namespace
