// Protected records: what a peer on the network cannot show, because it takes 2^64 records or every padding
// there is.
#include "tls/record_protection.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <random>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"
#include "tls/record_mac.hpp"

namespace {

using test::Bytes;
using test::operator+;
using namespace tq::tls;

class Counting final : public RandomSource {
 public:
  bool fill(std::span<uint8_t> out) override {
    for (uint8_t& byte : out) byte = next_++;
    return !empty;
  }
  bool empty = false;

 private:
  uint8_t next_ = 1;
};

constexpr size_t kRoom = 400;
const Bytes kMacKey(32, 0x0A);
const Bytes kCipherKey(kCipherKeyLen, 0x0C);

void start(RecordProtection& protection, const Suite& suite, uint64_t sequence_number) {
  protection.start(suite, std::span(kMacKey).first(suite.mac_len),
                   std::span(kCipherKey).first<kCipherKeyLen>(), sequence_number);
}

// Seals and opens one record; how long its content was, -1 when it was refused.
int pass(RecordProtection& from, RecordProtection& to, RandomSource& random, size_t len) {
  Bytes fragment(kRoom + kMaxSealingLen, 0xEE);
  const size_t fragment_len = from.seal(ContentType::kApplicationData, Bytes(len, 'x'), random, fragment);
  if (fragment_len == 0) return -1;
  Bytes exact = test::exact_copy(fragment, fragment_len);
  std::span<uint8_t> content;
  if (!to.open(ContentType::kApplicationData, exact, content)) return -1;
  EXPECT_EQ(Bytes(content.begin(), content.end()), Bytes(len, 'x'));
  return static_cast<int>(content.size());
}

// Numbers have 64 bits, and the last is never used: nothing is sealed with it, nor opened.
TEST(RecordProtection, SequenceNumbers) {
  constexpr uint64_t kLast = std::numeric_limits<uint64_t>::max();
  const struct {
    uint64_t from, to;
    std::vector<int> lengths;  // of the content of records that pass, one after the other
  } cases[] = {{0, 0, {5, 5}},
               {0xFF, 0xFF, {5, 5}},
               {0xFFFFFFFF, 0xFFFFFFFF, {5, 5}},
               {uint64_t{1} << 63, uint64_t{1} << 63, {5, 5}},
               {0, uint64_t{1} << 32, {-1}},
               {kLast - 2, kLast - 2, {5, 5, -1}},
               {kLast - 1, kLast, {-1}},
               {kLast, kLast - 1, {-1}}};
  for (const Suite& suite : kSuites) {
    for (const auto& c : cases) {
      Counting random;
      RecordProtection from;
      RecordProtection to;
      start(from, suite, c.from);
      start(to, suite, c.to);
      for (const int len : c.lengths) EXPECT_EQ(pass(from, to, random, 5), len) << c.from << " to " << c.to;
    }
  }
}

TEST(RecordProtection, NoRecordWithoutRandomBytes) {
  Counting random;
  random.empty = true;
  RecordProtection from;
  start(from, kSuites[0], 0);
  Bytes out(kRoom);
  EXPECT_EQ(from.seal(ContentType::kApplicationData, Bytes(10, 'x'), random, out), 0U);
  EXPECT_EQ(out, Bytes(kRoom)) << "content and MAC are wiped";
}

// --- the check of CBC blocks against one that is written down as it is read, with OpenSSL's HMAC ---

Bytes openssl_record_mac(Mac mac, const Bytes& key, const Bytes& content) {
  const Bytes len = {static_cast<uint8_t>(content.size() >> 8), static_cast<uint8_t>(content.size())};
  const EVP_MD* const md = mac == Mac::kSha256 ? EVP_sha256() : mac == Mac::kSha1 ? EVP_sha1() : EVP_md5();
  return test::openssl_hmac(md, key, test::from_hex("0000000000000009 17 0303") + len + content);
}

// The length of the content, or nothing.
std::optional<size_t> naive_check(const Suite& suite, const Bytes& key, const Bytes& blocks) {
  const size_t padding_len = blocks.back();
  if (padding_len + 1 + suite.mac_len > blocks.size()) return std::nullopt;
  for (size_t i = 0; i <= padding_len; ++i) {
    if (blocks[blocks.size() - 1 - i] != padding_len) return std::nullopt;
  }
  const size_t len = blocks.size() - padding_len - 1 - suite.mac_len;
  const Bytes mac(blocks.begin() + static_cast<ptrdiff_t>(len),
                  blocks.begin() + static_cast<ptrdiff_t>(len + suite.mac_len));
  if (mac != openssl_record_mac(suite.mac, key, test::exact_copy(blocks, len))) return std::nullopt;
  return len;
}

void expect_like_naive(const Suite& suite, const Bytes& key, const Bytes& blocks, bool good) {
  const CbcContent found = check_cbc_blocks(suite.mac, key, {9, ContentType::kApplicationData}, blocks);
  const auto expected = naive_check(suite, key, blocks);
  ASSERT_EQ(expected.has_value(), good) << "the test itself";
  ASSERT_EQ(found.good, good ? ~tq::Mask{0} : 0);
  ASSERT_EQ(found.len, expected.value_or(0));
}

TEST(CbcCheck, EveryPaddingAndEveryChange) {
  std::mt19937 generator(20);
  for (const Suite& suite : kSuites) {
    const Bytes key = test::random_bytes(generator, suite.mac_len);
    for (const size_t size : {48, 64, 288, 320}) {
      for (size_t padding_len = 0; padding_len < 256 && padding_len + 1 + suite.mac_len <= size;
           ++padding_len) {
        Bytes blocks = test::random_bytes(generator, size - padding_len - 1 - suite.mac_len);
        const Bytes mac = openssl_record_mac(suite.mac, key, blocks);
        blocks.insert(blocks.end(), mac.begin(), mac.end());
        blocks.insert(blocks.end(), padding_len + 1, static_cast<uint8_t>(padding_len));
        expect_like_naive(suite, key, blocks, true);
        const bool all_places = padding_len % 85 == 0;
        const size_t stride = all_places ? 1 : 1 + generator() % size;
        for (size_t at = all_places ? 0 : generator() % size; at < size; at += stride) {
          Bytes changed = blocks;
          changed[at] = static_cast<uint8_t>(changed[at] ^ 1U << generator() % 8);
          expect_like_naive(suite, key, changed, false);
        }
      }
    }
  }
}

}  // namespace
