// Reading files from a chip that answers as it likes. Choices: chunk size. The content is a series of
// answers: file and kind, length, bytes. The bytes are the data of a good answer, deciphered blocks with
// whatever padding, data objects with a right MAC, or the answer itself.
#include "chip.hpp"
#include "passport/file_reader.h"
#include "util/memory.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using fuzz::View;

constexpr uint8_t kStep = 4;
constexpr uint8_t kKey[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

// Every command of a read is a protected READ BINARY.
int32_t count_command(const uint8_t* apdu, uint32_t length, uint8_t serial, void* user_data) {
  require(serial == kStep && length == 19 && apdu[0] == 0x0C && apdu[1] == 0xB0);
  ++*static_cast<int*>(user_data);
  return 0;
}

Bytes make_answer(const fuzz::Chip& chip, uint8_t kind, View bytes) {
  if (kind == 0) return chip.good_answer(bytes);
  if (kind == 1) return chip.answer(chip.cryptogram(bytes.first(bytes.size() / fuzz::kBlock * fuzz::kBlock)));
  if (kind == 2) return chip.answer(bytes);
  return {bytes.begin(), bytes.end()};
}

class Read {
 public:
  explicit Read(uint8_t chunk_size) {
    cfg_.readChunkSize = chunk_size;
    cfg_.cardCallback = count_command;
    cfg_.cardCallbackData = &num_sent_;
    std::copy_n(kKey, sizeof kKey, session_->ksenc);
    std::copy_n(kKey, sizeof kKey, session_->ksmac);
  }
  ~Read() {
    for (uint32_t i = 0; i < count_; ++i) tq_mem_free(table_[i].data);
  }
  Read(const Read&) = delete;
  Read& operator=(const Read&) = delete;

  void give(uint16_t file_id, uint8_t kind, View bytes) {
    const Bytes answer = make_answer(fuzz::Chip(kKey, kKey, session_->ssc), kind, bytes);
    if (answer.size() > TQ_CARD_ANSWER_MAX) return;
    std::copy(answer.begin(), answer.end(), session_->answer);
    const PassportFileRecord* row = find(file_id);
    const PassportFileRecord before = row == nullptr ? PassportFileRecord{} : *row;
    const size_t asked = row == nullptr ? 4 : std::min<size_t>(missing(before), cfg_.readChunkSize);
    const bool refused = row == nullptr && count_ == TQ_PASSPORT_FILES_MAX;
    num_sent_ = 0;
    const int32_t rc = passport_file_read_next(&cfg_, static_cast<uint32_t>(answer.size()), file_id, kStep,
                                               session_.get(), table_.get(), &count_);
    require(num_sent_ == (rc == 1 ? 1 : 0));
    row = find(file_id);
    require((row == nullptr) == refused);
    if (refused) {
      require(rc < 0);
      return;
    }
    check_row(*row, before, rc);
    if (kind != 0) return;
    const View kept = bytes.first(std::min(asked, bytes.size()));
    require(rc >= 0 && row->status == 0x9000 && row->received - before.received == kept.size());
    require(std::equal(kept.begin(), kept.end(), row->data + before.received));
  }

 private:
  static uint32_t missing(const PassportFileRecord& row) {
    return row.remaining - (row.received - row.firstChunk);
  }
  const PassportFileRecord* find(uint16_t file_id) const {
    require(count_ <= TQ_PASSPORT_FILES_MAX);
    for (uint32_t i = 0; i < count_; ++i) {
      if (table_[i].fileId == file_id) return &table_[i];
    }
    return nullptr;
  }
  static void check_row(const PassportFileRecord& row, const PassportFileRecord& before, int32_t rc) {
    require(row.firstChunk <= 4 && row.remaining <= 65535 + 2);
    require(row.received >= before.received && row.received >= row.firstChunk);
    require(row.received - row.firstChunk <= row.remaining);
    require((row.data == nullptr) == (row.received == 0));
    require(before.data == nullptr || (row.data == before.data && row.remaining == before.remaining));
    if (rc < 0) {
      require(rc == TQ_NO_CARD_ANSWER || rc == TQ_CARD_REFUSED || rc == TQ_CARD_FAILED || rc == TQ_FAILED);
      require(row.received == before.received);
    } else {
      require(rc == (row.received > before.received && missing(row) > 0 ? 1 : 0));
    }
  }

  SessionConfig cfg_{};
  int num_sent_ = 0;
  std::unique_ptr<PassportSession> session_ = std::make_unique<PassportSession>();
  std::unique_ptr<PassportFileRecord[]> table_ =
      std::make_unique<PassportFileRecord[]>(TQ_PASSPORT_FILES_MAX);
  uint32_t count_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Choices choices(data, size);
  Read read(choices.next());
  while (!choices.content().empty()) {
    const uint8_t which = choices.next();
    const View bytes = choices.take(choices.next());
    read.give(static_cast<uint16_t>(0x0100 + (which >> 2)), which & 3, bytes);
  }
  return 0;
}
