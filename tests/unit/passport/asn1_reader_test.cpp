#include "passport/asn1_reader.h"

#include <gtest/gtest.h>

#include "passport/der_peer.hpp"
#include "util/memory.h"

namespace {

using namespace test;

using Reader = int32_t (*)(const uint8_t** pos, const uint8_t* end, std::string& value);

template <auto kRead, typename Number, int32_t... kTag>
int32_t number(const uint8_t** pos, const uint8_t* end, std::string& value) {
  Number read = 0x5A;
  const int32_t rc = kRead(pos, end, &read, kTag...);
  EXPECT_TRUE(rc == 0 || read == 0x5A);
  value = std::to_string(read);
  return rc;
}
constexpr Reader kLength = number<DM_asn1_get_len, size_t>;
constexpr Reader kOctets = number<DM_asn1_get_tag, size_t, 0x04>;
constexpr Reader kOtherTag = number<DM_asn1_get_tag, size_t, 0x104>;
constexpr Reader kInteger = number<DM_asn1_get_int, int32_t>;
constexpr Reader kBoolean = number<DM_asn1_get_bool, int32_t>;

int32_t bits(const uint8_t** pos, const uint8_t* end, std::string& value) {
  DM_asn1_bitstring read{};
  const int32_t rc = DM_asn1_get_bitstring(pos, end, &read);
  value = hex(read.p, read.len) + "/" + std::to_string(read.unused_bits);
  return rc;
}

int32_t integers(const uint8_t** pos, const uint8_t* end, std::string& value) {
  DM_asn1_sequence list{{-1, 0, nullptr}, nullptr};
  const int32_t rc = DM_asn1_get_sequence_of(pos, end, &list, 0x02);
  EXPECT_TRUE(rc == 0 || (list.buf.tag == -1 && list.next == nullptr));
  for (const DM_asn1_sequence* node = &list; node != nullptr && node->buf.p != nullptr; node = node->next) {
    EXPECT_EQ(node->buf.tag, 0x02);
    value += hex(node->buf.p, node->buf.len) + " ";
  }
  while (DM_asn1_sequence* const node = list.next) {
    list.next = node->next;
    tq_mem_free(node);
  }
  return rc;
}

// "value@number of bytes read", or the code; then the position has stayed.
std::string read(Reader reader, const Bytes& bytes) {
  const Bytes exact = exact_copy(bytes, bytes.size());
  const uint8_t none = 0;
  const uint8_t* const start = exact.empty() ? &none : exact.data();
  const uint8_t* pos = start;
  std::string value;
  const int32_t rc = reader(&pos, start + exact.size(), value);
  EXPECT_TRUE(rc == 0 || pos == start) << hex(bytes);
  return rc == 0 ? value + "@" + std::to_string(pos - start) : std::to_string(rc);
}

TEST(Asn1Reader, Cases) {
  const struct {
    Reader reader;
    const char* bytes;
    const char* result;
  } cases[] = {
      {kLength, "", "-96"},
      {kLength, "80", "-100"},
      {kLength, "85 00 00 00 00 00", "-100"},
      {kLength, "FF", "-100"},
      {kLength, "81 02 AA BB CC", "2@2"},
      {kLength, "84 00 00 00 01 AA", "1@5"},
      {kLength, "84 FF FF FF FF AA", "-96"},
      {kInteger, "02 00", "0@2"},
      {kInteger, "02 00 80", "0@2"},
      {kInteger, "02 04 7F FF FF FF", "2147483647@6"},
      {kInteger, "02 81 01 05", "5@4"},
      {kInteger, "02 01 80", "-100"},
      {kInteger, "02 05 00 00 00 00 01", "-100"},
      {kInteger, "03 01 05", "-98"},
      {kBoolean, "01 01 00", "0@3"},
      {kBoolean, "01 01 FF", "1@3"},
      {kBoolean, "01 01 40 AA", "1@3"},
      {kBoolean, "01 00", "-100"},
      {kBoolean, "01 02 00 00", "-100"},
      {kBoolean, "02 01 00", "-98"},
      {bits, "03 01 00", "/0@3"},
      {bits, "03 03 07 AA 80", "aa80/7@5"},
      {bits, "03 02 08 80", "-100"},
      {bits, "03 00", "-96"},
      {bits, "03 02 00 80 00", "-102"},
      {bits, "04 02 00 80", "-98"},
      {integers, "30 00", "@2"},
      {integers, "30 04 02 00 02 00", "  @6"},
      {integers, "30 06 02 01 05 04 01 06", "-98"},
      {integers, "30 09 02 01 05 02 01 06 04 01 07", "-98"},  // leaves nothing behind
      {integers, "30 06 02 01 05 02 02 06", "-96"},
      {integers, "30 04 02 01 05 02", "-96"},
      {integers, "30 03 02 01 05 00", "-102"},
  };
  for (const auto& c : cases) EXPECT_EQ(read(c.reader, from_hex(c.bytes)), c.result) << c.bytes;
  const uint8_t bytes[] = {0x05, 0x00};
  const uint8_t* behind = bytes + 1;
  size_t len = 0;
  EXPECT_EQ(DM_asn1_get_len(&behind, bytes, &len), TQ_ASN1_OUT_OF_DATA);
}

TEST(Asn1Reader, LengthsAsOpenSslWritesThem) {
  const size_t lens[] = {0, 1, 127, 128, 255, 256, 65535, 65536, 0x1000000};
  for (const size_t len : lens) {
    const Bytes element = der(0x04, Bytes(len));
    const size_t header = element.size() - len;
    EXPECT_EQ(read(kOctets, element), std::to_string(len) + "@" + std::to_string(header));
    EXPECT_EQ(read(kOtherTag, element), "-98");
    for (size_t cut = 0; cut < header; ++cut) {
      EXPECT_EQ(read(kOctets, exact_copy(element, cut)), "-96") << cut;
      if (cut < len) {
        EXPECT_EQ(read(kOctets, exact_copy(element, element.size() - 1 - cut)), "-96") << cut;
      }
    }
  }
}

}  // namespace
