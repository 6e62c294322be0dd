#include "protocol/result_report.h"

#include <gtest/gtest.h>

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

// The text or, after a blank, the bytes of a result; "" when the data are refused.
std::string parse(const Bytes& delivered, SessionConfig cfg = config()) {
  info_data info{};
  info.flag = 77;
  const int32_t code = result_info_data_parse(&cfg, delivered.data(), len(delivered), &info);
  EXPECT_TRUE(code == 0 || (code == -35006 && info.flag == 77 && info.data == nullptr));
  if (code != 0) return "";
  const std::string data(reinterpret_cast<char*>(info.data), static_cast<size_t>(info.length));
  EXPECT_TRUE(info.flag == TQ_RESULT_BYTES || (info.flag == TQ_RESULT_JSON && info.data[info.length] == 0));
  tq_mem_free(info.data);
  return info.flag == TQ_RESULT_BYTES ? " " + data : data;
}

std::string json(const std::string& members) {
  return "{\"reqid\":\"BIZ\"" + members + "}";
}

TEST(ResultReport, Tags) {
  const std::string only_reqid = json("");
  const std::string type_and_back = json(",\"info\":{\"idType\":\"01\",\"backCardId\":\"12AB\"}");
  const std::string info = json(",\"info\":{\"n\":1}");
  const auto type = [](const std::string& digits) {
    return json(",\"info\":{\"idType\":\"" + digits + "\"}");
  };
  const struct {
    const char* name;
    const char* bytes;
    std::string text;  // "" = refused
  } cases[] = {
      {"no data, bytes behind", "00 0203", only_reqid},
      {"one lone byte", "01 00", only_reqid},
      {"type and back", "01 00FF01 020212AB", type_and_back},
      {"back and type", "01 020212AB 00FF01", type_and_back},
      {"type 9", "01 000009", type("09")},
      {"type 10", "01 00000A", type("10")},
      {"type 255", "01 0000FF", type("255")},
      {"back alone", "01 0201F0", json(",\"info\":{\"backCardId\":\"F0\"}")},
      {"info, width 9", "01 01 09 000000000000000007 7B226E223A317D", info},
      {"info wins", "01 000001 01 01 07 7B226E223A317D 020212AB", info},
      {"empty info", "01 01 01 00 000007", type("07")},
      {"info of width 0", "01 0100 000007", type("07")},
      {"empty back", "01 0200", only_reqid},
      {"the later one counts", "01 000001 000002", type("02")},
      {"a lone byte behind", "01 000001 02", type("01")},
      {"unknown tag at once", "01 03FF01 000001", only_reqid},
      {"unknown tag later", "01 000001 FF00 020212AB", type("01")},
      {"type cut", "01 0000", ""},
      {"info width cut", "01 0105 0001", ""},
      {"info one too long", "01 01 01 08 7B226E223A317D", ""},
      {"info length wraps 32 bits", "01 01 05 0100000001 7B", ""},
      {"info length wraps 64 bits", "01 01 09 010000000000000001 7B", ""},
      {"back too long", "01 0203 12AB", ""},
      {"bytes", "02 207B", "  {"},
      {"no bytes", "02", " "},
      {"flag 255", "FF", ""},
      {"NUL in the text", "01 01 01 02 7B00", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(parse(from_hex(c.bytes)), c.text) << c.name;
  std::string back_text;
  for (int i = 0; i < 255; ++i) back_text += "A5";
  EXPECT_EQ(parse(from_hex("01 0000FF 02FF") + Bytes(255, 0xA5)),
            json(",\"info\":{\"idType\":\"255\",\"backCardId\":\"" + back_text + "\"}"));
  info_data unused{};
  SessionConfig cfg = config();
  EXPECT_EQ(result_info_data_parse(&cfg, g_business_id, 0, &unused), -35006);
}

TEST(ResultReport, BusinessId) {
  EXPECT_EQ(parse({0}, SessionConfig{}), "{\"reqid\":\"\"}");
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
