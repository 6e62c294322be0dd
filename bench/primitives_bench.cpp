// The ciphers and hashes of the library beside OpenSSL's: throughput for messages of three sizes, and the
// ratio.
//
// Ciphers: on both sides the key is set once and each message starts from a vector (EVP_CipherInit_ex with a
// null key). Hashes: each message is hashed from the start (EVP_DigestInit_ex on one context). HMAC: one call
// from key to MAC on both sides. Passports: everything from the bytes of the keys on, on both sides. RC4: the
// key stream goes on from message to message. RSA: the public operation without padding; OpenSSL keeps what
// it has computed about the key, ours starts from the bytes of the key each time. Runs are repeated in random
// order; the table has the medians. A megabyte is a million bytes.
#include <benchmark/benchmark.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/obj_mac.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "crypto/aes.hpp"
#include "crypto/aes128.hpp"
#include "crypto/des.h"
#include "crypto/elliptic_curve.hpp"
#include "crypto/hmac.hpp"
#include "crypto/md5.hpp"
#include "crypto/rc4.hpp"
#include "crypto/rsa.hpp"
#include "crypto/sha1.h"
#include "crypto/sha256.hpp"
#include "crypto/sm3.h"
#include "crypto/sm4.h"
#include "openssl_messaging.hpp"
#include "passport/pace.hpp"
#include "passport/secure_messaging.h"

namespace {

constexpr int32_t kFileChunk = 212;  // of one READ BINARY
constexpr int32_t kFileBlocks = 224;
constexpr int32_t kRsaLen = 256;
constexpr size_t kRoom = 16384 + 64;
constexpr int kEncrypt = 1;
constexpr int kDecrypt = 0;

using Message = std::vector<uint8_t>;

// Processes `length` bytes of `in` and leaves ciphertext or digest in `out`.
using Run = std::function<void(const Message& in, int32_t length, Message& out)>;

struct Primitive {
  std::string name;
  Run ours;
  Run openssl;
  std::vector<int32_t> lengths = {64, 1024, 16384};
};

constexpr std::array<uint8_t, 24> kKey = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                                          0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10,
                                          0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};

void require(bool held, const char* what) {
  if (held) return;
  static_cast<void>(std::fprintf(stderr, "primitives_bench: %s failed\n", what));
  std::abort();
}

Run openssl_digest(const EVP_MD* md) {
  std::shared_ptr<EVP_MD_CTX> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  require(EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1, "EVP_DigestInit_ex");
  return [ctx](const Message& in, int32_t length, Message& out) {
    EVP_DigestInit_ex(ctx.get(), nullptr, nullptr);
    EVP_DigestUpdate(ctx.get(), in.data(), static_cast<size_t>(length));
    EVP_DigestFinal_ex(ctx.get(), out.data(), nullptr);
  };
}

Run openssl_cipher(const EVP_CIPHER* cipher, int direction) {
  std::shared_ptr<EVP_CIPHER_CTX> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  require(EVP_CipherInit_ex(ctx.get(), cipher, nullptr, kKey.data(), kKey.data(), direction) == 1,
          "EVP_CipherInit_ex");
  EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
  return [ctx](const Message& in, int32_t length, Message& out) {
    int written = 0;
    EVP_CipherInit_ex(ctx.get(), nullptr, nullptr, nullptr, kKey.data(), -1);
    EVP_CipherUpdate(ctx.get(), out.data(), &written, in.data(), length);
    EVP_CipherFinal_ex(ctx.get(), out.data() + written, &written);
  };
}

Run our_sm4_cbc(int32_t mode) {
  auto ctx = std::make_shared<TQ_SM4_CTX>();
  (mode == kEncrypt ? TQ_sm4_setkey_enc : TQ_sm4_setkey_dec)(ctx.get(), kKey.data());
  return [ctx, mode](const Message& in, int32_t length, Message& out) {
    std::array<uint8_t, 16> iv;
    std::copy_n(kKey.begin(), iv.size(), iv.begin());
    TQ_sm4_crypt_cbc(ctx.get(), mode, length, iv.data(), in.data(), out.data());
  };
}

