// Every cipher, hash and MAC beside OpenSSL, however it is fed, and beside published examples.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <type_traits>

#include "crypto/aes.hpp"
#include "crypto/aes128.hpp"
#include "crypto/des.h"
#include "crypto/hmac.hpp"
#include "crypto/md5.hpp"
#include "crypto/rc4.hpp"
#include "crypto/sha1.hpp"
#include "crypto/sha256.hpp"
#include "crypto/sm3.h"
#include "crypto/sm4.h"
#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;
using Pieces = std::vector<Bytes>;  // of one message; each in a heap block of its own

struct Primitive {
  std::string name;
  size_t unit;  // of the lengths of pieces
  std::vector<size_t> key_lens;
  std::function<Bytes(const Bytes& key, Pieces& pieces)> ours;
  std::function<Bytes(const Bytes& key, const Bytes& data)> openssl;
};

// --- ciphers ---

// Works in place. ECB when `iv` is null.
using Crypt = void (*)(bool encrypt, const Bytes& key, uint8_t* iv, std::span<uint8_t> data);

template <class Key, auto kEncrypt, auto kDecrypt>
void aes(bool encrypt, const Bytes& key, uint8_t* iv, std::span<uint8_t> data) {
  constexpr size_t extent = std::is_same_v<Key, tq::Aes128> ? 16 : std::dynamic_extent;
  const Key aes{std::span<const uint8_t, extent>(key)};
  (encrypt ? kEncrypt : kDecrypt)(aes, std::span<uint8_t, 16>(iv, 16), data, data);
}

// Any mode but 1 decrypts.
template <typename Context, auto kSetEncrypt, auto kSetDecrypt, auto kEcb, auto kCbc>
void des(bool encrypt, const Bytes& key, uint8_t* iv, std::span<uint8_t> data) {
  Context ctx;
  EXPECT_EQ((encrypt ? kSetEncrypt : kSetDecrypt)(&ctx, key.data()), 0);
  const int32_t mode = encrypt ? 1 : data.size() % 16 == 0 ? 0 : 2;
  for (size_t at = 0; iv == nullptr && at < data.size(); at += 8)
    EXPECT_EQ(kEcb(&ctx, &data[at], &data[at]), 0);
  if (iv == nullptr) return;
  EXPECT_EQ(kCbc(&ctx, mode, static_cast<int32_t>(data.size()), iv, data.data(), data.data()), 0);
}

// ECB ignores the mode.
template <auto kSetEncrypt, auto kSetDecrypt, auto kEcb, auto kCbc>
void sm4(bool encrypt, const Bytes& key, uint8_t* iv, std::span<uint8_t> data) {
  TQ_SM4_CTX ctx;
  (encrypt ? kSetEncrypt : kSetDecrypt)(&ctx, key.data());
  const int32_t mode = encrypt ? 1 : data.size() % 32 == 0 ? 0 : 2;
  const auto length = static_cast<int32_t>(data.size());
  iv == nullptr ? kEcb(&ctx, mode, length, data.data(), data.data())
                : kCbc(&ctx, mode, length, iv, data.data(), data.data());
}

