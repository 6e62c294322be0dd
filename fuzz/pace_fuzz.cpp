// The answers to the four GENERAL AUTHENTICATE of PACE, in the conversation of ICAO 9303-11 appendix G.1: all
// but one of them are the recorded ones. Choice: which one is the input instead.
#include <algorithm>

#include "harness.hpp"
#include "passport/pace.hpp"

namespace {

using fuzz::Bytes;
using fuzz::View;
using fuzz::operator+;
using test::from_hex;
using Result = tq::Pace::Result;

// Tag and value of the object within.
struct Answer {
  uint8_t tag;
  Bytes value;
};
const Answer kRecorded[] = {
    {0x80, from_hex("95A3A016522EE98D01E76CB6B98B42C3")},
    {0x82, from_hex("04824FBA91C9CBE26BEF53A0EBE7342A3BF178CEA9F45DE0B70AA601651FBA3F57"
                    "30D8C879AAA9C9F73991E61B58F4D52EB87A0A0C709A49DC63719363CCD13C54")},
    {0x84, from_hex("049E880F842905B8B3181F7AF7CAA9F0EFB743847F44A306D2D28C1D9EC65DF6DB"
                    "7764B22277A2EDDC3C265A9F018F9CB852E111B768B326904B59A0193776F094")},
    {0x86, from_hex("3ABB9674BCE93C08")},
};
const Bytes kSecrets[] = {from_hex("7F4EF07B9EA82FD78AD689B38D0BC78CF21F249D953BC46F4C6E19259C010F99"),
                          from_hex("A73FB703AC1436A18E0CFA5ABB3F7BEC7A070E7A6788486BEE230C4A22762595")};
const Bytes kPassword = from_hex("7E2D2A41C74EA0B38CD36F863939BFA8E9032AAD");
const Bytes kCardAccess = from_hex("31143012060A04007F0007020204020202010202010D");

Result take(tq::Pace& pace, size_t number, View answer) {
  Bytes random = Bytes(8) + kSecrets[number == 0 ? 0 : 1];
  random.resize(tq::Pace::kRandomLen);
  const auto bytes = std::span<const uint8_t>(random).first<tq::Pace::kRandomLen>();
  switch (number) {
    case 0:
      return pace.take_nonce(answer, bytes);
    case 1:
      return pace.take_mapping_key(answer, bytes);
    case 2:
      return pace.take_public_key(answer);
    default:
      return pace.take_token(answer);
  }
}

// A conversation as bytes. It points to nothing but constants.
struct alignas(tq::Pace) Copy {
  std::array<std::byte, sizeof(tq::Pace)> bytes;

  tq::Pace& pace() { return *reinterpret_cast<tq::Pace*>(bytes.data()); }
};

Bytes recorded(size_t number) {
  return fuzz::element(0x7C, fuzz::element(kRecorded[number].tag, kRecorded[number].value));
}

std::array<Copy, std::size(kRecorded)> before_each_answer() {
  std::array<Copy, std::size(kRecorded)> copies;
  tq::Pace pace(*tq::strongest_pace(kCardAccess), std::span(kPassword).first<tq::Pace::kPasswordLen>());
  fuzz::require(pace.begin() == Result::kNext && pace.take_acceptance({}) == Result::kNext);
  for (size_t i = 0; i < copies.size(); ++i) {
    std::memcpy(copies[i].bytes.data(), static_cast<const void*>(&pace), sizeof pace);
    fuzz::require(pace.command().size() >= 8 && pace.command()[4] == pace.command().size() - 6);
    fuzz::require(take(pace, i, recorded(i)) == (i + 1 < copies.size() ? Result::kNext : Result::kDone));
  }
  return copies;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  static const auto copies = before_each_answer();
  Choices choices(data, size);
  const size_t number = choices.next() % std::size(kRecorded);
  Block input{choices.content()};
  Copy copy = copies[number];
  tq::Pace& pace = copy.pace();
  const Result result = take(pace, number, input.bytes());

  // A token holds when it is the recorded one, however its lengths are written; every other end leaves
  // nothing.
  const View given = input.bytes();
  const Bytes& value = kRecorded[number].value;
  const bool holds = std::search(given.begin(), given.end(), value.begin(), value.end()) != given.end();
  const View enc = pace.keys().enc.bytes();
  const bool wiped = std::all_of(enc.begin(), enc.end(), [](uint8_t byte) { return byte == 0; });
  const bool last = number + 1 == std::size(kRecorded);
  require(pace.command().empty() == (result != Result::kNext));
  require(result != Result::kNext || (!last && pace.command().size() <= 261));
  require(result != Result::kDone || (last && holds && !wiped));
  require(result == Result::kDone || result == Result::kNext || wiped);
  require(result != Result::kWrongKey || last);
  const Bytes plain = recorded(number);
  if (std::equal(given.begin(), given.end(), plain.begin(), plain.end()))
    require(result == (last ? Result::kDone : Result::kNext));
  return 0;
}
