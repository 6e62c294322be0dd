// Borders of the requests and answers of the identity card that a whole read does not come to.
#include <gtest/gtest.h>

#include "protocol/card_auth.h"
#include "protocol/data_decode.h"
#include "protocol/server_peer.hpp"

namespace {

using namespace test;

TEST(CardAuth, SizesOfDeviceIdAndCardData) {
  const WithSystemRandom zeros(SystemRandom::kZeros);
  const auto expect_request = [](size_t device, uint32_t command, const Bytes& card, const Bytes& data) {
    SessionConfig cfg = config_with_device(device);
    expect_built(
        [&](uint8_t* out, uint32_t room) {
          return input_auth_cmd_group(&cfg, card.data(), len(card), command, kWorkKey.data(), out, room);
        },
        data.empty() ? Bytes{} : request_frame(command, seal(secret_frame(command, data))));
  };
  const Bytes card(32, 0x4D);
  const Bytes longest =
      exact_copy(kRandomNow, 4) + be(68, 1) + Bytes(68, 'd') + from_hex("01 12 10 20") + card;
  expect_request(68, 0x5001, card, longest);
  expect_request(69, 0x5001, card, {});
  for (const size_t n : {0, 7, 8, 9, 17, 18, 19, 31, 33}) {
    const Bytes part(n, 0x4D);
    expect_request(0, 0x5001, part, {});
    expect_request(69, 0x5032, part, n == 8 || n == 18 ? part + from_hex("9000") : Bytes{});
  }
}

TEST(DataDecode, FilesHaveTheirExactSizes) {
  const size_t sizes[] = {32, 214, 256, 1024};
  for (const uint32_t command : {0x6002U, 0x6102U, 0x6113U, 0x6003U}) {
    for (size_t wrong = 0; wrong < 5; ++wrong) {
      for (const size_t change : {size_t{1}, size_t(-1)}) {
        Bytes files[4];
        for (size_t i = 0; i < 4; ++i) files[i].assign(sizes[i] + (i == wrong ? change : 0), 0x5A);
        const auto build = [&](uint32_t room, const TqTiming* timing) {
          Bytes out(room);
          return input_data_decode_group(files[0].data(), len(files[0]), files[1].data(), len(files[1]),
                                         files[2].data(), len(files[2]), files[3].data(), len(files[3]),
                                         command, kWorkKey.data(), out.data(), room, timing);
        };
        const bool concerned = wrong < 4 && (command == 0x6113) == (wrong == 3);
        const int32_t size = command == 0x6002 ? 539 : command == 0x6102 ? 603 : 1115;
        const TqTiming timing{};
        EXPECT_EQ(build(1115, &timing), concerned || command == 0x6003 ? -1 : size)
            << command << " " << wrong;
        EXPECT_EQ(build(static_cast<uint32_t>(size - 1), &timing), -1);
        if (command != 0x6002) {
          EXPECT_EQ(build(1115, nullptr), -1);
        }
      }
    }
  }
}

// A frame gives its data where they just fit.
TEST(Answers, RoomForTheData) {
  const Bytes eight = from_hex("A1A2A3A4A5A6A7A8");
  for (const auto& [command, size] :
       {std::pair{0x5001U, 15}, {0x5012U, 8}, {0x5022U, 15}, {0x6002U, 8}, {0x6102U, 9}}) {
    const bool decodes = command >= 0x6002;
    const bool flagged = command == 0x6102;
    const Bytes payload = flagged ? Bytes{1} + seal(eight) : seal(secret_frame(command, eight));
    const Bytes frame =
        response_frame({.command = command, .payload = payload, .type = uint8_t(flagged ? 0x99 : 0xAA)});
    const auto parse = decodes ? output_data_decode_analysis : output_auth_cmd_analysis;
    for (const int short_by : {0, 1}) {
      Bytes out(static_cast<size_t>(size - short_by), 0xEE);
      const int32_t rc = parse(frame.data(), len(frame), command, kWorkKey.data(), out.data(), len(out));
      EXPECT_EQ(rc, short_by == 0 || flagged ? size : -1) << command;
      if (flagged) {  // its room is cleared first, and stays so when the data do not fit
        EXPECT_EQ(hex(out), hex(short_by == 0 ? Bytes{1} + eight : Bytes(out.size())));
      }
    }
    for (size_t n = 0; n < frame.size(); ++n) {
      Bytes out(100);
      EXPECT_EQ(parse(exact_copy(frame, n).data(), static_cast<uint32_t>(n), command, kWorkKey.data(),
                      out.data(), 100),
                -1);
    }
  }
}

}  // namespace
