#include "util/base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>

#include "support/bytes.hpp"

namespace {

using test::Bytes;
using test::exact_text;

struct Base64Set {
  const char* name;
  int32_t (*encode)(const uint8_t*, int32_t, char*, int32_t);
  int32_t (*decode)(const char*, int32_t, uint8_t*, int32_t);
};
const Base64Set kSets[] = {{"protocol", BASE64encode, BASE64decode},
                           {"location", scpBASE64encode, scpBASE64decode}};

// RFC 4648 section 10.
struct Vector {
  std::string_view plain;
  std::string_view encoded;
};
constexpr Vector kVectors[] = {{"", ""},
                               {"f", "Zg=="},
                               {"fo", "Zm8="},
                               {"foo", "Zm9v"},
                               {"foob", "Zm9vYg=="},
                               {"fooba", "Zm9vYmE="},
                               {"foobar", "Zm9vYmFy"}};

int32_t len_of(std::string_view text) {
  return static_cast<int32_t>(text.size());
}

TEST(Base64, PublishedVectors) {
  for (const auto& set : kSets) {
    for (const auto& v : kVectors) {
      std::string text(v.encoded.size() + 4, '#');
      const Bytes plain = test::from_text(v.plain);
      EXPECT_EQ(set.encode(plain.data(), len_of(v.plain), text.data(), len_of(text)), len_of(v.encoded));
      EXPECT_EQ(text, std::string(v.encoded) + "####") << set.name;
      Bytes bytes(v.plain.size());
      EXPECT_EQ(set.decode(exact_text(v.encoded).data(), len_of(v.encoded), bytes.data(), len_of(v.plain)),
                len_of(v.plain));
      EXPECT_EQ(bytes, plain) << set.name;
    }
  }
}

TEST(Base64, AgreesWithOpenSsl) {
  std::mt19937 generator(2);
  for (size_t n = 1; n <= 300; ++n) {
    const Bytes bytes = test::random_bytes(generator, n);
    std::string expected(4 * ((n + 2) / 3) + 1, '#');
    expected.resize(static_cast<size_t>(
        EVP_EncodeBlock(reinterpret_cast<uint8_t*>(expected.data()), bytes.data(), static_cast<int>(n))));
    std::string text(expected.size() + 4, '\0');
    ASSERT_EQ(BASE64encode(bytes.data(), static_cast<int32_t>(n), text.data(), len_of(text)),
              len_of(expected));
    ASSERT_EQ(text.substr(0, expected.size()), expected);
    Bytes decoded(n);
    ASSERT_EQ(BASE64decode(text.c_str(), len_of(expected), decoded.data(), static_cast<int32_t>(n)),
              static_cast<int32_t>(n));
    ASSERT_EQ(decoded, bytes);
  }
}

TEST(Base64, EncoderStopsWhereTheNextGroupMightNotFit) {
  struct Case {
    size_t plain_len;  // zero bytes
    int32_t capacity;
    const char* text;
  };
  const Case cases[] = {{1, 16, "AA=="}, {1, 8, "AA=="},      {1, 7, "AAAA"},      {1, 4, "AAAA"},
                        {1, 3, ""},      {1, 0, ""},          {1, -1, ""},         {0, 16, ""},
                        {3, 4, "AAAA"},  {4, 11, "AAAAAAAA"}, {4, 12, "AAAAAA=="}, {4, 8, "AAAAAAAA"},
                        {4, 7, "AAAA"},  {5, 12, "AAAAAAA="}};
  for (const auto& c : cases) {
    const Bytes plain(c.plain_len);
    std::vector<char> room(static_cast<size_t>(std::max(c.capacity, 0)));
    const int32_t len =
        BASE64encode(plain.data(), static_cast<int32_t>(c.plain_len), room.data(), c.capacity);
    EXPECT_EQ(std::string(room.data(), static_cast<size_t>(len)), c.text)
        << c.plain_len << " in " << c.capacity;
  }
}

TEST(Base64, DecoderBearsAnything) {
  struct Case {
    std::string_view text;
    int32_t n;
    const char* bytes;
  };
  const Case cases[] = {
      {"QQ==", 4, "41"},
      {"QQ==QUJD", 8, "41"},  // a '=' in its place ends the text
      {"QUI=QUJD", 8, "4142"},
      {"=QUJ", 4, "010509"},  // elsewhere '=' counts as zero
      {"Q*JD", 4, "400243"},
      {"QUJD", 0, ""},
      {"QUJD", -4, ""},
      {"QUJDRA", 6, "41424344ffff"},  // NULs, read or not, are all ones
      {"QUJDR", 5, "414243ffffff"},
      {"QUJDRUY", 7, "4142434546ff"},
      {"QUJDR", 6, "414243ffffff"},  // a NUL within the length is the last thing read, too
  };
  for (const auto& set : kSets) {
    for (const auto& c : cases) {
      const auto text = exact_text(c.text);
      Bytes room(16);
      const int32_t len = set.decode(text.data(), c.n, room.data(), 16);
      EXPECT_EQ(test::hex(room.data(), static_cast<size_t>(len)), c.bytes)
          << set.name << " " << c.text << " " << c.n;
    }
  }
}

TEST(Base64, DecoderNeverWritesBeyondItsRoom) {
  const auto text = exact_text("QUJDREVGR0hJ");
  const std::string plain = "ABCDEFGHI";
  for (int32_t capacity = -1; capacity <= 12; ++capacity) {
    Bytes room(static_cast<size_t>(std::max(capacity, 0)));
    const int32_t len = BASE64decode(text.data(), 12, room.data(), capacity);
    EXPECT_EQ(len, std::clamp(capacity, 0, 9));
    EXPECT_EQ(std::string(room.begin(), room.begin() + len), plain.substr(0, static_cast<size_t>(len)));
  }
}

TEST(Base64, NullGivesNothing) {
  uint8_t byte = 1;
  char room[8] = "";
  EXPECT_EQ(BASE64encode(nullptr, 1, room, 8), 0);
  EXPECT_EQ(BASE64encode(&byte, 1, nullptr, 8), 0);
  EXPECT_EQ(BASE64decode(nullptr, 4, &byte, 1), 0);
  EXPECT_EQ(BASE64decode("QQ==", 4, nullptr, 1), 0);
}

}  // namespace
