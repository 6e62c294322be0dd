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
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>

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

#include "crypto/aes128.hpp"
#include "crypto/des.h"
#include "crypto/hmac.hpp"
#include "crypto/md5.hpp"
#include "crypto/rc4.hpp"
#include "crypto/rsa.hpp"
#include "crypto/sha1.h"
#include "crypto/sha256.hpp"
#include "crypto/sm3.h"
#include "crypto/sm4.h"
#include "openssl_messaging.hpp"
#include "passport/secure_messaging.h"

namespace {

constexpr int32_t kFileChunk = 212;  // of one READ BINARY
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

template <typename Crypt>
Run our_aes_cbc(Crypt crypt) {
  auto key = std::make_shared<tq::Aes128>(std::span<const uint8_t, 16>(kKey.data(), 16));
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
      {"AES-CBC encrypt", our_aes_cbc(tq::aes128_cbc_encrypt), openssl_cipher(EVP_aes_128_cbc(), kEncrypt)},
      {"AES-CBC decrypt", our_aes_cbc(tq::aes128_cbc_decrypt), openssl_cipher(EVP_aes_128_cbc(), kDecrypt)},
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
    std::printf("%-18s %7s %12s %12s %7s %12s\n", "", "bytes", "ours MB/s", "OpenSSL MB/s", "ratio",
                "ours us/call");
    for (const Primitive& primitive : all) {
      for (const int32_t length : primitive.lengths) {
        const double ours = megabytes_per_second(primitive.name + "/ours/", length);
        const double theirs = megabytes_per_second(primitive.name + "/OpenSSL/", length);
        if (ours > 0 && theirs > 0) {
          std::printf("%-18s %7d %12.1f %12.1f %7.2f %12.2f\n", primitive.name.c_str(), length, ours, theirs,
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
