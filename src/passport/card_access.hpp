// EF.CardAccess (ICAO Doc 9303-11 sections 3.11.3 and 9.2): what a chip without Basic Access Control says
// about PACE, readable to everyone.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "crypto/curve_parameters.hpp"
#include "passport/secure_channel.hpp"

namespace tq {

// The content of the object identifiers of PACE, 0.4.0.127.0.7.2.2.4 with mapping and cipher behind it.
using PaceProtocol = std::array<uint8_t, 10>;

// One of the ways to open a chip by PACE.
struct PaceOffer {
  PaceProtocol protocol{};
  CipherSuite suite = CipherSuite::k3Des;
  const CurveParameters* curve = nullptr;
  uint8_t domain = 0;      // the number of the curve among the standardised domain parameters
  bool ambiguous = false;  // the chip offers several curves: it must be told which one is meant
};

// The strongest of the ways that are ours, too: agreement of keys on a standardised curve, with generic
// mapping or with chip-authentication mapping, whose commands are the same. Other entries of the file are
// passed over, and bytes behind its SET. Nothing when there is no such way, or the file is not what it should
// be.
std::optional<PaceOffer> strongest_pace(std::span<const uint8_t> card_access);

}  // namespace tq
