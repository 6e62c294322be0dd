#include "passport/secure_channel.hpp"

#include <algorithm>

#include "crypto/constant_time.hpp"
#include "passport/padding.hpp"
#include "passport/three_des.hpp"
#include "util/byte_cursor.hpp"
#include "util/tlv.hpp"

namespace tq {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kMacLen = 8;

// Data objects of ISO/IEC 7816-4 secure messaging.
constexpr uint8_t kTagCryptogram = 0x87;
constexpr uint8_t kTagTlvCryptogram = 0x85;  // of an odd instruction
constexpr uint8_t kTagLe = 0x97;
constexpr uint8_t kTagStatus = 0x99;
constexpr uint8_t kTagMac = 0x8E;
constexpr uint8_t kPaddedContent = 0x01;  // padding indicator: first byte of the value of DO87
constexpr uint8_t kLengthOfOneByte = 0x81;

// Commands. Their length field has one byte, which limits the objects in front of the MAC's.
constexpr uint8_t kProtectedClass = 0x0C;
constexpr size_t kHeaderLen = 4;
constexpr size_t kMacObjectLen = 2 + kMacLen;
constexpr size_t kObjectsMax = 0xFF - kMacObjectLen;
constexpr size_t kBlockMax = 16;
constexpr size_t kMacInputMax = padded_len(2 * kBlockMax + kObjectsMax, kBlockMax);

constexpr size_t kAnswerMax = 256;  // what an expected length of one byte can ask for, 00 meaning 256
constexpr size_t kAnswerFraming = 4 + 4 + kMacObjectLen;  // head of DO87 with indicator, DO99, DO8E

struct ProtectedAnswer {
  Bytes authenticated;  // the objects in front of the MAC's, as they came
  Bytes cryptogram;     // whole blocks, or nothing
  Bytes mac;
  size_t len = 0;  // of all objects
};

bool next_is(const ByteReader& r, uint8_t tag) {
  return !r.done() && r.rest()[0] == tag;
}

bool take_cryptogram(ByteReader& r, size_t block_len, Bytes& cryptogram) {
  uint8_t tag = 0;
  uint32_t len = 0;
  if (!r.u8(tag) || read_length(r, kChipLengths, len) != LengthField::kRead) return false;
  const uint32_t indicator_len = tag == kTagCryptogram ? 1 : 0;
  if (len <= indicator_len || !r.skip(indicator_len) || !r.take(len - indicator_len, cryptogram))
    return false;
  return cryptogram.size() % block_len == 0;
}

bool skip_status(ByteReader& r) {
  uint8_t len = 0;
  return r.skip(1) && r.u8(len) && r.skip(len);
}

bool parse_answer(Bytes answer, size_t block_len, ProtectedAnswer& out) {
  ByteReader r(answer);
  ProtectedAnswer a;
  uint8_t tag = 0;
  uint8_t len = 0;
  const bool has_data = next_is(r, kTagCryptogram) || next_is(r, kTagTlvCryptogram);
  if (has_data && !take_cryptogram(r, block_len, a.cryptogram)) return false;
  if (next_is(r, kTagStatus) && !skip_status(r)) return false;
  a.authenticated = answer.first(answer.size() - r.size());
  if (!r.u8(tag) || !r.u8(len) || tag != kTagMac || len != kMacLen || !r.take(len, a.mac)) return false;
  a.len = answer.size() - r.size();
  out = a;
  return true;
}

}  // namespace

void SecureChannel::start(const SessionKeys& keys, Bytes counter) {
  keys_.suite = keys.suite;
  std::copy_n(keys.enc.data(), keys.enc.size(), keys_.enc.data());
  std::copy_n(keys.mac.data(), keys.mac.size(), keys_.mac.data());
  counter_.fill(0);
  const Bytes low = counter.last(std::min(counter.size(), counter_.size()));
  std::copy(low.begin(), low.end(), counter_.end() - static_cast<ptrdiff_t>(low.size()));
}

