#include "tls/key_schedule.hpp"

#include <algorithm>
#include <cstring>

#include "crypto/hmac.hpp"

namespace tq::tls {

void prf(std::span<const uint8_t> secret, const char* label, std::span<const uint8_t> seed1,
         std::span<const uint8_t> seed2, std::span<uint8_t> out) {
  const std::span label_bytes(reinterpret_cast<const uint8_t*>(label), std::strlen(label));
  Hmac<Sha256> hmac(secret);
  Secret<Sha256::kDigestLen> a;
  Secret<Sha256::kDigestLen> piece;
  const auto take_seed = [&] {
    hmac.update(label_bytes);
    hmac.update(seed1);
    hmac.update(seed2);
  };
  take_seed();
  hmac.finish(a.bytes());
  while (!out.empty()) {
    hmac.update(a.bytes());
    take_seed();
    hmac.finish(piece.bytes());
    const size_t n = std::min(out.size(), piece.size());
    std::copy_n(piece.data(), n, out.begin());
    out = out.subspan(n);
    hmac.update(a.bytes());
    hmac.finish(a.bytes());
  }
}

void derive_master_secret(std::span<const uint8_t, kPremasterLen> premaster, const HelloRandoms& randoms,
                          std::span<uint8_t, kMasterLen> master) {
  prf(premaster, "master secret", randoms.client, randoms.server, master);
}

KeyBlock::KeyBlock(const Suite& suite, std::span<const uint8_t, kMasterLen> master,
                   const HelloRandoms& randoms)
    : suite_(suite) {
  prf(master, "key expansion", randoms.server, randoms.client, block_.bytes());
}

// client MAC key, server MAC key, client cipher key, server cipher key
void KeyBlock::start_client_side(RecordProtection& protection) const {
  const std::span<const uint8_t> block = block_.bytes();
  protection.start(suite_, block.first(suite_.mac_len),
                   block.subspan(2 * suite_.mac_len).first<kCipherKeyLen>());
}

void KeyBlock::start_server_side(RecordProtection& protection) const {
  const std::span<const uint8_t> block = block_.bytes();
  protection.start(suite_, block.subspan(suite_.mac_len, suite_.mac_len),
                   block.subspan(2 * suite_.mac_len + kCipherKeyLen).first<kCipherKeyLen>());
}

void derive_verify_data(Side side, std::span<const uint8_t, kMasterLen> master,
                        std::span<const uint8_t, Sha256::kDigestLen> transcript,
                        std::span<uint8_t, kVerifyDataLen> out) {
  prf(master, side == Side::kClient ? "client finished" : "server finished", transcript, {}, out);
}

}  // namespace tq::tls
