#include "tls/record_mac.hpp"

#include <algorithm>
#include <array>

#include "crypto/hmac.hpp"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq::tls {

namespace {

constexpr size_t kMaxPaddingLen = 255;  // without the length byte behind it
constexpr size_t kMacHeaderLen = 13;

// Calls `use` with an object of the MAC's hash, for its type.
template <typename Use>
auto with_hash(Mac mac, Use&& use) {
  switch (mac) {
    case Mac::kSha256:
      return use(Sha256());
    case Mac::kSha1:
      return use(Sha1());
    case Mac::kMd5:
      break;
  }
  return use(Md5());
}

// seq_num + type + version + length. The length may be secret.
std::array<uint8_t, kMacHeaderLen> mac_header(const RecordIdentity& record, size_t content_len) {
  std::array<uint8_t, kMacHeaderLen> header{};
  ByteWriter w(header);
  w.number(static_cast<uint32_t>(record.sequence_number >> 32), 4);
  w.number(static_cast<uint32_t>(record.sequence_number), 4);
  w.u8(static_cast<unsigned>(record.type));
  w.number(kTls12, 2);
  w.number(static_cast<uint32_t>(content_len), 2);
  return header;
}

// Copies the `out.size()` bytes that start at the secret place `at` of `in`, at most `last_at`. All of the
// bytes that could be meant are read.
void copy_from_secret_place(std::span<const uint8_t> in, size_t first_at, size_t last_at, size_t at,
                            std::span<uint8_t> out) {
  std::fill(out.begin(), out.end(), uint8_t{0});
  for (size_t candidate = first_at; candidate <= last_at; ++candidate) {
    const auto chosen = static_cast<uint8_t>(equal_mask(candidate, at));
    for (size_t i = 0; i < out.size(); ++i) {
      out[i] = static_cast<uint8_t>(out[i] | (in[candidate + i] & chosen));
    }
  }
}

// The padding length, 0 where the padding is wrong: then the MAC is computed as if there were none.
size_t check_padding(std::span<const uint8_t> blocks, size_t mac_len, Mask& good) {
  const size_t padding_len = blocks.back();
  good = at_most_mask(padding_len + 1 + mac_len, blocks.size());
  const size_t longest = std::min(kMaxPaddingLen + 1, blocks.size());
  size_t difference = 0;
  for (size_t i = 0; i < longest; ++i) {
    difference |= at_most_mask(i, padding_len) & (blocks[blocks.size() - 1 - i] ^ padding_len);
  }
  good &= equal_mask(difference, 0);
  return padding_len & good;
}

template <class Hash>
CbcContent check_blocks(std::span<const uint8_t> key, const RecordIdentity& record,
                        std::span<const uint8_t> blocks) {
  constexpr size_t kMacLen = Hash::kDigestLen;
  Mask good = 0;
  const size_t padding_len = check_padding(blocks, kMacLen, good);
  const size_t longest = blocks.size() - kMacLen - 1;
  const size_t shortest = longest - std::min(longest, kMaxPaddingLen);
  const size_t content_len = longest - padding_len;

  Secret<kMacLen> expected;
  Hmac<Hash> hmac(key);
  hmac.update(mac_header(record, content_len));
  hmac.update(blocks.first(shortest));
  hmac.finish_hiding_length(blocks.subspan(shortest, longest - shortest), content_len - shortest,
                            expected.bytes());
  Secret<kMacLen> received;
  copy_from_secret_place(blocks, shortest, longest, content_len, received.bytes());
  good &= equal_mask(expected.bytes(), received.bytes());
  return {good, content_len & good};
}

}  // namespace

void record_mac(Mac mac, std::span<const uint8_t> key, const RecordIdentity& record,
                std::span<const uint8_t> content, std::span<uint8_t> out) {
  with_hash(mac, [&]<class Hash>(const Hash& /*hash*/) {
    Hmac<Hash> hmac(key);
    hmac.update(mac_header(record, content.size()));
    hmac.update(content);
    hmac.finish(out.first<Hash::kDigestLen>());
  });
}

CbcContent check_cbc_blocks(Mac mac, std::span<const uint8_t> key, const RecordIdentity& record,
                            std::span<const uint8_t> blocks) {
  return with_hash(mac,
                   [&]<class Hash>(const Hash& /*hash*/) { return check_blocks<Hash>(key, record, blocks); });
}

}  // namespace tq::tls
