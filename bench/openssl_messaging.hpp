// Secure messaging of ICAO 9303-11 with OpenSSL's ciphers, as our own is measured beside it: from the bytes
// of the keys to the protected command or the plain data in one call. The contexts are made once, which
// favours OpenSSL.
#pragma once

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

class OpenSslMessaging {
 public:
  OpenSslMessaging(const uint8_t* enc, const uint8_t* mac) : enc_(enc), mac_(mac) {}

  // Retail MAC over whole blocks: single DES in a chain, the last block with triple DES.
  void retail_mac(const uint8_t* data, size_t len, uint8_t* out) {
    std::array<uint8_t, 8> chain{};
    if (len > 8) {
      run(des_, 1, mac_, chain.data(), data, len - 8, scratch_.data());
      std::memcpy(chain.data(), scratch_.data() + len - 16, 8);
    }
    run(triple_des_, 1, mac_, chain.data(), data + len - 8, 8, out);
  }

  // A command with data and Le; `data` follows the fifth byte. Returns the length.
  size_t protect(const uint8_t* command, size_t len, uint8_t* ssc, uint8_t* out) {
    std::array<uint8_t, 512> input{};
    uint8_t* const objects = input.data() + 16;
    size_t at = write_cryptogram(command + 5, len - 5, objects);
    objects[at++] = 0x97;
    objects[at++] = 0x01;
    objects[at++] = command[len - 1];
    count(ssc);
    std::memcpy(input.data(), ssc, 8);
    std::memcpy(input.data() + 8, command, 4);
    input[8] = 0x0C;
    input[12] = 0x80;
    std::memcpy(out, input.data() + 8, 4);
    out[4] = static_cast<uint8_t>(at + 10);
    std::memcpy(out + 5, objects, at);
    out[5 + at] = 0x8E;
    out[6 + at] = 0x08;
    retail_mac(input.data(), pad(input.data(), 16 + at), out + 7 + at);
    out[15 + at] = 0;
    return 16 + at;
  }

  // An answer with a cryptogram of the short or the 81 form, and a status. Returns the number of data bytes,
  // or -1.
  int unprotect(const uint8_t* answer, size_t len, uint8_t* ssc, uint8_t* out) {
    std::array<uint8_t, 512> input{};
    std::array<uint8_t, 8> mac{};
    const size_t form = answer[1] == 0x81 ? 1 : 0;
    const size_t cryptogram_len = answer[1 + form] - size_t{1};
    const size_t before_mac = 3 + form + cryptogram_len + 4;
    if (answer[0] != 0x87 || before_mac + 10 != len || answer[before_mac] != 0x8E) return -1;
    count(ssc);
    std::memcpy(input.data(), ssc, 8);
    std::memcpy(input.data() + 8, answer, before_mac);
    retail_mac(input.data(), pad(input.data(), 8 + before_mac), mac.data());
    if (CRYPTO_memcmp(mac.data(), answer + before_mac + 2, 8) != 0) return -1;
    decipher(answer + 3 + form, cryptogram_len, scratch_.data());
    const size_t data_len = unpadded(scratch_.data(), cryptogram_len);
    std::memcpy(out, scratch_.data(), data_len);
    OPENSSL_cleanse(scratch_.data(), cryptogram_len);
    return static_cast<int>(data_len);
  }

  // A protected command: its data go to `out`. Returns their length, or -1.
  int open_command(const uint8_t* command, size_t len, uint8_t* ssc, uint8_t* out) {
    if (len < 19 || command[0] != 0x0C || command[4] + size_t{6} != len) return -1;
    std::array<uint8_t, 512> input{};
    std::array<uint8_t, 8> mac{};
    const size_t objects_len = len - 16;
    count(ssc);
    std::memcpy(input.data(), ssc, 8);
    std::memcpy(input.data() + 8, command, 4);
    input[12] = 0x80;
    std::memcpy(input.data() + 16, command + 5, objects_len);
    retail_mac(input.data(), pad(input.data(), 16 + objects_len), mac.data());
    if (CRYPTO_memcmp(mac.data(), command + len - 9, 8) != 0) return -1;
    if (command[5] != 0x87) return 0;
    const size_t cryptogram_len = command[6] - size_t{1};
    if (cryptogram_len + 3 > objects_len) return -1;
    decipher(command + 8, cryptogram_len, out);
    return static_cast<int>(unpadded(out, cryptogram_len));
  }

