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

// Appendix D.2: the document, and its keys.
inline constexpr tq::MrzFields kDocument = {"L898902C<", "690806", "940623"};
inline constexpr Key kDocumentEnc = {0xAB, 0x94, 0xFD, 0xEC, 0xF2, 0x67, 0x4F, 0xDF,
                                     0xB9, 0xB3, 0x91, 0xF8, 0x5D, 0x7F, 0x76, 0xF2};
inline constexpr Key kDocumentMac = {0x79, 0x62, 0xD9, 0xEC, 0xE0, 0x3D, 0x1A, 0xCD,
                                     0x4C, 0x76, 0x08, 0x9D, 0xCE, 0x13, 0x15, 0x43};
// Appendix D.3: the seed that the chip brings about, and the session keys from it.
inline constexpr Key kSeed = {0x00, 0x36, 0xD2, 0x72, 0xF5, 0xC3, 0x50, 0xAC,
                              0xAC, 0x50, 0xC3, 0xF5, 0x72, 0xD2, 0x36, 0x00};
inline constexpr Key kSessionEnc = {0x97, 0x9E, 0xC1, 0x3B, 0x1C, 0xBF, 0xE9, 0xDC,
                                    0xD0, 0x1A, 0xB0, 0xFE, 0xD3, 0x07, 0xEA, 0xE5};
inline constexpr Key kSessionMac = {0xF1, 0xCB, 0x1F, 0x1F, 0xB5, 0xAD, 0xF2, 0x08,
                                    0x80, 0x6B, 0x89, 0xDC, 0x57, 0x9D, 0xC1, 0xF8};

inline constexpr uint8_t kChallenge[kBlock] = {0x46, 0x08, 0xF9, 0x19, 0x88, 0x70, 0x22, 0x12};
// Stands in DG1; no freed memory may hold it.
inline constexpr char kHolder[] = "P<UTOERIKSSON<<ANNA<MARIA<<<";

inline Bytes element(uint8_t tag, View content) {
  Bytes out = {tag};
  if (content.size() >= 0x80) out.push_back(content.size() < 0x100 ? 0x81 : 0x82);
  append_number(out, content.size(), content.size() < 0x100 ? 1 : 2);
  append(out, content);
  return out;
}

// Files that a read gets through, EF.COM and EF.SOD with just the way to their lists.
inline std::map<uint16_t, Bytes> usual_files() {
  Bytes com = {0x5F, 0x01, 0x04, '0', '1', '0', '7', 0x5F, 0x36, 0x06, '0', '4', '0', '0', '0', '0'};
  append(com, Bytes{0x5C, 0x05, 0x61, 0x75, 0x6B, 0x6E, 0x6F});
  Bytes object = {0x02, 0x01, 0x00, 0x30, 0x00};
  append(object,
         element(0x30, Bytes{0x30, 0x07, 2, 1, 1, 4, 2, 0xAA, 0xAA, 0x30, 0x07, 2, 1, 2, 4, 2, 0xBB, 0xBB}));
  Bytes content = {0x06, 0x00};
  append(content, element(0xA0, element(0x04, element(0x30, object))));
  Bytes signed_data = {0x02, 0x01, 0x03, 0x31, 0x00};
  append(signed_data, element(0x30, content));
  Bytes sod = {0x06, 0x00};
  append(sod, element(0xA0, element(0x30, signed_data)));

  Bytes holder(std::begin(kHolder), std::end(kHolder));
  holder.resize(88, '<');
  return {{TQ_EF_COM, element(0x60, com)},
          {TQ_EF_SOD, element(0x77, element(0x30, sod))},
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
  void count() { ssc_ = next(ssc_); }

 private:
  struct Command {
    uint8_t serial = 0;
    std::optional<Bytes> apdu;  // header, data, Le
  };
  static constexpr size_t kMostWaiting = 4;
  static constexpr size_t kMostCounted =
      8;  // answers that the reader may have counted since its last command
  static constexpr size_t kHeader = 4;

  static Bytes next(Bytes counter) {
    for (size_t i = kBlock; i > 0 && ++counter[i - 1] == 0; --i) {
    }
    return counter;
  }

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
    Bytes input = padded(command.first(kHeader));
    append(input, objects);
    Bytes counter = ssc_;
    for (size_t i = 0; i < kMostCounted; ++i) {
      const Chip channel(kSessionEnc.data(), kSessionMac.data(), counter.data());
      counter = next(counter);
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
      if (apdu[1] == 0x84) return with_success(kChallenge);
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
    Bytes r(authentication_.begin() + 8, authentication_.begin() + 16);
    append(r, View(authentication_).first(8));
    for (size_t i = 0; i < kSeed.size(); ++i) r.push_back(authentication_[16 + i] ^ kSeed[i]);
    const Chip document(kDocumentEnc.data(), kDocumentMac.data(), ssc_.data());
    const Bytes object = document.cryptogram(r);
    Bytes answer(object.end() - 32, object.end());
    append(answer, document.retail_mac(padded(answer)));
    return with_success(answer);
  }

  static Bytes with_success(View data) {
    Bytes answer(data.begin(), data.end());
    append(answer, Bytes{0x90, 0x00});
    return answer;
  }

  std::deque<Command> waiting_;
  Command current_;
  Bytes authentication_ = Bytes(32);
  Bytes ssc_ = Bytes(kBlock);
  uint16_t selected_ = 0;
};

}  // namespace fuzz
