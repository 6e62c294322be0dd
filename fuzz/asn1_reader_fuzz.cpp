// Each reader of DER elements, and the walk by position. Choices: reader; expected tag.
#include <algorithm>

#include "harness.hpp"
#include "passport/asn1_reader.h"
#include "passport/data_groups.h"
#include "util/memory.h"

namespace {

using fuzz::require;
using fuzz::View;

bool lies_within(const uint8_t* p, size_t len, const fuzz::Block& block) {
  const uint8_t* const end = block.bytes().data() + block.size();
  return p >= block.bytes().data() && p <= end && len <= static_cast<size_t>(end - p);
}

int32_t read_sequence(const fuzz::Block& in, const uint8_t** pos, const uint8_t* end, int32_t tag) {
  DM_asn1_sequence list{};
  const int32_t rc = DM_asn1_get_sequence_of(pos, end, &list, tag);
  require(rc == 0 || list.next == nullptr);
  require(rc != 0 || *pos == end);
  const uint8_t* behind = in.bytes().data();
  for (const DM_asn1_sequence* node = &list; node != nullptr && node->buf.p != nullptr; node = node->next) {
    require(node->buf.tag == tag && node->buf.p > behind && lies_within(node->buf.p, node->buf.len, in));
    behind = node->buf.p + node->buf.len;
  }
  while (list.next != nullptr) {
    DM_asn1_sequence* const node = list.next;
    list.next = node->next;
    tq_mem_free(node);
  }
  return rc;
}

// Tags, lengths and values to the end, or to the first fault.
void walk(const fuzz::Block& in) {
  const uint8_t* const data = in.bytes().data();
  uint32_t pos = 0;
  uint32_t before = 0;
  uint32_t tag = 0;
  uint32_t len = 0;
  const uint8_t* value = nullptr;
  while (RP_getNextTag(data, in.size(), &pos, &tag) == 0) {
    require(pos - before == (tag > 0xFF ? 2 : 1) && pos <= in.size());
    before = pos;
    if (RP_getNextLength(data, in.size(), &pos, &len) != 0) break;
    require(pos >= before && pos - before <= 3 && pos <= in.size() && len <= 0xFFFF);
    before = pos;
    if (RP_getNextValue(data, in.size(), &pos, len, &value) != 0) break;
    require(value == data + before && pos == before + len && pos <= in.size());
    before = pos;
  }
  require(pos == before);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Choices choices(data, size);
  const uint8_t reader = choices.next() % 6;
  const uint8_t tag = choices.next();
  const fuzz::Block in(choices.content());
  const uint8_t* const start = in.bytes().data();
  const uint8_t* const end = start + in.size();
  const uint8_t* pos = start;
  int32_t number = 0;
  size_t len = 0;
  DM_asn1_bitstring bits{};
  int32_t rc = 0;
  switch (reader) {
    case 0:
      rc = tag == 0 ? DM_asn1_get_len(&pos, end, &len) : DM_asn1_get_tag(&pos, end, &len, tag);
      require(rc != 0 || lies_within(pos, len, in));
      break;
    case 1:
      rc = DM_asn1_get_int(&pos, end, &number);
      require(number >= 0);
      break;
    case 2:
      rc = DM_asn1_get_bool(&pos, end, &number);
      require(number == 0 || number == 1);
      break;
    case 3:
      rc = DM_asn1_get_bitstring(&pos, end, &bits);
      require(rc != 0 || (lies_within(bits.p, bits.len, in) && bits.unused_bits <= 7 && pos == end));
      break;
    case 4:
      rc = read_sequence(in, &pos, end, tag);
      break;
    default:
      walk(in);
  }
  require(rc == 0 || (rc % 2 == 0 && rc <= TQ_ASN1_OUT_OF_DATA && rc >= TQ_ASN1_LENGTH_MISMATCH));
  require(pos >= start && pos <= end && (rc == 0 || pos == start));
  return 0;
}
