#include "passport_peer.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using View = std::span<const uint8_t>;

constexpr std::array<uint8_t, 8> kChallenge = {0x46, 0x08, 0xF9, 0x19, 0x88, 0x70, 0x22, 0x12};
constexpr std::array<uint8_t, 16> kKeyPart = {0x0B, 0x4F, 0x80, 0x32, 0x3E, 0xB3, 0x19, 0x1C,
                                              0xB0, 0x49, 0x70, 0xCB, 0x40, 0x52, 0x79, 0x0B};
constexpr size_t kSignature = 128;

void require(bool held, const char* what) {
  if (held) return;
  static_cast<void>(std::fprintf(stderr, "passport_peer: %s\n", what));
  std::exit(1);
}

// ICAO 9303-11 section 9.7.1, without the parity, which the cipher does not look at.
void derive(View seed, uint8_t counter, std::array<uint8_t, 16>& key) {
  std::array<uint8_t, 20> input{};
  std::array<uint8_t, EVP_MAX_MD_SIZE> digest{};
  std::copy_n(seed.begin(), 16, input.begin());
  input[19] = counter;
  EVP_Digest(input.data(), input.size(), digest.data(), nullptr, EVP_sha1(), nullptr);
  std::copy_n(digest.begin(), key.size(), key.begin());
}

// ICAO 9303-3 section 4.9.
std::string with_check_digit(std::string field) {
  constexpr int kWeights[] = {7, 3, 1};
  int sum = 0;
  for (size_t i = 0; i < field.size(); ++i) {
    const char c = field[i];
    const int value = c >= '0' && c <= '9' ? c - '0' : c == '<' ? 0 : c - 'A' + 10;
    sum += value * kWeights[i % 3];
  }
  return field + static_cast<char>('0' + sum % 10);
}

}  // namespace

PassportPeer::PassportPeer(const Recording::Passport& passport) : passport_(passport) {
  std::string number = passport.number;
  number.resize(std::max<size_t>(number.size(), 9), '<');
  const std::string mrz =
      with_check_digit(number) + with_check_digit(passport.birth) + with_check_digit(passport.expiry);
  std::array<uint8_t, EVP_MAX_MD_SIZE> seed{};
  EVP_Digest(mrz.data(), mrz.size(), seed.data(), nullptr, EVP_sha1(), nullptr);
  derive(seed, 1, document_enc_);
  derive(seed, 2, document_mac_);
}

std::span<const uint8_t> PassportPeer::respond(View command) {
  size_t len = 0;
  require(command.size() >= 5, "a command that is too short");
  if (command[0] == 0x0C) {
    len = respond_protected(command);
  } else if (command[1] == 0x84) {
    len = kChallenge.size();
    std::copy(kChallenge.begin(), kChallenge.end(), answer_.begin());
  } else if (command[1] == 0x82) {
    len = authenticate(command);
  }
  answer_[len] = 0x90;
  answer_[len + 1] = 0x00;
  return std::span(answer_).first(len + 2);
}

size_t PassportPeer::authenticate(View command) {
  std::array<uint8_t, 40> padded{};
  std::array<uint8_t, 8> mac{};
  require(command.size() == 46, "EXTERNAL AUTHENTICATE has another length");
  std::copy_n(command.begin() + 5, 32, padded.begin());
  document_.retail_mac(padded.data(), OpenSslMessaging::pad(padded.data(), 32), mac.data());
  require(std::equal(mac.begin(), mac.end(), command.begin() + 37), "M.IFD is wrong");

  std::array<uint8_t, 32> s{};  // RND.IFD, RND.IC, K.IFD
  std::array<uint8_t, 32> r{};  // RND.IC, RND.IFD, K.IC
  document_.decipher(command.data() + 5, s.size(), s.data());
  require(std::equal(kChallenge.begin(), kChallenge.end(), s.begin() + 8), "RND.IC is wrong");
  std::copy_n(s.begin() + 8, 8, r.begin());
  std::copy_n(s.begin(), 8, r.begin() + 8);
  std::copy(kKeyPart.begin(), kKeyPart.end(), r.begin() + 16);
  document_.encipher(r.data(), r.size(), answer_.data());
  std::copy_n(answer_.begin(), 32, padded.begin());
  document_.retail_mac(padded.data(), OpenSslMessaging::pad(padded.data(), 32), answer_.data() + 32);

  Key seed{};
  for (size_t i = 0; i < seed.size(); ++i) seed[i] = static_cast<uint8_t>(s[16 + i] ^ kKeyPart[i]);
  derive(seed, 1, session_enc_);
  derive(seed, 2, session_mac_);
  std::copy_n(s.begin() + 12, 4, ssc_.begin());
  std::copy_n(s.begin() + 4, 4, ssc_.begin() + 4);
  return 40;
}

size_t PassportPeer::respond_protected(View command) {
  std::array<uint8_t, 256> data{};
  const int data_len = session_.open_command(command.data(), command.size(), ssc_.data(), data.data());
  require(data_len >= 0, "a protected command that cannot be opened");
  View reply;
  if (command[1] == 0xA4) {
    require(data_len == 2, "SELECT without a file identifier");
    selected_ = static_cast<uint16_t>(data[0] << 8 | data[1]);
    require(passport_.files.count(selected_) == 1, "SELECT of a file that is not there");
  } else if (command[1] == 0xB0) {
    const Recording::Bytes& file = passport_.files.at(selected_);
    const size_t offset = static_cast<size_t>(command[2]) << 8 | command[3];
    require(command[5] == 0x97 && offset + command[7] <= file.size(), "READ BINARY beyond the file");
    reply = std::span(file).subspan(offset, command[7]);
  } else {
    require(command[1] == 0x88 && data_len == 8, "an unknown command");
    data.fill(0xAA);
    reply = std::span(data).first(kSignature);
  }
  return session_.protect_answer(reply.data(), reply.size(), ssc_.data(), answer_.data());
}
