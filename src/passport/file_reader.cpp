#include "passport/file_reader.hpp"

#include <algorithm>

#include "core/session/card_relay.h"
#include "passport/file_reader.h"
#include "passport/secure_messaging.h"
#include "util/byte_cursor.hpp"
#include "util/tlv.hpp"

namespace tq {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint32_t kMostEmptyAnswers = 8;
constexpr size_t kSmallerChunks[] = {192, 160, 128};  // for chips that find a length too large
constexpr uint8_t kWarning = 0x62;                    // first byte of a status word
constexpr uint8_t kWrongLe = 0x6C;                    // the second byte tells what would do
constexpr uint16_t kWrongLength = 0x6700;
constexpr size_t kLongestFile = 0xFFFF;   // that a request can carry
constexpr size_t kLongestInClear = 2048;  // EF.CardAccess has a few hundred bytes

// READ BINARY with odd instruction (ISO/IEC 7816-4 section 11.2.3): where the even one would mean a short
// file identifier, the offset goes into DO54 and the data come in DO53.
constexpr size_t kOddFrom = 0x8000;
constexpr uint8_t kTagOffset = 0x54;
constexpr uint8_t kTagData = 0x53;
constexpr size_t kLongestHead = 3;

constexpr size_t head_len(size_t value_len) {
  return value_len < 0x80 ? 2 : kLongestHead;
}

// False for anything but DO53.
bool take_data_object(Bytes object, Bytes& value) {
  ByteReader r(object);
  uint8_t tag = 0;
  uint32_t len = 0;
  return r.u8(tag) && tag == kTagData && read_length(r, kChipLengths, len) == LengthField::kRead &&
         r.take(len, value);
}

}  // namespace

bool send_protected(SessionConfig& cfg, SecureChannel& channel, const PlainCommand& command, uint8_t step) {
  std::array<uint8_t, TQ_PROTECTED_COMMAND_MAX> sent{};
  size_t len = 0;
  if (!channel.protect(command, sent, len)) return false;
  tq_read_card_send(&cfg, sent.data(), static_cast<uint32_t>(len), step);
  return true;
}

bool send_in_clear(SessionConfig& cfg, const PlainCommand& command, uint8_t step) {
  std::array<uint8_t, TQ_PROTECTED_COMMAND_MAX> sent{};
  ByteWriter w(sent);
  w.bytes(command.header);
  if (!command.data.empty()) w.u8(static_cast<unsigned>(command.data.size()));
  w.bytes(command.data);
  if (command.le) w.u8(*command.le);
  if (!w.ok()) return false;
  tq_read_card_send(&cfg, sent.data(), static_cast<uint32_t>(w.size()), step);
  return true;
}

bool FileReader::select(uint16_t file_id, uint8_t step, Way way) {
  abandon();
  step_ = step;
  way_ = way;
  const std::array<uint8_t, 2> id = {static_cast<uint8_t>(file_id >> 8), static_cast<uint8_t>(file_id)};
  return send({{0x00, 0xA4, 0x02, 0x0C}, id});
}

bool FileReader::start(uint16_t file_id, uint8_t step, Way way) {
  abandon();
  if (PassportFileRecord* const row = files_.find(file_id); row != nullptr) drop_file(*row);
  file_id_ = file_id;
  step_ = step;
  way_ = way;
  return ask_next() == Progress::kGoesOn;
}

void FileReader::abandon() {
  PassportFileRecord* const row = file_id_ == kNoFile ? nullptr : files_.find(file_id_);
  if (row != nullptr) drop_file(*row);
  wipe(header_);
  file_id_ = kNoFile;
  header_len_ = 0;
  offset_ = 0;
  missing_ = 0;
  num_empty_ = 0;
}

FileReader::Progress FileReader::take(uint16_t file_id, Bytes answer) {
  ChipAnswer a;
  if (way_ == Way::kChannel) {
    ChipAnswer::open(cfg_, channel_, answer, a);
  } else {
    ChipAnswer::judge(cfg_, answer, a);
  }
  if (file_id != file_id_) return fail(TQ_CARD_FAILED);  // nobody has asked for it
  PassportFileRecord* row = files_.find(file_id);
  if (row == nullptr) row = files_.append(file_id, 0);
  if (row == nullptr) return fail(TQ_CARD_FAILED);
  row->status = cfg_.lastStatusWord;

  const bool only_warns = a.status_is(kWarning) && !a.data().empty();
  if (!a.good() && !only_warns) {
    const size_t fewer = count_that_would_do(a);
    return fewer == 0 ? fail(a.code()) : ask_for(fewer);
  }
  Bytes data = a.data();
  if (odd_ && !data.empty() && !take_data_object(data, data)) return fail(TQ_CARD_FAILED);
  const Bytes chunk = data.first(std::min(data.size(), asked_));
  if (!chunk.empty()) {
    num_empty_ = 0;
    return keep(*row, chunk);
  }
  return ++num_empty_ == kMostEmptyAnswers ? fail(TQ_NO_CARD_ANSWER) : ask_next();
}