Run our_sm4_ecb() {
  auto ctx = std::make_shared<TQ_SM4_CTX>();
  TQ_sm4_setkey_enc(ctx.get(), kKey.data());
  return [ctx](const Message& in, int32_t length, Message& out) {
    TQ_sm4_crypt_ecb(ctx.get(), kEncrypt, length, in.data(), out.data());
  };
}

template <typename Context, typename SetKey, typename Crypt>
Run our_des_cbc(SetKey set_key, Crypt crypt, int32_t mode) {
  auto ctx = std::make_shared<Context>();
  set_key(ctx.get(), kKey.data());
  return [ctx, crypt, mode](const Message& in, int32_t length, Message& out) {
    std::array<uint8_t, 8> iv;
    std::copy_n(kKey.begin(), iv.size(), iv.begin());
    crypt(ctx.get(), mode, length, iv.data(), in.data(), out.data());
  };
}

template <class Key, typename Crypt>
Run our_aes_cbc(Crypt crypt) {
  auto key = std::make_shared<Key>(std::span<const uint8_t, 16>(kKey.data(), 16));
  return [key, crypt](const Message& in, int32_t length, Message& out) {
    std::array<uint8_t, 16> iv;
    std::copy_n(kKey.begin(), iv.size(), iv.begin());
    crypt(*key, iv, {in.data(), static_cast<size_t>(length)}, out);
  };
}

template <class Hash>
void our_digest(const Message& in, int32_t length, Message& out) {
  Hash hash;
  hash.update({in.data(), static_cast<size_t>(length)});
  hash.finish(std::span<uint8_t, Hash::kDigestLen>(out.data(), Hash::kDigestLen));
}

void our_hmac_sha256(const Message& in, int32_t length, Message& out) {
  tq::Hmac<tq::Sha256> hmac(kKey);
  hmac.update({in.data(), static_cast<size_t>(length)});
  hmac.finish(std::span<uint8_t, 32>(out.data(), 32));
}

Run our_rc4() {
  auto cipher = std::make_shared<tq::Rc4>(std::span<const uint8_t>(kKey).first<16>());
  return [cipher](const Message& in, int32_t length, Message& out) {
    cipher->apply({in.data(), static_cast<size_t>(length)}, out);
  };
}

Run openssl_rc4() {
  std::shared_ptr<EVP_CIPHER_CTX> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  require(EVP_CipherInit_ex(ctx.get(), EVP_rc4(), nullptr, kKey.data(), nullptr, kEncrypt) == 1,
          "EVP_CipherInit_ex");
  return [ctx](const Message& in, int32_t length, Message& out) {
    int written = 0;
    EVP_CipherUpdate(ctx.get(), out.data(), &written, in.data(), length);
  };
}

// A new key for each run of the program; the message is shifted down, so that it is below the modulus.
Primitive rsa_public_operation() {
  const std::shared_ptr<EVP_PKEY> key(EVP_RSA_gen(8 * kRsaLen), EVP_PKEY_free);
  require(key != nullptr, "EVP_RSA_gen");
  BIGNUM* n = nullptr;
  require(EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_N, &n) == 1, "the modulus");
  Message modulus(kRsaLen);
  BN_bn2binpad(n, modulus.data(), kRsaLen);
  BN_free(n);
  const std::shared_ptr<EVP_PKEY_CTX> ctx(EVP_PKEY_CTX_new(key.get(), nullptr), EVP_PKEY_CTX_free);
  require(EVP_PKEY_encrypt_init(ctx.get()) == 1, "EVP_PKEY_encrypt_init");
  require(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) == 1, "RSA without padding");
  const auto below_modulus = [](const Message& in) {
    std::array<uint8_t, kRsaLen> message{};
    std::copy_n(in.begin(), message.size() - 1, message.begin() + 1);
    return message;
  };
  return {"RSA-2048 public",
          [modulus, below_modulus](const Message& in, int32_t /*length*/, Message& out) {
            constexpr std::array<uint8_t, 3> exponent = {1, 0, 1};
            require(tq::rsa_public({modulus, exponent}, below_modulus(in), std::span(out).first(kRsaLen)),
                    "rsa_public");
          },
          [ctx, key, below_modulus](const Message& in, int32_t length, Message& out) {
            size_t out_len = out.size();
            const auto message = below_modulus(in);
            require(EVP_PKEY_encrypt(ctx.get(), out.data(), &out_len, message.data(),
                                     static_cast<size_t>(length)) == 1,
                    "EVP_PKEY_encrypt");
          },
          {kRsaLen}};
}

