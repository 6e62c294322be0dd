#include "passport/file_reader.h"

#include <algorithm>
#include <array>
#include <span>

#include "core/session/card_relay.h"
#include "passport/secure_messaging.h"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint32_t kFirstChunk = 4;  // asked for at first: tag, length field, and what fits of the value

// The size of a file by the length field behind its tag of one byte; 0 when `start` does not tell it.
size_t size_in_header(Bytes start) {
  tq::ByteReader r(start);
  uint8_t first = 0;
  if (!r.skip(1) || !r.u8(first)) return 0;
  uint32_t value_len = first;
  if (first >= 0x80) {
    const bool has_length = first == 0x81 || first == 0x82;
    if (!has_length || !r.number(first & 0x7FU, value_len)) return 0;
  }
  return start.size() - r.size() + value_len;
}

// Bytes of the file that have not come yet.
uint32_t num_missing(const PassportFileRecord& row) {
  const uint32_t behind_first = row.received - row.firstChunk;
  return row.remaining > behind_first ? row.remaining - behind_first : 0;
}

class FileTable {
 public:
  FileTable(PassportFileRecord* rows, uint32_t& count) : rows_(rows), count_(count) {}

  PassportFileRecord* find(uint16_t file_id) {
    const auto has_id = [file_id](const PassportFileRecord& row) { return row.fileId == file_id; };
    PassportFileRecord* const end = rows_ + std::min<uint32_t>(count_, TQ_PASSPORT_FILES_MAX);
    PassportFileRecord* const found = std::find_if(rows_, end, has_id);
    return found == end ? nullptr : found;
  }

  // A row without data, or null when the table is full.
  PassportFileRecord* append(uint16_t file_id, uint32_t status) {
    if (count_ >= TQ_PASSPORT_FILES_MAX) return nullptr;
    PassportFileRecord& row = rows_[count_++];
    row = {};
    row.fileId = file_id;
    row.status = status;
    return &row;
  }

 private:
  PassportFileRecord* rows_;
  uint32_t& count_;
};

// Keeps the first chunk in a block that has room for the whole file. The header claims a value of at most
// 65535 bytes.
bool begin_file(PassportFileRecord& row, Bytes chunk) {
  if (chunk.empty()) return true;
  const size_t file_size = std::max(size_in_header(chunk), chunk.size());
  tq::ScratchBuffer block(file_size);
  if (!block || !tq::copy_bytes(chunk, block.bytes())) return false;
  row.data = block.release();
  row.received = static_cast<uint32_t>(chunk.size());
  row.firstChunk = static_cast<uint8_t>(chunk.size());
  row.remaining = static_cast<uint32_t>(file_size - chunk.size());
  return true;
}

// `chunk` is at most what is missing.
void append_chunk(PassportFileRecord& row, Bytes chunk) {
  std::copy(chunk.begin(), chunk.end(), row.data + row.received);
  row.received += static_cast<uint32_t>(chunk.size());
}

int32_t ask_for_next(SessionConfig& ctx, const PassportFileRecord& row, uint8_t step,
                     PassportSession& session) {
  const uint32_t count = std::min<uint32_t>(num_missing(row), ctx.readChunkSize);
  const std::array<uint8_t, 5> command = {0x00, 0xB0, static_cast<uint8_t>(row.received >> 8),
                                          static_cast<uint8_t>(row.received), static_cast<uint8_t>(count)};
  const int32_t rc = passport_read_file(&ctx, command.data(), static_cast<uint32_t>(command.size()), step,
                                        session.ksenc, session.ksmac, session.ssc, 1);
  return rc < 0 ? static_cast<int32_t>(TQ_CARD_FAILED) : 1;
}

int32_t read_next(SessionConfig& ctx, uint32_t answer_len, uint16_t file_id, uint8_t step,
                  PassportSession& session, FileTable table) {
  PassportFileRecord* row = table.find(file_id);
  tq::Secret<TQ_CARD_ANSWER_MAX> plain;
  const int32_t plain_len =
      passport_file_data_anlysis(&ctx, session.answer, answer_len, session.ksenc, session.ksmac, session.ssc,
                                 plain.data(), static_cast<uint32_t>(plain.size()));
  if (row != nullptr) row->status = ctx.lastStatusWord;
  if (plain_len < 0) {
    if (row == nullptr) table.append(file_id, ctx.lastStatusWord);
    return plain_len;
  }
  const uint32_t asked =
      row == nullptr ? kFirstChunk : std::min<uint32_t>(num_missing(*row), ctx.readChunkSize);
  const Bytes chunk = plain.bytes().first(std::min(static_cast<uint32_t>(plain_len), asked));
  if (row == nullptr) {
    row = table.append(file_id, ctx.lastStatusWord);
    if (row == nullptr || !begin_file(*row, chunk)) return TQ_CARD_FAILED;
  } else if (!chunk.empty()) {
    append_chunk(*row, chunk);
  }
  if (chunk.empty() || num_missing(*row) == 0) return 0;
  return ask_for_next(ctx, *row, step, session);
}

}  // namespace

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
  return read_next(*ctx, answer_len, fileId, step, *session, {table, *count});
}

}  // extern "C"
