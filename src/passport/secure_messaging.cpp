#include "passport/secure_messaging.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>

#include "crypto/des.h"
#include "passport/three_des.hpp"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kBlockLen = tq::kDesBlockLen;
constexpr size_t kMacLen = 8;
constexpr size_t kSscLen = 8;
constexpr uint8_t kPaddingStart = 0x80;

// Data objects of ISO/IEC 7816-4 secure messaging, as in ICAO 9303-11 section 9.8.
constexpr uint8_t kTagCryptogram = 0x87;
constexpr uint8_t kTagLe = 0x97;
constexpr uint8_t kTagStatus = 0x99;
constexpr uint8_t kTagMac = 0x8E;
constexpr uint8_t kPaddedContent = 0x01;  // first byte of the value of a cryptogram
constexpr uint8_t kLengthOfOneByte = 0x81;
constexpr uint8_t kLengthOfTwoBytes = 0x82;

// Commands. Their length field has one byte, which limits the objects in front of the MAC's.
constexpr uint8_t kProtectedClass = 0x0C;
constexpr size_t kHeaderLen = 4;
constexpr size_t kDataAt = 5;
constexpr size_t kShortestWithData = 7;
constexpr size_t kMacObjectLen = 2 + kMacLen;
constexpr size_t kObjectsMax = 0xFF - kMacObjectLen;
constexpr size_t kBeforeObjects = kSscLen + kBlockLen;  // of a command's MAC input: counter and padded header
constexpr std::array<uint8_t, kDataAt> kInternalAuthenticate = {0x00, 0x88, 0x00, 0x00, 0x08};

using Mac = tq::Secret<kMacLen>;

constexpr size_t padded_len(size_t len) {
  return (len / kBlockLen + 1) * kBlockLen;
}

// Pads the first `len` bytes of `input`, which has room for it, and computes their MAC.
bool compute_mac(tq::ScratchBuffer& input, size_t len, const uint8_t* ksmac, Mac& mac) {
  const int32_t padded = RP_doPadding(input.data(), static_cast<uint32_t>(len), input.data());
  return padded > 0 && create_message_auth_code(input.data(), static_cast<uint32_t>(padded), ksmac,
                                                mac.data(), kMacLen) == 0;
}

// Takes the same time wherever they differ.
bool equal_macs(std::span<const uint8_t, kMacLen> a, std::span<const uint8_t, kMacLen> b) {
  unsigned difference = 0;
  for (size_t i = 0; i < kMacLen; ++i) difference |= static_cast<unsigned>(a[i] ^ b[i]);
  return difference == 0;
}

bool write_cryptogram(tq::ByteWriter& w, Bytes data, const uint8_t* ksenc) {
  if (data.size() > kObjectsMax) return false;
  tq::ScratchBuffer content(padded_len(data.size()));
  if (!content || RP_doPadding(data.data(), static_cast<uint32_t>(data.size()), content.data()) < 0 ||
      !tq::three_des_encrypt(ksenc, content.bytes(), content.data())) {
    return false;
  }
  const size_t len = 1 + content.size();
  w.u8(kTagCryptogram);
  if (len >= 0x80) w.u8(kLengthOfOneByte);
  w.u8(static_cast<unsigned>(len));
  w.u8(kPaddedContent);
  w.bytes(content.bytes());
  return w.ok();
}

uint8_t expected_length(Bytes command) {
  const bool is_internal_authenticate =
      command.size() >= kDataAt &&
      std::equal(kInternalAuthenticate.begin(), kInternalAuthenticate.end(), command.begin());
  return is_internal_authenticate ? 0 : command.back();
}

