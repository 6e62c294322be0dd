#include "passport/data_groups.h"

#include <gtest/gtest.h>

#include <sstream>

#include "passport/der_peer.hpp"

namespace {

using namespace test;

using Walk = int32_t (*)(const uint8_t*, uint32_t, uint32_t*, uint32_t);
constexpr Walk kCom = get_passport_files_IDS_COM;
constexpr Walk kSod = get_passport_files_IDS_SOD;

// The identifiers, separated by blanks, or "-1".
std::string walk(Walk read, const Bytes& file, uint32_t room = 96) {
  std::vector<uint32_t> ids(room, 0xEEEE);
  const uint8_t none = 0;
  const int32_t rc = read(file.empty() ? &none : file.data(), len(file), ids.data(), room);
  if (rc < 0) return std::to_string(rc);
  std::string text;
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(ids[i] == 0xEEEE, i >= static_cast<size_t>(rc));
    if (i < static_cast<size_t>(rc)) text += (i == 0 ? "" : " ") + hex(be(ids[i], 2));
  }
  return text;
}

// Cut anywhere it is refused; with one byte changed to any other it is read within bounds.
void expect_robust(Walk read, const Bytes& file) {
  for (size_t n = 0; n < file.size(); ++n) EXPECT_EQ(walk(read, exact_copy(file, n)), "-1") << n;
  Bytes changed = file;
  uint32_t ids[4];
  for (uint8_t& byte : changed) {
    for (unsigned value = 0; value < 0x100; ++value) {
      ++byte;  // comes back to what it was
      const int32_t rc = read(changed.data(), len(changed), ids, 4);
      ASSERT_TRUE(rc >= -1 && rc <= 4);
    }
  }
}

// ICAO 9303-11 appendix D.4: a tag list of 61 75.
const char kPublishedCom[] = "60 14 5F01 04 30313036 5F36 06 303430303030 5C 02 6175";

TEST(DataGroups, OfEfCom) {
  const std::pair<const char*, const char*> cases[] = {
      {kPublishedCom, "0101 0102"},
      {"60 00 5F01 00 5F36 00 5C 10 61 75 63 76 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70",
       "0101 0102 0103 0104 0105 0106 0107 0108 0109 010a 010b 010c 010d 010e 010f 0110"},
      {"60 00 5F01 00 5F36 00 5C 08 60 61 77 62 75 00 FF 61", "0101 0102 0101"},
      {"60 00 5F01 00 5F36 00 5C 00", ""},
      {"60 00 5F01 00 5F36 00 5C 01 61 75 75", "0101"},  // bytes behind the list
      {"6F11 00 5F01 00 5F36 00 5C 01 61", "0101"},      // low four bits all set: a tag of two bytes
      {"7F61 8200 00 5F01 8101 AA 5F36 820002 AABB 5F5C 820001 61", "0101"},  // two-byte tags, long forms
      {"60 FF 02 01 AA 02 00 5C 01 75", "0102"},  // FF, no length, is the next tag, of two bytes
      {"60 83 02 AAAA 02 00 5C 01 75", "0102"},   // 83, no length, is the next tag
      {"60 00 41 00 42 00 43 80", ""},            // 80 is no length, either
      {"60 00 5F01 00 5F36 00 5C 02 61", "-1"},
      {"60 00 5F01 00 5F36 00 5C 82 00", "-1"},
      {"60 00 5F01 00 5F36 82 FFFF 5C 01 61", "-1"},
      {"", "-1"},
  };
  for (const auto& [file, ids] : cases) EXPECT_EQ(walk(kCom, from_hex(file)), ids) << file;
  expect_robust(kCom, from_hex(kPublishedCom));
}

Bytes data_group_hash(const Bytes& number) {
  return der(0x30, der(0x02, number) + der(0x04, Bytes(32, 0xAB)));
}

// The road down to the hash list, innermost first; every part can be replaced.
struct Sod {
  Bytes list = data_group_hash({1}) + data_group_hash({2}) + data_group_hash({14});
  int list_tag = 0x30;
  Bytes lds_version = der(0x02, {0});
  int octets_tag = 0x04;
  Bytes digests = der(0x31, from_hex("3000"));
  Bytes version = der(0x02, {3});
  int content_tag = 0xA0;

  // What is in the file's outer element.
  Bytes info() const {
    const Bytes lds_object = der(0x30, lds_version + from_hex("3000") + der(list_tag, list));
    const Bytes content = der(0x06, from_hex("678108010101")) + der(0xA0, der(octets_tag, lds_object));
    const Bytes signed_data = der(0x30, version + digests + der(0x30, content));
    return der(0x30, der(0x06, from_hex("2A864886F70D010702")) + der(content_tag, signed_data));
  }
  Bytes file() const { return der(0x77, info()); }
};

