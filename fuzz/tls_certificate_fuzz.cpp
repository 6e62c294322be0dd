// The key of a certificate. The first choice says what the content is: a certificate, the
// SubjectPublicKeyInfo of one, what its BIT STRING holds, or the two numbers (the first choices then being
// the exponent's length and whether the modulus is followed by something).
#include "tls/certificate_key.hpp"
#include "tls_channel.hpp"

namespace {

using namespace fuzz;
using tq::tls::KeyResult;

Bytes element(uint8_t tag, std::initializer_list<View> parts) {
  Bytes content;
  for (const View part : parts) append(content, part);
  Bytes out = {tag};
  const size_t len = content.size();
  if (len < 0x80) {
    out.push_back(static_cast<uint8_t>(len));
  } else {
    const size_t width = len < 0x100 ? 1 : len < 0x10000 ? 2 : 3;
    out.push_back(static_cast<uint8_t>(0x80 | width));
    append_number(out, len, width);
  }
  append(out, content);
  return out;
}

Bytes certificate(View key_info) {
  const Bytes empty = element(0x30, {});
  const Bytes serial = {0x02, 0x01, 0x05};
  const Bytes version = element(0xA0, {Bytes{0x02, 0x01, 0x02}});
  const Bytes to_be_signed = element(0x30, {version, serial, empty, empty, empty, empty, key_info});
  return element(0x30, {to_be_signed, empty, Bytes{0x03, 0x01, 0x00}});
}

Bytes key_info(View key) {
  const Bytes algorithm = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                           0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
  return element(0x30, {algorithm, element(0x03, {Bytes{0x00}, key})});
}

Bytes positive(View magnitude) {
  const Bytes zero = {0};
  const bool high = !magnitude.empty() && magnitude[0] >= 0x80;
  return element(0x02, {high ? View(zero) : View(), magnitude});
}

bool lies_in(View part, View whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

size_t num_bits(View number) {
  size_t bits = 8 * number.size();
  for (uint8_t top = 0x80; top != 0 && (number[0] & top) == 0; top >>= 1) --bits;
  return bits;
}

bool usable(View n, View e) {
  if (n.empty() || e.empty() || n[0] == 0 || e[0] == 0) return false;
  if (n.back() % 2 == 0 || e.back() % 2 == 0 || num_bits(n) < 1024 || num_bits(n) > 8192 || num_bits(e) < 2 ||
      num_bits(e) > 64)
    return false;
  return num_bits(e) < num_bits(n) ||
         (num_bits(e) == num_bits(n) && std::memcmp(e.data(), n.data(), n.size()) < 0);
}

KeyResult read(View bytes) {
  Block block(bytes);
  tq::RsaPublicKey key{};
  const KeyResult result = tq::tls::read_certificate_key(block.bytes(), key);
  if (result != KeyResult::kFound) {
    require(key.modulus.empty() && key.exponent.empty());
    return result;
  }
  require(lies_in(key.modulus, block.bytes()) && lies_in(key.exponent, block.bytes()));
  require(usable(key.modulus, key.exponent));
  for (size_t len : {size_t{0}, size_t{1}, bytes.size() / 2, bytes.size() - 1}) {  // cut short it is none
    Block cut(bytes.first(len));
    require(tq::tls::read_certificate_key(cut.bytes(), key) == KeyResult::kMalformed);
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Choices choices(data, size);
  switch (choices.next() % 4) {
    case 0:
      read(choices.content());
      break;
    case 1:
      read(certificate(choices.content()));
      break;
    case 2:
      read(certificate(key_info(choices.content())));
      break;
    default: {
      const size_t exponent_len = choices.next();
      const bool followed = choices.next() % 8 == 1;
      const View numbers = choices.content();
      const View e = numbers.first(std::min(exponent_len, numbers.size()));
      const View n = numbers.subspan(e.size());
      const Bytes tail = positive(e);
      const Bytes key = element(0x30, {positive(n), tail, followed ? View(tail) : View()});
      const bool well_formed = !followed && !n.empty() && !e.empty() && n[0] != 0 && e[0] != 0;
      const KeyResult result = read(certificate(key_info(key)));
      if (well_formed) require((result == KeyResult::kFound) == usable(n, e));
      if (followed) require(result == KeyResult::kMalformed);
    }
  }
  return 0;
}
