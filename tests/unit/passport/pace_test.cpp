// PACE with a chip that is made of OpenSSL.
#include "passport/pace.hpp"

#include <gtest/gtest.h>

#include <functional>

#include "passport/pace_chip.hpp"

namespace {

using namespace test;
using tq::CipherSuite;
using tq::Pace;
using Result = tq::Pace::Result;

std::string offered(const Bytes& card_access) {
  const auto offer = tq::strongest_pace(exact_copy(card_access, card_access.size()));
  if (!offer) return "none";
  return hex(offer->protocol).substr(16) + " " + std::to_string(offer->domain) +
         (offer->ambiguous ? " told" : "");
}

TEST(CardAccess, TheStrongestOfWhatWeKnowIsTaken) {
  const Bytes strange = from_hex("3012060a04007f0007020202030202010202010d");  // chip authentication
  const Bytes integrated = pace_info(4, 4, 17);
  const Bytes old_version = from_hex("3012060a04007f000702020402040201010201 0d");
  const Bytes explicit_domain = from_hex("300f060a04007f00070202040204020102");
  const struct {
    Bytes infos;
    const char* expected;
  } cases[] = {
      {pace_info(2, 2, 13), "0202 13"},
      {strange + pace_info(2, 1, 10) + integrated, "0201 10 told"},
      {pace_info(2, 2, 13) + pace_info(2, 4, 13) + pace_info(2, 3, 13), "0204 13"},
      {pace_info(2, 2, 18) + pace_info(2, 4, 12), "0204 12 told"},
      {pace_info(2, 4, 12) + pace_info(2, 2, 18), "0204 12 told"},
      {pace_info(2, 2, 12) + pace_info(2, 2, 15), "0202 15 told"},
      {pace_info(6, 2, 13) + pace_info(2, 2, 13), "0602 13"},
      {pace_info(6, 3, 16), "0603 16"},
      {old_version + explicit_domain + pace_info(2, 2, 14), "0202 14"},
      {pace_info(2, 2, 9), "none"},
      {pace_info(2, 5, 13) + pace_info(2, 0, 13) + pace_info(1, 2, 13), "none"},
      {old_version, "none"},
      {explicit_domain, "none"},
      {integrated, "none"},
      {{}, "none"},
  };
  for (const auto& c : cases) {
    const Bytes file = tlv(0x31, c.infos);
    EXPECT_EQ(offered(file), c.expected) << hex(file);
    EXPECT_EQ(offered(file + Bytes(40)), c.expected) << "zeros behind the file";
    for (size_t n = 0; n < file.size(); ++n) EXPECT_EQ(offered(slice(file, 0, n)), "none") << n;
  }
  EXPECT_EQ(offered(tlv(0x30, pace_info(2, 2, 13))), "none");
  EXPECT_EQ(offered(tlv(0x31, pace_info(2, 2, 13) + Bytes{0x30})), "none");
}

std::array<uint8_t, Pace::kRandomLen> random_for(const Bytes& private_key) {
  std::array<uint8_t, Pace::kRandomLen> random{};
  std::copy(private_key.begin(), private_key.end(), random.begin() + 8);
  return random;
}

std::span<const uint8_t, Pace::kPasswordLen> password(const Bytes& bytes) {
  return std::span<const uint8_t, Pace::kPasswordLen>(bytes);
}

// ICAO 9303-11 appendix G.1, whose terminal names the curve although there is but one.
TEST(Pace, WorkedExample) {
  auto offer = tq::strongest_pace(from_hex("31143012060A04007F0007020204020202010202010D"));
  ASSERT_TRUE(offer);
  offer->ambiguous = true;
  Pace pace(*offer, password(from_hex("7E2D2A41C74EA0B38CD36F863939BFA8E9032AAD")));
  EXPECT_EQ(pace.begin(), Result::kNext);
  EXPECT_EQ(hex(pace.command()), "0022c1a412800a04007f0007020204020283010184010d");
  EXPECT_EQ(pace.take_acceptance({}), Result::kNext);
  EXPECT_EQ(hex(pace.command()), "10860000027c0000");
  EXPECT_EQ(pace.take_nonce(
                from_hex("7C12801095A3A016522EE98D01E76CB6B98B42C3"),
                random_for(from_hex("7F4EF07B9EA82FD78AD689B38D0BC78CF21F249D953BC46F4C6E19259C010F99"))),
            Result::kNext);
  EXPECT_EQ(hex(pace.command()),
            "10860000457c438141047acf3efc982ec45565a4b155129efbc74650dcbfa6362d896fc70262e0c2cc5e"
            "544552dcb6725218799115b55c9baa6d9f6bc3a9618e70c25af71777a9c4922d00");
  EXPECT_EQ(
      pace.take_mapping_key(
          from_hex("7C43824104824FBA91C9CBE26BEF53A0EBE7342A3BF178CEA9F45DE0B70AA601651FBA3F5730D8C879AAA9"
                   "C9F73991E61B58F4D52EB87A0A0C709A49DC63719363CCD13C54"),
          random_for(from_hex("A73FB703AC1436A18E0CFA5ABB3F7BEC7A070E7A6788486BEE230C4A22762595"))),
      Result::kNext);
  EXPECT_EQ(hex(pace.command()),
            "10860000457c438341042db7a64c0355044ec9df190514c625cba2cea48754887122f3a5ef0d5edd301c"
            "3556f3b3b186df10b857b58f6a7eb80f20ba5dc7be1d43d9bf850149fbb3646200");
  EXPECT_EQ(pace.take_public_key(from_hex(
                "7C438441049E880F842905B8B3181F7AF7CAA9F0EFB743847F44A306D2D28C1D9EC65DF6DB7764B22277A2"
                "EDDC3C265A9F018F9CB852E111B768B326904B59A0193776F094")),
            Result::kNext);
  EXPECT_EQ(hex(pace.command()), "008600000c7c0a8508c2b0bd78d94ba86600");
  EXPECT_EQ(pace.take_token(from_hex("7C0A86083ABB9674BCE93C08")), Result::kDone);
  EXPECT_EQ(hex(pace.keys().enc.bytes().first(16)), "f5f0e35c0d7161ee6724ee513a0d9a7f");
  EXPECT_EQ(hex(pace.keys().mac.bytes().first(16)), "fe251c7858b356b24514b3bd5f4297d1");
}

// One conversation. The answers can be changed on their way: `twist` gets the number of the answer, 1 to 4.
struct Conversation {
  std::mt19937 generator{4};
  uint8_t mapping = 2;
  uint8_t cipher = 2;
  Domain domain = kDomains[3];
  size_t nonce_len = 16;
  Bytes password_of_chip = Bytes(20, 0x31);
  Bytes nonce{};  // random when empty
  std::function<void(int number, const Bytes& command, Bytes& answer)> twist = [](int, const Bytes&, Bytes&) {
  };

