#include "passport/data_groups.h"

#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <openssl/ec.h>
#include <openssl/x509.h>

#include <memory>

#include "passport/chip_peer.hpp"
#include "passport/der_peer.hpp"

namespace {

using test::Bytes;
using test::der;
using test::from_hex;
using test::operator+;

using Walk = int32_t (*)(const uint8_t*, uint32_t, uint32_t*, uint32_t);

// The identifiers, separated by blanks, or "-1".
std::string walk(Walk read, const Bytes& file, uint32_t room = 96) {
  const Bytes exact = test::exact_copy(file, file.size());
  std::vector<uint32_t> ids(room, 0xEEEE);
  const uint8_t none = 0;
  const int32_t rc =
      read(exact.empty() ? &none : exact.data(), static_cast<uint32_t>(exact.size()), ids.data(), room);
  if (rc < 0) return std::to_string(rc);
  std::string text;
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(ids[i] == 0xEEEE, i >= static_cast<size_t>(rc));
    if (i >= static_cast<size_t>(rc)) continue;
    const auto id = static_cast<uint16_t>(ids[i]);
    text += (i == 0 ? "" : " ") + test::hex(Bytes{static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)});
  }
  return text;
}

// Cut anywhere it is refused; with one byte changed to any other it is read within bounds.
void expect_robust(Walk read, const Bytes& file) {
  for (size_t n = 0; n < file.size(); ++n) EXPECT_EQ(walk(read, test::exact_copy(file, n)), "-1") << n;
  Bytes changed = test::exact_copy(file, file.size());
  uint32_t ids[4];
  for (uint8_t& byte : changed) {
    const uint8_t original = byte;
    for (unsigned value = 0; value < 0x100; ++value) {
      byte = static_cast<uint8_t>(value);
      const int32_t rc = read(changed.data(), static_cast<uint32_t>(changed.size()), ids, 4);
      ASSERT_GE(rc, -1);
      ASSERT_LE(rc, 4);
    }
    byte = original;
  }
}

// ICAO 9303-11 appendix D.4: a tag list of 61 75.
const char kPublishedCom[] = "60 14 5F01 04 30313036 5F36 06 303430303030 5C 02 6175";

TEST(DataGroups, OfEfCom) {
  const struct {
    const char* file;
    const char* ids;
  } cases[] = {
      {kPublishedCom, "0101 0102"},
      {"60 16 5F01 04 30313037 5F36 06 303430303030 5C 04 61756B6F", "0101 0102 010b 010f"},
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
      {"5F", "-1"},
      {"", "-1"},
  };
  for (const auto& c : cases) EXPECT_EQ(walk(get_passport_files_IDS_COM, from_hex(c.file)), c.ids) << c.file;
  expect_robust(get_passport_files_IDS_COM, from_hex(kPublishedCom));
}

Bytes data_group_hash(const Bytes& number, size_t hash_len = 32) {
  return der(0x30, der(0x02, number) + der(0x04, Bytes(hash_len, 0xAB)));
}

const Bytes kSha256 = from_hex("30 0D 06 09 608648016503040201 05 00");

// The road down to the hash list, innermost first; every part can be replaced.
struct Sod {
  Bytes list = data_group_hash({1}) + data_group_hash({2}) + data_group_hash({14});
  int list_tag = 0x30;
  Bytes lds_version = der(0x02, {0});
  int octets_tag = 0x04;
  Bytes digests = der(0x31, kSha256);
  Bytes version = der(0x02, {3});
  int content_tag = 0xA0;
  Bytes behind;

  Bytes lds_object() const { return der(0x30, lds_version + kSha256 + der(list_tag, list)); }
  Bytes info() const {
    const Bytes content = der(0x06, from_hex("678108010101")) + der(0xA0, der(octets_tag, lds_object()));
    const Bytes signed_data = der(0x30, version + digests + der(0x30, content));
    return der(0x30, der(0x06, from_hex("2A864886F70D010702")) + der(content_tag, signed_data));
  }
  Bytes file() const { return der(0x77, info()) + behind; }
};

