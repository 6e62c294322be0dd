#include "passport/asn1_reader.h"

#include <gtest/gtest.h>

#include "support/bytes.hpp"
#include "util/memory.h"

namespace {

using namespace test;

// What the reader with this letter makes of the bytes, and where that ends; or its code, with the position
// kept.
std::string read(char reader, const Bytes& bytes) {
  const Bytes exact = exact_copy(bytes, bytes.size());
  const uint8_t none = 0;
  const uint8_t* const start = exact.empty() ? &none : exact.data();
  const uint8_t* const end = start + exact.size();
  const uint8_t* pos = start;
  size_t length = 0;
  int32_t value = 0x5A;
  DM_asn1_bitstring bits{};
  DM_asn1_sequence list{};
  const int32_t rc = reader == 'l'   ? DM_asn1_get_len(&pos, end, &length)
                     : reader == 'i' ? DM_asn1_get_int(&pos, end, &value)
                     : reader == 'b' ? DM_asn1_get_bool(&pos, end, &value)
                     : reader == 's' ? DM_asn1_get_bitstring(&pos, end, &bits)
                                     : DM_asn1_get_sequence_of(&pos, end, &list, 0x02);
  EXPECT_TRUE(rc == 0 || (pos == start && value == 0x5A && list.next == nullptr)) << hex(bytes);
  std::string text = reader == 'l'   ? std::to_string(length)
                     : reader == 's' ? hex(bits.p, bits.len) + "/" + std::to_string(bits.unused_bits)
                     : reader == 'q' ? hex(list.buf.p, list.buf.len)
                                     : std::to_string(value);
  while (DM_asn1_sequence* const node = list.next) {
    text += "+" + hex(node->buf.p, node->buf.len);
    list.next = node->next;
    tq_mem_free(node);
  }
  return rc == 0 ? text + "@" + std::to_string(pos - start) : std::to_string(rc);
}

TEST(Asn1Reader, Cases) {
  const struct {
    char reader;
    const char* bytes;
    const char* result;
  } cases[] = {
      {'l', "", "-96"},
      {'l', "80", "-100"},
      {'l', "85 0000000000", "-100"},
      {'l', "81 02 AABBCC", "2@2"},
      {'l', "84 00000001 AA", "1@5"},
      {'l', "84 FFFFFFFF AA", "-96"},
      {'i', "02 00 80", "0@2"},
      {'i', "02 04 7FFFFFFF", "2147483647@6"},
      {'i', "02 01 80", "-100"},
      {'i', "02 05 0000000001", "-100"},
      {'i', "03 01 05", "-98"},
      {'b', "01 01 00", "0@3"},
      {'b', "01 01 40 AA", "1@3"},
      {'b', "01 02 0000", "-100"},
      {'s', "03 03 07 AA80", "aa80/7@5"},
      {'s', "03 02 08 80", "-100"},
      {'s', "03 00", "-96"},
      {'s', "03 02 0080 00", "-102"},
      {'q', "30 06 020105 020106", "05+06@8"},
      {'q', "30 09 020105 020106 040107", "-98"},
      {'q', "30 03 020105 00", "-102"},
  };
  for (const auto& c : cases) EXPECT_EQ(read(c.reader, from_hex(c.bytes)), c.result) << c.bytes;
}

}  // namespace
