#include "passport/passport_commands.h"

#include <algorithm>

#include "core/result_code.hpp"
#include "passport/passport_exchange.hpp"
#include "protocol/frames.hpp"
#include "protocol/result_report.hpp"
#include "protocol/session_values.hpp"
#include "protocol/tcp_transport.h"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint32_t kLeastStartFrame = 14;  // shortest answers
constexpr uint32_t kLeastFilesFrame = 13;
constexpr size_t kFrameHead = 12;  // of a long request frame
constexpr size_t kStartRequestBuffer = 512;
constexpr size_t kEmptyRequestBuffer = 1024;
constexpr size_t kFilesFraming = 260;  // lengths, times and what is to spare, beside the files
constexpr size_t kAnswerBufferSmall = 10240;
constexpr size_t kAnswerBuffer = 65535;

FileRows rows_of(const PassportFileRecord* table, uint32_t count) {
  return table == nullptr ? FileRows{} : FileRows(table, count);
}

size_t bytes_in(FileRows files) {
  size_t sum = 0;
  for (const PassportFileRecord& file : files) sum += file.received;
  return sum;
}

// Bytes behind their 2-byte length. False when the length does not fit.
bool write_counted(ByteWriter& w, Bytes bytes) {
  if (bytes.size() > UINT16_MAX) return false;
  w.number(static_cast<uint32_t>(bytes.size()), 2);
  w.bytes(bytes);
  return w.ok();
}

bool write_file(ByteWriter& w, FileRows files, uint16_t file_id) {
  const PassportFileRecord* const row = find_file(files, file_id);
  return write_counted(w, row == nullptr ? Bytes{} : bytes_of(*row));
}

bool write_content(ByteWriter& w, const PassportContent& content) {
  for (uint16_t id = TQ_EF_DG1; id <= TQ_EF_DG16; ++id) {
    if (!write_file(w, content.files, id)) return false;
  }
  if (!write_file(w, content.files, TQ_EF_SOD) || !write_counted(w, content.aa_answer)) return false;
  w.bytes(content.challenge);
  w.fill(0x00, TQ_AA_CHALLENGE_LENGTH - content.challenge.size());
  if (!write_file(w, content.files, TQ_EF_COM)) return false;
  w.number(content.bac_time & 0xFFFF, 2);
  w.number(content.read_time & 0xFFFF, 2);
  return w.ok();
}

constexpr FrameHead kStartHead = {kHeaderPassport, kPassportStart};
constexpr FrameHead kFilesHead = {kHeaderPassport, kPassportFiles};
constexpr FrameHead kDecodedHead = {kHeaderPassport, kPassportFiles, kTypeFlagged};

// The requests. Return their length, or TQ_FAILED.

int32_t build_start(SessionConfig& cfg, WorkKey key, std::span<uint8_t> out) {
  Secret<kRequestStartMax> data;
  ByteWriter w(data.bytes());
  if (!write_request_start(w, cfg)) return TQ_FAILED;
  return build_secret_request(kStartHead, w.written(), key, out);
}

int32_t build_files(WorkKey key, PassportToken token, const PassportContent& content,
                    std::span<uint8_t> out) {
  if (content.challenge.size() > TQ_AA_CHALLENGE_LENGTH || out.size() < kFrameHead + token.size())
    return TQ_FAILED;
  ScratchBuffer data(bytes_in(content.files) + content.aa_answer.size() + content.challenge.size() +
                     kFilesFraming);
  if (!data) return TQ_FAILED;
  ByteWriter w(data.bytes());
  if (!write_content(w, content)) return TQ_FAILED;

  // Token and encrypted files go to where they stay, so that the files are not copied once more.
  const std::span<uint8_t> payload = out.subspan(kFrameHead);
  std::copy(token.begin(), token.end(), payload.begin());
  const int32_t len = seal_secret_frame(w.written(), kPassportFiles, key, payload.subspan(token.size()));
  if (len < 0) return TQ_FAILED;
  return build_frame(kFilesHead, payload.first(token.size() + static_cast<size_t>(len)), out);
}