FileReader::Progress FileReader::keep(PassportFileRecord& row, Bytes chunk) {
  offset_ += chunk.size();
  if (missing_ > 0) {
    append_chunk(row, chunk);
  } else {
    std::copy(chunk.begin(), chunk.end(), header_.begin() + static_cast<ptrdiff_t>(header_len_));
    header_len_ += chunk.size();
    const Bytes header = std::span(header_).first(header_len_);
    const size_t size = size_in_header(header);
    if (size == 0 && header_len_ < header_.size()) return ask_next();
    if (size > (way_ == Way::kChannel ? kLongestFile : kLongestInClear)) return fail(TQ_REQUEST_NOT_BUILT);
    if (!begin_file(row, header)) return fail(TQ_CARD_FAILED);
  }
  missing_ = num_missing(row);
  if (missing_ > 0) return ask_next();
  file_id_ = kNoFile;
  abandon();
  return Progress::kComplete;
}

FileReader::Progress FileReader::fail(int32_t code) {
  abandon();
  code_ = code;
  return Progress::kFailed;
}

// Bytes to ask for instead of those that have been refused; 0 when the refusal does not mean their number, or
// when there is no smaller one.
size_t FileReader::count_that_would_do(const ChipAnswer& answer) {
  const bool tells = answer.status_is(kWrongLe);
  if (!tells && answer.status() != kWrongLength) return 0;
  const auto head = [this](size_t count) { return odd_ ? head_len(count) : 0; };
  const size_t le = answer.sw2();
  if (tells && !told_ && le > head(le) && le < asked_ + head(asked_)) {
    const size_t count = le - head(le);
    if (missing_ > 0 && asked_ == most_at_once()) chunk_ = count;
    told_ = true;
    return count;
  }
  for (const size_t count : kSmallerChunks) {
    if (count >= asked_) continue;
    chunk_ = count;
    return count;
  }
  return 0;
}

size_t FileReader::most_at_once() const {
  const size_t room = channel_.most_data() - (offset_ < kOddFrom ? 0 : kLongestHead);
  return std::min(chunk_, room);
}

FileReader::Progress FileReader::ask_next() {
  told_ = false;
  return ask_for(missing_ > 0 ? std::min(missing_, most_at_once()) : header_.size() - header_len_);
}

FileReader::Progress FileReader::ask_for(size_t count) {
  asked_ = count;
  odd_ = offset_ >= kOddFrom;
  PlainCommand command = {
      .header = {0x00, 0xB0, static_cast<uint8_t>(offset_ >> 8), static_cast<uint8_t>(offset_)},
      .le = static_cast<uint8_t>(count)};
  std::array<uint8_t, 5> object{};
  ByteWriter w(object);
  if (odd_) {
    const size_t width = offset_ > 0xFFFF ? 3 : 2;
    w.u8(kTagOffset);
    w.u8(static_cast<unsigned>(width));
    w.number(static_cast<uint32_t>(offset_), width);
    command = {.header = {0x00, 0xB1, 0x00, 0x00},
               .data = w.written(),
               .le = static_cast<uint8_t>(count + head_len(count)),
               .data_is_tlv = true};
  }
  return send(command) ? Progress::kGoesOn : Progress::kNotSent;
}

bool FileReader::send(const PlainCommand& command) {
  return way_ == Way::kChannel ? send_protected(cfg_, channel_, command, step_)
                               : send_in_clear(cfg_, command, step_);
}

}  // namespace tq

// --- for callers outside; nothing here uses them ---

