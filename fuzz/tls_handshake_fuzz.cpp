// A whole connection. Choices: suite, bytes that come at a time, whether a name is sent and a certificate
// asked for. The content is a series of turns of the server, each a byte that says what it does and what that
// takes. The server knows all secrets from the client's random source, so its good messages are good however
// deep the connection is.
#include "crypto/sha256.hpp"
#include "tls/client.hpp"
#include "tls/handshake_messages.hpp"
#include "tls_channel.hpp"

namespace {

using namespace fuzz;
using tq::tls::ContentType;

enum Turn : uint8_t {
  kGood,       // the message that comes next; behind Finished application data
  kChanged,    // place (2), value: the same with one byte changed
  kCut,        // len (2): the start of it, with the length in its header corrected
  kLonger,     // len, bytes: the same with bytes behind it
  kMessage,    // type, len (2), bytes
  kRecord,     // type, len (2), bytes: protected when the others are
  kRaw,        // len (2), bytes
  kFragments,  // len: of the records from here on; 0 for whole messages
  kHelloRequest,
  kWarning,  // description
  kClose,    // close_notify
  kSkip,     // leaves the message that comes next out
  kKeys,     // turns on the protection
  kNumTurns,
};

enum class Next : uint8_t { kHello, kCertificate, kRequest, kDone, kChangeCipherSpec, kFinished, kData };

// With a key of 1024 bits whose factors nobody needs.
const Bytes& leaf() {
  static const Bytes key = Bytes{0x02, 0x81, 129, 0} + Bytes(128, 0xC5) + Bytes{0x02, 1, 3};
  static const Bytes bytes = certificate(key_info(element(0x30, key)));
  return bytes;
}

Bytes message(uint8_t type, View body) {
  return Bytes{type} + test::be(body.size(), 3) + bytes_of(body);
}

class Server final : public TlsChannel {
 public:
  Server(Choices choices, const tq::tls::Suite& suite, size_t piece, bool named, bool requests)
      : TlsChannel(piece), choices_(choices), suite_(&suite), named_(named), requests_(requests) {
    randoms_.server.fill(0x51);
  }

  bool more() override {
    if (choices_.content().empty() || num_turns_++ == kMostTurns) return false;
    const uint8_t turn = choices_.next() % kNumTurns;
    // These are no more what a good server does, unless they say otherwise.
    const bool was_faithful = std::exchange(faithful_, false);
    switch (turn) {
      case kGood:
        faithful_ = was_faithful;
        send_next([](Bytes& /*good*/) {});
        break;
      case kChanged: {
        const size_t place = number();
        const uint8_t value = choices_.next();
        faithful_ = was_faithful && value == 0;
        send_next([&](Bytes& good) { good[place % good.size()] ^= value; });
        break;
      }
      case kCut: {
        const size_t len = number();
        send_next([&](Bytes& good) {
          if (good.size() >= 4 && len < good.size() - 4) good = message(good[0], View(good).subspan(4, len));
        });
        break;
      }
      case kLonger: {
        const Bytes tail = bytes(choices_.next());
        send_next([&](Bytes& good) {
          if (good.size() >= 4) good = message(good[0], View(good + tail).subspan(4));
        });
        break;
      }
      case kMessage: {
        const uint8_t type = choices_.next();
        send_handshake(message(type, bytes(number())));
        break;
      }
      case kRecord: {
        const auto type = static_cast<ContentType>(choices_.next());
        const Bytes content = bytes(number());
        if (type == ContentType::kHandshake) lose_track();
        if (content.size() <= tq::tls::kMaxPlainLen) send_record(type, content);
        break;
      }
      case kRaw: {
        const Bytes raw = bytes(number());
        if (writing_.started() && !raw.empty()) authentic_ = false;
        lose_track();
        give(raw);
        break;
      }
      case kFragments:
        faithful_ = was_faithful;
        fragment_len_ = choices_.next();
        break;
      case kHelloRequest:
        faithful_ = was_faithful && ++num_hello_requests_ <= tq::tls::kMaxHelloRequests;
        send_handshake(message(0, {}));
        break;
      case kWarning: {
        const uint8_t description = choices_.next();
        closed_ = closed_ || description == 0;
        faithful_ = was_faithful && description != 0 && ++num_warnings_ <= tq::tls::kMaxWarnings;
        send_record(ContentType::kAlert, Bytes{1, description});
        break;
      }
      case kClose:
        faithful_ = was_faithful && next_ == Next::kData;
        closed_ = true;
        send_record(ContentType::kAlert, Bytes{1, 0});
        break;
      case kSkip:
        go_on();
        break;
      default:
        turn_on_keys();
    }
    return true;
  }

