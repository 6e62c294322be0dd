// The JSON scanner. The input is a key, a zero byte and a text.
#include <algorithm>

#include "harness.hpp"
#include "protocol/json_scan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  // The input with a NUL behind it, cut into exact blocks.
  Bytes input(data, data + size);
  input.push_back('\0');
  const auto key_end = std::find(input.begin(), input.end(), uint8_t{0}) + 1;
  Block key(View(input).first(static_cast<size_t>(key_end - input.begin())));
  Bytes rest(key_end, input.end());
  rest.push_back('\0');
  Block text(View(rest).first(
      static_cast<size_t>(std::find(rest.begin(), rest.end(), uint8_t{0}) - rest.begin()) + 1));

  const auto* as_text = reinterpret_cast<const char*>(text.data());
  const auto* as_key = reinterpret_cast<const char*>(key.data());
  Block out(text.size());  // no value is longer than its text
  auto* value = reinterpret_cast<char*>(out.data());
  const int32_t rc = json_get_value(as_text, as_key, value);
  require(rc == TQ_OK || rc == TQ_FAILED);
  require(rc == TQ_OK || value[0] == '\0');
  require(std::strlen(value) < text.size());
  if (rc == TQ_OK) require(std::strstr(as_text, value) != nullptr && std::strchr(as_text, ':') != nullptr);
  const int32_t check = json_check(as_text);
  require((check == TQ_OK) ==
          (text.size() >= 2 && text.data()[0] == '{' && text.data()[text.size() - 2] == '}'));
  require((json_check_value(as_text, as_key) == TQ_OK) == (std::strcmp(as_text, as_key) == 0));
  return 0;
}