// A CMS SignedData as a document signer makes it.
Bytes signed_sod(const Bytes& lds_object) {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::unique_ptr<X509, void (*)(X509*)> certificate(X509_new(), X509_free);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const uint8_t*>("Specimen"), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate.get()));
  X509_set_pubkey(certificate.get(), key.get());
  EXPECT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);

  const unsigned flags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
  const std::unique_ptr<BIO, int (*)(BIO*)> content(
      BIO_new_mem_buf(lds_object.data(), static_cast<int>(lds_object.size())), BIO_free);
  const std::unique_ptr<CMS_ContentInfo, void (*)(CMS_ContentInfo*)> cms(
      CMS_sign(nullptr, nullptr, nullptr, nullptr, flags), CMS_ContentInfo_free);
  const std::unique_ptr<ASN1_OBJECT, void (*)(ASN1_OBJECT*)> type(OBJ_txt2obj("2.23.136.1.1.1", 1),
                                                                  ASN1_OBJECT_free);
  EXPECT_EQ(CMS_set1_eContentType(cms.get(), type.get()), 1);
  EXPECT_NE(CMS_add1_signer(cms.get(), certificate.get(), key.get(), EVP_sha256(), flags), nullptr);
  EXPECT_EQ(CMS_final(cms.get(), content.get(), nullptr, flags), 1);
  return der(0x77, test::encoded(i2d_CMS_ContentInfo, cms.get()));
}

TEST(DataGroups, OfARealEfSod) {
  Sod sod;
  EXPECT_EQ(walk(get_passport_files_IDS_SOD, signed_sod(sod.lds_object())), "0101 0102 010e");
  expect_robust(get_passport_files_IDS_SOD, signed_sod(sod.lds_object()));
  sod.list.clear();
  std::string all;
  for (uint8_t n = 1; n <= 16; ++n) {
    sod.list = sod.list + data_group_hash({n}, 64);
    all += (n == 1 ? "" : " ") + test::hex(Bytes{1, n});
    EXPECT_EQ(walk(get_passport_files_IDS_SOD, signed_sod(sod.lds_object())), all);
  }
}

TEST(DataGroups, OfEfSodPartByPart) {
  const struct {
    const char* name;
    void (*change)(Sod&);
    const char* ids;
  } cases[] = {
      {"as it should be", [](Sod&) {}, "0101 0102 010e"},
      {"bytes behind the file", [](Sod& s) { s.behind = Bytes(9); }, "0101 0102 010e"},
      {"other order", [](Sod& s) { s.list = data_group_hash({15}) + data_group_hash({1}); }, "010f 0101"},
      {"a number of two bytes",
       [](Sod& s) {
         s.list = data_group_hash({0, 0x81});
       },
       "0100"},
      {"any number", [](Sod& s) { s.list = data_group_hash({0xFF}, 0); }, "01ff"},
      {"no number", [](Sod& s) { s.list = data_group_hash({}); }, "-1"},
      {"empty list", [](Sod& s) { s.list = {}; }, "-1"},
      {"empty elements", [](Sod& s) { s.list = from_hex("3000 3000 3000"); }, "-1"},
      {"no hash", [](Sod& s) { s.list = der(0x30, der(0x02, {1})); }, "-1"},
      {"more than number and hash", [](Sod& s) { s.list = from_hex("30 07 020101 0400 0500"); }, "-1"},
      {"a set in the list", [](Sod& s) { s.list = s.list + from_hex("31 05 020101 0400"); }, "-1"},
      {"element beyond the list", [](Sod& s) { s.list = s.list + from_hex("30 06 020101 0400"); }, "-1"},
      {"one byte too many in the list", [](Sod& s) { s.list = s.list + Bytes{0x30}; }, "-1"},
      {"list is a set", [](Sod& s) { s.list_tag = 0x31; }, "-1"},
      {"LDS version without value",
       [](Sod& s) {
         s.lds_version = {0x02, 0};
       },
       "0101 0102 010e"},
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
    EXPECT_EQ(walk(get_passport_files_IDS_SOD, sod.file()), c.ids) << c.name;
  }
  EXPECT_EQ(walk(get_passport_files_IDS_SOD, from_hex("7F77 8200 00") + Sod{}.info()), "0101 0102 010e");
  EXPECT_EQ(walk(get_passport_files_IDS_SOD, from_hex("77 83000000") + Sod{}.info()), "-1");
  EXPECT_EQ(walk(get_passport_files_IDS_SOD, from_hex("77 80 30 80 06 00")), "-1");
}

