// A passport chip that watches the commands of a read and can answer them as it should: Basic Access Control
// with the document and the session keys of ICAO Doc 9303-11 appendix D, secure messaging, and a handful of
// short files.
#pragma once

#include <array>
#include <deque>
#include <iterator>
#include <map>
#include <optional>

#include "chip.hpp"
#include "passport/mutual_authentication.hpp"
#include "passport/passport_session_record.h"

namespace fuzz {

using Key = std::array<uint8_t, 16>;

constexpr Key key_of(uint64_t high, uint64_t low) {
  Key key{};
  for (size_t i = 0; i < 8; ++i) {
    key[i] = static_cast<uint8_t>(high >> (56 - 8 * i));
    key[i + 8] = static_cast<uint8_t>(low >> (56 - 8 * i));
  }
  return key;
}

// Appendix D.2: the document, and its keys.
inline constexpr tq::MrzFields kDocument = {"L898902C<", "690806", "940623"};
inline constexpr Key kDocumentEnc = key_of(0xAB94FDECF2674FDF, 0xB9B391F85D7F76F2);
inline constexpr Key kDocumentMac = key_of(0x7962D9ECE03D1ACD, 0x4C76089DCE131543);
// Appendix D.3: the seed that the chip brings about, and the session keys from it.
inline constexpr Key kSeed = key_of(0x0036D272F5C350AC, 0xAC50C3F572D23600);
inline constexpr Key kSessionEnc = key_of(0x979EC13B1CBFE9DC, 0xD01AB0FED307EAE5);
inline constexpr Key kSessionMac = key_of(0xF1CB1F1FB5ADF208, 0x806B89DC579DC1F8);

inline constexpr uint8_t kChallenge[kBlock] = {0x46, 0x08, 0xF9, 0x19, 0x88, 0x70, 0x22, 0x12};
// Stands in DG1; no freed memory may hold it.
inline constexpr char kHolder[] = "P<UTOERIKSSON<<ANNA<MARIA<<<";

// Files that a read gets through, EF.COM and EF.SOD with just the way to their lists.
inline std::map<uint16_t, Bytes> usual_files() {
  Bytes holder(std::begin(kHolder), std::end(kHolder));
  holder.resize(88, '<');
  return {
      {TQ_EF_COM, element(0x60, Bytes{0x5F, 0x01, 0, 0x5F, 0x36, 0, 0x5C, 5, 0x61, 0x75, 0x6B, 0x6E, 0x6F})},
      {TQ_EF_SOD,
       security_object(Bytes{0x30, 7, 2, 1, 1, 4, 2, 0xAA, 0xAA, 0x30, 7, 2, 1, 2, 4, 2, 0xBB, 0xBB})},
      {TQ_EF_DG1, element(0x61, holder)},
      {TQ_EF_DG2, element(0x75, Bytes(600, 0x5A))},
      {TQ_EF_DG11, element(0x6B, Bytes(150, 0x3C))},
      {0x010E, element(0x6E, Bytes(20, 0x0E))},
      {TQ_EF_DG15, element(0x6F, Bytes(16, 0x0F))}};
}

class PassportChip {
 public:
  std::map<uint16_t, Bytes> files = usual_files();

  // A command of the reader, which must be right in every byte. With `strict` off its keys and counter may be
  // beyond the chip, since the reader got something else than the chip's answers.
  void take(View command, uint8_t serial, bool strict) {
    waiting_.push_back({serial, command[0] == 0 ? plain(command, strict) : opened(command, strict)});
    while (waiting_.size() > kMostWaiting) waiting_.pop_front();
  }

  // Goes on to the command that waits longest; without one the last stays.
  void next_command() {
    if (waiting_.empty()) return;
    current_ = waiting_.front();
    waiting_.pop_front();
  }
  uint8_t serial() const { return current_.serial; }
  // The answer to the present command.
  Bytes good_answer() { return answer_to(current_); }

  Chip channel() const { return {kSessionEnc.data(), kSessionMac.data(), ssc_.data()}; }
  // The reader has counted an answer.
  void count() { ssc_ = next_counter(ssc_); }

 private:
  struct Command {
    uint8_t serial = 0;
    std::optional<Bytes> apdu;  // header, data, Le
  };
  static constexpr size_t kMostWaiting = 4;
  static constexpr size_t kMostCounted =
      8;  // answers that the reader may have counted since its last command
  static constexpr size_t kHeader = 4;