namespace tq {
namespace {

constexpr size_t kFirstChunk = 4;

// What FileReader does without patience for odd chips: a table and a counter are all that it remembers.
int32_t read_next(SessionConfig& cfg, PassportSession& session, FileTable& files, uint32_t answer_len,
                  uint16_t file_id, uint8_t step) {
  Secret<TQ_CARD_ANSWER_MAX> plain;
  const int32_t plain_len =
      passport_file_data_anlysis(&cfg, session.answer, answer_len, session.ksenc, session.ksmac, session.ssc,
                                 plain.data(), static_cast<uint32_t>(plain.size()));
  PassportFileRecord* row = files.find(file_id);
  const size_t asked = row == nullptr ? kFirstChunk : std::min<size_t>(num_missing(*row), cfg.readChunkSize);
  if (row != nullptr) row->status = cfg.lastStatusWord;
  const bool is_new = row == nullptr;
  if (is_new) row = files.append(file_id, cfg.lastStatusWord);
  if (plain_len < 0) return plain_len;
  const Bytes chunk = plain.bytes().first(std::min(static_cast<size_t>(plain_len), asked));
  if (is_new) {
    if (row == nullptr || !begin_file(*row, chunk)) return TQ_CARD_FAILED;
  } else {
    append_chunk(*row, chunk);
  }
  if (chunk.empty() || num_missing(*row) == 0) return 0;
  const size_t count = std::min<size_t>(num_missing(*row), cfg.readChunkSize);
  const std::array<uint8_t, 5> command = {0x00, 0xB0, static_cast<uint8_t>(row->received >> 8),
                                          static_cast<uint8_t>(row->received), static_cast<uint8_t>(count)};
  const int32_t rc = passport_read_file(&cfg, command.data(), static_cast<uint32_t>(command.size()), step,
                                        session.ksenc, session.ksmac, session.ssc, 1);
  return rc < 0 ? int32_t{TQ_CARD_FAILED} : 1;
}

}  // namespace
}  // namespace tq

extern "C" {

int32_t passport_select_file(SessionConfig* ctx, uint16_t fileId, uint8_t next_step, const uint8_t* ksenc,
                             const uint8_t* ksmac, uint8_t* ssc, int32_t with_le) {
  const std::array<uint8_t, 7> command = {
      0x00, 0xA4, 0x02, 0x0C, 0x02, static_cast<uint8_t>(fileId >> 8), static_cast<uint8_t>(fileId)};
  return passport_read_file(ctx, command.data(), static_cast<uint32_t>(command.size()), next_step, ksenc,
                            ksmac, ssc, with_le);
}

int32_t passport_read_file(SessionConfig* ctx, const uint8_t* command, uint32_t command_len,
                           uint8_t next_step, const uint8_t* ksenc, const uint8_t* ksmac, uint8_t* ssc,
                           int32_t with_le) {
  uint8_t sent[TQ_PROTECTED_COMMAND_MAX];
  const int32_t len =
      RP_protect_apdu(command, command_len, ksenc, ksmac, ssc, with_le, sent, TQ_PROTECTED_COMMAND_MAX);
  if (len < 0) return TQ_FAILED;
  return tq_read_card_send(ctx, sent, static_cast<uint32_t>(len), next_step);
}

int32_t passport_file_data_anlysis(SessionConfig* ctx, const uint8_t* answer, uint32_t answer_len,
                                   const uint8_t* ksenc, const uint8_t* ksmac, uint8_t* ssc, uint8_t* out,
                                   uint32_t out_cap) {
  uint8_t objects[TQ_CARD_ANSWER_MAX];
  const int32_t len = tq_read_card_anlysis(ctx, answer, answer_len, objects, TQ_CARD_ANSWER_MAX);
  if (len < 0) return len;
  const int32_t plain_len =
      RP_unprotect_apdu(objects, static_cast<uint32_t>(len), ksenc, ksmac, ssc, out, out_cap);
  return plain_len < 0 ? static_cast<int32_t>(TQ_CARD_FAILED) : plain_len;
}

int32_t passport_file_read_next(SessionConfig* ctx, uint32_t answer_len, uint16_t fileId, uint8_t step,
                                PassportSession* session, PassportFileRecord* table, uint32_t* count) {
  if (ctx == nullptr || session == nullptr || table == nullptr || count == nullptr) return TQ_CARD_FAILED;
  if (answer_len > TQ_CARD_ANSWER_MAX) return TQ_CARD_FAILED;
  tq::FileTable files(table, *count);
  return tq::read_next(*ctx, *session, files, answer_len, fileId, step);
}

}  // extern "C"
