// A passport chip that watches the commands of a read and answers them as it should, or as chips in people's
// pockets do: Basic Access Control with the document and the session keys of ICAO Doc 9303-11 appendix D,
// secure messaging, and a handful of files.
#pragma once

#include <iterator>
#include <map>
#include <optional>

#include "harness.hpp"
#include "passport/chip_peer.hpp"
#include "passport/mutual_authentication.hpp"
#include "passport/passport_session_record.h"

namespace fuzz {

// Appendix D.2: the document, and its keys. D.3: the seed that the chip brings about, and the session keys.
inline constexpr tq::MrzFields kDocument = {"L898902C<", "690806", "940623"};
inline const Bytes kDocumentEnc = test::from_hex("AB94FDECF2674FDFB9B391F85D7F76F2");
inline const Bytes kDocumentMac = test::from_hex("7962D9ECE03D1ACD4C76089DCE131543");
inline const Bytes kSeed = test::from_hex("0036D272F5C350ACAC50C3F572D23600");
inline const Bytes kSessionEnc = test::from_hex("979EC13B1CBFE9DCD01AB0FED307EAE5");
inline const Bytes kSessionMac = test::from_hex("F1CB1F1FB5ADF208806B89DC579DC1F8");
inline const Bytes kNonce = test::from_hex("4608F91988702212");
// Stands in DG1; no freed memory may hold it.
inline constexpr char kHolder[] = "P<UTOERIKSSON<<ANNA<MARIA<<<";

// PACE with P-256 and AES-128 by generic mapping, in EF.CardAccess; and the base point as anybody's key.
inline const Bytes kCardAccess = test::from_hex("31143012060A04007F0007020204020202010202010C");
inline const Bytes kPoint = test::from_hex(
    "046B17D1F2E12C4247F8BCE6E563A440F277037D812DEB33A0F4A13945D898C296"
    "4FE342E2FE1A7F9B8EE7EB4A7C0F9E162BCE33576B315ECECBB6406837BF51F5");

// Files that a read gets through, EF.COM and EF.SOD with just the way to their lists.
inline std::map<uint16_t, Bytes> usual_files() {
  Bytes holder(std::begin(kHolder), std::end(kHolder));
  holder.resize(88, '<');
  return {
      {TQ_EF_CARD_ACCESS, kCardAccess},
      {TQ_EF_COM, element(0x60, Bytes{0x5F, 0x01, 0, 0x5F, 0x36, 0, 0x5C, 5, 0x61, 0x75, 0x6B, 0x6E, 0x6F})},
      {TQ_EF_SOD,
       security_object(Bytes{0x30, 7, 2, 1, 1, 4, 2, 0xAA, 0xAA, 0x30, 7, 2, 1, 2, 4, 2, 0xBB, 0xBB})},
      {TQ_EF_DG1, element(0x61, holder)},
      {TQ_EF_DG2, element(0x75, Bytes(600, 0x5A))},
      {TQ_EF_DG11, element(0x6B, Bytes(150, 0x3C))},
      {0x010E, element(0x6E, Bytes(20, 0x0E))},
      {TQ_EF_DG15, element(0x6F, Bytes(16, 0x0F))}};
}

struct ChipReply {
  Bytes data{};
  uint16_t status = 0x9000;
  bool in_channel = false;
};

class PassportChip {
 public:
  std::map<uint16_t, Bytes> files = usual_files();

  // A command of the reader, which must be right in every byte. With `strict` off its keys and counter may be
  // beyond the chip, since the reader got something else than the chip's answers.
  void take(View command, uint8_t serial, bool strict) {
    serial_ = serial;
    const Bytes bytes(command.begin(), command.end());
    command_ = command[0] == 0x0C ? opened(bytes, strict) : plain(bytes, strict);
  }
  uint8_t serial() const { return serial_; }
  test::Chip& channel() { return channel_; }

  // Bytes that the command wants of a file.
  size_t asked() const {
    if (!command_) return 0;
    return command_->le - (is_odd() ? (command_->le > 0x81 ? 3 : 2) : 0);
  }

  // What a good chip replies to the command.
  ChipReply good_reply() {
    if (!command_) return {{}, 0x6988};
    const Command& c = *command_;
    ChipReply reply;
    reply.in_channel = c.in_channel;
    switch (c.instruction) {
      case 0xA4:
        if (c.data.size() == 2) selected_ = static_cast<uint16_t>(number(c.data));
        if (c.data.size() == 2 && selected_ != 0x3F00 && !files.contains(selected_)) return {{}, 0x6A82};
        return reply;
      case 0x84:
        return {kNonce};
      case 0x82:
        return {authenticated()};
      case 0x86:
        return {agreed()};
      case 0x88:
        reply.data = Bytes(128, 0xAA);
        return reply;
      case 0xB0:
      case 0xB1:
        return content(c, reply);
      default:
        return reply;
    }
  }

  // As it goes to the reader. The chip counts what it protects.
  Bytes sealed(const ChipReply& reply) {
    const Bytes status = test::be(reply.status, 2);
    if (!reply.in_channel) return reply.data + status;
    Bytes objects;
    if (!reply.data.empty() && is_odd())
      objects = channel_.tlv_cryptogram(element(0x53, reply.data));
    else if (!reply.data.empty())
      objects = channel_.padded_cryptogram(reply.data);
    return channel_.answer(objects + Bytes{0x99, 2} + status) + status;
  }
  Bytes good_answer() { return sealed(good_reply()); }

