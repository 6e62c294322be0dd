#include "passport/data_groups.h"

#include <span>

#include "passport/asn1_reader.h"
#include "util/byte_cursor.hpp"
#include "util/tlv.hpp"

namespace {

using Bytes = std::span<const uint8_t>;
using tq::ByteReader;

constexpr uint32_t kFileIdBase = 0x0100;  // a data group's number is the low byte of its identifier
constexpr uint32_t kNoFile = 0;

// ICAO Doc 9303-10 section 4.6.1: the tags by which EF.COM names the data groups.
struct DataGroupTag {
  uint8_t tag;
  uint8_t number;
};
constexpr DataGroupTag kDataGroupTags[] = {
    {0x61, 1}, {0x75, 2},  {0x63, 3},  {0x76, 4},  {0x65, 5},  {0x66, 6},  {0x67, 7},  {0x68, 8},
    {0x69, 9}, {0x6A, 10}, {0x6B, 11}, {0x6C, 12}, {0x6D, 13}, {0x6E, 14}, {0x6F, 15}, {0x70, 16},
};

uint32_t file_id_of_tag(uint8_t tag) {
  for (const DataGroupTag& row : kDataGroupTags) {
    if (row.tag == tag) return kFileIdBase | row.number;
  }
  return kNoFile;
}

// The caller's array of identifiers; what does not fit is left out.
class FileIds {
 public:
  FileIds(uint32_t* ids, uint32_t max_ids) : ids_(ids), room_(ids == nullptr ? 0 : max_ids) {}
  void add(uint32_t file_id) {
    if (!full()) ids_[count_++] = file_id;
  }
  bool full() const { return count_ >= room_; }
  uint32_t count() const { return count_; }

 private:
  uint32_t* ids_;
  uint32_t room_;
  uint32_t count_ = 0;
};

// --- tag-length-value of the files' outer levels ---

bool read_tag(ByteReader& r, uint32_t& tag) {
  ByteReader ahead = r;
  uint8_t first = 0;
  return ahead.u8(first) && r.number((first & 0x0F) == 0x0F ? 2 : 1, tag);
}

// A form that these files do not have is taken for an object without length field or value.
bool read_length_or_none(ByteReader& r, uint32_t& len) {
  const tq::LengthField field = tq::read_length(r, tq::kChipLengths, len);
  if (field == tq::LengthField::kOdd) len = 0;
  return field != tq::LengthField::kCut;
}

bool read_header(ByteReader& r, uint32_t& len) {
  uint32_t tag = 0;
  return read_tag(r, tag) && read_length_or_none(r, len);
}

bool read_object(ByteReader& r, Bytes& value) {
  uint32_t len = 0;
  return read_header(r, len) && r.take(len, value);
}

// Version of the LDS and of Unicode come first; they are known by their place, not by their tags.
bool find_tag_list(Bytes file, Bytes& tag_list) {
  ByteReader r(file);
  uint32_t file_len = 0;
  Bytes passed_over;
  return read_header(r, file_len) && read_object(r, passed_over) && read_object(r, passed_over) &&
         read_object(r, tag_list);
}

// --- DER within EF.SOD ---

constexpr int32_t kInteger = 0x02;
constexpr int32_t kOctetString = 0x04;
constexpr int32_t kObjectIdentifier = 0x06;
constexpr int32_t kSequence = 0x30;
constexpr int32_t kSet = 0x31;
constexpr int32_t kContext0 = 0xA0;

// Goes through nested elements. What has been entered is all that is seen from then on.
class DerWalk {
 public:
  explicit DerWalk(Bytes der) : pos_(der.data()), end_(der.data() + der.size()) {}

  [[nodiscard]] bool enter(int32_t tag) {
    Bytes content;
    if (!take(tag, content)) return false;
    *this = DerWalk(content);
    return true;
  }
  [[nodiscard]] bool skip(int32_t tag) {
    Bytes content;
    return take(tag, content);
  }
  [[nodiscard]] bool read_int() {
    int32_t value = 0;
    return DM_asn1_get_int(&pos_, end_, &value) == 0;
  }
  [[nodiscard]] bool take(int32_t tag, Bytes& content) {
    size_t len = 0;
    if (DM_asn1_get_tag(&pos_, end_, &len, tag) < 0) return false;
    content = {pos_, len};
    pos_ += len;
    return true;
  }
  [[nodiscard]] bool done() const { return pos_ == end_; }

