#include "passport/asn1_reader.h"

#include <span>

#include "util/byte_cursor.hpp"
#include "util/memory.h"
#include "util/tlv.hpp"

namespace {

using Bytes = std::span<const uint8_t>;
using tq::ByteReader;

constexpr int32_t kOk = 0;
constexpr int32_t kInteger = 0x02;
constexpr int32_t kBoolean = 0x01;
constexpr int32_t kBitString = 0x03;
constexpr int32_t kSequence = 0x30;

// What lies between position and end; nothing when they are not in that order.
ByteReader unread(const uint8_t* const* pos, const uint8_t* end) {
  if (pos == nullptr || *pos == nullptr || end == nullptr || *pos >= end) return ByteReader(Bytes{});
  return ByteReader({*pos, static_cast<size_t>(end - *pos)});
}

int32_t read_length(ByteReader& r, size_t& len) {
  uint32_t value = 0;
  const tq::LengthField field = tq::read_length(r, tq::kAnyLengths, value);
  if (field == tq::LengthField::kOdd) return TQ_ASN1_INVALID_LENGTH;
  if (field == tq::LengthField::kCut || value > r.size()) return TQ_ASN1_OUT_OF_DATA;
  len = value;
  return kOk;
}

int32_t read_header(ByteReader& r, int32_t expected_tag, size_t& len) {
  uint8_t tag = 0;
  if (!r.u8(tag)) return TQ_ASN1_OUT_OF_DATA;
  if (tag != expected_tag) return TQ_ASN1_UNEXPECTED_TAG;
  return read_length(r, len);
}

int32_t read_element(ByteReader& r, int32_t expected_tag, Bytes& value) {
  size_t len = 0;
  if (int32_t rc = read_header(r, expected_tag, len); rc < 0) return rc;
  return r.take(len, value) ? kOk : TQ_ASN1_OUT_OF_DATA;
}

int32_t read_small_integer(ByteReader& r, uint32_t& number) {
  Bytes value;
  if (int32_t rc = read_element(r, kInteger, value); rc < 0) return rc;
  const bool negative = !value.empty() && (value[0] & 0x80) != 0;
  if (negative || !ByteReader(value).number(value.size(), number)) return TQ_ASN1_INVALID_LENGTH;
  return kOk;
}

int32_t read_boolean(ByteReader& r, int32_t& truth) {
  Bytes value;
  if (int32_t rc = read_element(r, kBoolean, value); rc < 0) return rc;
  if (value.size() != 1) return TQ_ASN1_INVALID_LENGTH;
  truth = value[0] == 0 ? 0 : 1;
  return kOk;
}

int32_t read_bit_string(ByteReader& r, DM_asn1_bitstring& bits) {
  Bytes value;
  if (int32_t rc = read_element(r, kBitString, value); rc < 0) return rc;
  if (value.empty()) return TQ_ASN1_OUT_OF_DATA;
  if (value[0] > 7) return TQ_ASN1_INVALID_LENGTH;
  if (!r.done()) return TQ_ASN1_LENGTH_MISMATCH;
  const Bytes content = value.subspan(1);
  bits = {content.size(), value[0], content.data()};
  return kOk;
}

// A list under construction. What has not been handed over is freed.
class ElementList {
 public:
  ElementList() = default;
  ~ElementList() {
    while (first_.next != nullptr) {
      DM_asn1_sequence* const node = first_.next;
      first_.next = node->next;
      tq_mem_free(node);
    }
  }
  ElementList(const ElementList&) = delete;
  ElementList& operator=(const ElementList&) = delete;

  [[nodiscard]] bool append(int32_t tag, Bytes value) {
    if (last_ == nullptr) {
      last_ = &first_;
    } else {
      auto* const node = static_cast<DM_asn1_sequence*>(tq_mem_malloc(sizeof(DM_asn1_sequence)));
      if (node == nullptr) return false;
      last_->next = node;
      last_ = node;
    }
    *last_ = {{tag, value.size(), value.data()}, nullptr};
    return true;
  }

  void release(DM_asn1_sequence& out) {
    out = first_;
    first_.next = nullptr;
  }

 private:
  DM_asn1_sequence first_{};
  DM_asn1_sequence* last_ = nullptr;
};

int32_t read_sequence_of(ByteReader& r, int32_t element_tag, ElementList& list) {
  Bytes content;
  if (int32_t rc = read_element(r, kSequence, content); rc < 0) return rc;
  if (!r.done()) return TQ_ASN1_LENGTH_MISMATCH;
  ByteReader elements(content);
  while (!elements.done()) {
    Bytes value;
    if (int32_t rc = read_element(elements, element_tag, value); rc < 0) return rc;
    if (!list.append(element_tag, value)) return TQ_ASN1_NO_MEMORY;
  }
  return kOk;
}

}  // namespace

extern "C" {

int32_t DM_asn1_get_len(const uint8_t** pos, const uint8_t* end, size_t* len_out) {
  if (len_out == nullptr) return TQ_ASN1_OUT_OF_DATA;
  ByteReader r = unread(pos, end);
  if (int32_t rc = read_length(r, *len_out); rc < 0) return rc;
  *pos = r.rest().data();
  return kOk;
}

int32_t DM_asn1_get_tag(const uint8_t** pos, const uint8_t* end, size_t* len_out, int32_t expected_tag) {
  if (len_out == nullptr) return TQ_ASN1_OUT_OF_DATA;
  ByteReader r = unread(pos, end);
  if (int32_t rc = read_header(r, expected_tag, *len_out); rc < 0) return rc;
  *pos = r.rest().data();
  return kOk;
}

int32_t DM_asn1_get_int(const uint8_t** pos, const uint8_t* end, int32_t* value_out) {
  if (value_out == nullptr) return TQ_ASN1_OUT_OF_DATA;
  ByteReader r = unread(pos, end);
  uint32_t number = 0;
  if (int32_t rc = read_small_integer(r, number); rc < 0) return rc;
  *value_out = static_cast<int32_t>(number);
  *pos = r.rest().data();
  return kOk;
}

int32_t DM_asn1_get_bool(const uint8_t** pos, const uint8_t* end, int32_t* value_out) {
  if (value_out == nullptr) return TQ_ASN1_OUT_OF_DATA;
  ByteReader r = unread(pos, end);
  if (int32_t rc = read_boolean(r, *value_out); rc < 0) return rc;
  *pos = r.rest().data();
  return kOk;
}

int32_t DM_asn1_get_bitstring(const uint8_t** pos, const uint8_t* end, DM_asn1_bitstring* bitstring_out) {
  if (bitstring_out == nullptr) return TQ_ASN1_OUT_OF_DATA;
  ByteReader r = unread(pos, end);
  if (int32_t rc = read_bit_string(r, *bitstring_out); rc < 0) return rc;
  *pos = r.rest().data();
  return kOk;
}

int32_t DM_asn1_get_sequence_of(const uint8_t** pos, const uint8_t* end, DM_asn1_sequence* list,
                                int32_t element_tag) {
  if (list == nullptr) return TQ_ASN1_OUT_OF_DATA;
  ByteReader r = unread(pos, end);
  ElementList elements;
  if (int32_t rc = read_sequence_of(r, element_tag, elements); rc < 0) return rc;
  elements.release(*list);
  *pos = r.rest().data();
  return kOk;
}

}  // extern "C"