struct CipherRow {
  const char* name;
  Crypt crypt;
  size_t key_len;
  size_t block_len;
  const EVP_CIPHER* cbc;
  const EVP_CIPHER* ecb;  // null: it has CBC only
};
const CipherRow kCiphers[] = {
    {"AES-128", aes<tq::Aes, tq::aes_cbc_encrypt, tq::aes_cbc_decrypt>, 16, 16, EVP_aes_128_cbc(), nullptr},
    {"AES-192", aes<tq::Aes, tq::aes_cbc_encrypt, tq::aes_cbc_decrypt>, 24, 16, EVP_aes_192_cbc(), nullptr},
    {"AES-256", aes<tq::Aes, tq::aes_cbc_encrypt, tq::aes_cbc_decrypt>, 32, 16, EVP_aes_256_cbc(), nullptr},
    {"AES-128 of tables", aes<tq::Aes128, tq::aes128_cbc_encrypt, tq::aes128_cbc_decrypt>, 16, 16,
     EVP_aes_128_cbc(), nullptr},
    {"DES", des<TQ_DES_CTX, tq_des_setkey_enc, tq_des_setkey_dec, tq_des_crypt_ecb, tq_des_crypt_cbc>, 8, 8,
     EVP_des_cbc(), EVP_des_ecb()},
    {"two-key 3DES",
     des<TQ_DES3_CTX, tq_des3_set2key_enc, tq_des3_set2key_dec, tq_des3_crypt_ecb, tq_des3_crypt_cbc>, 16, 8,
     EVP_des_ede_cbc(), EVP_des_ede_ecb()},
    {"three-key 3DES",
     des<TQ_DES3_CTX, tq_des3_set3key_enc, tq_des3_set3key_dec, tq_des3_crypt_ecb, tq_des3_crypt_cbc>, 24, 8,
     EVP_des_ede3_cbc(), EVP_des_ede3_ecb()},
    {"SM4", sm4<TQ_sm4_setkey_enc, TQ_sm4_setkey_dec, TQ_sm4_crypt_ecb, TQ_sm4_crypt_cbc>, 16, 16,
     EVP_sm4_cbc(), EVP_sm4_ecb()},
    {"scp_sm4", sm4<scp_sm4_setkey_enc, scp_sm4_setkey_dec, scp_sm4_crypt_ecb, scp_sm4_crypt_cbc>, 16, 16,
     EVP_sm4_cbc(), EVP_sm4_ecb()},
};

// The key has the vector behind it. The result is that of CBC, the next vector, and that of ECB piece by
// piece.
Primitive cipher(const CipherRow& row, bool encrypt) {
  return {std::string(row.name) + (encrypt ? " encrypts" : " decrypts"),
          row.block_len,
          {row.key_len + row.block_len},
          [=](const Bytes& key_and_iv, Pieces& pieces) {
            const Bytes key = slice(key_and_iv, 0, row.key_len);
            Bytes iv = slice(key_and_iv, row.key_len, key_and_iv.size());
            Bytes cbc;
            Bytes ecb;
            for (const Bytes& piece : pieces) {
              Bytes data = piece;
              row.crypt(encrypt, key, iv.data(), data);
              cbc = cbc + data;
              if (row.ecb == nullptr) continue;
              data = piece;
              row.crypt(encrypt, key, nullptr, data);
              ecb = ecb + data;
            }
            return cbc + iv + ecb;
          },
          [=](const Bytes& key_and_iv, const Bytes& data) {
            const Bytes key = slice(key_and_iv, 0, row.key_len);
            const Bytes iv = slice(key_and_iv, row.key_len, key_and_iv.size());
            const Bytes cbc = openssl_cipher(row.cbc, encrypt, key, iv, data);
            const Bytes chain = iv + (encrypt ? cbc : data);
            const Bytes ecb = row.ecb == nullptr ? Bytes() : openssl_cipher(row.ecb, encrypt, key, {}, data);
            return cbc + slice(chain, data.size(), chain.size()) + ecb;
          }};
}

Bytes rc4(const Bytes& key, Pieces& pieces) {
  tq::Rc4 stream(key);
  Bytes out;
  for (Bytes& piece : pieces) stream.apply(piece, piece), out = out + piece;
  return out;
}

// --- hashes and MACs; each object makes the result twice ---

template <auto kStarts, auto kUpdate, auto kFinish>
class Sm3 {
 public:
  static constexpr size_t kDigestLen = 32;
  explicit Sm3(const Bytes& key) : key_(key) { start(); }
  void update(const Bytes& piece) { kUpdate(&ctx_, piece.data(), static_cast<int32_t>(piece.size())); }
  void finish(std::span<uint8_t, 32> out) { kFinish(&ctx_, out.data()), start(); }