 private:
  const uint8_t* pos_;
  const uint8_t* end_;
};

// From the start of the ContentInfo to the data-group hash values of the LDS security object (RFC 5652
// sections 3 and 5, ICAO Doc 9303-10 section 4.6.2).
bool find_hash_values(DerWalk& der) {
  return der.enter(kSequence) &&         // ContentInfo
         der.skip(kObjectIdentifier) &&  // contentType
         der.enter(kContext0) &&         // content
         der.enter(kSequence) &&         // SignedData
         der.read_int() &&               // version
         der.skip(kSet) &&               // digestAlgorithms
         der.enter(kSequence) &&         // encapContentInfo
         der.skip(kObjectIdentifier) &&  // eContentType
         der.enter(kContext0) &&         // eContent
         der.enter(kOctetString) &&      // as an octet string
         der.enter(kSequence) &&         // LDSSecurityObject
         der.read_int() &&               // version
         der.skip(kSequence) &&          // hashAlgorithm
         der.enter(kSequence) &&         // dataGroupHashValues
         !der.done();
}

// One DataGroupHash: number and hash value.
bool read_data_group_hash(DerWalk& list, uint8_t& number) {
  Bytes element;
  Bytes integer;
  if (!list.take(kSequence, element)) return false;
  DerWalk inside(element);
  if (!inside.take(kInteger, integer) || integer.empty()) return false;
  number = integer[0];
  return inside.skip(kOctetString) && inside.done();
}

// Reads at `pos` and moves it behind what has been read.
template <typename Read>
int32_t step_over(const uint8_t* data, uint32_t length, uint32_t* pos, Read read) {
  if (data == nullptr || pos == nullptr || *pos > length) return TQ_FAILED;
  ByteReader r(Bytes(data, length).subspan(*pos));
  if (!read(r)) return TQ_FAILED;
  *pos = length - static_cast<uint32_t>(r.size());
  return TQ_OK;
}

}  // namespace

extern "C" {

int32_t get_passport_files_IDS_COM(const uint8_t* file, uint32_t length, uint32_t* ids_out,
                                   uint32_t max_ids) {
  if (file == nullptr || length == 0) return TQ_FAILED;
  Bytes tag_list;
  if (!find_tag_list({file, length}, tag_list)) return TQ_FAILED;
  FileIds ids(ids_out, max_ids);
  for (const uint8_t tag : tag_list) {
    if (const uint32_t id = file_id_of_tag(tag); id != kNoFile) ids.add(id);
  }
  return static_cast<int32_t>(ids.count());
}

int32_t get_passport_files_IDS_SOD(const uint8_t* file, uint32_t length, uint32_t* ids_out,
                                   uint32_t max_ids) {
  if (file == nullptr || length == 0) return TQ_FAILED;
  ByteReader r({file, length});
  uint32_t file_len = 0;
  if (!read_header(r, file_len)) return TQ_FAILED;
  DerWalk der(r.rest());
  if (!find_hash_values(der)) return TQ_FAILED;
  FileIds ids(ids_out, max_ids);
  while (!der.done()) {
    uint8_t number = 0;
    if (!read_data_group_hash(der, number)) return TQ_FAILED;
    ids.add(kFileIdBase | number);
  }
  return static_cast<int32_t>(ids.count());
}

int32_t RP_getNextTag(const uint8_t* data, uint32_t length, uint32_t* pos, uint32_t* tag_out) {
  if (tag_out == nullptr) return TQ_FAILED;
  return step_over(data, length, pos, [tag_out](ByteReader& r) { return read_tag(r, *tag_out); });
}

int32_t RP_getNextLength(const uint8_t* data, uint32_t length, uint32_t* pos, uint32_t* len_out) {
  if (len_out == nullptr) return TQ_FAILED;
  return step_over(data, length, pos, [len_out](ByteReader& r) { return read_length_or_none(r, *len_out); });
}

int32_t RP_getNextValue(const uint8_t* data, uint32_t length, uint32_t* pos, uint32_t value_len,
                        const uint8_t** value_out) {
  if (value_out == nullptr) return TQ_FAILED;
  return step_over(data, length, pos, [value_len, value_out](ByteReader& r) {
    Bytes value;
    if (!r.take(value_len, value)) return false;
    *value_out = value.data();
    return true;
  });
}

}  // extern "C"