  // Checks what the client sends, and takes from it what the keys need.
  void sent(View bytes) override {
    if (!tracked_) return;
    append(from_client_, bytes);
    for (tq::ByteReader in(from_client_); !in.done();) {
      require(!ended_);  // nothing comes behind a fatal alert
      uint8_t type = 0;
      uint32_t version = 0;
      uint32_t len = 0;
      View fragment;
      require(in.u8(type) && in.number(2, version) && in.number(2, len) && in.take(len, fragment));
      require(version == 0x0303 || version == 0x0301);
      Bytes room(fragment.begin(), fragment.end());
      std::span<uint8_t> content;
      require(reading_.open(static_cast<ContentType>(type), room, content));
      require(!content.empty() && content.size() <= tq::tls::kMaxPlainLen);
      take_record(static_cast<ContentType>(type), content);
    }
    from_client_.clear();
  }

  bool faithful() const { return faithful_; }
  bool finished() const { return finished_; }
  bool closed() const { return closed_; }
  bool ended() const { return ended_; }
  // Whatever came, the client may have been given the start of this and nothing else.
  const Bytes& data() const { return data_; }

 private:
  static constexpr size_t kMostTurns = 300;

  size_t number() {
    const size_t high = choices_.next();
    return high << 8 | choices_.next();
  }
  Bytes bytes(size_t len) { return bytes_of(choices_.take(len)); }

  // --- the client's side ---

  void take_record(ContentType type, View content) {
    switch (type) {
      case ContentType::kAlert:
        require(content.size() == 2 && (content[0] == 2 || content[1] == 0 || content[1] == 100));
        ended_ = content[0] == 2;
        break;
      case ContentType::kChangeCipherSpec:
        require(content.size() == 1 && content[0] == 1 && have_keys_ && !reading_.started());
        keys().start_client_side(reading_);
        break;
      case ContentType::kHandshake:
        append(client_messages_, content);
        take_messages();
        break;
      default:
        require(finished_);
    }
  }

  void take_messages() {
    while (client_messages_.size() >= 4) {
      const size_t len = size_t{client_messages_[2]} << 8 | client_messages_[3];
      if (client_messages_.size() < 4 + len) return;
      const auto end = client_messages_.begin() + static_cast<ptrdiff_t>(4 + len);
      const Bytes whole(client_messages_.begin(), end);
      client_messages_.erase(client_messages_.begin(), end);
      if (whole[0] == 1) std::copy_n(whole.begin() + 6, 32, randoms_.client.begin());
      if (whole[0] == 20) check_finished(whole);
      transcript_.update(whole);
      if (whole[0] == 16) make_keys();
    }
  }

  // The random source has given 32 bytes for the hello, and then those of the premaster secret.
  void make_keys() {
    CountingRandom same;
    std::array<uint8_t, 32> hello{};
    require(same.fill(hello));
    require(std::equal(hello.begin(), hello.end(), randoms_.client.begin()));
    std::array<uint8_t, tq::tls::kPremasterLen> premaster = {3, 3};
    require(same.fill(std::span(premaster).subspan<2>()));
    tq::tls::derive_master_secret(premaster, randoms_, master_);
    have_keys_ = true;
  }
  tq::tls::KeyBlock keys() const { return {*suite_, master_, randoms_}; }

  std::array<uint8_t, tq::tls::kVerifyDataLen> verify_data(tq::tls::Side side) const {
    tq::Sha256 hash = transcript_;
    std::array<uint8_t, 32> digest{};
    hash.finish(digest);
    std::array<uint8_t, tq::tls::kVerifyDataLen> out{};
    tq::tls::derive_verify_data(side, master_, digest, out);
    return out;
  }
  void check_finished(View whole) const {
    const auto expected = verify_data(tq::tls::Side::kClient);
    require(have_keys_ && std::equal(expected.begin(), expected.end(), whole.begin() + 4, whole.end()));
  }

  // --- the server's side ---

  Bytes next_message() const {
    Bytes body;
    switch (next_) {
      case Next::kHello:
        body = Bytes{3, 3} + randoms_.server + Bytes{0} + test::be(suite_->id, 2) + Bytes{0};
        append(body, named_ ? View(kNamedExtensions) : View(kExtensions));
        return message(2, body);
      case Next::kCertificate:
        body = test::be(leaf().size(), 3) + leaf();
        body = test::be(2 * body.size(), 3) + body + body;
        return message(11, body);
      case Next::kRequest:
        return message(13, Bytes{1, 1, 0, 2, 4, 1, 0, 4, 0, 2, 0x30, 0});
      case Next::kDone:
        return message(14, {});
      case Next::kFinished:
        return message(20, verify_data(tq::tls::Side::kServer));
      default:
        return {};
    }
  }

  template <typename Change>
  void send_next(Change change) {
    if (next_ == Next::kData) {
      send_record(ContentType::kApplicationData,
                  Bytes(1 + data_.size() % 40, static_cast<uint8_t>(data_.size())));
    } else if (next_ == Next::kChangeCipherSpec) {
      Bytes content = {1};
      change(content);
      send_record(ContentType::kChangeCipherSpec, content);
      turn_on_keys();
    } else {
      const Bytes good = next_message();
      Bytes sent = good;
      change(sent);
      finished_ = next_ == Next::kFinished && sent == good;
      send_handshake(sent);
    }
    go_on();
  }

