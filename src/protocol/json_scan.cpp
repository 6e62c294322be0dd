#include "protocol/json_scan.hpp"

#include <algorithm>

#include "protocol/json_scan.h"
#include "util/byte_text.h"

namespace tq {

std::optional<std::string_view> find_json_value(std::string_view text, std::string_view key, JsonValue kind) {
  const size_t at = key.empty() ? std::string_view::npos : text.find(key);
  if (at == std::string_view::npos || at == 0 || text[at - 1] != '"') return std::nullopt;
  std::string_view rest = text.substr(at + key.size());
  if (!rest.starts_with("\":")) return std::nullopt;
  rest.remove_prefix(2);
  const bool quoted = rest.starts_with('"');
  if (!quoted && (kind != JsonValue::kTextOrObject || !rest.starts_with('{'))) return std::nullopt;
  const size_t end = rest.find(quoted ? '"' : '}', 1);
  if (end == std::string_view::npos) return std::nullopt;
  return quoted ? rest.substr(1, end - 1) : rest.substr(0, end + 1);
}

bool is_braced(std::string_view text) {
  return text.starts_with('{') && text.ends_with('}');
}

namespace {

int32_t check(const char* text) {
  return text != nullptr && is_braced(text) ? TQ_OK : TQ_FAILED;
}

int32_t copy_value(const char* text, const char* key, JsonValue kind, char* out) {
  if (out == nullptr) return TQ_FAILED;
  const auto value = text == nullptr || key == nullptr ? std::nullopt : find_json_value(text, key, kind);
  *(value ? std::copy(value->begin(), value->end(), out) : out) = '\0';
  return value ? TQ_OK : TQ_FAILED;
}

int32_t check_value(const char* a, const char* b) {
  return tq_strcmp(a, b) == 0 ? TQ_OK : TQ_FAILED;
}

}  // namespace
}  // namespace tq

// Nothing in the library calls these.
extern "C" {

int32_t json_check(const char* text) {
  return tq::check(text);
}

int32_t json_get_value(const char* text, const char* key, char* out) {
  return tq::copy_value(text, key, tq::JsonValue::kTextOrObject, out);
}

int32_t json_check_value(const char* a, const char* b) {
  return tq::check_value(a, b);
}

int32_t scp_json_check(const char* text) {
  return tq::check(text);
}

int32_t scp_json_get_value(const char* text, const char* key, char* out) {
  return tq::copy_value(text, key, tq::JsonValue::kText, out);
}

int32_t scp_json_check_value(const char* a, const char* b) {
  return tq::check_value(a, b);
}

}  // extern "C"
