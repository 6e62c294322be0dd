// A passport chip that watches the commands of a read and answers them as it should, or as chips in people's
// pockets do: Basic Access Control with the document and the session keys of ICAO Doc 9303-11 appendix D,
// PACE on every curve and with every cipher, secure messaging, and a handful of files.
#pragma once

#include <iterator>
#include <map>
#include <optional>

#include "harness.hpp"
#include "passport/mutual_authentication.hpp"
#include "passport/pace_chip.hpp"
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

// Of PACE: digest of the machine-readable zone, the nonce of appendix G.1, and what EF.CardAccess offers.
inline const Bytes kPassword = test::openssl_digest(EVP_sha1(), test::from_text("L898902C<369080619406236"));
inline const Bytes kPaceNonce = test::from_hex("3F00C4D39D153F2B2A214A078D899B22");
inline Bytes card_access(uint8_t cipher, uint8_t domain) {
  return test::tlv(0x31, test::pace_info(2, cipher, domain));
}

// Files that a read gets through, EF.COM and EF.SOD with just the way to their lists.
inline std::map<uint16_t, Bytes> usual_files() {
  Bytes holder(std::begin(kHolder), std::end(kHolder));
  holder.resize(88, '<');
  return {
      {TQ_EF_CARD_ACCESS, card_access(2, 13)},
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
  bool pace_alone = false;           // has no Basic Access Control
  std::vector<Bytes> new_secrets{};  // that PACE has brought about

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
    const bool of_basic_access = c.instruction == 0x84 || c.instruction == 0x82 || c.data.size() == 7;
    if (pace_alone && of_basic_access && !c.in_channel) return {{}, 0x6982};
    switch (c.instruction) {
      case 0xA4:
        if (c.data.size() == 2) selected_ = static_cast<uint16_t>(number(c.data));
        if (c.data.size() == 2 && selected_ != 0x3F00 && !files.contains(selected_)) return {{}, 0x6A82};
        return reply;
      case 0x84:
        return {kNonce};
      case 0x82:
        return {authenticated()};
      case 0x22:
        return pace_protocol();
      case 0x86:
        return agreed(c.data);
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
    if (apdu[1] == 0x22) {
      require(apdu.size() >= 20 && test::slice(apdu, 0, 4) == test::from_hex("0022C1A4"));
      require(test::slice(c.data, 0, 10) == test::from_hex("800A") + test::kPaceIdentifier);
      require(c.data[11] >= 1 && c.data[11] <= 4 && test::slice(c.data, 12, 15) == test::from_hex("830101"));
      require(c.data.size() == 15 || (c.data.size() == 18 && c.data[15] == 0x84 && c.data[16] == 1));
      return c;
    }
    if (apdu[1] == 0x86) {
      const size_t tag = c.data[1] < 0x80 ? 2 : 3;
      step_of_pace_ = c.data.size() == 2 ? uint8_t{0} : c.data[tag];
      if (step_of_pace_ == 0)
        require(apdu == test::from_hex("10860000027C0000"));
      else
        require(test::PaceChip::take(apdu, step_of_pace_, c.data));
      return c;
    }
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
      if (channel.command_mac(test::slice(apdu, 0, 4), objects) != mac) continue;
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

  // The terminal names mapping and cipher, and the domain where EF.CardAccess leaves a choice.
  ChipReply pace_protocol() {
    pace_.reset();
    const Bytes& data = command_->data;
    const auto found = files.find(TQ_EF_CARD_ACCESS);
    const Bytes file = found == files.end() ? Bytes{} : found->second;
    const auto info = std::search(file.begin(), file.end(), data.begin() + 2, data.begin() + 12);
    const auto behind = static_cast<size_t>(file.end() - info);
    const uint8_t id = data.size() > 15 ? data[17] : behind > 15 ? info[15] : uint8_t{0};
    for (const test::Domain& domain : test::kDomains) {
      if (domain.id == id) pace_.emplace(data[10], data[11], domain.nid);
    }
    return {{}, static_cast<uint16_t>(pace_ ? 0x9000 : 0x6A80)};
  }

  // A step of PACE, with what the terminal sent for it.
  ChipReply agreed(const Bytes& value) {
    const auto object = [&](const Bytes& own) {
      return ChipReply{test::tlv(0x7C, test::tlv(static_cast<uint8_t>(step_of_pace_ + 1), own))};
    };
    if (!pace_) return {{}, 0x6985};
    const Bytes secret(pace_->curve().field_len() - 1, 0x5C);
    switch (step_of_pace_) {
      case 0:
        return {test::tlv(0x7C, test::tlv(0x80, pace_->encrypted_nonce(kPaceNonce, kPassword)))};
      case 0x81:
        if (pace_->curve().has(value)) return object(pace_->map(value, secret));
        break;
      case 0x83: {
        if (!pace_->mapped() || !pace_->curve().has(value)) break;
        const Bytes own_key = pace_->agree(value, secret);
        new_secrets = {kPaceNonce, pace_->enc(), pace_->mac()};
        return object(own_key);
      }
      default:
        if (!pace_->agreed() || value != pace_->expected_token()) break;
        channel_ = pace_->channel();
        return object(pace_->own_token());
    }
    return {{}, 0x6300};
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
  std::optional<test::PaceChip> pace_;
  uint8_t step_of_pace_ = 0;  // tag of the terminal's object; 0: it asks for the nonce
  uint16_t selected_ = 0;
};

}  // namespace fuzz
