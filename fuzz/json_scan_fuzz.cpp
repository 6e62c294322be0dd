// The JSON scanner, with its two sorts of values. The input is a key, a zero byte and a text.
#include "protocol/json_scan.h"

#include <algorithm>
#include <optional>
#include <string>

#include "harness.hpp"

namespace {

// The value of the key, by the same rules.
std::optional<std::string> value_in(const std::string& text, const std::string& key, bool braced_too) {
  const size_t at = key.empty() ? std::string::npos : text.find(key);
  if (at == std::string::npos || at == 0 || text[at - 1] != '"') return std::nullopt;
  const size_t from = at + key.size() + 2;
  if (text.compare(at + key.size(), 2, "\":") != 0 || from == text.size()) return std::nullopt;
  const bool quoted = text[from] == '"';
  if (!quoted && (text[from] != '{' || !braced_too)) return std::nullopt;
  const size_t end = text.find(quoted ? '"' : '}', from + 1);
  if (end == std::string::npos) return std::nullopt;
  return quoted ? text.substr(from + 1, end - from - 1) : text.substr(from, end - from + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string key = input.c_str();
  const std::string text = input.substr(std::min(key.size() + 1, input.size())).c_str();
  const auto with_nul = [](const std::string& s) {
    return View(reinterpret_cast<const uint8_t*>(s.c_str()), s.size() + 1);
  };
  Block exact_key(with_nul(key));
  Block exact_text(with_nul(text));
  const auto* as_key = reinterpret_cast<const char*>(exact_key.data());
  const auto* as_text = reinterpret_cast<const char*>(exact_text.data());

  for (const bool braced_too : {false, true}) {
    Block out(exact_text.size());  // no value is longer than its text
    auto* value = reinterpret_cast<char*>(out.data());
    const int32_t rc = (braced_too ? json_get_value : scp_json_get_value)(as_text, as_key, value);
    const std::optional<std::string> wanted = value_in(text, key, braced_too);
    require(wanted ? rc == TQ_OK && value == *wanted : rc == TQ_FAILED && value[0] == '\0');
  }
  const bool braced = !text.empty() && text.front() == '{' && text.back() == '}';
  require((json_check(as_text) == TQ_OK) == braced && (scp_json_check(as_text) == TQ_OK) == braced);
  require((json_check_value(as_text, as_key) == TQ_OK) == (text == key));
  require((scp_json_check_value(as_text, as_key) == TQ_OK) == (text == key));
  return 0;
}
