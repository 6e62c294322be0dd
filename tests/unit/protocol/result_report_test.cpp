#include "protocol/result_report.h"

#include <gtest/gtest.h>

#include <string>

#include "protocol/server_peer.hpp"
#include "util/memory.h"

namespace {

using namespace test;

uint8_t g_business_id[] = "BIZ";

SessionConfig config() {
  SessionConfig cfg{};
  cfg.readBuffer = g_business_id;
  return cfg;
}

struct Result {
  int32_t code;
  int32_t flag;
  std::string data;
};

Result parse(const Bytes& delivered, SessionConfig cfg = config()) {
  info_data info{};
  info.flag = 77;
  const Bytes exact = exact_copy(delivered, delivered.size());
  const int32_t code = result_info_data_parse(&cfg, exact.data(), len(exact), &info);
  if (code != 0) {
    EXPECT_EQ(info.flag, 77);
    EXPECT_EQ(info.data, nullptr);
    return {code, info.flag, ""};
  }
  Result r{code, info.flag,
           std::string(reinterpret_cast<char*>(info.data), static_cast<size_t>(info.length))};
  if (info.flag == TQ_RESULT_JSON) {
    EXPECT_EQ(info.data[info.length], 0);
  }
  tq_mem_free(info.data);
  return r;
}

std::string json(const std::string& members) {
  return "{\"reqid\":\"BIZ\"" + members + "}";
}

TEST(ResultReport, Tags) {
  const std::string only_reqid = json("");
  const std::string type_and_back = json(",\"info\":{\"idType\":\"01\",\"backCardId\":\"12AB\"}");
  const std::string info = json(",\"info\":{\"n\":1}");
  const struct {
    const char* name;
    const char* bytes;
    std::string text;  // "" = refused
  } cases[] = {
      {"no data", "00", only_reqid},
      {"no data, bytes behind", "00 0203", only_reqid},
      {"no tags", "01", only_reqid},
      {"one lone byte", "01 00", only_reqid},
      {"type and back", "01 00FF01 020212AB", type_and_back},
      {"back and type", "01 020212AB 00FF01", type_and_back},
      {"type 7", "01 000007", json(",\"info\":{\"idType\":\"07\"}")},
      {"type 99", "01 000063", json(",\"info\":{\"idType\":\"99\"}")},
      {"type 255", "01 0000FF", json(",\"info\":{\"idType\":\"255\"}")},
      {"back alone", "01 0201F0", json(",\"info\":{\"backCardId\":\"F0\"}")},
      {"info, width 1", "01 01 01 07 7B226E223A317D", info},
      {"info, width 2", "01 01 02 0007 7B226E223A317D", info},
      {"info, width 9", "01 01 09 000000000000000007 7B226E223A317D", info},
      {"info wins", "01 000001 01 01 07 7B226E223A317D 020212AB", info},
      {"empty info", "01 01 01 00 000007", json(",\"info\":{\"idType\":\"07\"}")},
      {"info of width 0", "01 0100 000007", json(",\"info\":{\"idType\":\"07\"}")},
      {"empty back", "01 0200", only_reqid},
      {"the later one counts", "01 000001 000002", json(",\"info\":{\"idType\":\"02\"}")},
      {"a lone byte behind", "01 000001 02", json(",\"info\":{\"idType\":\"01\"}")},
      {"unknown tag at once", "01 03FF01 000001", only_reqid},
      {"unknown tag later", "01 000001 FF00 020212AB", json(",\"info\":{\"idType\":\"01\"}")},
      {"type cut", "01 0000", ""},
      {"info width cut", "01 0105 0001", ""},
      {"info one too long", "01 01 01 08 7B226E223A317D", ""},
      {"info length wraps 32 bits", "01 01 05 0100000001 7B", ""},
      {"info length wraps 64 bits", "01 01 09 010000000000000001 7B", ""},
      {"info of 4 GiB", "01 01 04 FFFFFFFF 7B", ""},
      {"back too long", "01 0203 12AB", ""},
      {"flag 3", "03 000001", ""},
      {"flag 255", "FF", ""},
  };
  for (const auto& c : cases) {
    const Result r = parse(from_hex(c.bytes));
    EXPECT_EQ(r.code, c.text.empty() ? -35006 : 0) << c.name;
    EXPECT_EQ(r.data, c.text) << c.name;
    if (!c.text.empty()) {
      EXPECT_EQ(r.flag, 1) << c.name;
    }
  }
}

TEST(ResultReport, LongValues) {
  const Bytes info(5000, 'x');
  EXPECT_EQ(parse(from_hex("01 01 02") + be(5000, 2) + info).data,
            json(",\"info\":" + std::string(5000, 'x')));
  const Bytes back(255, 0xA5);
  EXPECT_EQ(parse(from_hex("01 0000FF 02FF") + back).data.size(),
            json(",\"info\":{\"idType\":\"255\",\"backCardId\":\"\"}").size() + 510);
}

TEST(ResultReport, RawBytesAndEmptyInput) {
  const Result r = parse(from_hex("02 00FF7B"));
  EXPECT_EQ(r.flag, 2);
  EXPECT_EQ(r.data, std::string("\0\xFF{", 3));
  EXPECT_EQ(parse(from_hex("02")).data, "");
  info_data info{};
  SessionConfig cfg = config();
  const uint8_t byte = 0;
  EXPECT_EQ(result_info_data_parse(&cfg, &byte, 0, &info), -35006);
}

TEST(ResultReport, BusinessId) {
  EXPECT_EQ(parse({0}, SessionConfig{}).data, "{\"reqid\":\"\"}");
  for (const bool has_id : {true, false}) {
    SessionConfig cfg = has_id ? config() : SessionConfig{};
    info_data info{};
    result_business_id_parse(&cfg, &info);
    ASSERT_NE(info.data, nullptr);
    EXPECT_EQ(info.flag, 3);
    EXPECT_STREQ(reinterpret_cast<char*>(info.data), has_id ? "tqbizidBIZ" : "tqbizid");
    tq_mem_free(info.data);
  }
}

}  // namespace
