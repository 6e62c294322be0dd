// Under valgrind's memcheck: the bytes that must not be told by time are marked undefined, and then no branch
// and no address may depend on them. A result is secret, too, until the caller acts upon it.
//
// So that the check cannot be one that never fails, the same is done to code that does branch or look things
// up.
#include <valgrind/memcheck.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "crypto/aes128.hpp"
#include "crypto/constant_time.hpp"
#include "crypto/hmac.hpp"
#include "crypto/rsa.hpp"
#include "tls/record_mac.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes random_bytes(size_t n) {
  static std::mt19937 generator(5246);
  Bytes bytes(n);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(generator());
  return bytes;
}

Bytes hidden(Bytes bytes) {
  VALGRIND_MAKE_MEM_UNDEFINED(bytes.data(), bytes.size());
  return bytes;
}

template <typename T>
T revealed(T value) {
  VALGRIND_MAKE_MEM_DEFINED(&value, sizeof value);
  return value;
}

void require(bool held, const char* what) {
  if (held) return;
  static_cast<void>(std::fprintf(stderr, "%s\n", what));
  std::exit(2);
}

// --- what is checked ---

constexpr tq::tls::RecordIdentity kRecord = {7, tq::tls::ContentType::kApplicationData};
constexpr std::pair<tq::tls::Mac, size_t> kMacs[] = {
    {tq::tls::Mac::kSha256, 32}, {tq::tls::Mac::kSha1, 20}, {tq::tls::Mac::kMd5, 16}};

enum class Kind { kGood, kBadPadding, kBadMac, kNoise };

// Decrypted blocks of `len` bytes.
Bytes blocks(tq::tls::Mac mac, size_t mac_len, const Bytes& key, size_t len, size_t padding_len, Kind kind) {
  Bytes all = random_bytes(len);
  if (kind == Kind::kNoise) return all;
  const size_t content_len = len - mac_len - padding_len - 1;
  tq::tls::record_mac(mac, key, kRecord, std::span(all).first(content_len),
                      std::span(all).subspan(content_len, mac_len));
  std::fill(all.end() - static_cast<ptrdiff_t>(padding_len + 1), all.end(),
            static_cast<uint8_t>(padding_len));
  if (kind == Kind::kBadMac) all[content_len] ^= 1;
  if (kind == Kind::kBadPadding) all[len - 1] ^= 1;
  return all;
}

void check_cbc() {
  for (const auto& [mac, mac_len] : kMacs) {
    const Bytes key = random_bytes(mac_len);
    for (const size_t len : {48, 64, 288, 304, 1024, 16384}) {
      for (const Kind kind : {Kind::kGood, Kind::kBadPadding, Kind::kBadMac, Kind::kNoise}) {
        const size_t padding_len = (len - mac_len - 1) % 256;
        const Bytes secret = hidden(blocks(mac, mac_len, key, len, padding_len, kind));
        const tq::tls::CbcContent found = tq::tls::check_cbc_blocks(mac, hidden(key), kRecord, secret);
        require((revealed(found.good) != 0) == (kind == Kind::kGood), "check_cbc_blocks is wrong");
        require(revealed(found.len) == (kind == Kind::kGood ? len - mac_len - padding_len - 1 : 0),
                "a wrong length");
      }
    }
  }
}

void check_mac() {
  for (const auto& [mac, mac_len] : kMacs) {
    const Bytes expected = random_bytes(mac_len);
    Bytes out(mac_len);
    tq::tls::record_mac(mac, hidden(expected), kRecord, hidden(random_bytes(300)), out);
    require(revealed(tq::equal_mask(out, hidden(out))) != 0, "equal_mask is wrong");
    require(revealed(tq::equal_mask(out, hidden(random_bytes(mac_len)))) == 0, "equal_mask is wrong");
  }
}

void check_rsa() {
  for (const size_t len : {128, 131, 256, 512}) {
    Bytes modulus = random_bytes(len);
    modulus.front() |= 0x80;
    modulus.back() |= 1;
    Bytes message = random_bytes(len);
    for (const bool in_range : {true, false}) {
      message.front() = in_range ? 0x00 : 0xFF;
      if (!in_range) std::fill(message.begin(), message.end(), uint8_t{0xFF});
      Bytes out(len);
      const Bytes exponent = {1, 0, 1};
      const bool done = tq::rsa_public({modulus, exponent}, hidden(message), out);
      require(revealed(done) == in_range, "rsa_public is wrong");
    }
  }
}

// --- what must be found ---

volatile size_t g_sink;

// As the padding is checked where nobody thinks of time: byte after byte, up to the first that is wrong.
void planted_branch() {
  const Bytes secret = hidden(blocks(tq::tls::Mac::kSha1, 20, Bytes(20), 64, 3, Kind::kGood));
  const size_t padding_len = revealed(secret.back());
  size_t num_right = 0;
  while (num_right < padding_len && secret[secret.size() - 2 - num_right] == padding_len) ++num_right;
  g_sink = num_right;
}

// The MAC taken from the place where the padding says it is.
void planted_index() {
  const Bytes secret = hidden(blocks(tq::tls::Mac::kSha1, 20, Bytes(20), 64, 3, Kind::kGood));
  g_sink = secret[secret.size() - 21 - (secret.back() & 0x0F)];
}

// A message that is hashed up to where the padding says it ends.
void planted_length() {
  const Bytes secret = hidden(Bytes(64, 3));
  tq::Sha1 hash;
  std::array<uint8_t, 20> digest;
  hash.update(std::span(secret).first(size_t{64} - secret.back()));
  hash.finish(digest);
}

// The library's own AES, whose tables are looked up by its data.
void planted_tables() {
  const Bytes key = random_bytes(16);
  const tq::Aes128 aes(std::span<const uint8_t, 16>(key.data(), 16));
  std::array<uint8_t, 16> iv{};
  Bytes out(16);
  tq::aes128_cbc_encrypt(aes, iv, hidden(random_bytes(16)), out);
}

struct Case {
  const char* name;
  void (*run)();
  bool leaks;
};
constexpr Case kCases[] = {
    {"padding and MAC of CBC records", check_cbc, false},
    {"MAC of records", check_mac, false},
    {"RSA, in its message", check_rsa, false},
    {"planted: a branch", planted_branch, true},
    {"planted: an index", planted_index, true},
    {"planted: a length", planted_length, true},
    {"planted: AES tables", planted_tables, true},
};

}  // namespace

int main() {
  require(RUNNING_ON_VALGRIND != 0, "this program says nothing but under valgrind");
  bool good = true;
  for (const Case& c : kCases) {
    const auto before = VALGRIND_COUNT_ERRORS;
    c.run();
    const auto found = VALGRIND_COUNT_ERRORS - before;
    std::printf("%-32s %s: %u\n", c.name, c.leaks ? "must be found" : "must be clean",
                static_cast<unsigned>(found));
    good = good && (found != 0) == c.leaks;
  }
  return good ? 0 : 1;
}
