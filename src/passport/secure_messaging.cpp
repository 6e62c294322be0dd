#include "passport/secure_messaging.h"

#include <algorithm>
#include <array>
#include <limits>

#include "passport/callers_channel.hpp"
#include "passport/padding.hpp"
#include "passport/three_des.hpp"
#include "util/byte_cursor.hpp"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kBlockLen = tq::kDesBlockLen;
constexpr size_t kSscLen = tq::kDesBlockLen;
constexpr size_t kHeaderLen = 4;
constexpr size_t kDataAt = 5;
constexpr size_t kShortestWithData = 7;
constexpr std::array<uint8_t, kDataAt> kInternalAuthenticate = {0x00, 0x88, 0x00, 0x00, 0x08};
constexpr uint8_t kTagTlvCryptogram = 0x85;

uint8_t expected_length(Bytes command) {
  const bool is_internal_authenticate =
      command.size() >= kDataAt &&
      std::equal(kInternalAuthenticate.begin(), kInternalAuthenticate.end(), command.begin());
  return is_internal_authenticate ? 0 : command.back();
}

int32_t length_or_failed(bool done, size_t len) {
  return done ? static_cast<int32_t>(len) : int32_t{TQ_FAILED};
}

}  // namespace

extern "C" {

int32_t RP_protect_apdu(const uint8_t* command, uint32_t command_len, const uint8_t* ksenc,
                        const uint8_t* ksmac, uint8_t* ssc, int32_t with_le, uint8_t* out, uint32_t out_cap) {
  if (command == nullptr || ksenc == nullptr || ksmac == nullptr || ssc == nullptr || out == nullptr)
    return TQ_FAILED;
  if (command_len < kHeaderLen) return TQ_FAILED;
  const Bytes bytes(command, command_len);
  tq::PlainCommand plain;
  std::copy_n(command, kHeaderLen, plain.header.begin());
  if (command_len >= kShortestWithData) plain.data = bytes.subspan(kDataAt);
  if (with_le != 0) plain.le = expected_length(bytes);
  tq::CallersChannel callers(ksenc, ksmac, ssc);
  size_t len = 0;
  const bool done = callers.channel.protect(plain, {out, out_cap}, len);
  return length_or_failed(done, len);
}

int32_t RP_unprotect_apdu(const uint8_t* answer, uint32_t answer_len, const uint8_t* ksenc,
                          const uint8_t* ksmac, uint8_t* ssc, uint8_t* out, uint32_t out_cap) {
  if (answer == nullptr || ksenc == nullptr || ksmac == nullptr || ssc == nullptr || out == nullptr)
    return TQ_FAILED;
  if (answer_len > 0 && answer[0] == kTagTlvCryptogram) return TQ_FAILED;  // answers an odd instruction
  tq::CallersChannel callers(ksenc, ksmac, ssc);
  size_t len = 0;
  const tq::Opened opened = callers.channel.open({answer, answer_len}, {out, out_cap}, len);
  if (opened == tq::Opened::kNotAuthentic) callers.channel.count_lost_answer();
  return length_or_failed(opened == tq::Opened::kYes, len);
}

// --- for callers outside; nothing here uses them ---

int32_t RP_doPadding(const uint8_t* in, uint32_t len, uint8_t* out) {
  constexpr uint32_t longest = std::numeric_limits<int32_t>::max() - kBlockLen;
  if (out == nullptr || (in == nullptr && len != 0) || len > longest) return TQ_FAILED;
  const std::span<uint8_t> room(out, tq::padded_len(len, kBlockLen));
  if (!tq::copy_bytes({in, len}, room)) return TQ_FAILED;
  return static_cast<int32_t>(tq::pad(room, len, kBlockLen).size());
}

int32_t create_message_auth_code(const uint8_t* data, uint32_t len, const uint8_t* kmac16, uint8_t* out,
                                 uint32_t out_len) {
  if (data == nullptr || kmac16 == nullptr || out == nullptr) return TQ_FAILED;
  tq::Secret<tq::kRetailMacLen> mac;
  tq::retail_mac(tq::TwoKey(kmac16, tq::kTwoKeyLen), {data, len}, mac.bytes());
  std::copy_n(mac.data(), std::min<size_t>(out_len, mac.size()), out);
  return TQ_OK;
}

int32_t RP_update_SSC(const uint8_t* ssc_in, uint8_t* ssc_out) {
  if (ssc_in == nullptr || ssc_out == nullptr) return TQ_FAILED;
  tq::SecureChannel channel;
  channel.start(tq::SessionKeys(), {ssc_in, kSscLen});
  channel.count_lost_answer();
  std::copy_n(channel.counter().data(), kSscLen, ssc_out);
  return TQ_OK;
}

}  // extern "C"
