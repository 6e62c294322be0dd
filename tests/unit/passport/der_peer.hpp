// DER as OpenSSL writes it.
#pragma once

#include <openssl/asn1.h>

#include "support/bytes.hpp"

namespace test {

// An element with this identifier byte and, when `content` is long, the shortest length field for it.
inline Bytes der(int identifier, const Bytes& content) {
  const int constructed = (identifier & 0x20) != 0 ? 1 : 0;
  const auto len = static_cast<int>(content.size());
  const int tag = identifier & 0x1F;
  Bytes element(static_cast<size_t>(ASN1_object_size(constructed, len, tag)));
  uint8_t* at = element.data();
  ASN1_put_object(&at, constructed, len, tag, identifier & 0xC0);
  std::copy(content.begin(), content.end(), at);
  return element;
}

}  // namespace test
