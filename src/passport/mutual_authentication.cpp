#include "passport/mutual_authentication.hpp"

#include <algorithm>

#include "core/result_code.h"
#include "passport/secure_messaging.h"
#include "passport/three_des.hpp"
#include "util/byte_cursor.hpp"

namespace tq {

constexpr size_t kCounterHalf = 4;

bool derive_document_keys(const MrzFields& mrz, PassportSession& session) {
  return create_bassis_key(mrz.number, mrz.birth, mrz.expiry, session.kenc, session.kmac) == TQ_OK;
}

bool make_cryptogram(const PassportSession& session, Cryptogram& out) {
  Secret<TQ_E_IFD_LENGTH> s;
  ByteWriter w(s.bytes());
  w.bytes(session.rndIFD);
  w.bytes(session.rndIC);
  w.bytes(session.kIFD);
  if (!w.ok() || !three_des_encrypt(session.kenc, s.bytes(), out.e_ifd.data())) return false;
  std::array<uint8_t, TQ_E_IFD_LENGTH + kDesBlockLen> padded{};
  const int32_t len = RP_doPadding(out.e_ifd.data(), TQ_E_IFD_LENGTH, padded.data());
  return create_message_auth_code(padded.data(), static_cast<uint32_t>(len), session.kmac, out.m_ifd.data(),
                                  TQ_RETAIL_MAC_LENGTH) >= 0;
}

bool derive_session_keys(std::span<const uint8_t> answer, PassportSession& session) {
  Secret<TQ_E_IFD_LENGTH> r;
  if (answer.size() < r.size() || !three_des_decrypt(session.kenc, answer.first(r.size()), r.data()))
    return false;
  const uint8_t* rnd_ic = r.data();
  const uint8_t* rnd_ifd = rnd_ic + sizeof session.rndIC;
  const uint8_t* k_ic = rnd_ifd + sizeof session.rndIFD;
  if (!std::equal(rnd_ic, rnd_ifd, session.rndIC) || !std::equal(rnd_ifd, k_ic, session.rndIFD)) return false;
  Secret<sizeof session.kIFD> seed;
  for (size_t i = 0; i < seed.size(); ++i) seed.data()[i] = static_cast<uint8_t>(session.kIFD[i] ^ k_ic[i]);
  if (create_key_share(seed.data(), session.ksenc, session.ksmac) != TQ_OK) return false;
  std::copy_n(session.rndIC + kCounterHalf, kCounterHalf, session.ssc);
  std::copy_n(session.rndIFD + kCounterHalf, kCounterHalf, session.ssc + kCounterHalf);
  return true;
}

}  // namespace tq
