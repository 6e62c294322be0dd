// The decoded data that become the result, beside a reference that makes the text by itself. The input is
// what the decode command delivered, flag byte first.
#include "harness.hpp"
#include "protocol/result_report.h"
#include "util/memory.h"

namespace {

using namespace fuzz;

std::string upper_hex(View bytes) {
  std::string text = test::hex(bytes);
  for (char& c : text) c = static_cast<char>(std::toupper(c));
  return text;
}

// The text of tagged data; nothing when they are malformed.
std::optional<std::string> tagged(View data) {
  std::string type, info, back;
  while (data.size() > 1 && data[0] <= 2) {
    const uint8_t tag = data[0];
    const size_t width = tag == 1 ? data[1] : 1;
    const size_t front = tag == 1 ? 2 + width : 2;
    if (data.size() < front) return std::nullopt;
    size_t length = 1;
    if (tag != 0) {
      length = 0;
      for (const uint8_t digit : data.subspan(front - width, width))
        length = std::min<size_t>(length << 8 | digit, 1 << 24);
    }
    if (length > data.size() - front) return std::nullopt;
    const View value = data.subspan(front, length);
    if (tag == 0) type = (value[0] < 10 ? "0" : "") + std::to_string(value[0]);
    if (tag == 1) info.assign(value.begin(), value.end());
    if (tag == 2) back = upper_hex(value);
    data = data.subspan(front + length);
  }
  if (info.find('\0') != std::string::npos) return std::nullopt;
  const std::string start = "{\"reqid\":\"BIZ-1\"";
  if (!info.empty()) return start + ",\"info\":" + info + "}";
  if (type.empty() && back.empty()) return start + "}";
  const std::string first = type.empty() ? "" : "\"idType\":\"" + type + "\"";
  const std::string second = back.empty() ? "" : "\"backCardId\":\"" + back + "\"";
  return start + ",\"info\":{" + first + (type.empty() || back.empty() ? "" : ",") + second + "}}";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SessionConfig cfg{};
  uint8_t business_id[] = "BIZ-1";
  cfg.readBuffer = business_id;
  Block delivered(View(data, size));
  info_data info{7, 77, 777, nullptr};
  const int32_t rc = result_info_data_parse(&cfg, delivered.data(), delivered.size(), &info);
  require(info.code == 7);

  std::optional<std::string> wanted;
  if (size > 0 && data[0] == 0) wanted = tagged({});
  if (size > 0 && data[0] == 1) wanted = tagged(View(data, size).subspan(1));
  if (size > 0 && data[0] == 2) wanted = std::string(data + 1, data + size);
  require(rc == (wanted ? TQ_OK : TQ_RESPONSE_MALFORMED));
  if (!wanted) {
    require(info.flag == 77 && info.length == 777 && info.data == nullptr);
    return 0;
  }
  require(info.data != nullptr && info.length >= 0 &&
          info.flag == (data[0] == 2 ? TQ_RESULT_BYTES : TQ_RESULT_JSON));
  require(std::string(info.data, info.data + info.length) == *wanted);
  require(data[0] == 2 || info.data[info.length] == '\0');
  tq_mem_free(info.data);
  return 0;
}