 private:
  struct Command {
    uint8_t instruction = 0;
    size_t offset = 0;
    Bytes data{};
    size_t le = 0;
    bool in_channel = false;
  };
  static constexpr size_t kMostCounted =
      8;  // answers that the reader may have counted since its last command

  bool is_odd() const { return command_ && command_->instruction == 0xB1; }

  ChipReply content(const Command& c, ChipReply reply) const {
    const auto file = files.find(selected_);
    if (file == files.end()) return {{}, 0x6986};
    if (c.offset > file->second.size()) return {{}, 0x6B00};
    const View rest = View(file->second).subspan(c.offset);
    const View given = rest.first(std::min<size_t>({rest.size(), asked(), 231}));
    reply.data.assign(given.begin(), given.end());
    return reply;
  }

  std::optional<Command> plain(const Bytes& apdu, bool strict) {
    Command c = {apdu[1]};
    if (apdu[1] == 0xB0) {
      require(apdu.size() == 5);
      c.offset = number(View(apdu).subspan(2, 2));
      c.le = apdu[4];
    } else if (apdu[1] != 0x84) {
      require(apdu.size() > 5 && apdu.size() - 5 - apdu[4] <= 1);
      c.data = test::slice(apdu, 5, 5 + apdu[4]);
    }
    if (apdu[1] == 0x86 || apdu[1] == 0x22) return c;
    if (apdu[1] != 0x82) {
      require(apdu == test::from_hex("00A4040C07A0000002471001") || apdu == test::from_hex("0084000008") ||
              apdu == test::from_hex("00A4000C023F00") || apdu == test::from_hex("00A4020C02011C") ||
              apdu[1] == 0xB0);
      return c;
    }
    require(apdu.size() == 46 && apdu[4] == 40 && (apdu[45] == 40 || apdu[45] == 0));
    const Bytes cryptogram = test::slice(c.data, 0, 32);
    const Bytes mac = test::retail_mac(kDocumentMac, test::padded(cryptogram));
    require(!strict || mac == test::slice(c.data, 32, 40));
    authentication_ = test::two_key_cbc(false, kDocumentEnc, cryptogram);  // RND.IFD, RND.IC, K.IFD
    const Bytes counter = test::slice(authentication_, 12, 16) + test::slice(authentication_, 4, 8);
    channel_ = {kSessionEnc, kSessionMac, number(counter)};
    return c;
  }

  // Nothing when its MAC fits no counter.
  std::optional<Command> opened(const Bytes& apdu, bool strict) {
    require(apdu.size() >= 16 && apdu.back() == 0 && apdu[4] == apdu.size() - 6);
    const Bytes objects = test::slice(apdu, 5, apdu.size() - 11);
    const Bytes mac = test::slice(apdu, apdu.size() - 9, apdu.size() - 1);
    test::Chip channel = channel_;
    for (size_t i = 0; i < kMostCounted; ++i) {
      channel.count();
      if (channel.mac(test::padded(test::slice(apdu, 0, 4)) + objects) != mac) continue;
      channel_ = channel;
      return understood(apdu, objects);
    }
    require(!strict);
    return std::nullopt;
  }

  Command understood(const Bytes& apdu, const Bytes& objects) const {
    Command c = {apdu[1], number(View(apdu).subspan(2, 2)), {}, 0, true};
    size_t at = 0;
    if (objects[0] == 0x87 || objects[0] == 0x85) {
      const size_t indicator = objects[0] == 0x87 ? 1 : 0;
      require((indicator == 0) == (apdu[1] % 2 == 1) && (indicator == 0 || objects[2] == 1));
      at = 2 + objects[1];
      c.data = channel_.deciphered(test::slice(objects, 2 + indicator, at));
      while (c.data.back() == 0) c.data.pop_back();
      require(c.data.back() == 0x80);
      c.data.pop_back();
    }
    if (at < objects.size()) {
      require(objects.size() == at + 3 && objects[at] == 0x97 && objects[at + 1] == 1);
      c.le = objects[at + 2];
    }
    if (c.instruction == 0xB0) require(c.data.empty() && c.offset < 0x8000);
    if (c.instruction == 0xB1) {
      require(c.offset == 0 && c.data[0] == 0x54 && c.data.size() == 2U + c.data[1]);
      c.offset = number(View(c.data).subspan(2));
      require(c.offset >= 0x8000);
    }
    return c;
  }

  // The steps of PACE with keys that fit the curve, if not the reader's.
  Bytes agreed() const {
    const uint8_t tag = command_->data.size() > 2 ? command_->data[2] : uint8_t{0};
    if (command_->data.size() <= 2) return element(0x7C, element(0x80, Bytes(16, 0x4E)));
    return element(0x7C, element(static_cast<uint8_t>(tag + 1), tag == 0x85 ? Bytes(8, 0x86) : kPoint));
  }

  Bytes authenticated() const {
    Bytes r = test::slice(authentication_, 8, 16) + test::slice(authentication_, 0, 8);
    for (size_t i = 0; i < kSeed.size(); ++i)
      r.push_back(static_cast<uint8_t>(authentication_[16 + i] ^ kSeed[i]));
    const Bytes answer = test::two_key_cbc(true, kDocumentEnc, r);
    return answer + test::retail_mac(kDocumentMac, test::padded(answer));
  }

  uint8_t serial_ = 0;
  std::optional<Command> command_;
  Bytes authentication_ = Bytes(32);
  test::Chip channel_{kSessionEnc, kSessionMac, 0};
  uint16_t selected_ = 0;
};

}  // namespace fuzz
