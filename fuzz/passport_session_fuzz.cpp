// A whole passport read, its decode server and its chip in one. Choices: read mode, chunk size, clock;
// refused connects; which allocation fails; what the server answers to each of its four commands. The content
// is a series of turns of the chip, each a byte that says what it does (low half) and with which step number
// (high half; 0: the command's own), and what that takes. Then the read is superseded.
//
// Whenever the read waits, exactly one command is with the application; and what 0x7202 brings of a file is
// what lies in the chip, or nothing.
#include "passport/passport_read.hpp"
#include "passport_chip.hpp"
#include "read_application.hpp"

namespace {

using namespace fuzz;

constexpr size_t kLongFile = 36000;
const Bytes kSuccess = {0x90, 0x00};

enum Turn : uint8_t {
  kGoodAnswers,  // count
  kData,         // len, bytes: the data of a good answer
  kBlocks,       // len, bytes: deciphered blocks with whatever padding
  kObjects,      // len, bytes: data objects with a right MAC
  kBytes,        // len, bytes: the answer
  kSpoiled,      // place, value: a good answer with one byte changed
  kShortened,    // len: the start of a good answer, with success
  kMissing,      //
  kFile,         // id, blocks of 16, len, bytes: changes a file; no bytes remove it
  kCancel,       //
  kOdd,          // how, number: a reply of chips in people's pockets
  kPaceAlone,    // which: no Basic Access Control, but PACE with one of 4 ciphers on one of 9 curves
  kNumTurns,
};

class Application final : public ReadApplication {
 public:
  Application(const uint8_t* data, size_t size) : ReadApplication({data, size}, 1) {
    g_heap.secrets = {test::from_text(kHolder), kSessionEnc, kSessionMac, kDocumentEnc, kDocumentMac};
    const uint8_t mode = choices_.next();
    const uint8_t chunk = std::max<uint8_t>(choices_.next(), 1);
    server_.refused_connects = choices_.next();
    take_failing_allocation();
    for (DecodeServer::Plan& plan : server_.plans) {
      plan.reply = next_reply();
      if (plan.reply >= Reply::kSealed) plan.content = counted();
    }
    clock_step_ = mode >> 2;
    server_.timing = (mode & 2) != 0;
    configure(chunk, mode & 1, 1 + (mode & 1), 0);
    cfg_.serverRoute = TQ_ROUTE_PASSPORT;
  }

  View input() const override { return {reinterpret_cast<const uint8_t*>(&kDocument), sizeof kDocument}; }
  void check_end() const override {
    check_results(false);
    check_files();
    if (num_results_ == 1 && faithful_ && g_heap.whole() && server_.all_good()) require(code_ == TQ_OK);
  }

 private:
  void take(View command, uint8_t serial) override {
    require(command.size() >= 5);
    chip_.take(command, serial, faithful_ && g_heap.whole());
  }

  bool next_answer(tq::CardAnswer& out) override {
    if (good_answers_left_ == 0 && !take_turns(out)) return false;
    if (good_answers_left_ > 0) {
      --good_answers_left_;
      answer_with(chip_.good_answer(), out);
    }
    for (const Bytes& secret : std::exchange(chip_.new_secrets, {})) g_heap.secrets.push_back(secret);
    if (out.serial > 9) odd_step_ = true;
    if (step_ != 0) knows_content_ = false;
    return true;
  }

  // Turns that are no answer, up to the first that is one.
  bool take_turns(tq::CardAnswer& out) {
    while (!choices_.content().empty()) {
      const uint8_t turn = choices_.next();
      step_ = turn >> 4;
      switch ((turn & 0x0F) % kNumTurns) {
        case kGoodAnswers:
          good_answers_left_ = choices_.next() % 128 + size_t{1};
          faithful_ = faithful_ && step_ == 0;
          return true;
        case kFile:
          change_file();
          continue;
        case kCancel:
          cancelled_ = true;
          continue;
        case kPaceAlone:
          have_pace_alone(choices_.next());
          continue;
        default:
          faithful_ = false;
          answer_with(odd_answer(turn & 0x0F), out);
          if ((turn & 0x0F) % kNumTurns == kMissing) out.status = -1;
          return true;
      }
    }
    return false;
  }

  void change_file() {
    faithful_ = false;
    if (num_answers_ > 1) knows_content_ = false;
    const auto id = static_cast<uint16_t>(0x0100 + choices_.next() % 32);
    const uint8_t blocks = choices_.next();
    Bytes bytes = counted();
    if (bytes.empty()) {
      chip_.files.erase(id);
      return;
    }
    bytes.resize(std::max(bytes.size(), blocks == 0xFF ? kLongFile : size_t{blocks} * 16));
    chip_.files[id] = bytes;
  }

