#include "location/http_response.hpp"

#include <gtest/gtest.h>

#include <string>

#include "support/bytes.hpp"

namespace {

using namespace test;

// The body with its length, or "refused". Text and room are exact heap blocks.
std::string body_of(std::string_view text, size_t room = 64) {
  const Bytes exact = exact_copy(from_text(text), text.size());
  std::vector<char> body(room, '\0');
  const int32_t len =
      tq::decode_chunked_body({reinterpret_cast<const char*>(exact.data()), exact.size()}, body);
  if (len < 0) return "refused";
  EXPECT_LE(static_cast<size_t>(len), room);
  return std::string(body.data(), static_cast<size_t>(len));
}

const std::string kLongLine(8185, 'z');

TEST(HttpResponse, Chunks) {
  const struct {
    const char* name;
    std::string text;
    std::string body;
  } cases[] = {
      {"one", "H\r\n\r\n3\r\nabc\r\n0\r\n\r\n", "abc"},
      {"several", "H\r\n\r\n1\r\na\r\n2\r\nbc\r\n0\r\n\r\n", "abc"},
      {"none", "H\r\n\r\n0\r\n\r\n", ""},
      {"no headers", "\r\n\r\n3\r\nabc\r\n0\r\n\r\n", "abc"},
      {"behind the end", "H\r\n\r\n1\r\na\r\n0\r\n\r\n1\r\nb\r\n", "a"},
      {"upper case", "H\r\n\r\nB\r\nabcdefghijk\r\n0\r\n\r\n", "abcdefghijk"},
      {"lower case", "H\r\n\r\nb\r\nabcdefghijk\r\n0\r\n\r\n", "abcdefghijk"},
      {"beyond f: g is 16", "H\r\n\r\ng\r\n0123456789abcdef\r\n0\r\n\r\n", "0123456789abcdef"},
      {"beyond f: Z is 35", "H\r\n\r\nZ\r\n0123456789abcdefghijklmnopqrstuvwxy\r\n0\r\n\r\n",
       "0123456789abcdefghijklmnopqrstuvwxy"},
      {"prefix 0x", "H\r\n\r\n0x3\r\nabc\r\n0\r\n\r\n", "abc"},
      {"prefix 0X", "H\r\n\r\n0X3\r\nabc\r\n0\r\n\r\n", "abc"},
      {"leading zeros", "H\r\n\r\n0000000000000000000003\r\nabc\r\n0\r\n\r\n", "abc"},
      {"extension", "H\r\n\r\n3;x=9\r\nabc\r\n0\r\n\r\n", "abc"},
      {"blank behind", "H\r\n\r\n3 \r\nabc\r\n0\r\n\r\n", "abc"},
      {"empty chunk before the end", "H\r\n\r\n00\r\n\r\n3\r\nabc\r\n0\r\n\r\n", "refused"},
      {"size line without digits", "H\r\n\r\n;\r\n\r\n3\r\nabc\r\n0\r\n\r\n", "abc"},
      {"longest size line", "H\r\n\r\n0;" + kLongLine + "\r\n\r\n0\r\n\r\n", ""},
      {"size line too long", "H\r\n\r\n0;" + kLongLine + "zzzz\r\n\r\n0\r\n\r\n", "refused"},
      {"no end marker", "H\r\n\r\n3\r\nabc\r\n", "refused"},
      {"end marker cut", "H\r\n\r\n3\r\nabc\r\n0\r\n\r", "refused"},
      {"nothing", "", "refused"},
      {"end marker alone", "0\r\n\r\n", "refused"},
      {"end marker in the headers", "Length: 10\r\n\r\n3\r\nabc\r\n0\r\n\r\n", "refused"},
      {"end marker in the data", "H\r\n\r\n8\r\nab0\r\n\r\nc\r\n0\r\n\r\n", "refused"},
      {"size too small", "H\r\n\r\n2\r\nabc\r\n0\r\n\r\n", "refused"},
      {"size too large", "H\r\n\r\n4\r\nabc\r\n0\r\n\r\n", "refused"},
      {"size beyond the end", "H\r\n\r\nFF\r\nabc\r\n0\r\n\r\n", "refused"},
      {"size that wraps in 32 bits", "H\r\n\r\n100000003\r\nabc\r\n0\r\n\r\n", "refused"},
      {"size that wraps in 64 bits", "H\r\n\r\n10000000000000003\r\nabc\r\n0\r\n\r\n", "refused"},
      {"size of many digits", "H\r\n\r\n" + std::string(4000, 'F') + "\r\nabc\r\n0\r\n\r\n", "refused"},
      {"no line end behind the data", "H\r\n\r\n3\r\nabc\n\n0\r\n\r\n", "refused"},
      {"just fits", "H\r\n\r\n40\r\n" + std::string(64, 'x') + "\r\n0\r\n\r\n", std::string(64, 'x')},
      {"too large by one", "H\r\n\r\n40\r\n" + std::string(64, 'x') + "\r\n1\r\ny\r\n0\r\n\r\n", "refused"},
  };
  for (const auto& c : cases) EXPECT_EQ(body_of(c.text), c.body) << c.name;
  EXPECT_EQ(body_of("H\r\n\r\n0\r\n\r\n", 0), "");
}

TEST(HttpResponse, CutAnywhereIsRefused) {
  const std::string good = "HTTP/1.1 200 OK\r\n\r\n2\r\nab\r\n1\r\nc\r\n0\r\n\r\n";
  for (size_t n = 0; n < good.size(); ++n) EXPECT_EQ(body_of(good.substr(0, n)), "refused") << n;
  EXPECT_EQ(body_of(good), "abc");
}

void add(tq::ResponseText& response, std::string_view piece) {
  const std::span<uint8_t> room = response.room();
  ASSERT_GE(room.size(), piece.size());
  std::copy(piece.begin(), piece.end(), room.begin());
  response.add(piece.size());
}

TEST(HttpResponse, TextOfPieces) {
  const struct {
    std::vector<std::string> pieces;
    std::string text;
    bool complete;
  } cases[] = {
      {{}, "", false},
      {{"0\r\n\r\n"}, "0\r\n\r\n", false},  // one character too short
      {{"x0\r\n\r\n"}, "x0\r\n\r\n", true},
      {{"x", "0\r", "\n", "\r\n"}, "x0\r\n\r\n", true},
      {{"x0\r\n\r\ny"}, "x0\r\n\r\ny", false},
      {{std::string("ab\0cd", 5), "x0\r\n\r\n"}, "abx0\r\n\r\n", true},
      {{std::string(1, '\0'), "x"}, "x", false},
  };
  for (const auto& c : cases) {
    tq::ResponseText response;
    for (const std::string& piece : c.pieces) add(response, piece);
    EXPECT_EQ(response.text(), c.text);
    EXPECT_EQ(response.complete(), c.complete) << c.text;
  }
}

TEST(HttpResponse, TextGrowsUpToItsLimit) {
  tq::ResponseText response;
  std::string all;
  const std::string piece = "0123456789abcdef" + std::string(1000, '.');
  while (all.size() + tq::ResponseText::kLargestPiece <= tq::ResponseText::kLongest) {
    add(response, piece);
    all += piece;
  }
  EXPECT_EQ(response.text(), all);
  EXPECT_TRUE(response.room().empty());
  EXPECT_EQ(response.text(), all);
}

}  // namespace