 private:
  void start() {
    if constexpr (std::is_invocable_v<decltype(kStarts), TQ_SM3_CTX*>)
      kStarts(&ctx_);
    else
      kStarts(&ctx_, key_.data(), static_cast<int32_t>(key_.size()));
  }
  Bytes key_;
  TQ_SM3_CTX ctx_;
};

template <auto kFunction>
class Sm3AtOnce {
 public:
  static constexpr size_t kDigestLen = 32;
  explicit Sm3AtOnce(const Bytes& key) : key_(key) {}
  void update(const Bytes& piece) { data_ = data_ + piece; }
  void finish(std::span<uint8_t, 32> out) {
    const auto length = static_cast<int32_t>(data_.size());
    if constexpr (std::is_invocable_v<decltype(kFunction), const uint8_t*, int32_t, uint8_t*>)
      kFunction(data_.data(), length, out.data());
    else
      kFunction(key_.data(), static_cast<int32_t>(key_.size()), data_.data(), length, out.data());
    data_.clear();
  }

 private:
  Bytes key_;
  Bytes data_;
};

class Cmac : tq::Aes, public tq::Cmac {
 public:
  explicit Cmac(const Bytes& key) : Aes(key), tq::Cmac(static_cast<const Aes&>(*this)) {}
};

template <class Function>
constexpr size_t output_len() {
  if constexpr (requires { Function::kMacLen; })
    return Function::kMacLen;
  else
    return Function::kDigestLen;
}

template <class Function>
Bytes output_twice(Function& function, const Pieces& pieces) {
  constexpr size_t len = output_len<Function>();
  Bytes out[2] = {Bytes(len), Bytes(len)};
  for (Bytes& one : out) {
    for (const Bytes& piece : pieces) function.update(piece);
    function.finish(std::span<uint8_t, len>(one));
  }
  EXPECT_EQ(out[0], out[1]) << "it is as new afterwards";
  return out[0];
}

template <class Function>
Bytes output(const Bytes& key, Pieces& pieces) {
  if constexpr (std::is_constructible_v<Function, const Bytes&>) {
    Function function(key);
    return output_twice(function, pieces);
  } else {
    Function function;
    return output_twice(function, pieces);
  }
}

template <class Hash>
Primitive hash(const char* name, const EVP_MD* md) {
  return {
      name, 1, {0}, output<Hash>, [md](const Bytes&, const Bytes& data) { return openssl_digest(md, data); }};
}

template <class Hmac>
Primitive hmac(const char* name, const EVP_MD* md) {
  return {name, 1, {0, 1, 16, 32, 63, 64, 65, 300}, output<Hmac>, [md](const Bytes& key, const Bytes& data) {
            return openssl_hmac(md, key, data);
          }};
}

std::vector<Primitive> primitives() {
  std::vector<Primitive> all = {
      {"RC4",
       1,
       {16},
       rc4,
       [](const Bytes& key, const Bytes& data) { return openssl_cipher(EVP_rc4(), true, key, {}, data); }},
      {"CMAC", 1, {16, 24, 32}, output<Cmac>, openssl_cmac},
      hash<tq::Sha256>("SHA-256", EVP_sha256()),
      hash<tq::Sha1>("SHA-1", EVP_sha1()),
      hash<tq::Md5>("MD5", EVP_md5()),
      hash<Sm3<TQ_sm3_starts, TQ_sm3_update, TQ_sm3_finish>>("SM3", EVP_sm3()),
      hash<Sm3<scp_sm3_starts, scp_sm3_update, scp_sm3_finish>>("scp_sm3", EVP_sm3()),
      hash<Sm3AtOnce<TQ_sm3>>("SM3 at once", EVP_sm3()),
      hash<Sm3AtOnce<scp_sm3>>("scp_sm3 at once", EVP_sm3()),
      hmac<tq::Hmac<tq::Sha256>>("HMAC-SHA-256", EVP_sha256()),
      hmac<tq::Hmac<tq::Sha1>>("HMAC-SHA-1", EVP_sha1()),
      hmac<tq::Hmac<tq::Md5>>("HMAC-MD5", EVP_md5()),
      hmac<Sm3<TQ_sm3_hmac_starts, TQ_sm3_hmac_update, TQ_sm3_hmac_finish>>("HMAC-SM3", EVP_sm3()),
      hmac<Sm3<scp_sm3_hmac_starts, scp_sm3_hmac_update, scp_sm3_hmac_finish>>("scp_sm3_hmac", EVP_sm3()),
      hmac<Sm3AtOnce<TQ_sm3_hmac>>("HMAC-SM3 at once", EVP_sm3()),
      hmac<Sm3AtOnce<scp_sm3_hmac>>("scp_sm3_hmac at once", EVP_sm3()),
  };
  for (const CipherRow& row : kCiphers) {
    for (const bool encrypt : {true, false}) all.push_back(cipher(row, encrypt));
  }
  return all;
}

