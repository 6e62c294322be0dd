// Everything that decodes text or scrambled bytes, beside references made from the descriptions. The first
// byte of the input chooses a capacity, the rest is decoded; every buffer is a heap block of exactly the
// documented size.
#include <openssl/evp.h>

#include "harness.hpp"
#include "util/base64.h"
#include "util/block_codec.h"
#include "util/byte_text.h"
#include "util/hex.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// A character below ':' counts from '0', any other one from 'A' as ten, whatever it is.
unsigned half_byte(char c) {
  const auto code = static_cast<uint8_t>(c >= 'a' && c <= 'z' ? c - 32 : c);
  return code < 58U ? code - 48U : code - 55U;
}

void decode_hex(const std::vector<char>& text) {
  const size_t len = std::strlen(text.data());
  Bytes wanted((len + 1) / 2);
  for (size_t i = 0; i < wanted.size(); ++i)
    wanted[i] = static_cast<uint8_t>(half_byte(text[2 * i]) << 4 | half_byte(text[2 * i + 1]));
  for (const auto to_bytes : {hexStringToBytes, scpHexStringToBytes}) {
    Bytes bytes(wanted.size());
    require(bytes.empty() || (to_bytes(text.data(), bytes.data()) == len / 2 && bytes == wanted));
  }
  for (const auto to_text : {bytesToHexString, scpBytesToHexString}) {
    std::string digits(2 * wanted.size() + 1, '#');
    require(to_text(wanted.data(), static_cast<uint32_t>(wanted.size()), digits.data()) + 1 == digits.size());
    for (char& c : digits) c = static_cast<char>(std::tolower(c));
    require(digits == test::hex(wanted) + "#");
  }
}

// What the first `n` characters give; the group that they end in is read on, to the first NUL at most.
Bytes base64_reference(const std::vector<char>& text, size_t n, size_t room) {
  Bytes out;
  for (size_t at = 0; at < n; at += 4) {
    std::string group;
    while (group.size() < 4 && (at + group.size() < n || group.find('\0') == std::string::npos))
      group += text[at + group.size()];
    group.resize(4);
    uint32_t six[4];
    for (size_t i = 0; i < 4; ++i) {
      const size_t value = kAlphabet.find(group[i]);
      six[i] = group[i] == '\0' ? ~0U : value == std::string::npos ? 0 : static_cast<uint32_t>(value);
    }
    const uint32_t bytes[] = {six[0] << 2 | six[1] >> 4, six[1] << 4 | six[2] >> 2, six[2] << 6 | six[3]};
    for (size_t i = 0; i < 3 && !(i == 1 && group[2] == '=') && !(i == 2 && group[3] == '='); ++i)
      out.push_back(static_cast<uint8_t>(bytes[i]));
    if (group[2] == '=' || group[3] == '=') break;
  }
  out.resize(std::min(room, out.size()));
  return out;
}

// OpenSSL's text; as much of it as the rule about the next group lets through, before the padding if it does
// not let all.
std::string encoded_reference(const Bytes& plain, size_t room) {
  std::string text(4 * ((plain.size() + 2) / 3) + 1, '\0');
  EVP_EncodeBlock(reinterpret_cast<uint8_t*>(text.data()), plain.data(), static_cast<int>(plain.size()));
  text.pop_back();
  if (room < 4) return "";
  if (text.size() + 4 <= room) return text;
  text.resize(std::min(text.size(), room / 4 * 4));
  std::replace(text.begin(), text.end(), '=', 'A');
  return text;
}

void base64(const std::vector<char>& text, size_t n, size_t room) {
  const Bytes wanted = base64_reference(text, n, room);
  for (const auto decode : {BASE64decode, scpBASE64decode}) {
    Bytes bytes(room);
    const int32_t len =
        decode(text.data(), static_cast<int32_t>(n), bytes.data(), static_cast<int32_t>(room));
    require(static_cast<size_t>(len) == wanted.size() &&
            std::equal(wanted.begin(), wanted.end(), bytes.begin()));
  }
  for (const auto encode : {BASE64encode, scpBASE64encode}) {
    std::string encoded(room, '#');
    const int32_t len = encode(wanted.data(), static_cast<int32_t>(wanted.size()), encoded.data(),
                               static_cast<int32_t>(room));
    require(encoded.substr(0, static_cast<size_t>(len)) == encoded_reference(wanted, room));
  }
}

// The key, then the blocks.
void blocks(const Bytes& input) {
  if (input.size() < 8) return;
  const Bytes sealed(input.begin() + 8, input.end());
  const auto num_bytes = static_cast<uint32_t>(sealed.size());
  Bytes wanted;
  for (size_t at = sealed.size() / 8 * 8; at > 0; at -= 8) {  // the last block first
    for (size_t i = at - 8; i < at; ++i) wanted.push_back(static_cast<uint8_t>(sealed[i] ^ input[i]));
  }
  const bool whole = !sealed.empty() && sealed.size() % 8 == 0 && wanted.back() <= wanted.size();
  if (whole) wanted.resize(wanted.size() - wanted.back());
  for (const auto decode : {tq1_decode, tq2_decode}) {
    Bytes plain(sealed.size(), 0xEE);
    const int32_t len = decode(sealed.data(), num_bytes, input.data(), plain.data());
    require(len == (whole ? static_cast<int32_t>(wanted.size()) : -1));
    require(whole ? std::equal(wanted.begin(), wanted.end(), plain.begin())
                  : plain == Bytes(plain.size(), 0xEE));
  }
  for (const bool second : {false, true}) {
    const auto encode = second ? tq2_encode : tq1_encode;
    const auto decode = second ? tq1_decode : tq2_decode;
    Bytes encoded(sealed.size() + 8 - sealed.size() % 8);
    require(encode(sealed.data(), num_bytes, input.data(), encoded.data()) ==
            static_cast<int32_t>(encoded.size()));
    require(decode(encoded.data(), static_cast<uint32_t>(encoded.size()), input.data(), encoded.data()) ==
            static_cast<int32_t>(num_bytes));
    require(std::equal(sealed.begin(), sealed.end(), encoded.begin()));
  }
}

void number_and_blanks(std::vector<char> text) {
  const std::string all = text.data();
  const size_t start = std::min(all.find_first_not_of(' '), all.size());
  const bool negative = all[start] == '-';
  uint64_t value = 0;
  for (size_t i = start + (negative || all[start] == '+'); i < all.size() && all[i] >= '0' && all[i] <= '9';
       ++i)
    value = value * 10 + static_cast<uint64_t>(all[i] - '0');
  const auto number = static_cast<int32_t>(static_cast<uint32_t>(negative ? 0 - value : value));
  require(my_atoi(text.data()) == number);
  char digits[67] = "";
  require(number == 0 || my_itoa(number, digits, 10) == std::to_string(number));

  const size_t first = std::min(all.find_first_not_of(" \t"), all.size());
  const size_t end = all.find_last_not_of(" \t") + 1;
  require(my_trim(text.data()) == all.substr(first, std::max(first, end) - first));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const Bytes input(data + 1, data + size);
  std::vector<char> text(input.begin(), input.end());
  text.push_back('\0');
  decode_hex(text);
  blocks(input);
  number_and_blanks(text);
  const size_t capacity = data[0] == 0xFF ? input.size() : data[0];
  for (size_t cut = 0; cut < 4 && cut <= input.size(); ++cut) base64(text, input.size() - cut, capacity);
  return 0;
}