// `out` may be the command: it is written when nothing is left to read.
int32_t protect(Bytes command, const uint8_t* ksenc, const uint8_t* ksmac, uint8_t* ssc, bool with_le,
                std::span<uint8_t> out) {
  const std::array<uint8_t, kHeaderLen> header = {kProtectedClass, command[1], command[2], command[3]};
  tq::ScratchBuffer mac_input(padded_len(kBeforeObjects + kObjectsMax));
  if (!mac_input) return TQ_FAILED;
  tq::ByteWriter objects(mac_input.bytes().subspan(kBeforeObjects, kObjectsMax));
  if (command.size() >= kShortestWithData && !write_cryptogram(objects, command.subspan(kDataAt), ksenc))
    return TQ_FAILED;
  if (with_le) {
    objects.u8(kTagLe);
    objects.u8(1);
    objects.u8(expected_length(command));
  }
  if (!objects.ok()) return TQ_FAILED;

  RP_update_SSC(ssc, ssc);
  tq::ByteWriter front(mac_input.bytes().first(kBeforeObjects));
  front.bytes({ssc, kSscLen});
  front.bytes(header);
  front.u8(kPaddingStart);
  Mac mac;
  if (!compute_mac(mac_input, kBeforeObjects + objects.size(), ksmac, mac)) return TQ_FAILED;
  if (kBeforeObjects + objects.size() > out.size()) return TQ_FAILED;
  tq::ByteWriter w(out);
  w.bytes(header);
  w.u8(static_cast<unsigned>(objects.size() + kMacObjectLen));
  w.bytes(objects.written());
  w.u8(kTagMac);
  w.u8(kMacLen);
  w.bytes(mac.bytes());
  w.u8(0);
  return w.ok() ? static_cast<int32_t>(w.size()) : TQ_FAILED;
}

struct ProtectedAnswer {
  Bytes authenticated;  // the objects in front of the MAC's, as they came
  Bytes cryptogram;     // whole blocks, or nothing
  Bytes mac;
};

bool next_is(const tq::ByteReader& r, uint8_t tag) {
  return !r.done() && r.rest()[0] == tag;
}

bool take_cryptogram(tq::ByteReader& r, Bytes& cryptogram) {
  uint8_t first = 0;
  uint32_t len = 0;
  if (!r.skip(1) || !r.u8(first)) return false;
  if (first < 0x80) {
    len = first;
  } else if (first > kLengthOfTwoBytes || !r.number(first & 0x7FU, len)) {
    return false;
  }
  if (len < 2 || !r.skip(1) || !r.take(len - 1, cryptogram)) return false;
  return cryptogram.size() % kBlockLen == 0;
}

bool skip_status(tq::ByteReader& r) {
  uint8_t len = 0;
  return r.skip(1) && r.u8(len) && r.skip(len);
}

bool parse_answer(Bytes answer, ProtectedAnswer& out) {
  tq::ByteReader r(answer);
  ProtectedAnswer a;
  uint8_t tag = 0;
  uint8_t len = 0;
  if (next_is(r, kTagCryptogram) && !take_cryptogram(r, a.cryptogram)) return false;
  if (next_is(r, kTagStatus) && !skip_status(r)) return false;
  a.authenticated = answer.first(answer.size() - r.size());
  if (!r.u8(tag) || !r.u8(len) || tag != kTagMac || len != kMacLen || !r.take(len, a.mac)) return false;
  out = a;
  return true;
}

bool is_authentic(const ProtectedAnswer& answer, const uint8_t* ksmac, const uint8_t* ssc) {
  const size_t len = kSscLen + answer.authenticated.size();
  tq::ScratchBuffer mac_input(padded_len(len));
  if (!mac_input) return false;
  tq::ByteWriter w(mac_input.bytes());
  w.bytes({ssc, kSscLen});
  w.bytes(answer.authenticated);
  Mac mac;
  return w.ok() && compute_mac(mac_input, len, ksmac, mac) &&
         equal_macs(mac.bytes(), answer.mac.first<kMacLen>());
}

// Bad padding is kept: everything up to the last byte that is not zero counts as data.
Bytes without_padding(Bytes padded) {
  while (!padded.empty() && padded.back() == 0x00) padded = padded.first(padded.size() - 1);
  const bool well_padded = !padded.empty() && padded.back() == kPaddingStart;
  return well_padded ? padded.first(padded.size() - 1) : padded;
}