  Bytes keys{};  // of the chip

  // What the terminal's object with this tag has in it.
  static Bytes taken(const Pace& pace, uint8_t tag) {
    const Bytes command(pace.command().begin(), pace.command().end());
    Bytes value;
    EXPECT_TRUE(PaceChip::take(command, tag, value)) << hex(command);
    return value;
  }

  Result run(Pace& pace) {
    PaceChip chip(mapping, cipher, domain.nid);
    const auto answer = [&](int number, const Bytes& object) {
      Bytes bytes = tlv(0x7C, object);
      twist(number, Bytes(pace.command().begin(), pace.command().end()), bytes);
      return exact_copy(bytes, bytes.size());
    };
    const auto draw = [&] {
      std::array<uint8_t, Pace::kRandomLen> random;
      for (uint8_t& byte : random) byte = static_cast<uint8_t>(generator());
      return random;
    };
    const auto secret = [&] { return random_bytes(generator, chip.curve().field_len() - 1); };
    EXPECT_EQ(pace.begin(), Result::kNext);
    EXPECT_EQ(hex(pace.command()),
              hex(Bytes{0x00, 0x22, 0xC1, 0xA4, 15} + tlv(0x80, kPaceIdentifier + Bytes{mapping, cipher}) +
                  tlv(0x83, {0x01})));
    EXPECT_EQ(pace.take_acceptance({}), Result::kNext);
    EXPECT_EQ(hex(pace.command()), "10860000027c0000");

    const Bytes s = nonce.empty() ? random_bytes(generator, nonce_len) : nonce;
    const Bytes z = chip.encrypted_nonce(s, password_of_chip);
    if (const Result r = pace.take_nonce(answer(1, tlv(0x80, z)), draw()); r != Result::kNext) return r;

    const Bytes mapped = chip.map(taken(pace, 0x81), secret());
    if (const Result r = pace.take_mapping_key(answer(2, tlv(0x82, mapped)), draw()); r != Result::kNext)
      return r;

    const Bytes own_key = chip.agree(taken(pace, 0x83), secret());
    keys = chip.enc() + chip.mac();
    if (const Result r = pace.take_public_key(answer(3, tlv(0x84, own_key))); r != Result::kNext) return r;

    const bool accepted = taken(pace, 0x85) == chip.expected_token();
    const Bytes extra = mapping == 6 ? tlv(0x8A, Bytes(80, 0x5A)) : Bytes();
    const Bytes last = answer(4, tlv(0x86, chip.own_token()) + extra);
    return accepted ? pace.take_token(last) : pace.take_refusal();
  }

