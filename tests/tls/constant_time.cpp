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
#include <random>
#include <vector>

#include "crypto/aes.hpp"
#include "crypto/aes128.hpp"
#include "crypto/rsa.hpp"
#include "passport/pace.hpp"
#include "passport/secure_channel.hpp"
#include "tls/record_mac.hpp"
#include "tls/record_protection.hpp"

// The AES of records looks bytes up in tables, which is accepted: the linker sends its calls here, where what
// goes in is shown and what comes out is hidden.
#define AES128_CBC_DECRYPT                                              \
  "_ZN2tq18aes128_cbc_decryptERKNS_6Aes128ESt4spanIhLm16EES3_IKhLm1844" \
  "6744073709551615EES3_IhLm18446744073709551615EE"
using Vector = std::span<uint8_t, tq::Aes128::kBlockLen>;
using Input = std::span<const uint8_t>;
using Output = std::span<uint8_t>;
void real_decrypt(const tq::Aes128&, Vector, Input, Output) __asm__("__real_" AES128_CBC_DECRYPT);
void wrapped_decrypt(const tq::Aes128&, Vector, Input, Output) __asm__("__wrap_" AES128_CBC_DECRYPT);

void wrapped_decrypt(const tq::Aes128& key, Vector iv, Input in, Output out) {
  VALGRIND_MAKE_MEM_DEFINED(iv.data(), iv.size());
  VALGRIND_MAKE_MEM_DEFINED(in.data(), in.size());
  real_decrypt(key, iv, in, out);
  VALGRIND_MAKE_MEM_UNDEFINED(iv.data(), iv.size());
  VALGRIND_MAKE_MEM_UNDEFINED(out.data(), out.size());
}