TEST(DataGroups, OfEfSodPartByPart) {
  const struct {
    const char* name;
    void (*change)(Sod&);
    const char* ids;
  } cases[] = {
      {"other order", [](Sod& s) { s.list = data_group_hash({15}) + data_group_hash({1}); }, "010f 0101"},
      {"a number of two bytes", [](Sod& s) { s.list = data_group_hash(from_hex("0081")); }, "0100"},
      {"no number", [](Sod& s) { s.list = data_group_hash({}); }, "-1"},
      {"empty list", [](Sod& s) { s.list = {}; }, "-1"},
      {"no hash", [](Sod& s) { s.list = der(0x30, der(0x02, {1})); }, "-1"},
      {"more than number and hash", [](Sod& s) { s.list = from_hex("30 07 020101 0400 0500"); }, "-1"},
      {"a set in the list", [](Sod& s) { s.list = s.list + from_hex("31 05 020101 0400"); }, "-1"},
      {"element beyond the list", [](Sod& s) { s.list = s.list + from_hex("30 06 020101 0400"); }, "-1"},
      {"one byte too many in the list", [](Sod& s) { s.list = s.list + Bytes{0x30}; }, "-1"},
      {"list is a set", [](Sod& s) { s.list_tag = 0x31; }, "-1"},
      {"LDS version without value", [](Sod& s) { s.lds_version = from_hex("0200"); }, "0101 0102 010e"},
      {"LDS version too long", [](Sod& s) { s.lds_version = der(0x02, Bytes(5)); }, "-1"},
      {"LDS version missing", [](Sod& s) { s.lds_version = {}; }, "-1"},
      {"no octet string", [](Sod& s) { s.octets_tag = 0x05; }, "-1"},
      {"no digest algorithms", [](Sod& s) { s.digests = {}; }, "-1"},
      {"many digest algorithms", [](Sod& s) { s.digests = der(0x31, Bytes(300)); }, "0101 0102 010e"},
      {"negative version", [](Sod& s) { s.version = der(0x02, {0x80}); }, "-1"},
      {"content not tagged 0", [](Sod& s) { s.content_tag = 0xA1; }, "-1"},
  };
  for (const auto& c : cases) {
    Sod sod;
    c.change(sod);
    EXPECT_EQ(walk(kSod, sod.file()), c.ids) << c.name;
  }
  const Bytes info = Sod{}.info();
  EXPECT_EQ(walk(kSod, Sod{}.file() + Bytes(9)), "0101 0102 010e");
  EXPECT_EQ(walk(kSod, from_hex("7F77 8200 00") + info), "0101 0102 010e");
  EXPECT_EQ(walk(kSod, from_hex("77 83000000") + info), "-1");
  expect_robust(kSod, Sod{}.file());
}

TEST(DataGroups, TheCallersRoom) {
  for (const auto& [read, file] : {std::pair{kCom, from_hex(kPublishedCom)}, std::pair{kSod, Sod{}.file()}}) {
    EXPECT_EQ(walk(read, file, 1), "0101");
    EXPECT_EQ(walk(read, file, 0), "");
    uint32_t id = 0;
    EXPECT_EQ(read(file.data(), len(file), nullptr, 96), 0);
    EXPECT_EQ(read(nullptr, len(file), &id, 1), -1);
    EXPECT_EQ(read(file.data(), 0, &id, 1), -1);
  }
}

TEST(DataGroups, WalkingByPosition) {
  // What a tag and a length are read as, and where that ends: "value@position", or "-" where nothing is read.
  const struct {
    const char* data;
    uint32_t pos;
    const char* tag;
    const char* len;
  } cases[] = {
      {"61 02 AABB", 0, "61@1", "2@2"},
      {"AA 5F01 81FF", 1, "5f01@3", "ff@5"},
      {"7F61 820102", 0, "7f61@2", "102@5"},
      {"1E 83 000001", 0, "1e@1", "0@1"},
      {"1E 80", 0, "1e@1", "0@1"},
      {"60 81", 0, "60@1", "-"},
      {"60 8200", 0, "60@1", "-"},
      {"5F", 0, "-", "5f@1"},
      {"60 00", 2, "-", "-"},
      {"60 00", 3, "-", "-"},
  };
  for (const auto& c : cases) {
    const Bytes data = from_hex(c.data);
    uint32_t pos = c.pos;
    const auto next = [&](auto read) {
      const uint32_t before = pos;
      uint32_t value = 0xEEEE;
      const int32_t rc = read(data.data(), len(data), &pos, &value);
      EXPECT_TRUE(rc == 0 || (rc == -1 && pos == before && value == 0xEEEE)) << c.data;
      std::ostringstream text;
      text << std::hex << value << "@" << pos;
      return rc == 0 ? text.str() : "-";
    };
    EXPECT_EQ(next(RP_getNextTag), c.tag) << c.data;
    EXPECT_EQ(next(RP_getNextLength), c.len) << c.data;
  }
  const Bytes data = from_hex("61 02 AABB");
  for (const uint32_t value_len : {0U, 2U, 3U, UINT32_MAX}) {
    uint32_t pos = 2;
    const uint8_t* value = nullptr;
    const bool fits = value_len <= 2;
    EXPECT_EQ(RP_getNextValue(data.data(), 4, &pos, value_len, &value), fits ? 0 : -1);
    EXPECT_EQ(pos, fits ? 2 + value_len : 2);
    EXPECT_EQ(value, fits ? data.data() + 2 : nullptr);
  }
}

}  // namespace
