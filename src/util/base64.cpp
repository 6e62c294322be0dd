#include "util/base64.h"

#include <array>
#include <cstddef>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kGroupChars = 4;
constexpr size_t kGroupBytes = 3;

// A character's six bits: all ones for NUL, zero for '=' and everything else outside the alphabet.
constexpr std::array<uint32_t, 256> make_reverse_table() {
  std::array<uint32_t, 256> table{};
  table[0] = ~uint32_t{0};
  for (uint32_t value = 0; value < 64; ++value) table[static_cast<uint8_t>(kAlphabet[value])] = value;
  return table;
}
constexpr auto kReverse = make_reverse_table();

using Group = std::array<char, kGroupChars>;

// The group at `offset`, which may begin within the text and end beyond it: there the first NUL is the last
// thing read.
Group read_group(const char* src, size_t len, size_t offset) {
  Group group{};
  bool ended = false;
  for (size_t i = 0; i < kGroupChars; ++i) {
    if (offset + i >= len && ended) break;
    group[i] = src[offset + i];
    ended = ended || group[i] == '\0';
  }
  return group;
}

}  // namespace

extern "C" {

int32_t BASE64encode(const uint8_t* src, int32_t n, char* dst, int32_t capacity) {
  if (src == nullptr || dst == nullptr || n < 1 || capacity < static_cast<int32_t>(kGroupChars)) return 0;
  const auto len = static_cast<size_t>(n);
  const auto room = static_cast<size_t>(capacity);
  const auto byte_at = [&](size_t i) { return i < len ? uint32_t{src[i]} : 0; };
  size_t written = 0;
  for (size_t i = 0; i < len; i += kGroupBytes) {
    const uint32_t bits = byte_at(i) << 16 | byte_at(i + 1) << 8 | byte_at(i + 2);
    for (const uint32_t shift : {18U, 12U, 6U, 0U}) dst[written++] = kAlphabet[(bits >> shift) & 0x3F];
    if (written + kGroupChars > room) return static_cast<int32_t>(written);  // before any padding
  }
  for (size_t missing = (kGroupBytes - len % kGroupBytes) % kGroupBytes; missing > 0; --missing) {
    dst[written - missing] = '=';
  }
  return static_cast<int32_t>(written);
}

int32_t BASE64decode(const char* src, int32_t n, uint8_t* dst, int32_t capacity) {
  if (src == nullptr || dst == nullptr || n < 1 || capacity < 1) return 0;
  const auto len = static_cast<size_t>(n);
  const auto room = static_cast<size_t>(capacity);
  size_t written = 0;
  for (size_t i = 0; i < len && written < room; i += kGroupChars) {
    const Group group = read_group(src, len, i);
    std::array<uint32_t, kGroupChars> bits{};
    for (size_t k = 0; k < kGroupChars; ++k) bits[k] = kReverse[static_cast<uint8_t>(group[k])];
    dst[written++] = static_cast<uint8_t>(bits[0] << 2 | bits[1] >> 4);
    if (written == room || group[2] == '=') break;
    dst[written++] = static_cast<uint8_t>(bits[1] << 4 | bits[2] >> 2);
    if (written == room || group[3] == '=') break;
    dst[written++] = static_cast<uint8_t>(bits[2] << 6 | bits[3]);
  }
  return static_cast<int32_t>(written);
}

int32_t scpBASE64encode(const uint8_t* src, int32_t n, char* dst, int32_t capacity) {
  return BASE64encode(src, n, dst, capacity);
}

int32_t scpBASE64decode(const char* src, int32_t n, uint8_t* dst, int32_t capacity) {
  return BASE64decode(src, n, dst, capacity);
}

}  // extern "C"
