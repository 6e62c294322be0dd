#include "protocol/result_report.h"

#include <charconv>

#include "protocol/result_report.hpp"
#include "protocol/session_values.hpp"
#include "util/byte_cursor.hpp"
#include "util/hex.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

enum : uint8_t { kNoData = 0, kTaggedData = 1, kRawData = 2 };
enum : uint8_t { kTagIdType = 0, kTagInfo = 1, kTagBackCardId = 2 };

constexpr size_t kJsonFraming = 64;
constexpr size_t kLongestIdType = 3;

struct DecodedData {
  std::span<const uint8_t> id_type;  // one byte
  std::span<const uint8_t> info;
  std::span<const uint8_t> back_card_id;
};

// A length of `width` bytes; one that is larger than what is left is refused whatever its width.
bool take_sized(ByteReader& r, size_t width, std::span<const uint8_t>& out) {
  std::span<const uint8_t> digits;
  if (!r.take(width, digits)) return false;
  size_t length = 0;
  for (const uint8_t digit : digits) {
    length = length << 8 | digit;
    if (length > r.size()) return false;
  }
  return r.take(length, out);
}

bool take_tag(ByteReader& r, uint8_t tag, DecodedData& out) {
  uint8_t width = 0;
  switch (tag) {
    case kTagIdType:
      return r.skip(1) && r.take(1, out.id_type);
    case kTagInfo:
      return r.u8(width) && take_sized(r, width, out.info);
    default:
      return take_sized(r, 1, out.back_card_id);
  }
}

// A tag needs at least one byte behind it; a lone last byte is not looked at. An unknown tag ends the scan.
// False for a length that runs past the end, and for a NUL in the text.
bool scan_tags(std::span<const uint8_t> data, DecodedData& out) {
  ByteReader r(data);
  while (r.size() > 1) {
    uint8_t tag = 0;
    if (!r.u8(tag)) return false;
    if (tag > kTagBackCardId) break;
    if (!take_tag(r, tag, out)) return false;
  }
  return !has_nul(out.info);
}

void write_id_type(ByteWriter& w, uint8_t value) {
  char digits[kLongestIdType] = {'0'};
  char* first = value < 10 ? digits + 1 : digits;
  const char* end = std::to_chars(first, std::end(digits), value).ptr;
  w.bytes(as_bytes("\"idType\":\""));
  w.bytes(as_bytes({digits, static_cast<size_t>(end - digits)}));
  w.bytes(as_bytes("\""));
}

bool write_back_card_id(ByteWriter& w, std::span<const uint8_t> id) {
  ScratchBuffer hex(2 * id.size());
  if (!hex) return false;
  write_hex(id, reinterpret_cast<char*>(hex.data()));
  w.bytes(as_bytes("\"backCardId\":\""));
  w.bytes(hex.bytes());
  w.bytes(as_bytes("\""));
  return true;
}

// An empty info text would leave the member without a value, so it counts as absent, and so does an empty id.
bool write_members(ByteWriter& w, const DecodedData& decoded) {
  if (!decoded.info.empty()) {
    w.bytes(as_bytes(",\"info\":"));
    w.bytes(decoded.info);
    return true;
  }
  const bool has_type = !decoded.id_type.empty();
  const bool has_back = !decoded.back_card_id.empty();
  if (!has_type && !has_back) return true;
  w.bytes(as_bytes(",\"info\":{"));
  if (has_type) write_id_type(w, decoded.id_type[0]);
  if (has_type && has_back) w.bytes(as_bytes(","));
  if (has_back && !write_back_card_id(w, decoded.back_card_id)) return false;
  w.bytes(as_bytes("}"));
  return true;
}

// Hands the first `length` bytes of a finished block to the record.
void deliver(ScratchBuffer& block, size_t length, int32_t flag, info_data& result) {
  result.flag = flag;
  result.length = static_cast<int32_t>(length);
  result.data = block.release();
}

int32_t deliver_json(const SessionConfig& cfg, const DecodedData& decoded, info_data& result) {
  const std::string_view id = business_id(cfg);
  ScratchBuffer text(decoded.info.size() + 2 * decoded.back_card_id.size() + kLongestIdType + id.size() +
                     kJsonFraming);
  if (!text) return TQ_RESPONSE_MALFORMED;
  ByteWriter w(text.bytes());
  w.bytes(as_bytes("{\"reqid\":\""));
  w.bytes(as_bytes(id));
  w.bytes(as_bytes("\""));
  if (!write_members(w, decoded)) return TQ_RESPONSE_MALFORMED;
  w.bytes(as_bytes("}"));
  const size_t len = w.size();
  w.u8('\0');
  if (!w.ok()) return TQ_RESPONSE_MALFORMED;
  deliver(text, len, TQ_RESULT_JSON, result);
  return TQ_OK;
}

int32_t deliver_raw(std::span<const uint8_t> data, info_data& result) {
  ScratchBuffer copy(data.size());
  if (!copy || !copy_bytes(data, copy.bytes())) return TQ_RESPONSE_MALFORMED;
  deliver(copy, data.size(), TQ_RESULT_BYTES, result);
  return TQ_OK;
}

}  // namespace

int32_t make_result(const SessionConfig& cfg, std::span<const uint8_t> delivered, info_data& result) {
  if (delivered.empty()) return TQ_RESPONSE_MALFORMED;
  const std::span<const uint8_t> body = delivered.subspan(1);
  DecodedData decoded;
  switch (delivered[0]) {
    case kNoData:
      return deliver_json(cfg, decoded, result);
    case kTaggedData:
      if (!scan_tags(body, decoded)) return TQ_RESPONSE_MALFORMED;
      return deliver_json(cfg, decoded, result);
    case kRawData:
      return deliver_raw(body, result);
    default:
      return TQ_RESPONSE_MALFORMED;
  }
}

void make_business_id_result(const SessionConfig& cfg, info_data& result) {
  constexpr std::string_view kLabel = "tqbizid";
  const std::string_view id = business_id(cfg);
  ScratchBuffer text(kLabel.size() + id.size() + 1);
  if (!text) return;
  ByteWriter w(text.bytes());
  w.bytes(as_bytes(kLabel));
  w.bytes(as_bytes(id));
  deliver(text, w.size(), TQ_RESULT_TEXT, result);
}

}  // namespace tq

// The names for callers from outside.
extern "C" {

int32_t result_info_data_parse(SessionConfig* cfg, const uint8_t* data, uint32_t length, info_data* result) {
  if (cfg == nullptr || data == nullptr || result == nullptr) return TQ_RESPONSE_MALFORMED;
  return tq::make_result(*cfg, {data, length}, *result);
}

void result_business_id_parse(SessionConfig* cfg, info_data* result) {
  if (cfg != nullptr && result != nullptr) tq::make_business_id_result(*cfg, *result);
}

}  // extern "C"
