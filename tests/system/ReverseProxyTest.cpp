#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/FreePort.h"
#include "tests/system/Process.h"

/// The reverse proxy that is shipped as a sample, before the real process.
namespace {

using rrm::test::ProcessUnderTest;

constexpr char kReader[] = "-u reader:seen ";
constexpr char kAdministrator[] = "-u admin:done ";
constexpr char kListDomains[] = R"({"cfg":{"operation":"get","level":"domain"}})";

struct Answer {
  std::string status;
  std::string text;  ///< headers and body
};

void replace(std::string& text, const std::string& what, const std::string& by) {
  const std::size_t at = text.find(what);
  ASSERT_NE(at, std::string::npos) << "the sample has no " << what;
  for (std::size_t next = at; next != std::string::npos; next = text.find(what, next + by.size()))
    text.replace(next, what.size(), by);
}

class ReverseProxy : public Process {
 protected:
  void SetUp() override {
    Process::SetUp();
    if (IsSkipped()) return;
    for (const char* program : {"nginx", "curl", "openssl"})
      if (!run(std::string("command -v ") + program + " >found"))
        GTEST_SKIP() << program << " is not installed";
    configure();
    start_and_wait();
    start_proxy();
  }
  /// In the test's folder.
  bool run(const std::string& command) {
    return std::system(("cd " + folder_.path() + " && PATH=$PATH:/usr/sbin; " + command).c_str()) ==
           0;
  }
  void start_proxy() {
    ASSERT_TRUE(
        run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
            "-days 2 -subj /CN=wavelom.example.net -keyout wavelom.key.pem "
            "-out wavelom.pem 2>errors"))
        << folder_.read("errors");
    ASSERT_TRUE(
        run("echo reader:$(openssl passwd -apr1 seen) >wavelom.readers; "
            "echo admin:$(openssl passwd -apr1 done) >wavelom.admins; "
            "cat wavelom.admins >>wavelom.readers"));
    folder_.write("site.conf", site());
    // One process, so that nothing is left when it is killed.
    folder_.write(
        "nginx.conf",
        "daemon off;\nmaster_process off;\npid pid;\nevents {}\nhttp {\naccess_log off;\n"
        "client_body_temp_path body;\nproxy_temp_path proxy;\nfastcgi_temp_path fastcgi;\n"
        "uwsgi_temp_path uwsgi;\nscgi_temp_path scgi;\ninclude site.conf;\n}\n");
    std::filesystem::create_directory(folder_.file("nginx"));
    proxy_ = std::make_unique<ProcessUnderTest>(
        folder_.file("nginx"),
        std::vector<std::string>{"/usr/sbin/nginx", "-p", folder_.path(), "-c",
                                 folder_.file("nginx.conf"), "-e", "stderr"});
    ASSERT_TRUE(rrm::test::wait_until(
        [&] { return rrm::test::TcpClient(proxy_port_).is_connected() || !proxy_->is_running(); }));
    ASSERT_TRUE(proxy_->is_running()) << proxy_->errors();
  }
  /// The sample with ports and files of the test.
  std::string site() {
    std::string text;
    std::ifstream file(WAVELOM_SOURCES "/packaging/nginx/wavelom.conf");
    std::getline(file, text, '\0');
    replace(text, "  listen [::]:443 ssl;\n", "");
    replace(text, "listen 443 ssl", "listen 127.0.0.1:" + std::to_string(proxy_port_) + " ssl");
    replace(text, "/etc/nginx/", folder_.path() + "/");
    replace(text, "127.0.0.1:8089", "127.0.0.1:" + std::to_string(web_port_));
    return text;
  }
  /// One request by curl; the server's certificate must be the right one.
  Answer get(const std::string& options, const std::string& path) {
    run("curl -sS -i --path-as-is --max-time 30 --cacert wavelom.pem --resolve "
        "wavelom.example.net:" +
        std::to_string(proxy_port_) + ":127.0.0.1 " + options + " -o answer -w '%{http_code}' '" +
        "https://wavelom.example.net:" + std::to_string(proxy_port_) + path + "' >status 2>errors");
    return {folder_.read("status") + folder_.read("errors"), folder_.read("answer")};
  }
  std::string status(const std::string& options, const std::string& path) {
    return get(options, path).status;
  }

  int proxy_port_ = rrm::test::free_port();
  std::unique_ptr<ProcessUnderTest> proxy_;
};