// The answers. Return the length of what they bring, TQ_FAILED, or the server's status.

int32_t parse_start(Bytes frame, WorkKey key, std::span<uint8_t> token) {
  if (frame.size() < kLeastStartFrame) return TQ_FAILED;
  ScratchBuffer payload(frame.size());
  if (!payload) return TQ_FAILED;
  const int32_t len = open_frame(frame, kStartHead, key, payload.bytes());
  if (len < 0) return len;
  if (static_cast<size_t>(len) > token.size()) return TQ_FAILED;
  std::fill(token.begin(), token.end(), uint8_t{0});
  static_cast<void>(copy_bytes(payload.bytes().first(static_cast<size_t>(len)), token));
  return len;
}

int32_t parse_decoded(Bytes frame, WorkKey key, std::span<uint8_t> out) {
  return frame.size() < kLeastFilesFrame ? int32_t{TQ_FAILED} : open_frame(frame, kDecodedHead, key, out);
}

// One exchange: the answer's buffer as `readMode` wants it. `received` is the frame in it.
class Exchange {
 public:
  explicit Exchange(const SessionConfig& cfg)
      : cfg_(cfg), answer_(cfg.readMode != 0 ? kAnswerBufferSmall : kAnswerBuffer) {}

  // Returns TQ_OK, or the read's result code.
  int32_t run(Bytes request) {
    if (!answer_) return TQ_REQUEST_NOT_BUILT;
    const int32_t len =
        tcp_send_and_recv(&cfg_, request.data(), static_cast<uint32_t>(request.size()), answer_.data(),
                          static_cast<uint32_t>(answer_.size()), TQ_LONG_FRAME);
    if (len < 0) return TQ_EXCHANGE_FAILED;
    received_ = static_cast<size_t>(len);
    return TQ_OK;
  }
  Bytes received() const { return answer_.bytes().first(received_); }
  std::span<uint8_t> room() { return answer_.bytes(); }

 private:
  const SessionConfig& cfg_;
  ScratchBuffer answer_;
  size_t received_ = 0;
};

}  // namespace

int32_t start_on_server(SessionConfig& cfg, WorkKey work_key,
                        std::span<uint8_t, TQ_PASSPORT_TOKEN_LENGTH> token) {
  ScratchBuffer request(kStartRequestBuffer);
  if (!request) return TQ_REQUEST_NOT_BUILT;
  const int32_t len = build_start(cfg, work_key, request.bytes());
  if (len < 0) return failed_as(TQ_REQUEST_NOT_BUILT, len);
  Exchange exchange(cfg);
  if (int32_t rc = exchange.run(request.bytes().first(static_cast<size_t>(len))); rc < 0) return rc;
  const int32_t rc = parse_start(exchange.received(), work_key, token);
  return rc < 0 ? failed_as(TQ_RESPONSE_MALFORMED, rc) : int32_t{TQ_OK};
}

int32_t decode_on_server(SessionConfig& cfg, WorkKey work_key, PassportToken token,
                         const PassportContent& content, info_data& result) {
  ScratchBuffer request(content.files.empty() ? kEmptyRequestBuffer
                                              : 2 * (kStartRequestBuffer + bytes_in(content.files)));
  if (!request) return TQ_REQUEST_NOT_BUILT;
  const int32_t len = build_files(work_key, token, content, request.bytes());
  if (len < 0) return failed_as(TQ_REQUEST_NOT_BUILT, len);
  Exchange exchange(cfg);
  if (int32_t rc = exchange.run(request.bytes().first(static_cast<size_t>(len))); rc < 0) return rc;
  const int32_t decoded_len = parse_decoded(exchange.received(), work_key, exchange.room());
  if (decoded_len < 0) return failed_as(TQ_RESPONSE_MALFORMED, decoded_len);
  return make_result(cfg, exchange.room().first(static_cast<size_t>(decoded_len)), result);
}

}  // namespace tq

// --- for callers outside; nothing here uses them ---

