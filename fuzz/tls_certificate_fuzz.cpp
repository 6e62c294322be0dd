// The key of a certificate. The first choice says what the content is: a certificate, the
// SubjectPublicKeyInfo of one, what its BIT STRING holds, or the two numbers (the first choices then being
// the exponent's length and whether the modulus is followed by something).
#include "tls/certificate_key.hpp"
#include "tls_channel.hpp"

namespace {

using namespace fuzz;
using tq::tls::KeyResult;

Bytes positive(View magnitude) {
  const bool high = !magnitude.empty() && magnitude[0] >= 0x80;
  return element(0x02, Bytes(high ? 1 : 0) + magnitude);
}

bool lies_in(View part, View whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

size_t num_bits(View number) {
  size_t bits = 8 * number.size();
  for (uint8_t top = 0x80; top != 0 && (number[0] & top) == 0; top >>= 1) --bits;
  return bits;
}

bool well_formed(View number) {
  return !number.empty() && number[0] != 0;
}

bool usable(View n, View e) {
  return well_formed(n) && well_formed(e) && n.back() % 2 == 1 && e.back() % 2 == 1 && num_bits(n) >= 1024 &&
         num_bits(n) <= 8192 && num_bits(e) >= 2 && num_bits(e) <= 64;
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
  const uint8_t mode = choices.next() % 4;
  if (mode == 0) read(choices.content());
  if (mode == 1) read(certificate(choices.content()));
  if (mode == 2) read(certificate(key_info(choices.content())));
  if (mode < 3) return 0;
  const size_t exponent_len = choices.next();
  const bool followed = choices.next() % 8 == 1;
  const View numbers = choices.content();
  const View e = numbers.first(std::min(exponent_len, numbers.size()));
  const View n = numbers.subspan(e.size());
  const Bytes tail = positive(e);
  const Bytes key = element(0x30, positive(n) + tail + (followed ? View(tail) : View()));
  const KeyResult result = read(certificate(key_info(key)));
  if (followed) require(result == KeyResult::kMalformed);
  if (!followed && well_formed(n) && well_formed(e)) require((result == KeyResult::kFound) == usable(n, e));
  return 0;
}