  void have_pace_alone(uint8_t which) {
    faithful_ = faithful_ && !chip_.pace_alone;  // offers something else than before
    chip_.pace_alone = true;
    const auto cipher = static_cast<uint8_t>(1 + which % 4);
    chip_.files[TQ_EF_CARD_ACCESS] = card_access(cipher, static_cast<uint8_t>(10 + which / 4 % 9));
  }

  // With a right MAC the chip can say what it likes.
  Bytes with_mac(const Bytes& objects) {
    knows_content_ = false;
    return chip_.channel().answer(objects) + kSuccess;
  }

  Bytes odd_answer(uint8_t turn) {
    switch (turn % kNumTurns) {
      case kData:
        return with_mac(chip_.channel().padded_cryptogram(counted()) + Bytes{0x99, 2, 0x90, 0});
      case kBlocks: {
        const size_t block = chip_.channel().block_len();
        Bytes blocks = counted();
        blocks.resize(blocks.size() / block * block + block);
        return with_mac(chip_.channel().cryptogram(blocks));
      }
      case kObjects:
        return with_mac(counted());
      case kBytes:
        return counted();
      case kSpoiled: {
        Bytes answer = chip_.good_answer();
        const uint8_t place = choices_.next();
        answer[place % answer.size()] ^= choices_.next();
        return answer;
      }
      case kShortened: {
        Bytes answer = chip_.good_answer();
        answer.resize(choices_.next() % answer.size());
        return answer + kSuccess;
      }
      case kOdd:
        return odd_reply();
      default:
        return {};
    }
  }

  Bytes odd_reply() {
    ChipReply reply = chip_.good_reply();
    const uint8_t how = choices_.next();
    const uint8_t count = choices_.next();
    const auto refused_with = [&](unsigned status) {
      reply.data.clear();
      reply.status = static_cast<uint16_t>(status);
      reply.in_channel = reply.in_channel && (how & 0x80) != 0;
    };
    switch ((how & 0x7F) % 9) {
      case 0:
        reply.data.resize(std::min<size_t>(reply.data.size(), count));
        break;
      case 1:
        if (reply.data.size() >= chip_.asked()) reply.data.resize(reply.data.size() + count % 20, 0xDD);
        break;
      case 2:
        reply.status = static_cast<uint16_t>(0x6200 + count);
        break;
      case 3:
        reply.status = static_cast<uint16_t>(0x6100 + count);
        break;
      case 4:
        refused_with(0x6C00U + count);
        break;
      case 5:
        refused_with(0x6700);
        break;
      case 6:
        refused_with(0x6982);
        break;
      case 7:
        refused_with(0x6D00);
        break;
      default:
        refused_with(0x6300U + count);
    }
    return chip_.sealed(reply);
  }

  // By the header of a file, or its first four bytes where that says nothing.
  static bool is_whole(View row, View file) {
    size_t size = 0;
    if (file.size() >= 2 && file[1] < 0x80) size = 2U + file[1];
    if (file.size() >= 3 && file[1] == 0x81) size = 3U + file[2];
    if (file.size() >= 4 && file[1] == 0x82) size = 4 + number(file.subspan(2, 2));
    const bool fits = size > 4 ? row.size() == size : row.size() >= size && row.size() <= 4;
    return fits && row.size() <= file.size() && std::equal(row.begin(), row.end(), file.begin());
  }

  // The requests have DG1 to DG16, EF.SOD, the answer to INTERNAL AUTHENTICATE, its challenge, EF.COM, two
  // times.
  void check_files() const {
    if (!server_.files || !knows_content_) return;
    View rest = *server_.files;
    const auto take_counted = [&rest] {
      const size_t size = number(rest.first(2));
      const View bytes = rest.subspan(2, size);
      rest = rest.subspan(2 + size);
      return bytes;
    };
    for (int i = 0; i < 19; ++i) {
      const auto id = static_cast<uint16_t>(i < 16 ? TQ_EF_DG1 + i : i == 16 ? TQ_EF_SOD : TQ_EF_COM);
      const View bytes = take_counted();
      if (i == 17) rest = rest.subspan(8);
      const auto file = chip_.files.find(id);
      if (i == 17 || bytes.empty()) continue;
      require(file != chip_.files.end() && is_whole(bytes, file->second));
    }
    require(rest.size() == 4);
  }

  void answer_with(const Bytes& answer, tq::CardAnswer& out) const {
    give(answer, step_ == 0 ? chip_.serial() : static_cast<uint8_t>(step_ - 1), out);
  }

  bool is_documented_here(int32_t code) const override {
    return code == TQ_AUTHENTICATION_REFUSED || (code == TQ_OUT_OF_RANGE && odd_step_);
  }

  PassportChip chip_;
  uint8_t step_ = 0;
  size_t good_answers_left_ = 0;
  bool odd_step_ = false;
  bool faithful_ = true;       // the chip has been itself so far
  bool knows_content_ = true;  // what it has said of its files is what they are
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  Application application(data, size);
  run_read<tq::PassportRead>(application);
  return 0;
}
