// The chip's side of secure messaging (ICAO Doc 9303-11 section 9.8), put together from single blocks.
#pragma once

#include <algorithm>

#include "crypto/des.h"
#include "harness.hpp"

namespace fuzz {

constexpr size_t kBlock = 8;

inline Bytes padded(View bytes) {
  Bytes blocks(bytes.begin(), bytes.end());
  blocks.push_back(0x80);
  while (blocks.size() % kBlock != 0) blocks.push_back(0);
  return blocks;
}

inline const Bytes kSuccess = {0x90, 0x00};

inline Bytes next_counter(Bytes counter) {
  for (size_t i = kBlock; i > 0 && ++counter[i - 1] == 0; --i) {
  }
  return counter;
}

// What follows the counter `ssc`: an answer of the chip, whose own counter is one ahead, or a command to it.
class Chip {
 public:
  Chip(const uint8_t* enc, const uint8_t* mac, const uint8_t* ssc) : ssc_(next_counter({ssc, ssc + kBlock})) {
    tq_des3_set2key_enc(&enc_, enc);
    tq_des3_set2key_dec(&dec_, enc);
    tq_des_setkey_enc(&mac_chain_, mac);
    tq_des3_set2key_enc(&mac_last_, mac);
  }

  // Whole blocks.
  Bytes cryptogram(View content) const {
    Bytes value = {1};
    uint8_t chain[kBlock] = {};
    for (size_t at = 0; at < content.size(); at += kBlock) {
      for (size_t i = 0; i < kBlock; ++i) chain[i] ^= content[at + i];
      tq_des3_crypt_ecb(&enc_, chain, chain);
      append(value, chain);
    }
    return element(0x87, value);
  }

  // Whole blocks.
  Bytes deciphered(View blocks) const {
    Bytes content;
    uint8_t chain[kBlock] = {};
    for (size_t at = 0; at < blocks.size(); at += kBlock) {
      uint8_t block[kBlock];
      tq_des3_crypt_ecb(&dec_, blocks.data() + at, block);
      for (size_t i = 0; i < kBlock; ++i) block[i] ^= chain[i];
      std::copy_n(blocks.data() + at, kBlock, chain);
      append(content, block);
    }
    return content;
  }

  // Retail MAC over the counter and what follows it.
  Bytes mac(View content) const { return retail_mac(padded(ssc_ + content)); }
  Bytes retail_mac(View blocks) const {
    Bytes chain(kBlock);
    for (size_t at = 0; at < blocks.size(); at += kBlock) {
      for (size_t i = 0; i < kBlock; ++i) chain[i] ^= blocks[at + i];
      const bool last = at + kBlock == blocks.size();
      last ? tq_des3_crypt_ecb(&mac_last_, chain.data(), chain.data())
           : tq_des_crypt_ecb(&mac_chain_, chain.data(), chain.data());
    }
    return chain;
  }

  // With MAC and status words.
  Bytes answer(View objects) const {
    return Bytes(objects.begin(), objects.end()) + element(0x8E, mac(objects)) + kSuccess;
  }

  Bytes good_answer(View data) const {
    return answer((data.empty() ? Bytes{} : cryptogram(padded(data))) + element(0x99, kSuccess));
  }

 private:
  TQ_DES3_CTX enc_;
  TQ_DES3_CTX dec_;
  TQ_DES_CTX mac_chain_;
  TQ_DES3_CTX mac_last_;
  Bytes ssc_;
};

}  // namespace fuzz