  void go_on() {
    if (next_ == Next::kData) return;
    next_ = static_cast<Next>(static_cast<uint8_t>(next_) + 1);
    if (next_ == Next::kRequest && !requests_) next_ = Next::kDone;
  }

  void turn_on_keys() {
    if (have_keys_ && !writing_.started()) keys().start_server_side(writing_);
  }

  // Handshake bytes that are not whole messages: what the client makes of them is not followed any more.
  void lose_track() {
    if (!have_keys_) tracked_ = false;
  }

  // What the client takes from the hello, which need not be a good one.
  void note_hello(View hello) {
    constexpr size_t kSessionAt = 38;
    if (hello[0] != 2 || hello_noted_ || hello.size() <= kSessionAt) return;
    hello_noted_ = true;
    std::copy_n(hello.begin() + 6, randoms_.server.size(), randoms_.server.begin());
    const size_t suite_at = kSessionAt + 1 + hello[kSessionAt];
    if (hello.size() < suite_at + 2) return;
    for (const auto& suite : tq::tls::kSuites) {
      if (suite.id == (hello[suite_at] << 8 | hello[suite_at + 1])) suite_ = &suite;
    }
  }

  void send_handshake(View whole) {
    if (whole[0] != 0) transcript_.update(whole);
    note_hello(whole);
    const size_t step = fragment_len_ == 0 ? tq::tls::kMaxPlainLen : fragment_len_;
    for (size_t at = 0; at < whole.size(); at += step) {
      send_record(ContentType::kHandshake, whole.subspan(at, std::min(step, whole.size() - at)));
    }
  }

  void send_record(ContentType type, View content) {
    Bytes fragment(content.begin(), content.end());
    if (writing_.started()) {
      CountingRandom random;
      fragment.resize(content.size() + tq::tls::kMaxSealingLen);
      fragment.resize(writing_.seal(type, content, random, fragment));
    }
    give(Bytes{static_cast<uint8_t>(type), 3, 3} + test::be(fragment.size(), 2) + fragment);
    if (type != ContentType::kAlert) num_warnings_ = 0;
    if (type == ContentType::kApplicationData && writing_.started() && authentic_ && !closed_)
      append(data_, content);
  }

  static constexpr uint8_t kExtensions[] = {0, 5, 0xFF, 1, 0, 1, 0};
  static constexpr uint8_t kNamedExtensions[] = {0, 9, 0, 0, 0, 0, 0xFF, 1, 0, 1, 0};

  Choices choices_;
  const tq::tls::Suite* suite_;
  bool named_;
  bool requests_;
  bool faithful_ = true;  // nothing has been sent that a good server could not have sent
  bool tracked_ = true;   // the client's messages can be followed
  bool hello_noted_ = false;
  bool authentic_ = true;  // every record so far has its right number
  bool finished_ = false;
  bool closed_ = false;
  bool ended_ = false;
  bool have_keys_ = false;
  Next next_ = Next::kHello;
  size_t num_turns_ = 0;
  int num_hello_requests_ = 0;
  int num_warnings_ = 0;
  size_t fragment_len_ = 0;
  tq::tls::HelloRandoms randoms_{};
  std::array<uint8_t, tq::tls::kMasterLen> master_{};
  tq::Sha256 transcript_;
  tq::tls::RecordProtection reading_;
  tq::tls::RecordProtection writing_;
  Bytes from_client_;
  Bytes client_messages_;
  Bytes data_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Choices choices(data, size);
  const auto& suite = tq::tls::kSuites[choices.next() % std::size(tq::tls::kSuites)];
  const size_t piece = choices.next() + size_t{1};
  const uint8_t flags = choices.next();
  const bool named = (flags & 1) != 0;

  Server server(choices, suite, piece, named, (flags & 2) != 0);
  CountingRandom random;
  const auto client = std::make_unique<tq::tls::Client>(server, random);
  if (named) require(client->set_server_name("host.test"));
  const bool connected = client->connect();
  if (connected) require(server.finished());
  if (!connected && server.finished()) require(!server.faithful());
  require(connected == client->connect());

  Bytes received;
  if (connected) {
    require(client->write(leaf()) || server.closed() || server.ended());
    std::array<uint8_t, 100> out;
    ptrdiff_t n = 0;
    while ((n = client->read(out)) > 0) append(received, View(out).first(static_cast<size_t>(n)));
    require(received.size() <= server.data().size());
    require(std::equal(received.begin(), received.end(), server.data().begin()));
    if (n == 0) require(server.closed());
    if (server.faithful()) require(received == server.data() && (n == 0) == server.closed());
    require(client->read(out) == n);
    require(client->shutdown() == (n == 0 ? 1 : -1));
  } else {
    uint8_t byte = 0;
    require(!client->write({&byte, 1}) && client->read({&byte, 1}) == -1 && client->shutdown() == -1);
  }
  return 0;
}
