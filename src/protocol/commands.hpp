// Command codes, frame headers and type bytes of the decode-server protocol.
#pragma once

#include <cstddef>
#include <cstdint>

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

constexpr uint8_t kRequestVersion = 0x09;
constexpr uint16_t kFrameParameter = 0x0007;

// Shortest response frame, without a payload, in the short form.
constexpr uint32_t kLeastFrame = 12;
constexpr uint32_t kLeastResponseParameter = 8;

// Most bytes that encryption adds.
constexpr size_t kBlockPadding = 16;

// SM4 key and CBC vector, 16 bytes each.
constexpr size_t kKeyLength = 16;
constexpr size_t kWorkKeyLength = 32;

// Passport commands carry 4-byte lengths, all others 2-byte ones.
constexpr bool has_long_form(unsigned command) {
  return command == kPassportStart || command == kPassportFiles;
}

constexpr size_t length_field_size(unsigned command) {
  return has_long_form(command) ? 4 : 2;
}

}  // namespace tq