  // Whole blocks, from a vector of zeros.
  void encipher(const uint8_t* data, size_t len, uint8_t* out) {
    run(triple_des_, 1, enc_, kZeros.data(), data, len, out);
  }
  void decipher(const uint8_t* data, size_t len, uint8_t* out) {
    run(triple_des_, 0, enc_, kZeros.data(), data, len, out);
  }

  // Adds ISO/IEC 9797-1 padding method 2. Returns the padded length.
  static size_t pad(uint8_t* data, size_t len) {
    data[len++] = 0x80;
    while (len % 8 != 0) data[len++] = 0;
    return len;
  }

  // What the chip answers: data, if any, and success. Returns its length.
  size_t protect_answer(const uint8_t* data, size_t len, uint8_t* ssc, uint8_t* out) {
    std::array<uint8_t, 512> input{};
    uint8_t* const objects = input.data() + 8;
    size_t at = len == 0 ? 0 : write_cryptogram(data, len, objects);
    for (const uint8_t byte : kStatusGood) objects[at++] = byte;
    count(ssc);
    std::memcpy(input.data(), ssc, 8);
    std::memcpy(out, objects, at);
    out[at] = 0x8E;
    out[at + 1] = 0x08;
    retail_mac(input.data(), pad(input.data(), 8 + at), out + at + 2);
    return at + 10;
  }

 private:
  struct Free {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
  };
  using Cipher = std::unique_ptr<EVP_CIPHER_CTX, Free>;
  static constexpr std::array<uint8_t, 8> kZeros{};
  static constexpr std::array<uint8_t, 4> kStatusGood = {0x99, 0x02, 0x90, 0x00};
  static constexpr std::array<uint8_t, 16> kAnyKey = {1, 2, 3, 4, 5, 6, 7, 8, 9};

  static Cipher make(const EVP_CIPHER* cipher) {
    Cipher ctx(EVP_CIPHER_CTX_new());
    EVP_CipherInit_ex(ctx.get(), cipher, nullptr, kAnyKey.data(), kZeros.data(), 1);
    return ctx;
  }

  static void run(Cipher& cipher, int direction, const uint8_t* key, const uint8_t* iv, const uint8_t* in,
                  size_t len, uint8_t* out) {
    int written = 0;
    EVP_CipherInit_ex(cipher.get(), nullptr, nullptr, key, iv, direction);
    EVP_CIPHER_CTX_set_padding(cipher.get(), 0);
    EVP_CipherUpdate(cipher.get(), out, &written, in, static_cast<int>(len));
  }

  size_t write_cryptogram(const uint8_t* data, size_t len, uint8_t* out) {
    std::memcpy(scratch_.data(), data, len);
    const size_t padded = pad(scratch_.data(), len);
    size_t at = 0;
    out[at++] = 0x87;
    if (padded + 1 > 0x7F) out[at++] = 0x81;
    out[at++] = static_cast<uint8_t>(padded + 1);
    out[at++] = 0x01;
    encipher(scratch_.data(), padded, out + at);
    return at + padded;
  }

  static size_t unpadded(const uint8_t* data, size_t len) {
    while (len > 0 && data[len - 1] == 0) --len;
    return len > 0 && data[len - 1] == 0x80 ? len - 1 : len;
  }

  static void count(uint8_t* ssc) {
    for (size_t i = 8; i > 0 && ++ssc[i - 1] == 0; --i) {
    }
  }

  const uint8_t* enc_;
  const uint8_t* mac_;
  Cipher des_ = make(EVP_des_cbc());
  Cipher triple_des_ = make(EVP_des_ede_cbc());
  std::array<uint8_t, 16384> scratch_{};
};