// The MAC is looked at before anything is deciphered; only data of an authentic answer reach `out`, which may
// be the answer.
int32_t unprotect(Bytes answer, const uint8_t* ksenc, const uint8_t* ksmac, uint8_t* ssc,
                  std::span<uint8_t> out) {
  ProtectedAnswer parts;
  if (!parse_answer(answer, parts)) return TQ_FAILED;
  RP_update_SSC(ssc, ssc);
  if (!is_authentic(parts, ksmac, ssc)) return TQ_FAILED;
  if (parts.cryptogram.empty()) return 0;
  tq::ScratchBuffer content(parts.cryptogram.size());
  if (!content || !tq::three_des_decrypt(ksenc, parts.cryptogram, content.data())) return TQ_FAILED;
  const Bytes data = without_padding(content.bytes());
  const Bytes fitting = data.first(std::min(data.size(), out.size()));
  return tq::copy_bytes(fitting, out) ? static_cast<int32_t>(fitting.size()) : TQ_FAILED;
}

}  // namespace

extern "C" {

int32_t RP_protect_apdu(const uint8_t* command, uint32_t command_len, const uint8_t* ksenc,
                        const uint8_t* ksmac, uint8_t* ssc, int32_t with_le, uint8_t* out, uint32_t out_cap) {
  if (command == nullptr || ksenc == nullptr || ksmac == nullptr || ssc == nullptr || out == nullptr)
    return TQ_FAILED;
  if (command_len < kHeaderLen) return TQ_FAILED;
  return protect({command, command_len}, ksenc, ksmac, ssc, with_le != 0, {out, out_cap});
}

int32_t RP_unprotect_apdu(const uint8_t* answer, uint32_t answer_len, const uint8_t* ksenc,
                          const uint8_t* ksmac, uint8_t* ssc, uint8_t* out, uint32_t out_cap) {
  if (answer == nullptr || ksenc == nullptr || ksmac == nullptr || ssc == nullptr || out == nullptr)
    return TQ_FAILED;
  return unprotect({answer, answer_len}, ksenc, ksmac, ssc, {out, out_cap});
}

int32_t RP_doPadding(const uint8_t* in, uint32_t len, uint8_t* out) {
  constexpr uint32_t longest = std::numeric_limits<int32_t>::max() - kBlockLen;
  if (out == nullptr || (in == nullptr && len != 0) || len > longest) return TQ_FAILED;
  const size_t padded = padded_len(len);
  if (!tq::copy_bytes({in, len}, {out, padded})) return TQ_FAILED;
  out[len] = kPaddingStart;
  std::fill(out + len + 1, out + padded, uint8_t{0});
  return static_cast<int32_t>(padded);
}

int32_t create_message_auth_code(const uint8_t* data, uint32_t len, const uint8_t* kmac16, uint8_t* out,
                                 uint32_t out_len) {
  if (data == nullptr || kmac16 == nullptr || out == nullptr) return TQ_FAILED;
  TQ_DES_CTX encrypt;
  TQ_DES_CTX decrypt;
  const tq::WipeOnExit wipe_encrypt(encrypt);
  const tq::WipeOnExit wipe_decrypt(decrypt);
  tq_des_setkey_enc(&encrypt, kmac16);
  tq_des_setkey_dec(&decrypt, kmac16 + kBlockLen);

  tq::Secret<kBlockLen> chain;
  tq::Secret<64> ciphertext;  // only the last block of it matters, and that is in `chain`
  Bytes blocks(data, len - len % kBlockLen);
  while (!blocks.empty()) {
    const Bytes piece = blocks.first(std::min(blocks.size(), ciphertext.size()));
    const int32_t rc = tq_des_crypt_cbc(&encrypt, 1, static_cast<int32_t>(piece.size()), chain.data(),
                                        piece.data(), ciphertext.data());
    if (rc < 0) return rc;
    blocks = blocks.subspan(piece.size());
  }
  tq_des_crypt_ecb(&decrypt, chain.data(), chain.data());
  const int32_t rc = tq_des_crypt_ecb(&encrypt, chain.data(), chain.data());
  if (rc == 0) std::copy_n(chain.data(), std::min<size_t>(out_len, kMacLen), out);
  return rc;
}

int32_t RP_update_SSC(const uint8_t* ssc_in, uint8_t* ssc_out) {
  if (ssc_in == nullptr || ssc_out == nullptr) return TQ_FAILED;
  unsigned carry = 1;
  for (size_t i = kSscLen; i > 0; --i) {
    const unsigned sum = ssc_in[i - 1] + carry;
    ssc_out[i - 1] = static_cast<uint8_t>(sum);
    carry = sum >> 8;
  }
  return TQ_OK;
}

}  // extern "C"