TEST_F(ReverseProxy, SpeaksTlsOnlyAndSaysSo) {
  const Answer answer = get(kReader, "/read/status");
  EXPECT_EQ(answer.status, "200");
  EXPECT_NE(answer.text.find("\r\nStrict-Transport-Security: max-age=31536000\r\n"),
            std::string::npos)
      << answer.text;
  EXPECT_EQ(rrm::test::http_get(proxy_port_, "/read/status").status, 400) << "a plain request";
  EXPECT_EQ(status(kReader + std::string("--tls-max 1.1 "), "/read/status").substr(0, 3), "000");
}

TEST_F(ReverseProxy, AsksEverybodyForAPassword) {
  for (const char* path : {"/read/status", "/www/wavelom/", "/read/nosuch", "/api"}) {
    const std::string post = path == std::string("/api") ? "-d {} " : "";
    EXPECT_EQ(status(post, path), "401") << path;
    EXPECT_EQ(status(post + "-u reader:wrong ", path), "401") << path;
    EXPECT_EQ(status(post + "-u nobody:seen ", path), "401") << path;
  }
}

TEST_F(ReverseProxy, ReaderSeesEverythingThatHasAnAddress) {
  const std::pair<const char*, const char*> rows[] = {
      {"/read/status", R"("domains":[])"},
      {"/read/sessions", R"("wavelom_version":)"},
      {"/read/role", R"("role":"master","status":"success"})"},
      {"/read/domains", R"("domains":[{"name":"site1","config":"common","time_zone":"3:00"}]})"},
      {"/read/patterns", R"("patterns":[{"name":"common"}]})"},
      {"/read/domain/site1", R"("error":"domain not found"})"},
      {"/read/domain/site1/ap/00:11:22:AA:bb:CC", R"("error":"domain not found"})"},
      {"/read/domain/site1/last-report", R"("status":"success"})"},
      {"/www/wavelom/", "<html>site</html>"},
  };
  for (const auto& [path, content] : rows) {
    const Answer answer = get(kReader, path);
    EXPECT_EQ(answer.status, "200") << path;
    EXPECT_NE(answer.text.find(content), std::string::npos) << path << "\n" << answer.text;
  }
  EXPECT_EQ(status(kAdministrator, "/read/status"), "200") << "administrators are readers too";
}

TEST_F(ReverseProxy, ReaderCannotSendCommands) {
  const std::string remove =
      R"(-d '{"cfg":{"operation":"remove","level":"domain","domain":"site1"}}' )";
  EXPECT_EQ(status(kReader + remove, "/api"), "401");
  EXPECT_EQ(status(kReader + remove, "/www/wavelom/"), "403");
  EXPECT_EQ(status(kReader + remove, "/"), "404");
  // Bodies for an address that reads are thrown away, in whatever coding they come.
  for (const char* coding : {"", "-H 'Transfer-Encoding: chunked' ", "-X GET ", "-X PUT "}) {
    const Answer answer = get(kReader + remove + coding, "/read/role");
    EXPECT_TRUE(answer.text.ends_with(R"("role":"master","status":"success"})")) << coding;
  }
  EXPECT_NE(ask(kListDomains).find("site1"), std::string::npos) << "the domain is still there";
}

TEST_F(ReverseProxy, NamesInAddressesCannotLeaveTheirPlaceInTheRequest) {
  for (const char* path :
       {R"(/read/domain/a%22,%22start_optimization%22:%22true)", "/read/domain/a%5C",
        "/read/domain/", "/read/domain/a/b", "/read/domain/a%0A",
        R"(/read/domain/site1/ap/%22%7D%2C%22cfg%22:%7B%22op%22)",
        "/read/domain/site1/ap/00:11:22:33:44:5", "/read/"})
    EXPECT_EQ(status(kReader, path), "404") << path;
  EXPECT_EQ(status(kReader + std::string("-d {} "), "/read/domain/../../api"), "401");
}

TEST_F(ReverseProxy, AdministratorSendsAnyCommandByPost) {
  const std::string add = R"(-d '{"cfg":{"operation":"add","level":"domain",)"
                          R"("config":{"domain":"site2","pattern":"common"}}}' )";
  const Answer answer = get(kAdministrator + add, "/api");
  EXPECT_EQ(answer.status, "200");
  EXPECT_TRUE(answer.text.ends_with(R"("add_status":"Success"})")) << answer.text;
  EXPECT_NE(ask(kListDomains).find("site2"), std::string::npos);
  EXPECT_EQ(status(kAdministrator, "/api"), "403") << "a GET";
  EXPECT_EQ(status(kAdministrator + std::string("-d '{' "), "/api"), "400");
}

TEST_F(ReverseProxy, OtherAddressesAreNotFound) {
  for (const char* path : {"/", "/api/", "/apis", "/www/other", "/readme"})
    EXPECT_EQ(status(kAdministrator, path), "404") << path;
}

}  // namespace
