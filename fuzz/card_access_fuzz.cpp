// EF.CardAccess. No choices: the input is the file.
#include <algorithm>

#include "harness.hpp"
#include "passport/card_access.hpp"

namespace {

using fuzz::operator+;

// One of the ways to write the length 1, and the INTEGER that it is of.
size_t integer_len(fuzz::View bytes, uint8_t value) {
  for (const fuzz::Bytes& form :
       {fuzz::Bytes{0x02, 1}, fuzz::Bytes{0x02, 0x81, 1}, fuzz::Bytes{0x02, 0x82, 0, 1}}) {
    const fuzz::Bytes whole = form + fuzz::Bytes{value};
    if (bytes.size() >= whole.size() && std::equal(whole.begin(), whole.end(), bytes.begin()))
      return whole.size();
  }
  return 0;
}

// Whether identifier, version 2 and number of the curve stand one behind the other.
bool holds(fuzz::View file, const tq::PaceOffer& offer) {
  for (size_t at = 0; at + offer.protocol.size() <= file.size(); ++at) {
    if (!std::equal(offer.protocol.begin(), offer.protocol.end(), file.begin() + static_cast<ptrdiff_t>(at)))
      continue;
    const fuzz::View rest = file.subspan(at + offer.protocol.size());
    const size_t version_len = integer_len(rest, 2);
    if (version_len != 0 && integer_len(rest.subspan(version_len), offer.domain) != 0) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Block file{View(data, size)};
  const auto offer = tq::strongest_pace(file.bytes());
  if (!offer) return 0;
  require(holds(file.bytes(), *offer));
  require(offer->protocol[8] == 2 || offer->protocol[8] == 6);
  require(offer->protocol[9] == static_cast<uint8_t>(offer->suite) + 1);
  require(offer->curve->field_len >= 28 && offer->curve->field_len <= 66);

  // Bytes behind the file change nothing.
  const auto again = tq::strongest_pace(Bytes(data, data + size) + Bytes(3));
  require(again && again->protocol == offer->protocol && again->domain == offer->domain &&
          again->ambiguous == offer->ambiguous);
  return 0;
}
