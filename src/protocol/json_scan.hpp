// What the calls of json_scan.h do, for the library itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tq {

enum class JsonValue : uint8_t { kText, kTextOrObject };

// The value of `key`: a quoted one without its quotes, a braced one up to and with the first closing brace.
// Only the first place where the key's letters stand is looked at; it must be quoted and followed by a colon
// and the value without blanks. Borrows from `text`.
std::optional<std::string_view> find_json_value(std::string_view text, std::string_view key, JsonValue kind);

// Whether it begins with "{" and ends with "}".
bool is_braced(std::string_view text);

}  // namespace tq
