// The MAC of a record, and the check of a decrypted CBC record that tells nothing of what was wrong with it:
// RFC 5246 sections 6.2.3.1 and 6.2.3.2.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "crypto/constant_time.hpp"
#include "tls/alert.hpp"
#include "tls/suite.hpp"

namespace tq::tls {

// What the MAC covers beside the content and its length.
struct RecordIdentity {
  uint64_t sequence_number;
  ContentType type;
};

// The MAC over `content`; `out` is exactly as long as the MAC, and so is `key`.
void record_mac(Mac mac, std::span<const uint8_t> key, const RecordIdentity& record,
                std::span<const uint8_t> content, std::span<uint8_t> out);

// Secret until `good` has been turned into a decision.
struct CbcContent {
  Mask good;   // padding and MAC are right
  size_t len;  // of the content at the front of the blocks, 0 when not good
};

// Checks decrypted blocks: content, MAC, padding. Every byte of the padding is compared, the MAC is computed
// whatever the padding looks like, and neither time nor the addresses touched depend on the contents of
// `blocks`; they depend on its length, which is public and longer than the MAC.
CbcContent check_cbc_blocks(Mac mac, std::span<const uint8_t> key, const RecordIdentity& record,
                            std::span<const uint8_t> blocks);

}  // namespace tq::tls
