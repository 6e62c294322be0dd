// The record layer before any key: choices: whether the version is agreed upon, how many bytes come at a
// time, how many are consumed at a time. The content is what the server sends. It is read a second time in
// the plainest way, and both must come to the same.
#include "tls/record_layer.hpp"

#include "tls_channel.hpp"

namespace {

using namespace fuzz;
using tq::tls::Alert;

class Stream final : public TlsChannel {
 public:
  Stream(View bytes, size_t piece) : TlsChannel(piece), bytes_(bytes) {}
  bool more() override {
    if (given_ || bytes_.empty()) return false;
    given_ = true;
    give(bytes_);
    return true;
  }
  void sent(View bytes) override { append(answer, bytes); }
  Bytes answer;

 private:
  View bytes_;
  bool given_ = false;
};

constexpr int kSilent = -1;
constexpr int kClosed = -2;

struct Reading {
  Bytes content;      // each byte behind the type of its record
  int end = kSilent;  // or the alert that it ends with
};

Reading read_plainly(View in, bool version_fixed) {
  Reading reading;
  int empty = 0;
  int warnings = 0;
  const auto ended = [&reading](Alert alert) {
    reading.end = static_cast<int>(alert);
    return reading;
  };
  while (in.size() >= 5) {
    const uint8_t type = in[0];
    const bool right_version = in[1] == 3 && (!version_fixed || in[2] == 3);
    const size_t len = size_t{in[3]} * 256 + in[4];
    if (type < 20 || type > 23) return ended(Alert::kUnexpectedMessage);
    if (!right_version) return ended(Alert::kProtocolVersion);
    if (len > 16384) return ended(Alert::kRecordOverflow);
    if (in.size() < 5 + len) return reading;
    const View content = in.subspan(5, len);
    in = in.subspan(5 + len);
    if (len == 0 && type == 23) return ended(Alert::kUnexpectedMessage);
    if (len == 0 && type != 22) return ended(Alert::kDecodeError);
    if (len == 0 && ++empty > 32) return ended(Alert::kUnexpectedMessage);
    if (len == 0) continue;
    if (type != 21) {
      for (const uint8_t byte : content) reading.content.insert(reading.content.end(), {type, byte});
      empty = warnings = 0;
      continue;
    }
    if (len != 2) return ended(Alert::kDecodeError);
    if (content[0] == 2) return reading;
    if (content[0] != 1) return ended(Alert::kIllegalParameter);
    if (content[1] == 0) {
      reading.end = kClosed;
      return reading;
    }
    if (++warnings > 5) return ended(Alert::kUnexpectedMessage);
  }
  return reading;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Choices choices(data, size);
  const bool version_fixed = (choices.next() & 1) != 0;
  const size_t piece = choices.next() + size_t{1};
  const size_t consumed = choices.next() + size_t{1};

  Stream stream(choices.content(), piece);
  CountingRandom random;
  const auto records = std::make_unique<tq::tls::RecordLayer>(stream, random);
  if (version_fixed) records->fix_version();
  Bytes content;
  tq::tls::ContentType type{};
  while (records->wait_for_content(type)) {
    require(!records->content().empty() && records->content().size() <= tq::tls::kMaxPlainLen);
    const auto part = records->content().first(std::min(consumed, records->content().size()));
    for (const uint8_t byte : part) content.insert(content.end(), {static_cast<uint8_t>(type), byte});
    records->consume(part.size());
  }

  const Reading expected = read_plainly(choices.content(), version_fixed);
  require(content == expected.content);
  require(records->closed_by_peer() == (expected.end == kClosed));
  require(records->failed() == (expected.end != kClosed));
  Bytes answer;
  if (expected.end >= 0) {
    const auto minor = static_cast<uint8_t>(version_fixed ? 3 : 1);
    answer = {21, 3, minor, 0, 2, 2, static_cast<uint8_t>(expected.end)};
  }
  require(stream.answer == answer);
  require(!records->wait_for_content(type));
  return 0;
}
