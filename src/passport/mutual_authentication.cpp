#include "passport/mutual_authentication.hpp"

#include <algorithm>

#include "core/session/card_relay.h"
#include "passport/padding.hpp"
#include "util/byte_cursor.hpp"

namespace tq {
namespace {

constexpr size_t kCounterHalf = 4;
constexpr uint8_t kExternalAuthenticate[] = {0x00, 0x82, 0x00, 0x00, 0x28};  // ISO/IEC 7816-4

}  // namespace

bool derive_document_keys(const MrzFields& mrz, BasicAccess& access) {
  return create_bassis_key(mrz.number, mrz.birth, mrz.expiry, access.enc.data(), access.mac.data()) == TQ_OK;
}

bool make_cryptogram(const BasicAccess& access, Cryptogram& out) {
  Secret<TQ_E_IFD_LENGTH> s;
  ByteWriter w(s.bytes());
  w.bytes(access.rnd_ifd.bytes());
  w.bytes(access.rnd_ic.bytes());
  w.bytes(access.k_ifd.bytes());
  if (!w.ok() || !three_des_encrypt(access.enc.bytes(), s.bytes(), out.e_ifd.data())) return false;
  std::array<uint8_t, TQ_E_IFD_LENGTH + kDesBlockLen> blocks{};
  std::copy(out.e_ifd.begin(), out.e_ifd.end(), blocks.begin());
  retail_mac(access.mac.bytes(), pad(blocks, TQ_E_IFD_LENGTH, kDesBlockLen), out.m_ifd);
  return true;
}

int32_t send_cryptogram(SessionConfig* cfg, const Cryptogram& cryptogram, uint8_t le, uint8_t step) {
  std::array<uint8_t, sizeof kExternalAuthenticate + TQ_E_IFD_LENGTH + TQ_RETAIL_MAC_LENGTH + 1> command{};
  ByteWriter w(command);
  w.bytes(kExternalAuthenticate);
  w.bytes(cryptogram.e_ifd);
  w.bytes(cryptogram.m_ifd);
  w.u8(le);
  return tq_read_card_send(cfg, command.data(), static_cast<uint32_t>(command.size()), step);
}

bool open_channel(std::span<const uint8_t> answer, const BasicAccess& access, SecureChannel& channel) {
  Secret<TQ_E_IFD_LENGTH> r;
  if (answer.size() < r.size() || !three_des_decrypt(access.enc.bytes(), answer.first(r.size()), r.data())) {
    return false;
  }
  const auto rnd_ic = r.bytes().first<8>();
  const auto rnd_ifd = r.bytes().subspan<8, 8>();
  const auto k_ic = r.bytes().last<16>();
  if (!std::equal(rnd_ic.begin(), rnd_ic.end(), access.rnd_ic.data()) ||
      !std::equal(rnd_ifd.begin(), rnd_ifd.end(), access.rnd_ifd.data())) {
    return false;
  }
  Secret<16> seed;
  for (size_t i = 0; i < seed.size(); ++i)
    seed.data()[i] = static_cast<uint8_t>(access.k_ifd.data()[i] ^ k_ic[i]);
  SessionKeys keys;
  if (create_key_share(seed.data(), keys.enc.data(), keys.mac.data()) != TQ_OK) return false;
  Secret<2 * kCounterHalf> counter;
  std::copy_n(access.rnd_ic.data() + kCounterHalf, kCounterHalf, counter.data());
  std::copy_n(access.rnd_ifd.data() + kCounterHalf, kCounterHalf, counter.data() + kCounterHalf);
  channel.start(keys, counter.bytes());
  return true;
}

}  // namespace tq