bool SecureChannel::protect(const PlainCommand& command, std::span<uint8_t> out, size_t& len) {
  const size_t block = block_len(keys_.suite);
  const size_t content_len = command.data.empty() ? 0 : padded_len(command.data.size(), block);
  const size_t value_len = content_len + (command.data_is_tlv ? 0 : 1);
  const size_t data_object_len = content_len == 0 ? 0 : value_len + (value_len < 0x80 ? 2 : 3);
  const size_t objects_len = data_object_len + (command.le ? 3 : 0);
  if (command.data.size() > kObjectsMax || objects_len > kObjectsMax) return false;

  advance();
  const std::array<uint8_t, kHeaderLen> header = {kProtectedClass, command.header[1], command.header[2],
                                                  command.header[3]};
  Secret<kMacInputMax> mac_input;
  ByteWriter w(mac_input.bytes());
  w.bytes(counter());
  w.bytes(header);
  w.u8(kPaddingStart);
  w.fill(0x00, 2 * block - w.size());
  const size_t num_before = w.size();
  if (content_len != 0) {
    w.u8(command.data_is_tlv ? kTagTlvCryptogram : kTagCryptogram);
    if (value_len >= 0x80) w.u8(kLengthOfOneByte);
    w.u8(static_cast<unsigned>(value_len));
    if (!command.data_is_tlv) w.u8(kPaddedContent);
    const size_t at = w.size();
    w.bytes(command.data);
    w.fill(0x00, content_len - command.data.size());
    const std::span<uint8_t> content = mac_input.bytes().subspan(at, content_len);
    pad(content, command.data.size(), block);
    if (!encrypt(content)) return false;
  }
  if (command.le) {
    w.u8(kTagLe);
    w.u8(1);
    w.u8(*command.le);
  }
  if (!w.ok()) return false;
  const Bytes objects = w.written().subspan(num_before);
  Mac mac{};
  compute_mac(pad(mac_input.bytes(), w.size(), block), mac);

  if (out.size() < kHeaderLen + 1 + objects.size() + kMacObjectLen + 1) return false;
  ByteWriter sent(out);
  sent.bytes(header);
  sent.u8(static_cast<unsigned>(objects.size() + kMacObjectLen));
  sent.bytes(objects);
  sent.u8(kTagMac);
  sent.u8(kMacLen);
  sent.bytes(mac);
  sent.u8(0);
  len = sent.size();
  return sent.ok();
}

Opened SecureChannel::open(Bytes answer, std::span<uint8_t> out, size_t& len) {
  const size_t block = block_len(keys_.suite);
  ProtectedAnswer parts;
  if (!parse_answer(answer, block, parts)) return Opened::kMalformed;
  // For the MAC's input, and then for the deciphered data, which are shorter.
  std::array<uint8_t, 16> counter_before = counter_;
  const WipeOnExit wipe_counter(counter_before);
  advance();
  const size_t input_len = block + parts.authenticated.size();
  ScratchBuffer work(padded_len(input_len, block));
  ByteWriter w(work.bytes());
  w.bytes(counter());
  w.bytes(parts.authenticated);
  Mac mac{};
  if (w.ok()) compute_mac(pad(work.bytes(), input_len, block), mac);
  if (!w.ok() || !ct_equal(mac, parts.mac) || !decrypt(parts.cryptogram, work.bytes())) {
    counter_ = counter_before;
    return Opened::kNotAuthentic;
  }
  const Bytes data = without_padding(work.bytes().first(parts.cryptogram.size()));
  len = std::min(data.size(), out.size());
  static_cast<void>(copy_bytes(data.first(len), out));
  return Opened::kYes;
}

size_t SecureChannel::objects_len(Bytes answer) const {
  ProtectedAnswer parts;
  return parse_answer(answer, block_len(keys_.suite), parts) ? parts.len : 0;
}

size_t SecureChannel::most_data() const {
  if (keys_.suite == CipherSuite::k3Des) return 0xFF;
  const size_t block = block_len(keys_.suite);
  return (kAnswerMax - kAnswerFraming) / block * block - 1;
}

void SecureChannel::advance() {
  for (size_t i = counter_.size(); i > counter_.size() - block_len(keys_.suite); --i) {
    if (++counter_[i - 1] != 0) return;
  }
}

bool SecureChannel::encrypt(std::span<uint8_t> blocks) const {
  if (keys_.suite == CipherSuite::k3Des)
    return three_des_encrypt(keys_.enc.bytes().first<kTwoKeyLen>(), blocks, blocks.data());
  const Aes key(keys_.enc.bytes().first(key_len(keys_.suite)));
  Secret<Aes::kBlockLen> vector;
  make_vector(key, vector.bytes());
  aes_cbc_encrypt(key, vector.bytes(), blocks, blocks);
  return true;
}

bool SecureChannel::decrypt(Bytes blocks, std::span<uint8_t> out) const {
  if (keys_.suite == CipherSuite::k3Des)
    return three_des_decrypt(keys_.enc.bytes().first<kTwoKeyLen>(), blocks, out.data());
  const Aes key(keys_.enc.bytes().first(key_len(keys_.suite)));
  Secret<Aes::kBlockLen> vector;
  make_vector(key, vector.bytes());
  aes_cbc_decrypt(key, vector.bytes(), blocks, out);
  return true;
}

// Of AES: the counter, encrypted.
void SecureChannel::make_vector(const Aes& key, std::span<uint8_t, Aes::kBlockLen> out) const {
  Secret<Aes::kBlockLen> zeros;
  aes_cbc_encrypt(key, zeros.bytes(), counter_, out);
}

void SecureChannel::compute_mac(Bytes blocks, Mac& out) const {
  if (keys_.suite == CipherSuite::k3Des) {
    retail_mac(keys_.mac.bytes().first<kTwoKeyLen>(), blocks, out);
    return;
  }
  const Aes key(keys_.mac.bytes().first(key_len(keys_.suite)));
  Cmac cmac(key);
  Secret<Cmac::kMacLen> whole;
  cmac.update(blocks);
  cmac.finish(whole.bytes());
  std::copy_n(whole.data(), out.size(), out.begin());
}

}  // namespace tq