void our_cmac(const Message& in, int32_t length, Message& out) {
  const tq::Aes key{std::span(kKey).first<16>()};
  tq::Cmac cmac(key);
  cmac.update({in.data(), static_cast<size_t>(length)});
  cmac.finish(std::span(out).first<16>());
}

void openssl_mac(std::span<const uint8_t> key, std::span<const uint8_t> data, uint8_t* out) {
  size_t len = 0;
  require(EVP_Q_mac(nullptr, "CMAC", nullptr, "AES-128-CBC", nullptr, key.data(), key.size(), data.data(),
                    data.size(), out, 16, &len) != nullptr,
          "EVP_Q_mac");
}

void openssl_cmac(const Message& in, int32_t length, Message& out) {
  openssl_mac(std::span(kKey).first(16), std::span(in).first(static_cast<size_t>(length)), out.data());
}

class OpenSslCurve {
 public:
  explicit OpenSslCurve(int nid) : group_(EC_GROUP_new_by_curve_name(nid), EC_GROUP_free) {}

  // scalar * base + summand, from bytes to bytes; no base is the generator.
  Message product(std::span<const uint8_t> scalar, const Message& base, const Message& summand = {}) const {
    const std::shared_ptr<BIGNUM> k(BN_bin2bn(scalar.data(), static_cast<int>(scalar.size()), nullptr),
                                    BN_free);
    const auto result = decoded({});
    const auto point = decoded(base);
    EC_POINT_mul(group_.get(), result.get(), base.empty() ? k.get() : nullptr,
                 base.empty() ? nullptr : point.get(), base.empty() ? nullptr : k.get(), ctx_.get());
    if (!summand.empty())
      EC_POINT_add(group_.get(), result.get(), result.get(), decoded(summand).get(), ctx_.get());
    Message out(tq::kMaxPointLen);
    out.resize(EC_POINT_point2oct(group_.get(), result.get(), POINT_CONVERSION_UNCOMPRESSED, out.data(),
                                  out.size(), ctx_.get()));
    return out;
  }

 private:
  std::shared_ptr<EC_POINT> decoded(const Message& bytes) const {
    std::shared_ptr<EC_POINT> point(EC_POINT_new(group_.get()), EC_POINT_free);
    if (!bytes.empty()) EC_POINT_oct2point(group_.get(), point.get(), bytes.data(), bytes.size(), ctx_.get());
    return point;
  }

  std::shared_ptr<EC_GROUP> group_;
  std::shared_ptr<BN_CTX> ctx_{BN_CTX_new(), BN_CTX_free};
};

// The message is the scalar.
Primitive point(const char* name, const tq::CurveParameters& parameters, int nid) {
  const tq::Curve curve(parameters);
  const OpenSslCurve peer(nid);
  const Message base = peer.product(std::span(kKey).first(24), {});
  const auto len = static_cast<int32_t>(parameters.field_len);
  return {name,
          [curve, base](const Message& in, int32_t length, Message& out) {
            tq::Curve::Point product{};
            tq::Scalar scalar{};
            curve.reduce(std::span(in).first(static_cast<size_t>(length)), scalar);
            require(curve.decode(base, product), "decode");
            curve.multiply(scalar, product, product);
            require(curve.encode(product, out), "encode");
          },
          [peer, base](const Message& in, int32_t length, Message& out) {
            const Message product = peer.product(std::span(in).first(static_cast<size_t>(length)), base);
            std::copy(product.begin(), product.end(), out.begin());
          },
          {len}};
}

