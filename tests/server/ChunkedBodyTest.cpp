#include "server/ChunkedBody.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using State = ChunkedBody::State;

constexpr std::size_t kLongest = 100;  // bytes

struct Decoded {
  State state;
  std::string body;
  bool operator==(const Decoded&) const = default;
};

void PrintTo(const Decoded& decoded, std::ostream* out) {
  *out << static_cast<int>(decoded.state) << " \"" << decoded.body << '"';
}

Decoded decode(const std::string& bytes, std::size_t piece) {
  ChunkedBody chunks(kLongest);
  Decoded decoded{State::Unfinished, {}};
  for (std::size_t at = 0; at < bytes.size(); at += piece)
    decoded.state = chunks.take(bytes.substr(at, piece), decoded.body);
  return decoded;
}

struct BodyCase {
  const char* name;
  std::string bytes;
  Decoded expected;
};

class ChunkedBodies : public testing::TestWithParam<BodyCase> {};

TEST_P(ChunkedBodies, AreDecodedWhateverPiecesTheyArriveIn) {
  const BodyCase& row = GetParam();
  for (std::size_t piece = 1; piece <= row.bytes.size(); ++piece)
    EXPECT_EQ(decode(row.bytes, piece), row.expected) << "in pieces of " << piece;
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, ChunkedBodies,
    testing::Values(
        BodyCase{"Empty", "0\r\n\r\n", {State::Complete, ""}},
        BodyCase{"One", "5\r\nhello\r\n0\r\n\r\n", {State::Complete, "hello"}},
        BodyCase{"Several", "3\r\nabc\r\n1\r\nd\r\n00\r\n\r\n", {State::Complete, "abcd"}},
        BodyCase{"HexDigits",
                 "a\r\n0123456789\r\n0B\r\nabcdefghijk\r\n0\r\n\r\n",
                 {State::Complete, "0123456789abcdefghijk"}},
        BodyCase{"Extension", "2;name=\"v\"\r\nab\r\n0;x\r\n\r\n", {State::Complete, "ab"}},
        BodyCase{"BlankBehindTheSize", "2 \r\nab\r\n0\r\n\r\n", {State::Complete, "ab"}},
        BodyCase{"Trailers", "1\r\na\r\n0\r\nX: y\r\nZ: 1\r\n\r\n", {State::Complete, "a"}},
        BodyCase{"BareLineFeeds", "1\na\n0\n\n", {State::Complete, "a"}},
        BodyCase{"ChunkWithLineEnds", "4\r\n\r\n\r\n\r\n0\r\n\r\n", {State::Complete, "\r\n\r\n"}},
        BodyCase{
            "MoreBehindTheEnd", "1\r\na\r\n0\r\n\r\nGET / HTTP/1.1\r\n", {State::Complete, "a"}},
        BodyCase{"Unfinished", "5\r\nhel", {State::Unfinished, "hel"}},
        BodyCase{"WithoutLastChunk", "1\r\na\r\n", {State::Unfinished, "a"}},
        BodyCase{"NoNumber", "xyz\r\nabc\r\n", {State::Broken, ""}},
        BodyCase{"NoSize", "\r\nabc\r\n", {State::Broken, ""}},
        BodyCase{"NegativeSize", "-1\r\na\r\n", {State::Broken, ""}},
        BodyCase{"SizeWithTail", "1z\r\na\r\n", {State::Broken, ""}},
        BodyCase{"LongerThanItsSize", "1\r\nab\r\n0\r\n\r\n", {State::Broken, "a"}},
        BodyCase{"HugeSize", "ffffffffffffffffffff\r\na", {State::TooLong, ""}},
        BodyCase{"AlmostHugeSize", "ffffffffffffffff\r\na", {State::TooLong, ""}}),
    [](const auto& row) { return row.param.name; });

TEST(ChunkedBody, TakesExactlyTheLongestBody) {
  const std::string half(50, 'x');
  const std::string both = "32\r\n" + half + "\r\n32\r\n" + half + "\r\n";
  EXPECT_EQ(decode(both + "0\r\n\r\n", 7), (Decoded{State::Complete, half + half}));
  EXPECT_EQ(decode(both + "1\r\ny\r\n0\r\n\r\n", 7), (Decoded{State::TooLong, half + half}));
  EXPECT_EQ(decode("65\r\n", 7), (Decoded{State::TooLong, ""}));
}

TEST(ChunkedBody, LinesAreBounded) {
  EXPECT_EQ(decode("1;" + std::string(5000, 'e'), 100).state, State::Broken);
  EXPECT_EQ(decode("0\r\n" + std::string(5000, 't'), 100).state, State::Broken);
  EXPECT_EQ(decode("0\r\n" + std::string(4096, 't') + "\n", 100).state, State::Unfinished);
  EXPECT_EQ(decode("0\r\n" + std::string(4097, 't') + "\n", 100).state, State::Broken);
}

}  // namespace
