#include "passport/file_reader.h"

#include <algorithm>
#include <array>

#include "core/session/card_relay.h"
#include "passport/callers_channel.hpp"
#include "passport/file_reader.hpp"
#include "passport/secure_messaging.h"
#include "util/byte_cursor.hpp"

namespace tq {

using Bytes = std::span<const uint8_t>;

int32_t send_protected(SessionConfig& cfg, SecureChannel& channel, const PlainCommand& command,
                       uint8_t step) {
  std::array<uint8_t, TQ_PROTECTED_COMMAND_MAX> sent{};
  size_t len = 0;
  if (!channel.protect(command, sent, len)) return TQ_FAILED;
  return tq_read_card_send(&cfg, sent.data(), static_cast<uint32_t>(len), step);
}

int32_t send_select(SessionConfig& cfg, SecureChannel& channel, uint16_t file_id, uint8_t step,
                    bool with_le) {
  const std::array<uint8_t, 2> id = {static_cast<uint8_t>(file_id >> 8), static_cast<uint8_t>(file_id)};
  PlainCommand command = {{0x00, 0xA4, 0x02, 0x0C}, id};
  if (with_le) command.le = id[1];
  return send_protected(cfg, channel, command, step);
}

int32_t send_read(SessionConfig& cfg, SecureChannel& channel, size_t offset, size_t count, uint8_t step) {
  const PlainCommand command = {
      .header = {0x00, 0xB0, static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset)},
      .le = static_cast<uint8_t>(count)};
  return send_protected(cfg, channel, command, step);
}

int32_t open_answer(SessionConfig& cfg, SecureChannel& channel, Bytes answer, std::span<uint8_t> out) {
  std::array<uint8_t, TQ_CARD_ANSWER_MAX> objects{};
  const int32_t objects_len = tq_read_card_anlysis(&cfg, answer.data(), static_cast<uint32_t>(answer.size()),
                                                   objects.data(), static_cast<uint32_t>(objects.size()));
  if (objects_len < 0) return objects_len;
  size_t len = 0;
  const Opened opened = channel.open(std::span(objects).first(static_cast<size_t>(objects_len)), out, len);
  if (opened == Opened::kNotAuthentic) channel.count_lost_answer();
  return opened == Opened::kYes ? static_cast<int32_t>(len) : int32_t{TQ_CARD_FAILED};
}

int32_t read_next(SessionConfig& cfg, SecureChannel& channel, FileTable& files, Bytes answer,
                  uint16_t file_id, uint8_t step) {
  PassportFileRecord* row = files.find(file_id);
  Secret<TQ_CARD_ANSWER_MAX> plain;
  const int32_t plain_len = open_answer(cfg, channel, answer, plain.bytes());
  if (row != nullptr) row->status = cfg.lastStatusWord;
  if (plain_len < 0) {
    if (row == nullptr) files.append(file_id, cfg.lastStatusWord);
    return plain_len;
  }
  const size_t asked = row == nullptr ? kFirstChunk : std::min<size_t>(num_missing(*row), cfg.readChunkSize);
  const Bytes chunk = plain.bytes().first(std::min(static_cast<size_t>(plain_len), asked));
  if (row == nullptr) {
    row = files.append(file_id, cfg.lastStatusWord);
    if (row == nullptr || !begin_file(*row, chunk)) return TQ_CARD_FAILED;
  } else {
    append_chunk(*row, chunk);
  }
  if (chunk.empty() || num_missing(*row) == 0) return 0;
  const size_t count = std::min<size_t>(num_missing(*row), cfg.readChunkSize);
  return send_read(cfg, channel, row->received, count, step) < 0 ? int32_t{TQ_CARD_FAILED} : 1;
}

}  // namespace tq

// --- for callers outside; nothing here uses them ---

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
  tq::CallersChannel callers(session->ksenc, session->ksmac, session->ssc);
  tq::FileTable files(table, *count);
  return tq::read_next(*ctx, callers.channel, files, {session->answer, answer_len}, fileId, step);
}

}  // extern "C"
