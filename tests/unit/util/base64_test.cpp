#include "util/base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>

#include "support/bytes.hpp"

namespace {

using namespace test;

struct Base64Set {
  decltype(&BASE64encode) encode;
  decltype(&BASE64decode) decode;
};

class Base64 : public testing::TestWithParam<Base64Set> {
 protected:
  // The characters written into a heap block of exactly `capacity`.
  static std::string encode(const Bytes& plain, int32_t capacity) {
    std::vector<char> room(static_cast<size_t>(std::max(capacity, 0)));
    const int32_t n =
        GetParam().encode(plain.data(), static_cast<int32_t>(plain.size()), room.data(), capacity);
    return {room.data(), static_cast<size_t>(n)};
  }

  static std::string decode(std::string_view text, int32_t n, int32_t capacity) {
    Bytes room(static_cast<size_t>(std::max(capacity, 0)));
    const int32_t written = GetParam().decode(exact_text(text).data(), n, room.data(), capacity);
    return hex(room.data(), static_cast<size_t>(written));
  }
};
INSTANTIATE_TEST_SUITE_P(BothNames, Base64,
                         testing::Values(Base64Set{BASE64encode, BASE64decode},
                                         Base64Set{scpBASE64encode, scpBASE64decode}));

TEST_P(Base64, PublishedVectors) {  // RFC 4648 section 10
  const std::string_view vectors[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (size_t n = 0; n < std::size(vectors); ++n) {
    const Bytes plain = exact_copy(from_text("foobar"), n);
    EXPECT_EQ(encode(plain, 12), vectors[n]);
    EXPECT_EQ(decode(vectors[n], static_cast<int32_t>(vectors[n].size()), 6), hex(plain));
  }
}

TEST_P(Base64, AgreesWithOpenSsl) {
  std::mt19937 generator(2);
  for (size_t n = 1; n <= 300; ++n) {
    const Bytes bytes = random_bytes(generator, n);
    Bytes expected(4 * ((n + 2) / 3) + 1);
    const int length = EVP_EncodeBlock(expected.data(), bytes.data(), static_cast<int>(n));
    const std::string text(expected.begin(), expected.begin() + length);
    ASSERT_EQ(encode(bytes, length + 4), text);
    ASSERT_EQ(decode(text, length, static_cast<int32_t>(n)), hex(bytes));
  }
}

TEST_P(Base64, EncoderStopsWhereTheNextGroupMightNotFit) {
  const struct {
    size_t num_zeros;
    int32_t capacity;
    const char* text;
  } cases[] = {{1, 8, "AA=="},      {1, 7, "AAAA"},     {1, 4, "AAAA"},     {1, 3, ""},
               {1, -1, ""},         {4, 7, "AAAA"},     {4, 8, "AAAAAAAA"}, {4, 12, "AAAAAA=="},
               {4, 11, "AAAAAAAA"}, {5, 12, "AAAAAAA="}};
  for (const auto& c : cases) EXPECT_EQ(encode(Bytes(c.num_zeros), c.capacity), c.text) << c.capacity;
}

TEST_P(Base64, DecoderBearsAnything) {
  const struct {
    std::string_view text;
    int32_t n;
    std::string_view bytes;
  } cases[] = {
      {"QQ==QUJD", 8, "41"},  // a '=' in its place ends the text
      {"QUI=QUJD", 8, "4142"},
      {"=QUJ", 4, "010509"},  // elsewhere '=' counts as zero
      {"Q*JD", 4, "400243"},
      {"QUJD", 0, ""},
      {"QUJD", -4, ""},
      {"QUJDRA", 6, "41424344ffff"},  // NULs, read or not, are all ones
      {"QUJDRA", 5, "41424344ffff"},  // a group is read whole, beyond the length too
      {{"QU\0DQUJD", 8}, 8, "41ffc3414243"},
      {"QUJDR", 6, "414243ffffff"},  // a NUL within the length is the last thing read, too
  };
  for (const auto& c : cases) {
    for (int32_t capacity = -1; capacity <= 8; ++capacity) {  // never written beyond
      EXPECT_EQ(decode(c.text, c.n, capacity),
                c.bytes.substr(0, 2 * static_cast<size_t>(std::max(capacity, 0))))
          << c.text << " " << c.n << " into " << capacity;
    }
  }
}

TEST_P(Base64, NullGivesNothing) {
  uint8_t byte = 1;
  char room[8] = "";
  EXPECT_EQ(GetParam().encode(nullptr, 1, room, 8), 0);
  EXPECT_EQ(GetParam().encode(&byte, 1, nullptr, 8), 0);
  EXPECT_EQ(GetParam().decode(nullptr, 4, &byte, 1), 0);
  EXPECT_EQ(GetParam().decode("QQ==", 4, nullptr, 1), 0);
}

}  // namespace
