#include "tls/premaster.hpp"

#include <algorithm>

#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq::tls {

namespace {

// One byte in 256 is zero and drawn again, all of those together; sixteen rounds are never needed but by a
// source that is broken.
constexpr int kMaxRounds = 16;

bool fill_without_zeros(RandomSource& random, std::span<uint8_t> out) {
  if (!random.fill(out)) return false;
  Secret<kMaxRsaBits / 8> spare;
  for (int round = 0; round < kMaxRounds; ++round) {
    const auto num_zeros = static_cast<size_t>(std::count(out.begin(), out.end(), uint8_t{0}));
    if (num_zeros == 0) return true;
    if (num_zeros > spare.size() || !random.fill(spare.bytes().first(num_zeros))) return false;
    size_t next = 0;
    for (uint8_t& byte : out) {
      if (byte == 0) byte = spare.bytes()[next++];
    }
  }
  return false;
}

}  // namespace

bool make_premaster(RandomSource& random, std::span<uint8_t, kPremasterLen> premaster) {
  ByteWriter w(premaster);
  w.number(kTls12, 2);
  return random.fill(premaster.subspan<2>());
}

bool encrypt_premaster(const RsaPublicKey& key, std::span<const uint8_t, kPremasterLen> premaster,
                       RandomSource& random, std::span<uint8_t> out) {
  constexpr size_t kFraming = 3;  // 00 02, random bytes without a zero, 00
  if (out.size() < kFraming + 8 + premaster.size()) return false;
  const auto padding = out.subspan(2, out.size() - premaster.size() - kFraming);
  out[0] = 0x00;
  out[1] = 0x02;
  bool done = fill_without_zeros(random, padding);
  out[2 + padding.size()] = 0x00;
  std::copy(premaster.begin(), premaster.end(), out.end() - kPremasterLen);
  done = done && rsa_public(key, out, out);
  if (!done) wipe(out);
  return done;
}

}  // namespace tq::tls
