// The two frames of the decode-server protocol and what they are made of. The outer one is plaintext: header,
// length, command, payload, checksum. The payload of most commands is the inner one, the secret frame,
// encrypted as a whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/result_code.h"
#include "util/byte_cursor.hpp"

namespace tq {

enum Command : uint16_t {
  kCardAuth1 = 0x5001,        // card authentication, first answer
  kCardAuth2 = 0x5012,        // second answer
  kCardAuth3 = 0x5022,        // third answer
  kCardAuth2And3 = 0x5032,    // second and third in one exchange
  kDecodeFiles = 0x6002,      // decode files 6011 and 6012, file 6013 follows
  kDecodeIdentity = 0x6102,   // decode files 6011 and 6012, the answer is the result
  kDecodeFile6013 = 0x6113,   // decode file 6013
  kAuthenticateOld = 0x7100,  // server authentication, former form
  kAuthenticate = 0x7500,     // server authentication
  kPassportStart = 0x7201,
  kPassportFiles = 0x7202,
  kMonitorReport = 0x7219,
  kErrorReply = 0xFFFF,  // stands for the command in an error reply to server authentication
};

constexpr uint8_t kHeaderIdentityCard = 0x70;
constexpr uint8_t kHeaderRouteOne = 0x71;
constexpr uint8_t kHeaderPassport = 0x72;

constexpr uint8_t kTypePlain = 0xAA;    // requests, and answers without a flag byte
constexpr uint8_t kTypeFlagged = 0x99;  // answers whose payload starts with an encryption flag
constexpr uint8_t kTypeAuthenticate = 0xA8;
constexpr uint8_t kTypeMonitor = 0x19;

constexpr uint16_t kFrameParameter = 0x0007;

// Shortest response frame, without a payload, in the short form.
constexpr uint32_t kLeastFrame = 12;
constexpr uint32_t kLeastResponseParameter = 8;

// Most bytes that encryption adds.
constexpr size_t kBlockPadding = 16;

// SM4 key and CBC vector, 16 bytes each: the work key block under which messages are encrypted.
constexpr size_t kKeyLength = 16;
constexpr size_t kWorkKeyLength = 32;
using WorkKey = std::span<const uint8_t>;

inline WorkKey work_key_at(const uint8_t* block) {
  return {block, block == nullptr ? 0 : kWorkKeyLength};
}

// Passport commands carry 4-byte lengths, all others 2-byte ones.
constexpr bool has_long_form(unsigned command) {
  return command == kPassportStart || command == kPassportFiles;
}

constexpr size_t length_field_size(unsigned command) {
  return has_long_form(command) ? 4 : 2;
}

// The one-byte checksum of every frame and block.
uint8_t low_byte_sum(std::span<const uint8_t> bytes);

// What a server's three status bytes come to: their hexadecimal digits, F counting as 0, read as a decimal
// number up to the first other letter, and negated. A failure whose digits read as zero is no status at all:
// TQ_FAILED.
int32_t status_code(std::span<const uint8_t> status);

// What tells one kind of frame from the others.
struct FrameHead {
  uint8_t header;
  uint32_t command;
  uint8_t type = kTypePlain;
};

// The functions below return a length, or TQ_FAILED: input_command_group, output_command_anlysis (whose
// server status they pass on, too), input_secret_command_group and output_secret_command_analysis say when.
// Where a frame is opened, and where a payload is framed, input and output may overlap.
int32_t build_frame(const FrameHead& head, std::span<const uint8_t> payload, std::span<uint8_t> out,
                    uint32_t parameter = kFrameParameter);
int32_t open_frame(std::span<const uint8_t> frame, const FrameHead& expected, WorkKey key,
                   std::span<uint8_t> out, uint32_t* parameter = nullptr);
int32_t seal_secret_frame(std::span<const uint8_t> data, uint32_t command, WorkKey key,
                          std::span<uint8_t> out);
int32_t open_secret_frame(std::span<const uint8_t> frame, uint32_t command, std::span<uint8_t> out);

// A whole request: `data` in a secret frame in a frame.
int32_t build_secret_request(const FrameHead& head, std::span<const uint8_t> data, WorkKey key,
                             std::span<uint8_t> out);

// Start marker, length, command, data, checksum and end marker, for what adds something behind them before it
// encrypts.
void write_secret_frame(ByteWriter& w, uint32_t command, std::span<const uint8_t> data);

// Encrypts the first `len` bytes of `room`, which has 16 bytes to spare, in place.
int32_t encrypt_in_place(std::span<uint8_t> room, size_t len, WorkKey key);

}  // namespace tq