  Bytes plain(View command, bool strict) {
    const Bytes apdu(command.begin(), command.end());
    const Bytes select = {0x00, 0xA4, 0x04, 0x0C, 0x07, 0xA0, 0x00, 0x00, 0x02, 0x47, 0x10, 0x01};
    const Bytes challenge = {0x00, 0x84, 0x00, 0x00, 0x08};
    if (apdu == select || apdu == challenge) return apdu;
    require(apdu.size() == 46 && apdu[1] == 0x82 && apdu[4] == 40 && apdu[45] == 40);
    const Chip document(kDocumentEnc.data(), kDocumentMac.data(), ssc_.data());
    const View cryptogram = View(apdu).subspan(5, 32);
    const Bytes mac(apdu.begin() + 37, apdu.begin() + 45);
    require(!strict || document.retail_mac(padded(cryptogram)) == mac);
    authentication_ = document.deciphered(cryptogram);  // RND.IFD, RND.IC, K.IFD
    std::copy_n(authentication_.begin() + 12, 4, ssc_.begin());
    std::copy_n(authentication_.begin() + 4, 4, ssc_.begin() + 4);
    return apdu;
  }

  // Header, and data or Le, of a protected command; nothing when its MAC fits no counter.
  std::optional<Bytes> opened(View command, bool strict) {
    require(command.size() >= 19 && command[0] == 0x0C && command.back() == 0);
    require(command[kHeader] == command.size() - 6);
    const View objects = command.subspan(5, command.size() - 16);
    const View mac = command.subspan(command.size() - 9, kBlock);
    const Bytes input = padded(command.first(kHeader)) + objects;
    Bytes counter = ssc_;
    for (size_t i = 0; i < kMostCounted; ++i) {
      const Chip channel(kSessionEnc.data(), kSessionMac.data(), counter.data());
      counter = next_counter(counter);
      if (!std::equal(mac.begin(), mac.end(), channel.mac(input).begin())) continue;
      ssc_ = counter;
      Bytes apdu(command.begin(), command.begin() + kHeader);
      if (objects[0] != 0x87) {
        require(objects.size() == 3 && objects[0] == 0x97 && objects[1] == 1);
        apdu.push_back(objects[2]);
      } else {
        const size_t len = objects[1] - size_t{1};
        require(objects[2] == 1 && len % kBlock == 0 &&
                (objects.size() == len + 3 || objects.size() == len + 6));
        append(apdu, channel.deciphered(objects.subspan(3, len)));
      }
      return apdu;
    }
    require(!strict);
    return std::nullopt;
  }

  Bytes answer_to(const Command& command) {
    if (!command.apdu) return {0x69, 0x88};
    const Bytes& apdu = *command.apdu;
    if (apdu[0] == 0) {
      if (apdu[1] == 0xA4) return {0x90, 0x00};
      if (apdu[1] == 0x84) return Bytes(std::begin(kChallenge), std::end(kChallenge)) + kSuccess;
      return authenticated();
    }
    const auto data = [&](View bytes) {
      Bytes answer = channel().good_answer(bytes);
      count();
      return answer;
    };
    if (apdu[1] == 0xA4) {
      selected_ = static_cast<uint16_t>(apdu[4] << 8 | apdu[5]);
      if (files.contains(selected_)) return data({});
      return {0x6A, 0x82};
    }
    if (apdu[1] == 0x88) return data(Bytes(128, 0xAA));
    const auto file = files.find(selected_);
    const size_t offset = static_cast<size_t>(apdu[2]) << 8 | apdu[3];
    if (file == files.end()) return {0x69, 0x86};
    if (offset > file->second.size()) return {0x6B, 0x00};
    const View rest = View(file->second).subspan(offset);
    return data(rest.first(std::min<size_t>({rest.size(), apdu[4], 231})));
  }

  Bytes authenticated() const {
    Bytes r =
        Bytes(authentication_.begin() + 8, authentication_.begin() + 16) + View(authentication_).first(8);
    for (size_t i = 0; i < kSeed.size(); ++i) r.push_back(authentication_[16 + i] ^ kSeed[i]);
    const Chip document(kDocumentEnc.data(), kDocumentMac.data(), ssc_.data());
    const Bytes object = document.cryptogram(r);
    Bytes answer(object.end() - 32, object.end());
    return answer + document.retail_mac(padded(answer)) + kSuccess;
  }

  std::deque<Command> waiting_;
  Command current_;
  Bytes authentication_ = Bytes(32);
  Bytes ssc_ = Bytes(kBlock);
  uint16_t selected_ = 0;
};

}  // namespace fuzz
