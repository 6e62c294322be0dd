// The decoded data that become the result. The input is what the decode command delivered, flag byte first.
#include "harness.hpp"
#include "protocol/result_report.h"
#include "util/memory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  SessionConfig cfg{};
  uint8_t business_id[] = "BIZ-1";
  cfg.readBuffer = business_id;
  Block delivered(View(data, size));
  info_data info{7, 77, 777, nullptr};
  const int32_t rc = result_info_data_parse(&cfg, delivered.data(), delivered.size(), &info);
  require(info.code == 7);
  if (rc != TQ_OK) {
    require(rc == TQ_RESPONSE_MALFORMED && info.flag == 77 && info.length == 777 && info.data == nullptr);
    return 0;
  }
  require(info.data != nullptr && info.length >= 0);
  const View bytes(info.data, static_cast<size_t>(info.length));
  if (data[0] == 2) {
    require(info.flag == TQ_RESULT_BYTES && bytes.size() == size - 1);
    require(size == 1 || std::memcmp(info.data, data + 1, size - 1) == 0);
  } else {
    require(info.flag == TQ_RESULT_JSON && info.data[bytes.size()] == '\0');
    require(bytes.size() >= 17 && std::memcmp(info.data, "{\"reqid\":\"BIZ-1\"", 16) == 0 &&
            bytes.back() == '}');
  }
  tq_mem_free(info.data);
  return 0;
}
