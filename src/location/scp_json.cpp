#include "location/scp_json.h"

#include <algorithm>
#include <string_view>

#include "util/byte_text.h"

namespace {

constexpr std::string_view kBetween = "\":\"";  // key and value

// The value of the key, or a view without data.
std::string_view find_value(std::string_view text, std::string_view key) {
  const size_t at = key.empty() ? std::string_view::npos : text.find(key);
  if (at == std::string_view::npos || at == 0 || text[at - 1] != '"') return {};
  std::string_view rest = text.substr(at + key.size());
  if (rest.substr(0, kBetween.size()) != kBetween) return {};
  rest.remove_prefix(kBetween.size());
  const size_t end = rest.find('"');
  return end == std::string_view::npos ? std::string_view{} : rest.substr(0, end);
}

}  // namespace

extern "C" {

int32_t scp_json_check(const char* text) {
  if (text == nullptr) return TQ_FAILED;
  const std::string_view all(text);
  return !all.empty() && all.front() == '{' && all.back() == '}' ? TQ_OK : TQ_FAILED;
}

int32_t scp_json_get_value(const char* text, const char* key, char* out) {
  if (out == nullptr) return TQ_FAILED;
  const std::string_view value =
      text == nullptr || key == nullptr ? std::string_view{} : find_value(text, key);
  std::copy(value.begin(), value.end(), out);
  out[value.size()] = '\0';
  return value.data() == nullptr ? TQ_FAILED : TQ_OK;
}

int32_t scp_json_check_value(const char* a, const char* b) {
  return tq_strcmp(a, b) == 0 ? TQ_OK : TQ_FAILED;
}

}  // extern "C"