TEST(DataGroups, TheCallersRoom) {
  const Bytes com = from_hex(kPublishedCom);
  const Bytes sod = Sod{}.file();
  EXPECT_EQ(walk(get_passport_files_IDS_COM, com, 1), "0101");
  EXPECT_EQ(walk(get_passport_files_IDS_SOD, sod, 2), "0101 0102");
  uint32_t id = 0xEEEE;
  for (const auto& [read, file] : {std::pair<Walk, Bytes>{get_passport_files_IDS_COM, com},
                                   std::pair<Walk, Bytes>{get_passport_files_IDS_SOD, sod}}) {
    const auto len = static_cast<uint32_t>(file.size());
    EXPECT_EQ(read(file.data(), len, &id, 0), 0);
    EXPECT_EQ(read(file.data(), len, nullptr, 96), 0);
    EXPECT_EQ(read(nullptr, len, &id, 1), -1);
    EXPECT_EQ(read(file.data(), 0, &id, 1), -1);
  }
  EXPECT_EQ(id, 0xEEEEU);
}

TEST(DataGroups, WalkingByPosition) {
  const struct {
    const char* data;
    uint32_t pos;
    int32_t tag;  // or -1
    uint32_t after_tag;
    int32_t len;
    uint32_t after_len;
  } cases[] = {
      {"61 02 AABB", 0, 0x61, 1, 2, 2},
      {"AA 5F01 81FF", 1, 0x5F01, 3, 255, 5},
      {"7F61 820102", 0, 0x7F61, 2, 258, 5},
      {"6F40 00", 0, 0x6F40, 2, 0, 3},
      {"1E 83 000001", 0, 0x1E, 1, 0, 1},
      {"1E 80", 0, 0x1E, 1, 0, 1},
      {"60 81", 0, 0x60, 1, -1, 1},
      {"60 8200", 0, 0x60, 1, -1, 1},
      {"60", 0, 0x60, 1, -1, 1},
      {"5F", 0, -1, 0, 0x5F, 1},
      {"60 00", 2, -1, 2, -1, 2},
      {"60 00", 3, -1, 3, -1, 3},
  };
  for (const auto& c : cases) {
    const Bytes data = from_hex(c.data);
    const auto size = static_cast<uint32_t>(data.size());
    uint32_t pos = c.pos;
    uint32_t value = 0xEEEE;
    EXPECT_EQ(RP_getNextTag(data.data(), size, &pos, &value), c.tag < 0 ? -1 : 0) << c.data;
    EXPECT_EQ(value, c.tag < 0 ? 0xEEEEU : static_cast<uint32_t>(c.tag)) << c.data;
    EXPECT_EQ(pos, c.after_tag) << c.data;
    value = 0xEEEE;
    EXPECT_EQ(RP_getNextLength(data.data(), size, &pos, &value), c.len < 0 ? -1 : 0) << c.data;
    EXPECT_EQ(value, c.len < 0 ? 0xEEEEU : static_cast<uint32_t>(c.len)) << c.data;
    EXPECT_EQ(pos, c.after_len) << c.data;
  }
  const Bytes data = from_hex("61 02 AABB");
  for (const uint32_t len : {0U, 1U, 2U, 3U, UINT32_MAX}) {
    uint32_t pos = 2;
    const uint8_t* value = nullptr;
    const bool fits = len <= 2;
    EXPECT_EQ(RP_getNextValue(data.data(), 4, &pos, len, &value), fits ? 0 : -1);
    EXPECT_EQ(pos, fits ? 2 + len : 2);
    EXPECT_EQ(value, fits ? data.data() + 2 : nullptr);
  }
  uint32_t behind = 5;
  const uint8_t* value = nullptr;
  EXPECT_EQ(RP_getNextValue(data.data(), 4, &behind, 0, &value), -1);
}

}  // namespace
