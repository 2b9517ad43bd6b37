#include "server/lib/QueueMessage.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace rrm {
namespace {

const SessionAddress kSession{reinterpret_cast<lws*>(0x1000), 3, 7};

TEST(QueueMessage, OfADocumentHasTheSerializersTextOfThatDocument) {
  const char* const text = R"({ "b" : [1, -2, "x"], "a" : {"t" : true, "n" : null} })";
  const std::string expected(JsonReader(text).text());
  const QueueMessage message(JsonReader(text), kSession);
  EXPECT_FALSE(message.has_text());
  EXPECT_EQ(message.text(), expected);
  EXPECT_EQ(message.text(), R"({"b":[1,-2,"x"],"a":{"t":true,"n":null}})");
  EXPECT_EQ(message.address(), kSession);
}

TEST(QueueMessage, OfATextKeepsItAsItStandsAndHasNoDocument) {
  const QueueMessage message(std::string("{ not even JSON"), kSession);
  EXPECT_TRUE(message.has_text());
  EXPECT_EQ(message.text(), "{ not even JSON");
  EXPECT_TRUE(message.document().is_null());
  EXPECT_EQ(message.address(), kSession);
}

TEST(QueueMessage, TakesItsDocumentInsteadOfCopyingIt) {
  JsonReader document(R"({"a":1})");
  const QueueMessage message(std::move(document), kNoSession);
  EXPECT_TRUE(document.is_null());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(message.document().get_int("a"), 1);
  EXPECT_EQ(message.address().wsi, nullptr);
  EXPECT_EQ(message.address().tsi, 0);
  EXPECT_EQ(message.address().id, 0U);
}

}  // namespace
}  // namespace rrm