TEST(Primitives, AgreeWithOpenSslHoweverTheyAreFed) {
  std::mt19937 generator(2104);
  for (const Primitive& primitive : primitives()) {
    for (const size_t key_len : primitive.key_lens) {
      for (size_t len = 0; len <= 300; len += primitive.unit) {
        const Bytes key = random_bytes(generator, key_len);
        const Bytes data = random_bytes(generator, len);
        const std::string expected = hex(primitive.openssl(key, data));
        Pieces whole = {data};
        ASSERT_EQ(hex(primitive.ours(key, whole)), expected) << primitive.name << " " << len;
        Pieces pieces;
        for (size_t at = 0; at < len; at += pieces.back().size()) {
          const size_t most = std::min<size_t>(generator() % 150, len - at) / primitive.unit * primitive.unit;
          pieces.push_back(slice(data, at, at + most));
        }
        ASSERT_EQ(hex(primitive.ours(key, pieces)), expected) << primitive.name << " in pieces, " << len;
      }
    }
  }
}

template <class Hash>
class TlsHash : public testing::Test {};
using Hashes = testing::Types<tq::Sha256, tq::Sha1, tq::Md5>;
TYPED_TEST_SUITE(TlsHash, Hashes);

// Every hidden length of tails around the block boundaries, behind heads that fill the block differently,
// beside a copy that goes on with what is not hidden.
TYPED_TEST(TlsHash, HiddenLengths) {
  std::mt19937 generator(13);
  constexpr size_t len = TypeParam::kDigestLen;
  const Bytes key = random_bytes(generator, 20);
  tq::Hmac<TypeParam> hmac(key);
  tq::Hmac<TypeParam> open_hmac(key);
  TypeParam hash;
  for (const size_t head_len : {0, 1, 13, 55, 56, 63, 64, 77, 128}) {
    for (const size_t tail_len : {0, 1, 42, 43, 50, 51, 52, 63, 64, 65, 127, 257, 276}) {
      const Bytes head = random_bytes(generator, head_len);
      const Bytes tail = random_bytes(generator, tail_len);
      const auto expect_equal = [&tail](auto& hiding, auto& open, size_t n) {
        Bytes out[2] = {Bytes(len), Bytes(len)};
        open.update(slice(tail, 0, n));
        open.finish(std::span<uint8_t, len>(out[0]));
        hiding.finish_hiding_length(tail, n, std::span<uint8_t, len>(out[1]));
        ASSERT_EQ(out[0], out[1]) << n << " of " << tail.size();
      };
      for (size_t n = 0; n <= tail_len; ++n) {
        hash.update(head);
        TypeParam copy = hash;
        expect_equal(hash, copy, n);
        hmac.update(head);
        open_hmac.update(head);
        expect_equal(hmac, open_hmac, n);
      }
    }
  }
}

}  // namespace