Message from_hex(const char* digits) {
  long len = 0;
  const std::unique_ptr<uint8_t, void (*)(uint8_t*)> bytes(OPENSSL_hexstr2buf(digits, &len),
                                                           [](uint8_t* b) { OPENSSL_free(b); });
  return {bytes.get(), bytes.get() + len};
}

// ICAO 9303-11 appendix G.1. The result is our token and the session keys.
Primitive pace() {
  const Message password = from_hex("7E2D2A41C74EA0B38CD36F863939BFA8E9032AAD");
  const Message nonce = from_hex("95A3A016522EE98D01E76CB6B98B42C3");
  const Message secrets[] = {from_hex("7F4EF07B9EA82FD78AD689B38D0BC78CF21F249D953BC46F4C6E19259C010F99"),
                             from_hex("A73FB703AC1436A18E0CFA5ABB3F7BEC7A070E7A6788486BEE230C4A22762595")};
  const Message chip_keys[] = {
      from_hex(
          "04824FBA91C9CBE26BEF53A0EBE7342A3BF178CEA9F45DE0B70AA601651FBA3F5730D8C879AAA9C9F73991E61B58F4D5"
          "2EB87A0A0C709A49DC63719363CCD13C54"),
      from_hex(
          "049E880F842905B8B3181F7AF7CAA9F0EFB743847F44A306D2D28C1D9EC65DF6DB7764B22277A2EDDC3C265A9F018F9C"
          "B852E111B768B326904B59A0193776F094")};
  const auto object = [](std::initializer_list<uint8_t> head, const Message& value) {
    Message bytes(head);
    bytes.insert(bytes.end(), value.begin(), value.end());
    return bytes;
  };
  const auto ours = [=](const Message& /*in*/, int32_t /*length*/, Message& out) {
    using Result = tq::Pace::Result;
    const auto random = [&](size_t i) {
      std::array<uint8_t, tq::Pace::kRandomLen> bytes{};
      std::copy(secrets[i].begin(), secrets[i].end(), bytes.begin() + 8);
      return bytes;
    };
    const auto offer = tq::strongest_pace(from_hex("31143012060A04007F0007020204020202010202010D"));
    tq::Pace run(*offer, std::span(password).first<tq::Pace::kPasswordLen>());
    require(run.begin() == Result::kNext && run.take_acceptance({}) == Result::kNext &&
                run.take_nonce(object({0x7C, 0x12, 0x80, 0x10}, nonce), random(0)) == Result::kNext &&
                run.take_mapping_key(object({0x7C, 0x43, 0x82, 0x41}, chip_keys[0]), random(1)) ==
                    Result::kNext &&
                run.take_public_key(object({0x7C, 0x43, 0x84, 0x41}, chip_keys[1])) == Result::kNext,
            "PACE");
    std::copy_n(run.command().begin() + 9, 8, out.begin());
    require(run.take_token(object({0x7C, 0x0A, 0x86, 0x08}, from_hex("3ABB9674BCE93C08"))) == Result::kDone,
            "PACE");
    std::copy_n(run.keys().enc.data(), 16, out.begin() + 8);
    std::copy_n(run.keys().mac.data(), 16, out.begin() + 24);
  };
  const OpenSslCurve curve(NID_brainpoolP256r1);
  const auto derive = [](Message secret, uint8_t counter) {
    secret.insert(secret.end(), {0, 0, 0, counter});
    Message key(SHA_DIGEST_LENGTH);
    SHA1(secret.data(), secret.size(), key.data());
    key.resize(16);
    return key;
  };
  const auto openssl = [=](const Message& /*in*/, int32_t /*length*/, Message& out) {
    const std::shared_ptr<EVP_CIPHER_CTX> cipher(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    Message s(32);
    int len = 0;
    EVP_CipherInit_ex(cipher.get(), EVP_aes_128_ecb(), nullptr, derive(password, 3).data(), nullptr,
                      kDecrypt);
    EVP_CipherUpdate(cipher.get(), s.data(), &len, nonce.data(), 16);
    s.resize(16);
    const Message mapping_key = curve.product(secrets[0], {});
    const Message generator = curve.product(s, {}, curve.product(secrets[0], chip_keys[0]));
    const Message public_key = curve.product(secrets[1], generator);
    const Message agreed = curve.product(secrets[1], chip_keys[1]);
    const Message x(agreed.begin() + 1, agreed.begin() + 33);
    const Message enc = derive(x, 1);
    const Message mac = derive(x, 2);
    std::array<uint8_t, 16> token;
    for (const Message& key : {public_key, chip_keys[1]}) {
      openssl_mac(mac,
                  object({0x7F, 0x49, 0x4F, 0x06, 0x0A, 0x04, 0x00, 0x7F, 0x00, 0x07, 0x02, 0x02, 0x04, 0x02,
                          0x02, 0x86, 0x41},
                         key),
                  token.data());
    }
    require(!mapping_key.empty(), "a mapping key");
    std::copy_n(token.begin(), 8, out.begin());
    std::copy_n(enc.begin(), 16, out.begin() + 8);
    std::copy_n(mac.begin(), 16, out.begin() + 24);
  };
  return {"PACE bp256, AES-128", ours, openssl, {kFileChunk}};
}

// A new counter for every message, so that all runs do the same.
struct Counter {
  std::array<uint8_t, 8> ssc = {0x88, 0x70, 0x22, 0x12, 0x0C, 0x06, 0xC2, 0x26};
  uint8_t* data() { return ssc.data(); }
};

Primitive retail_mac(const std::shared_ptr<OpenSslMessaging>& openssl) {
  return {"retail MAC",
          [](const Message& in, int32_t length, Message& out) {
            create_message_auth_code(in.data(), static_cast<uint32_t>(length), kKey.data(), out.data(), 8);
          },
          [openssl](const Message& in, int32_t length, Message& out) {
            openssl->retail_mac(in.data(), static_cast<size_t>(length), out.data());
          }};
}

Primitive protect_command(const std::shared_ptr<OpenSslMessaging>& openssl) {
  return {"SM protect",
          [](const Message& in, int32_t length, Message& out) {
            RP_protect_apdu(in.data(), static_cast<uint32_t>(length) + 5, kKey.data(), kKey.data(),
                            Counter().data(), 1, out.data(), static_cast<uint32_t>(out.size()));
          },
          [openssl](const Message& in, int32_t length, Message& out) {
            openssl->protect(in.data(), static_cast<size_t>(length) + 5, Counter().data(), out.data());
          },
          {kFileChunk}};
}

// The answer is always the same; it is made beforehand.
Primitive unprotect_answer(const std::shared_ptr<OpenSslMessaging>& openssl) {
  const Message data(kFileChunk, 0x5A);
  Message answer(kFileChunk + 64);
  answer.resize(openssl->protect_answer(data.data(), data.size(), Counter().data(), answer.data()));
  return {"SM unprotect",
          [answer](const Message& /*in*/, int32_t length, Message& out) {
            const int32_t rc = RP_unprotect_apdu(answer.data(), static_cast<uint32_t>(answer.size()),
                                                 kKey.data(), kKey.data(), Counter().data(), out.data(),
                                                 static_cast<uint32_t>(out.size()));
            require(rc == length, "RP_unprotect_apdu");
          },
          [openssl, answer](const Message& /*in*/, int32_t length, Message& out) {
            const int rc = openssl->unprotect(answer.data(), answer.size(), Counter().data(), out.data());
            require(rc == length, "OpenSSL's unprotect");
          },
          {kFileChunk}};
}

std::vector<Primitive> primitives() {
  const auto messaging = std::make_shared<OpenSslMessaging>(kKey.data(), kKey.data());
  return {
      {"SM3", [](const Message& in, int32_t length, Message& out) { TQ_sm3(in.data(), length, out.data()); },
       openssl_digest(EVP_sm3())},
      {"HMAC-SM3",
       [](const Message& in, int32_t length, Message& out) {
         TQ_sm3_hmac(kKey.data(), kKey.size(), in.data(), length, out.data());
       },
       [](const Message& in, int32_t length, Message& out) {
         HMAC(EVP_sm3(), kKey.data(), kKey.size(), in.data(), static_cast<size_t>(length), out.data(),
              nullptr);
       }},
      {"SHA-1",
       [](const Message& in, int32_t length, Message& out) {
         TQSHA1Parse(in.data(), static_cast<size_t>(length), out.data(), 20);
       },
       openssl_digest(EVP_sha1())},
      {"SHA-256", our_digest<tq::Sha256>, openssl_digest(EVP_sha256())},
      {"HMAC-SHA-256", our_hmac_sha256,
       [](const Message& in, int32_t length, Message& out) {
         HMAC(EVP_sha256(), kKey.data(), kKey.size(), in.data(), static_cast<size_t>(length), out.data(),
              nullptr);
       }},
      {"MD5", our_digest<tq::Md5>, openssl_digest(EVP_md5())},
      {"AES-CBC encrypt", our_aes_cbc<tq::Aes128>(tq::aes128_cbc_encrypt),
       openssl_cipher(EVP_aes_128_cbc(), kEncrypt)},
      {"AES-CBC decrypt", our_aes_cbc<tq::Aes128>(tq::aes128_cbc_decrypt),
       openssl_cipher(EVP_aes_128_cbc(), kDecrypt)},
      {"secret AES encrypt",
       our_aes_cbc<tq::Aes>(tq::aes_cbc_encrypt),
       openssl_cipher(EVP_aes_128_cbc(), kEncrypt),
       {kFileBlocks}},
      {"secret AES decrypt",
       our_aes_cbc<tq::Aes>(tq::aes_cbc_decrypt),
       openssl_cipher(EVP_aes_128_cbc(), kDecrypt),
       {kFileBlocks}},
      {"CMAC", our_cmac, openssl_cmac, {kFileBlocks}},
      point("point P-224", tq::curves::kP224, NID_secp224r1),
      point("point P-256", tq::curves::kP256, NID_X9_62_prime256v1),
      point("point P-384", tq::curves::kP384, NID_secp384r1),
      point("point P-521", tq::curves::kP521, NID_secp521r1),
      point("point bp256", tq::curves::kBrainpool256, NID_brainpoolP256r1),
      point("point bp384", tq::curves::kBrainpool384, NID_brainpoolP384r1),
      point("point bp512", tq::curves::kBrainpool512, NID_brainpoolP512r1),
      pace(),
      {"RC4", our_rc4(), openssl_rc4()},
      rsa_public_operation(),
      {"SM4-ECB", our_sm4_ecb(), openssl_cipher(EVP_sm4_ecb(), kEncrypt)},
      {"SM4-CBC encrypt", our_sm4_cbc(kEncrypt), openssl_cipher(EVP_sm4_cbc(), kEncrypt)},
      {"SM4-CBC decrypt", our_sm4_cbc(kDecrypt), openssl_cipher(EVP_sm4_cbc(), kDecrypt)},
      {"DES-CBC encrypt", our_des_cbc<TQ_DES_CTX>(tq_des_setkey_enc, tq_des_crypt_cbc, kEncrypt),
       openssl_cipher(EVP_des_cbc(), kEncrypt)},
      {"DES-CBC decrypt", our_des_cbc<TQ_DES_CTX>(tq_des_setkey_dec, tq_des_crypt_cbc, kDecrypt),
       openssl_cipher(EVP_des_cbc(), kDecrypt)},
      {"3DES-CBC encrypt", our_des_cbc<TQ_DES3_CTX>(tq_des3_set2key_enc, tq_des3_crypt_cbc, kEncrypt),
       openssl_cipher(EVP_des_ede_cbc(), kEncrypt)},
      {"3DES-CBC decrypt", our_des_cbc<TQ_DES3_CTX>(tq_des3_set2key_dec, tq_des3_crypt_cbc, kDecrypt),
       openssl_cipher(EVP_des_ede_cbc(), kDecrypt)},
      retail_mac(messaging),
      protect_command(messaging),
      unprotect_answer(messaging),
  };
}

// A comparison is worth something only between equal results.
void require_equal_results(const Primitive& primitive) {
  Message in(kRoom);
  for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<uint8_t>(i * 7);
  for (const int32_t length : primitive.lengths) {
    Message ours(kRoom);
    Message theirs(kRoom);
    primitive.ours(in, length, ours);
    primitive.openssl(in, length, theirs);
    require(ours == theirs, primitive.name.c_str());
  }
}

void register_runs(const std::string& name, const Run& run, const std::vector<int32_t>& lengths) {
  for (const int32_t length : lengths) {
    benchmark::RegisterBenchmark((name + "/" + std::to_string(length)).c_str(),
                                 [run, length](benchmark::State& state) {
                                   const Message in(kRoom, 0x5A);
                                   Message out(kRoom);
                                   for ([[maybe_unused]] auto _ : state) {
                                     run(in, length, out);
                                     benchmark::DoNotOptimize(out.data());
                                     benchmark::ClobberMemory();
                                   }
                                   state.SetBytesProcessed(state.iterations() * length);
                                 });
  }
}

// Collects the medians and prints the table at the end.
class TableReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
      megabytes_per_second_[run.run_name.function_name] = run.counters.at("bytes_per_second").value / 1e6;
    }
  }

  void print_table(const std::vector<Primitive>& all) const {
    std::printf("%-20s %7s %12s %12s %7s %12s\n", "", "bytes", "ours MB/s", "OpenSSL MB/s", "ratio",
                "ours us/call");
    for (const Primitive& primitive : all) {
      for (const int32_t length : primitive.lengths) {
        const double ours = megabytes_per_second(primitive.name + "/ours/", length);
        const double theirs = megabytes_per_second(primitive.name + "/OpenSSL/", length);
        if (ours > 0 && theirs > 0) {
          std::printf("%-20s %7d %12.2f %12.2f %7.2f %12.2f\n", primitive.name.c_str(), length, ours, theirs,
                      ours / theirs, length / ours);
        }
      }
    }
  }

 private:
  double megabytes_per_second(const std::string& name, int32_t length) const {
    const auto found = megabytes_per_second_.find(name + std::to_string(length));
    return found == megabytes_per_second_.end() ? 0 : found->second;
  }

  std::map<std::string, double> megabytes_per_second_;
};

}  // namespace

// Options are those of Google Benchmark, such as --benchmark_filter=SM4 or --benchmark_repetitions=21.
int main(int argc, char** argv) {
  require(OSSL_PROVIDER_load(nullptr, "default") != nullptr, "the default provider");
  require(OSSL_PROVIDER_load(nullptr, "legacy") != nullptr, "the legacy provider, which has single DES,");

  std::vector<std::string> arguments = {argv[0], "--benchmark_repetitions=9", "--benchmark_min_time=0.03",
                                        "--benchmark_enable_random_interleaving=true"};
  arguments.insert(arguments.end(), argv + 1, argv + argc);  // the last of an option counts
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  pointers.push_back(nullptr);
  benchmark::Initialize(&count, pointers.data());
  if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) return EXIT_FAILURE;

  const std::vector<Primitive> all = primitives();
  for (const Primitive& primitive : all) {
    require_equal_results(primitive);
    register_runs(primitive.name + "/ours", primitive.ours, primitive.lengths);
    register_runs(primitive.name + "/OpenSSL", primitive.openssl, primitive.lengths);
  }
  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.print_table(all);
  return EXIT_SUCCESS;
}