  Result run() {
    Pace pace(*tq::strongest_pace(tlv(0x31, pace_info(mapping, cipher, domain.id))),
              password(Bytes(20, 0x31)));
    const Result result = run(pace);
    const size_t len = keys.size() / 2;
    if (result == Result::kDone) {
      EXPECT_EQ(hex(pace.keys().enc.bytes().first(len)) + hex(pace.keys().mac.bytes().first(len)), hex(keys));
    } else {
      EXPECT_EQ(hex(pace.keys().enc.bytes()) + hex(pace.keys().mac.bytes()), hex(Bytes(64))) << "wiped";
      EXPECT_EQ(pace.command().size(), 0U);
    }
    return result;
  }
};

TEST(Pace, EveryCurveWithEveryCipher) {
  Conversation c;
  for (const uint8_t mapping : Bytes{2, 6}) {
    c.mapping = mapping;
    for (c.cipher = c.mapping == 2 ? 1 : 2; c.cipher <= 4; ++c.cipher) {
      for (const Domain& domain : kDomains) {
        c.domain = domain;
        c.nonce_len = domain.id % 2 == 0 ? 16 : 32;
        EXPECT_EQ(c.run(), Result::kDone) << int{c.mapping} << " " << int{c.cipher} << " " << int{domain.id};
      }
    }
  }
}

// A nonce of zero, and of the order, which is as much; one with zeros in front.
TEST(Pace, RareNonces) {
  Conversation c;
  for (const Bytes& nonce : {Bytes(16), Bytes(15) + Bytes{1}, OpenSslCurve(c.domain.nid).order_plus(0)}) {
    c.nonce = nonce;
    EXPECT_EQ(c.run(), Result::kDone) << hex(nonce);
  }
}

TEST(Pace, AnotherDocument) {
  for (const uint8_t cipher : Bytes{1, 2, 3, 4}) {
    Conversation c;
    c.cipher = cipher;
    c.password_of_chip[19] ^= 1;
    EXPECT_EQ(c.run(), Result::kWrongKey);
  }
}

TEST(Pace, HostileAnswers) {
  Conversation c;
  c.domain = kDomains[0];
  for (const int at : {1, 2, 3, 4}) {
    const Result bad_bytes = at == 4 ? Result::kWrongKey : Result::kNonsense;
    const auto expect = [&](Result expected, const char* what,
                            const std::function<void(const Bytes&, Bytes&)>& twist) {
      c.twist = [&, at](int number, const Bytes& command, Bytes& answer) {
        if (number == at) twist(command, answer);
      };
      EXPECT_EQ(c.run(), expected) << what << " of answer " << at;
    };
    size_t len = 0;
    expect(Result::kNonsense, "nothing", [&](const Bytes&, Bytes& a) { len = a.size(), a.clear(); });
    for (size_t n = 1; n < len; ++n)
      expect(Result::kNonsense, "a cut", [n](const Bytes&, Bytes& a) { a.resize(n); });
    for (size_t i = 0; i < 4; ++i)
      expect(Result::kNonsense, "another tag or length", [i](const Bytes&, Bytes& a) { a[i] ^= 1; });
    expect(Result::kNonsense, "a byte behind", [](const Bytes&, Bytes& a) { a.push_back(0); });
    expect(Result::kNonsense, "half an object behind",
           [](const Bytes&, Bytes& a) { a[1]++, a.push_back(0x87); });
    if (at > 1) expect(bad_bytes, "a wrong byte", [](const Bytes&, Bytes& a) { a.back() ^= 1; });
    if (at == 1) continue;
    // Our own key or token comes back, in the object of the chip.
    expect(bad_bytes, "an echo", [](const Bytes& command, Bytes& a) {
      std::copy(command.end() - 1 - static_cast<ptrdiff_t>(a.size() - 4), command.end() - 1, a.begin() + 4);
    });
  }
  for (const size_t len : {0, 8, 15, 24, 48}) {
    c.twist = [len](int, const Bytes&, Bytes& a) { a = tlv(0x7C, tlv(0x80, Bytes(len))); };
    EXPECT_EQ(c.run(), Result::kNonsense) << "a nonce of " << len;
  }
}

// The generator would be the neutral point: H is the negative of s * G.
TEST(Pace, ANeutralGenerator) {
  Conversation c;
  const OpenSslCurve curve(c.domain.nid);
  c.nonce = Bytes(15) + Bytes{1};
  Pace pace(*tq::strongest_pace(tlv(0x31, pace_info(2, 2, 13))), password(Bytes(20, 0x31)));
  pace.begin();
  pace.take_acceptance({});
  const Bytes z =
      openssl_cipher(EVP_aes_128_cbc(), true, suite_key(2, Bytes(20, 0x31), 3), Bytes(16), c.nonce);
  const auto one = random_for(Bytes(31) + Bytes{1});
  ASSERT_EQ(pace.take_nonce(tlv(0x7C, tlv(0x80, z)), one), Result::kNext);
  EXPECT_EQ(pace.take_mapping_key(tlv(0x7C, tlv(0x82, curve.product(curve.order_plus(-1), {}))), one),
            Result::kNonsense);
}

TEST(Pace, OutOfTurn) {
  Pace pace(*tq::strongest_pace(tlv(0x31, pace_info(2, 2, 13))), password(Bytes(20)));
  EXPECT_EQ(pace.take_acceptance({}), Result::kNonsense);
  EXPECT_EQ(pace.begin(), Result::kNonsense) << "after the end";
}

}  // namespace
