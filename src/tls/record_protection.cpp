#include "tls/record_protection.hpp"

#include <algorithm>
#include <limits>

#include "crypto/constant_time.hpp"
#include "tls/record_mac.hpp"
#include "util/byte_cursor.hpp"

namespace tq::tls {

namespace {

constexpr size_t kBlockLen = Aes128::kBlockLen;

}  // namespace

void RecordProtection::start(const Suite& suite, std::span<const uint8_t> mac_key,
                             std::span<const uint8_t, kCipherKeyLen> cipher_key, uint64_t sequence_number) {
  suite_ = &suite;
  std::copy(mac_key.begin(), mac_key.end(), mac_key_.data());
  sequence_number_ = sequence_number;
  if (suite.cipher == Cipher::kAes128Cbc) {
    aes_.emplace(cipher_key);
  } else {
    rc4_.emplace(cipher_key);
  }
}

size_t RecordProtection::seal(ContentType type, std::span<const uint8_t> content, RandomSource& random,
                              std::span<uint8_t> out) {
  if (!started()) return copy_bytes(content, out) ? content.size() : 0;
  if (sequence_number_ == std::numeric_limits<uint64_t>::max()) return 0;
  const size_t start = aes_ ? kBlockLen : 0;
  const size_t plain_len = content.size() + suite_->mac_len;
  const auto plain = out.subspan(start);
  if (!copy_bytes(content, plain)) return 0;
  record_mac(suite_->mac, mac_key(), {sequence_number_, type}, content,
             plain.subspan(content.size(), suite_->mac_len));
  ++sequence_number_;
  if (aes_) return seal_cbc(*aes_, out, plain_len, random);
  if (!rc4_) return 0;
  rc4_->apply(plain.first(plain_len), plain);
  return plain_len;
}

// Content and MAC stand behind the place of the vector. The padding is as short as it can be.
size_t RecordProtection::seal_cbc(const Aes128& aes, std::span<uint8_t> out, size_t plain_len,
                                  RandomSource& random) {
  const size_t padding_len = kBlockLen - plain_len % kBlockLen;
  const auto padding = out.subspan(kBlockLen + plain_len, padding_len);
  std::fill(padding.begin(), padding.end(), static_cast<uint8_t>(padding_len - 1));
  Secret<kBlockLen> vector;
  const auto blocks = out.subspan(kBlockLen, plain_len + padding_len);
  if (!random.fill(vector.bytes())) {
    wipe(out);
    return 0;
  }
  std::copy(vector.bytes().begin(), vector.bytes().end(), out.begin());
  aes128_cbc_encrypt(aes, vector.bytes(), blocks, blocks);
  return kBlockLen + blocks.size();
}

bool RecordProtection::open(ContentType type, std::span<uint8_t> fragment, std::span<uint8_t>& content) {
  if (!started()) {
    content = fragment;
    return true;
  }
  if (sequence_number_ == std::numeric_limits<uint64_t>::max()) return false;
  const bool good =
      aes_ ? open_cbc(*aes_, type, fragment, content) : rc4_ && open_stream(*rc4_, type, fragment, content);
  ++sequence_number_;
  return good;
}

bool RecordProtection::open_cbc(const Aes128& aes, ContentType type, std::span<uint8_t> fragment,
                                std::span<uint8_t>& content) {
  if (fragment.size() % kBlockLen != 0 || fragment.size() < kBlockLen + suite_->mac_len + 1) return false;
  const auto blocks = fragment.subspan(kBlockLen);
  aes128_cbc_decrypt(aes, fragment.first<kBlockLen>(), blocks, blocks);
  const CbcContent found = check_cbc_blocks(suite_->mac, mac_key(), {sequence_number_, type}, blocks);
  if (found.good == 0) {
    wipe(blocks);
    return false;
  }
  content = blocks.first(found.len);
  return true;
}

bool RecordProtection::open_stream(Rc4& rc4, ContentType type, std::span<uint8_t> fragment,
                                   std::span<uint8_t>& content) {
  if (fragment.size() < suite_->mac_len) return false;
  rc4.apply(fragment, fragment);
  const auto plain = fragment.first(fragment.size() - suite_->mac_len);
  Secret<kMaxMacLen> mac;
  const auto expected = mac.bytes().first(suite_->mac_len);
  record_mac(suite_->mac, mac_key(), {sequence_number_, type}, plain, expected);
  if (!ct_equal(expected, fragment.subspan(plain.size()))) {
    wipe(fragment);
    return false;
  }
  content = plain;
  return true;
}

}  // namespace tq::tls