namespace {

using Bytes = std::vector<uint8_t>;

Bytes random_bytes(size_t n) {
  static std::mt19937 generator(5246);
  Bytes bytes(n);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(generator());
  return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
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

// --- what is checked: each returns how many decisions it has seen that it permits ---

enum class Kind { kGood, kBadPadding, kBadMac, kNoise };

constexpr auto kType = tq::tls::ContentType::kApplicationData;
constexpr uint64_t kNumber = 7;
const Bytes kCipherKey = random_bytes(tq::tls::kCipherKeyLen);

// A record of `len` bytes behind the vector.
Bytes record(const tq::tls::Suite& suite, const Bytes& mac_key, size_t len, Kind kind) {
  Bytes all = random_bytes(tq::Aes128::kBlockLen + len);
  const auto parts = std::span(all).subspan(tq::Aes128::kBlockLen);
  const bool cbc = suite.cipher == tq::tls::Cipher::kAes128Cbc;
  const size_t padding_len = cbc ? (len - suite.mac_len - 1) % 256 + 1 : 0;
  const size_t content_len = len - suite.mac_len - padding_len;
  tq::tls::record_mac(suite.mac, mac_key, {kNumber, kType}, parts.first(content_len),
                      parts.subspan(content_len, suite.mac_len));
  const auto padding = parts.last(padding_len);
  std::fill(padding.begin(), padding.end(), static_cast<uint8_t>(padding_len - 1));
  if (kind == Kind::kBadMac) parts[content_len] ^= 1;
  if (kind == Kind::kBadPadding) parts[len - 1 - padding_len / 2] ^= 1;  // of the MAC where there is none
  if (kind == Kind::kNoise) std::copy_n(random_bytes(len).begin(), len, parts.begin());
  if (!cbc) {
    tq::Rc4(kCipherKey).apply(parts, parts);
    return {parts.begin(), parts.end()};
  }
  Bytes iv(all.begin(), all.begin() + tq::Aes128::kBlockLen);
  const tq::Aes128 aes{std::span(kCipherKey).first<tq::Aes128::kKeyLen>()};
  tq::aes128_cbc_encrypt(aes, std::span(iv).first<tq::Aes128::kBlockLen>(), parts, parts);
  return all;
}

// The whole of a fragment is hidden, and so is the key of the MAC: one decision, whatever is wrong with it.
unsigned check_records() {
  unsigned num_opened = 0;
  for (const tq::tls::Suite& suite : tq::tls::kSuites) {
    const Bytes mac_key = random_bytes(suite.mac_len);
    for (const size_t len : {48, 64, 288, 304, 1024, 16384}) {
      for (const Kind kind : {Kind::kGood, Kind::kBadPadding, Kind::kBadMac, Kind::kNoise}) {
        Bytes fragment = hidden(record(suite, mac_key, len, kind));
        tq::tls::RecordProtection protection;
        protection.start(suite, hidden(mac_key), std::span(kCipherKey).first<tq::tls::kCipherKeyLen>(),
                         kNumber);
        std::span<uint8_t> content;
        const auto before = VALGRIND_COUNT_ERRORS;
        const bool opened = revealed(protection.open(kType, fragment, content));
        ++num_opened;
        const auto found = VALGRIND_COUNT_ERRORS - before;
        require(found == 1, "not one decision in a record");
        require(opened == (kind == Kind::kGood), "RecordProtection::open is wrong");
      }
    }
  }
  return num_opened;
}

unsigned check_rsa() {
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
  return 0;
}

// Password and private keys are hidden, and with them all that comes of them. The chip's keys are points of
// the curve, its token is a wrong one. Of our public keys and of the secret point Pace asks whether they can
// be written down, of the chip's keys whether they are ours, of the token whether it is right. (3DES looks
// things up.)
unsigned check_pace() {
  constexpr unsigned decisions = 3 + 2 + 1;
  unsigned num_permitted = 0;
  for (const uint8_t domain : Bytes{10, 11, 12, 13, 14, 15, 16, 17, 18}) {
    const auto cipher = static_cast<uint8_t>(2 + domain % 3);
    const auto offer =
        tq::strongest_pace(Bytes{0x31, 0x14, 0x30, 0x12, 0x06,   0x0A, 0x04, 0x00, 0x7F, 0x00, 0x07,
                                 0x02, 0x02, 0x04, 0x02, cipher, 0x02, 0x01, 0x02, 0x02, 0x01, domain});
    const tq::Curve curve(*offer->curve);
    const auto answer = [&curve](uint8_t tag) {
      const auto len = static_cast<uint8_t>(curve.point_len());
      Bytes object = {0x7C, 0x81, static_cast<uint8_t>(len + 3), tag, 0x81, len};
      object.resize(object.size() + len);
      static_cast<void>(curve.encode(curve.generator(), std::span(object).last(len)));
      return object;
    };
    const Bytes nonce = Bytes{0x7C, 0x12, 0x80, 0x10} + random_bytes(16);
    const Bytes token = Bytes{0x7C, 0x0A, 0x86, 0x08} + random_bytes(8);
    const Bytes password = hidden(random_bytes(tq::Pace::kPasswordLen));
    const auto random = [] { return hidden(random_bytes(tq::Pace::kRandomLen)); };
    const auto as_random = [](const Bytes& bytes) { return std::span(bytes).first<tq::Pace::kRandomLen>(); };
    const Bytes first = random();
    const Bytes second = random();
    tq::Pace pace(*offer, std::span(password).first<tq::Pace::kPasswordLen>());
    const auto before = VALGRIND_COUNT_ERRORS;
    pace.begin();
    pace.take_acceptance({});
    pace.take_nonce(nonce, as_random(first));
    pace.take_mapping_key(answer(0x82), as_random(second));
    pace.take_public_key(answer(0x84));
    require(revealed(pace.take_token(token)) == tq::Pace::Result::kWrongKey, "Pace is wrong");
    require(VALGRIND_COUNT_ERRORS - before == decisions, "not the decisions that Pace has to take");
    num_permitted += decisions;
  }
  return num_permitted;
}

unsigned check_aes() {
  for (const size_t key_len : {16, 24, 32}) {
    const tq::Aes aes(hidden(random_bytes(key_len)));
    std::array<uint8_t, 16> iv{};
    Bytes data = hidden(random_bytes(100));
    tq::aes_cbc_encrypt(aes, iv, data, data);
    tq::aes_cbc_decrypt(aes, iv, data, data);
    tq::Cmac cmac(aes);
    cmac.update(data);
    cmac.finish(iv);
  }
  return 0;
}

// Of an answer, only whether its MAC holds.
unsigned check_secure_messaging() {
  unsigned num_permitted = 0;
  for (const tq::CipherSuite suite :
       {tq::CipherSuite::kAes128, tq::CipherSuite::kAes192, tq::CipherSuite::kAes256}) {
    tq::SessionKeys keys;
    keys.suite = suite;
    std::copy_n(hidden(random_bytes(32)).begin(), 32, keys.enc.data());
    std::copy_n(hidden(random_bytes(32)).begin(), 32, keys.mac.data());
    tq::SecureChannel channel(keys, Bytes(16));
    const Bytes challenge = hidden(random_bytes(8));
    Bytes out(128);
    size_t len = 0;
    require(channel.protect({{0x00, 0x88, 0x00, 0x00}, challenge, uint8_t{0}}, out, len), "protect is wrong");
    const Bytes answer = Bytes{0x87, 0x11, 0x01} + hidden(random_bytes(16)) +
                         Bytes{0x99, 0x02, 0x90, 0x00, 0x8E, 8} + random_bytes(8);
    require(revealed(channel.open(answer, out, len)) == tq::Opened::kNotAuthentic, "open is wrong");
    ++num_permitted;
  }
  return num_permitted;
}

// --- what must be found ---

volatile size_t g_sink;

// As a MAC is compared where nobody thinks of time: byte after byte, up to the first that differs.
unsigned planted_branch() {
  const Bytes secret = hidden(random_bytes(64));
  size_t num_equal = 0;
  while (num_equal < 32 && secret[num_equal] == secret[32 + num_equal]) ++num_equal;
  g_sink = num_equal;
  return 0;
}

// The MAC taken from the place where the padding says it is.
unsigned planted_index() {
  const Bytes secret = hidden(random_bytes(64));
  g_sink = secret[secret.size() - 21 - (secret.back() & 0x0F)];
  return 0;
}

// The library's own AES of connections, whose tables are looked up by its data.
unsigned planted_tables() {
  const Bytes key = random_bytes(16);
  const tq::Aes128 aes(std::span<const uint8_t, 16>(key.data(), 16));
  std::array<uint8_t, 16> iv{};
  Bytes out(16);
  tq::aes128_cbc_encrypt(aes, iv, hidden(random_bytes(16)), out);
  return 0;
}

// A scalar that is added only where it has a bit.
unsigned planted_scalar() {
  const tq::Curve curve(tq::curves::kP224);
  tq::Curve::Point sum = curve.generator();
  tq::Scalar scalar{};
  curve.reduce(hidden(random_bytes(28)), scalar);
  for (size_t i = 0; i < 8; ++i) {
    curve.add(sum, sum, sum);
    if ((scalar[0] >> i & 1) != 0) curve.add(sum, curve.generator(), sum);
  }
  return 0;
}

struct Case {
  const char* name;
  unsigned (*run)();
  bool leaks;
};
constexpr Case kCases[] = {
    {"records of every suite", check_records, false},
    {"RSA, in its message", check_rsa, false},
    {"PACE on every curve", check_pace, false},
    {"AES and CMAC", check_aes, false},
    {"secure messaging with AES", check_secure_messaging, false},
    {"planted: a branch", planted_branch, true},
    {"planted: an index", planted_index, true},
    {"planted: AES tables", planted_tables, true},
    {"planted: bits of a scalar", planted_scalar, true},
};

}  // namespace

int main() {
  require(RUNNING_ON_VALGRIND != 0, "this program says nothing but under valgrind");
  bool good = true;
  for (const Case& c : kCases) {
    const auto before = VALGRIND_COUNT_ERRORS;
    const unsigned permitted = c.run();
    const auto found = VALGRIND_COUNT_ERRORS - before;
    std::printf("%-32s %u decisions permitted, %s: %u\n", c.name, permitted,
                c.leaks ? "more must be found" : "no more may be", static_cast<unsigned>(found));
    good = good && (found > permitted) == c.leaks;
  }
  return good ? 0 : 1;
}
