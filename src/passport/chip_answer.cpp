#include "passport/chip_answer.hpp"

#include <algorithm>

#include "core/session/card_relay.h"

namespace tq {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kStatusLen = 2;

constexpr uint16_t two_bytes(Bytes bytes) {
  return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

constexpr bool is_status(uint16_t status) {
  return status >> 12 == 0x6 || status >> 12 == 0x9;  // ISO/IEC 7816-4 section 5.6
}

// Bytes of the status word at the end: two, or three when the reader has put a zero behind it.
size_t trailer_len(Bytes answer) {
  if (answer.size() <= kStatusLen || answer.back() != 0x00) return kStatusLen;
  return is_status(two_bytes(answer.last(kStatusLen))) ? kStatusLen : kStatusLen + 1;
}

}  // namespace

void ChipAnswer::judge(SessionConfig& cfg, Bytes answer, ChipAnswer& out, size_t room) {
  out.code_ = tq_read_card_anlysis(&cfg, answer.data(), static_cast<uint32_t>(answer.size()),
                                   out.data_.data(), static_cast<uint32_t>(std::min(room, out.data_.size())));
  out.len_ = out.code_ < 0 ? 0 : static_cast<size_t>(out.code_);
  out.status_ = 0;
  if (out.code_ >= 0) {
    out.status_ = 0x9000;
  } else if (answer.size() >= kStatusLen) {
    const size_t len = answer.size() <= kStatusLen + 1 ? answer.size() : trailer_len(answer);
    out.status_ = two_bytes(answer.last(len));
  }
}

void ChipAnswer::open(SessionConfig& cfg, SecureChannel& channel, Bytes answer, ChipAnswer& out) {
  judge(cfg, answer, out);
  const std::span<uint8_t> room = out.data_.bytes();
  if (out.good()) {
    if (channel.open(out.data(), room, out.len_) == Opened::kYes) {
      out.code_ = static_cast<int32_t>(out.len_);
    } else {
      channel.count_lost_answer();
      out.code_ = TQ_CARD_FAILED;
      out.len_ = 0;
    }
    return;
  }
  // The status stands behind the MAC, and a zero of the reader's may stand behind that.
  const size_t objects_len = channel.objects_len(answer);
  const Bytes trailer = answer.subspan(objects_len);
  const bool ends_well =
      trailer.size() == kStatusLen || (trailer.size() == kStatusLen + 1 && trailer.back() == 0x00);
  if (objects_len == 0 || !ends_well) return;
  if (channel.open(answer.first(objects_len), room, out.len_) == Opened::kYes)
    out.status_ = two_bytes(trailer);
}

}  // namespace tq