extern "C" {

int32_t passport_server_exchange(SessionConfig* ctx, const uint8_t* workKeys, info_data* result, int32_t kind,
                                 uint8_t* token, const PassportFileRecord* fileTable, uint32_t fileCount,
                                 const uint8_t* aaAnswer, uint32_t aaLength, const uint8_t* challenge,
                                 uint32_t challengeLength, const PassportTiming* timingPair) {
  using namespace tq;
  if (ctx == nullptr || workKeys == nullptr || token == nullptr) return TQ_REQUEST_NOT_BUILT;
  const WorkKey work_key = work_key_at(workKeys);
  const std::span<uint8_t, TQ_PASSPORT_TOKEN_LENGTH> the_token(token, TQ_PASSPORT_TOKEN_LENGTH);
  if (kind == TQ_EXCHANGE_7201) return start_on_server(*ctx, work_key, the_token);
  if (result == nullptr || timingPair == nullptr) return TQ_REQUEST_NOT_BUILT;
  const PassportContent content = {rows_of(fileTable, fileCount),
                                   {aaAnswer, aaAnswer == nullptr ? 0 : aaLength},
                                   {challenge, challenge == nullptr ? 0 : challengeLength},
                                   timingPair->bacTime,
                                   timingPair->readTime};
  return decode_on_server(*ctx, work_key, the_token, content, *result);
}

int32_t input_7201_cmd_group(SessionConfig* ctx, const uint8_t* workKeys, uint8_t* out, uint32_t capacity) {
  using namespace tq;
  if (ctx == nullptr || workKeys == nullptr || out == nullptr) return TQ_FAILED;
  return build_start(*ctx, work_key_at(workKeys), {out, capacity});
}

int32_t output_7201_cmd_analysis(const uint8_t* frame, uint32_t length, const uint8_t* workKeys,
                                 uint8_t* token_out, uint32_t capacity) {
  using namespace tq;
  if (frame == nullptr || workKeys == nullptr || token_out == nullptr) return TQ_FAILED;
  return parse_start({frame, length}, work_key_at(workKeys), {token_out, capacity});
}

int32_t input_7202_cmd_group(const PassportFileRecord* table, uint32_t count, const uint8_t* workKeys,
                             const uint8_t* aaAnswer, uint32_t aaLength, const uint8_t* challenge,
                             uint32_t challengeLength, uint8_t* out, uint32_t capacity, const uint8_t* token,
                             const PassportTiming* timingPair) {
  using namespace tq;
  if (workKeys == nullptr || out == nullptr || token == nullptr || timingPair == nullptr) return TQ_FAILED;
  const PassportContent content = {rows_of(table, count),
                                   {aaAnswer, aaAnswer == nullptr ? 0 : aaLength},
                                   {challenge, challenge == nullptr ? 0 : challengeLength},
                                   timingPair->bacTime,
                                   timingPair->readTime};
  return build_files(work_key_at(workKeys), PassportToken(token, TQ_PASSPORT_TOKEN_LENGTH), content,
                     {out, capacity});
}

int32_t output_7202_cmd_analysis(const uint8_t* frame, uint32_t length, const uint8_t* workKeys, uint8_t* out,
                                 uint32_t capacity) {
  using namespace tq;
  if (frame == nullptr || workKeys == nullptr || out == nullptr) return TQ_FAILED;
  return parse_decoded({frame, length}, work_key_at(workKeys), {out, capacity});
}

int32_t get_dg_data_sub(const PassportFileRecord* table, uint32_t count, uint16_t fileId) {
  const tq::FileRows files = tq::rows_of(table, count);
  const PassportFileRecord* const row = tq::find_file(files, fileId);
  return row == nullptr ? -1 : static_cast<int32_t>(row - files.data());
}

int32_t passport_file_status_text(const PassportFileRecord* table, uint32_t count, char* out) {
  if (out == nullptr) return TQ_FAILED;
  return static_cast<int32_t>(tq::write_status_text(tq::rows_of(table, count), {out, TQ_STATUS_TEXT_SIZE}));
}

}  // extern "C"
