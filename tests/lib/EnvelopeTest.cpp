#include "server/lib/Envelope.h"

#include <gtest/gtest.h>

#include <string>

#include "server/lib/MacAddress.h"

namespace rrm {
namespace {

bool valid(const std::string& text) { return is_valid_message(JsonReader(text.c_str())); }

bool compatible(const std::string& version) {
  return is_version_compatible(JsonReader(("{\"version\":" + version + "}").c_str()), "2.4");
}

class AccessPointCommand : public testing::TestWithParam<const char*> {};

TEST_P(AccessPointCommand, IsValidWithAMacAndInvalidWithout) {
  const std::string head = std::string(R"({"service":"rrm","cmd":")") + GetParam() + '"';
  EXPECT_TRUE(valid(head + R"(,"ap-mac":"02:00:00:00:00:01"})"));
  EXPECT_FALSE(valid(head + R"(,"ap-mac":""})"));
  EXPECT_FALSE(valid(head + "}"));
  EXPECT_FALSE(valid(head + R"(,"ap-mac":12})"));
}

TEST_P(AccessPointCommand, IsNoInternalCommand) {
  EXPECT_FALSE(
      valid(std::string(R"({"service":"rrm-internal","ap-mac":"02:00:00:00:00:01","cmd":")") +
            GetParam() + "\"}"));
}

INSTANTIATE_TEST_SUITE_P(All, AccessPointCommand,
                         testing::Values("subscribe-request", "unsubscribe-request", "rrm-response",
                                         "rrm-mode-response", "rrm-config-changed",
                                         "rrm-assoc-state-changed", "rrm-client-assoc",
                                         "rrm-client-disassoc", "rrm-probe-response",
                                         "rrm-disassoc-all-clients", "rrm-sta-roam"),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::erase(name, '-');
                           return name;
                         });

TEST(Envelope, AnRrmResponseWithAnEmptyMacIsInvalidAndWithAMacValid) {
  EXPECT_FALSE(valid(R"({"service":"rrm","cmd":"rrm-response","ap-mac":""})"));
  EXPECT_TRUE(valid(R"({"service":"rrm","cmd":"rrm-response","ap-mac":"x"})"));
}

TEST(Envelope, PingSessionIsInvalidForADomainWorker) {
  EXPECT_FALSE(valid(R"({"service":"rrm-internal","cmd":"ping-session"})"));
}

TEST(Envelope, TheInternalCommandsOfDomainWorkersAreValidWithoutAMac) {
  EXPECT_TRUE(valid(R"({"service":"rrm-internal","cmd":"drop-session"})"));
  EXPECT_TRUE(valid(R"({"service":"rrm-internal","cmd":"stop-load-balancer"})"));
}

TEST(Envelope, TheStopMessageIsInvalidSoThatNoAccessPointCanStopADomain) {
  EXPECT_FALSE(valid(kStopDocument));
  EXPECT_FALSE(valid(R"({"service":"internal-ipc","cmd":"stop","ap-mac":"02:00:00:00:00:01"})"));
}

TEST(Envelope, EverythingElseIsInvalid) {
  for (const char* text :
       {"{}", "[]", "null", "\"rrm\"", "7", "not json", "", R"({"service":"rrm","ap-mac":"x"})",
        R"({"service":"rrm","ap-mac":"x","cmd":"subscribe"})",
        R"({"service":"RRM","ap-mac":"x","cmd":"rrm-response"})",
        R"({"service":"rrm","ap-mac":"x","cmd":["rrm-response"]})",
        R"({"service":{},"ap-mac":"x","cmd":"rrm-response"})",
        R"({"ap-mac":"x","cmd":"rrm-response"})", R"({"service":"rrm-internal"})"})
    EXPECT_FALSE(valid(text)) << text;
}

TEST(Envelope, TheControllersOwnDocumentsAreWrittenAsTheyStand) {
  EXPECT_STREQ(kStopDocument, "{\"service\":\"internal-ipc\", \"cmd\":\"stop\"}");
  EXPECT_STREQ(kDropSessionDocument, "{\"service\":\"rrm-internal\", \"cmd\":\"drop-session\"}");
  EXPECT_STREQ(kPingSessionDocument, "{\"service\":\"rrm-internal\", \"cmd\":\"ping-session\"}");
  EXPECT_STREQ(kStopLoadBalancerDocument,
               "{\"service\":\"rrm-internal\", \"cmd\":\"stop-load-balancer\"}");
  for (const char* text :
       {kStopDocument, kDropSessionDocument, kPingSessionDocument, kStopLoadBalancerDocument})
    EXPECT_FALSE(JsonReader(text).is_null());
  EXPECT_STREQ(kProtocolVersion, "2.4");
  EXPECT_STREQ(kServerVersion, "1.9.1.323-amd64");
}

struct VersionCase {
  const char* name;
  const char* version;
  bool compatible;
};

class Version : public testing::TestWithParam<VersionCase> {};

TEST_P(Version, IsComparedWithTheOwnOne) {
  EXPECT_EQ(compatible(GetParam().version), GetParam().compatible);
}

INSTANTIATE_TEST_SUITE_P(
    Against24, Version,
    testing::Values(
        VersionCase{"OldestMinor", "\"2.0\"", true}, VersionCase{"Older", "\"2.3\"", true},
        VersionCase{"Same", "\"2.4\"", true}, VersionCase{"NewerMinor", "\"2.5\"", false},
        VersionCase{"TwoDigitMinor", "\"2.10\"", false},
        VersionCase{"NewerMajor", "\"3.0\"", false}, VersionCase{"OlderMajor", "\"1.9\"", false},
        VersionCase{"MajorOnly", "\"2\"", false}, VersionCase{"Empty", "\"\"", false},
        VersionCase{"Words", "\"two.four\"", false}, VersionCase{"Comma", "\"2,4\"", false},
        VersionCase{"Number", "2.4", false}, VersionCase{"Null", "null", false},
        VersionCase{"TrailingText", "\"2.4.7-beta\"", true},
        VersionCase{"LeadingBlank", "\" 2.4\"", true}),
    [](const auto& test) { return test.param.name; });

TEST(Envelope, AMissingVersionIsNotCompatible) {
  EXPECT_FALSE(is_version_compatible(JsonReader("{}"), "2.4"));
  EXPECT_FALSE(is_version_compatible(JsonReader(), "2.4"));
}

TEST(Envelope, AnUnreadableOwnVersionIsCompatibleWithNothing) {
  EXPECT_FALSE(is_version_compatible(JsonReader(R"({"version":"2.4"})"), "2"));
}

TEST(Envelope, AMacInCapitalsIsTheSameAddressAsInSmallLetters) {
  EXPECT_EQ(MacAddress::from_text("AB:CD:EF:01:23:4A"), MacAddress::from_text("ab:cd:ef:01:23:4a"));
}

TEST(Envelope, IsMessageComparesServiceAndCommand) {
  const JsonReader document(kDropSessionDocument);
  EXPECT_TRUE(is_message(document, "rrm-internal", "drop-session"));
  EXPECT_FALSE(is_message(document, "rrm", "drop-session"));
  EXPECT_FALSE(is_message(document, "rrm-internal", "ping-session"));
}

}  // namespace
}  // namespace rrm
