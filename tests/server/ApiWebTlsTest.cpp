#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/server/WebApi.h"

/// The front-end over TLS, with a generated certificate and a foreign client program.
namespace {

using rrm::test::http_get;
using rrm::test::http_post;
using rrm::test::HttpReply;

std::string output_of(const std::string& command) {
  std::string text;
  FILE* const pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return text;
  char piece[4096];
  for (std::size_t length = 0; (length = std::fread(piece, 1, sizeof(piece), pipe)) > 0;)
    text.append(piece, length);
  ::pclose(pipe);
  return text;
}

class WebTls : public WebApi {
 protected:
  void SetUp() override {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
        "-subj /CN=localhost -keyout " +
        folder_.file("server.key.pem") + " -out " + folder_.file("server.pem") + " 2>/dev/null";
    if (std::system(command.c_str()) != 0) GTEST_SKIP() << "no openssl program";
    start(R"(,"use_https":1)");
    ASSERT_NE(port_, 0);
  }
  /// What the client program prints for a request that ends its connection.
  std::string over_tls(const std::string& request, const std::string& options = "-quiet") {
    folder_.write("request", request);
    return output_of("openssl s_client -connect 127.0.0.1:" + std::to_string(port_) + " " +
                     options + " -ign_eof -CAfile " + folder_.file("server.pem") + " <" +
                     folder_.file("request"));
  }
};

constexpr char kAskRole[] =
    "POST / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nContent-Length: 11\r\n\r\n"
    R"({"vrrp":{}})";

TEST_F(WebTls, CommandsAndFilesAreServedWithTheCertificateOfTheFile) {
  const std::string reply = over_tls(kAskRole, "-verify_return_error");
  EXPECT_NE(reply.find("Verification: OK"), std::string::npos) << reply;
  EXPECT_NE(reply.find("\nHTTP/1.1 200 OK\r\n"), std::string::npos) << reply;
  EXPECT_NE(reply.find("\nserver: https\r\n"), std::string::npos);
  EXPECT_NE(reply.find(R"("role":"master","status":"success"})"), std::string::npos);
  EXPECT_NE(over_tls("GET /www/wavelom/ HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
                .find("\r\n\r\n<html>the site</html>"),
            std::string::npos);
}

TEST_F(WebTls, OffersHttp11Only) {
  EXPECT_NE(over_tls(kAskRole, "-alpn h2,http/1.1").find("ALPN protocol: http/1.1"),
            std::string::npos);
  EXPECT_EQ(over_tls(kAskRole, "-alpn h2").find("ALPN protocol: h2"), std::string::npos);
}

TEST_F(WebTls, WeakCiphersAreRefused) {
  EXPECT_EQ(over_tls(kAskRole, "-tls1_2 -cipher ECDHE-ECDSA-AES256-SHA").find("200 OK"),
            std::string::npos);
  EXPECT_NE(over_tls(kAskRole, "-tls1_2 -cipher ECDHE-ECDSA-AES256-GCM-SHA384").find("200 OK"),
            std::string::npos);
}

TEST_F(WebTls, PlainRequestOnTheTlsPortIsRedirectedAndNotServed) {
  const HttpReply page = http_get(port_, "/www/wavelom/");
  EXPECT_EQ(page.status, 301);
  EXPECT_NE(page.headers.find("location: https://localhost"), std::string::npos) << page.headers;
  EXPECT_EQ(page.body.find("the site"), std::string::npos);
  const HttpReply command = http_post(port_, R"({"vrrp":{"role":"backup"}})");
  EXPECT_NE(command.status, 200);
  EXPECT_EQ(parts_->rrm.get_vrrp_role(), rrm::VrrpRole::Master) << "the command was not processed";
}

TEST_F(WebTls, RubbishInPlaceOfAHandshakeHurtsNobody) {
  for (const std::string& bytes : {std::string("\x16\x03\x01\xff\xff garbage"),
                                   std::string(5000, '\x16'), std::string("\0\0\0\0", 4)}) {
    rrm::test::TcpClient client(port_);
    client.send(bytes);
    client.reset();
  }
  EXPECT_NE(over_tls(kAskRole).find("200 OK"), std::string::npos);
  EXPECT_TRUE(wait_connections(0));
}

}  // namespace
