#include "passport/passport_commands.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "protocol/command_frame.h"
#include "protocol/result_report.h"
#include "protocol/secret_frame.h"
#include "protocol/session_values.hpp"
#include "protocol/tcp_transport.h"
#include "util/byte_cursor.hpp"
#include "util/byte_text.h"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kSecretRoom = 40;         // what encryption and framing may add to the first request
constexpr uint32_t kLeastStartFrame = 14;  // shortest answers
constexpr uint32_t kLeastFilesFrame = 13;
constexpr size_t kFrameHead = 12;  // of a long request frame
constexpr size_t kStartRequestBuffer = 512;
constexpr size_t kEmptyRequestBuffer = 1024;
constexpr size_t kFilesFraming = 260;  // lengths, times and what is to spare, beside the files
constexpr size_t kAnswerBufferSmall = 10240;
constexpr size_t kAnswerBuffer = 65535;

using FileTable = std::span<const PassportFileRecord>;

FileTable table_of(const PassportFileRecord* table, uint32_t count) {
  return table == nullptr ? FileTable{} : FileTable(table, count);
}

size_t bytes_in(FileTable table) {
  size_t sum = 0;
  for (const PassportFileRecord& file : table) sum += file.received;
  return sum;
}

// Bytes behind their 2-byte length. False when the length does not fit.
bool write_counted(ByteWriter& w, std::span<const uint8_t> bytes) {
  if (bytes.size() > UINT16_MAX) return false;
  w.number(static_cast<uint32_t>(bytes.size()), 2);
  w.bytes(bytes);
  return w.ok();
}

bool write_file(ByteWriter& w, FileTable table, uint16_t file_id) {
  const int32_t row = get_dg_data_sub(table.data(), static_cast<uint32_t>(table.size()), file_id);
  std::span<const uint8_t> bytes;
  if (row >= 0) {
    const PassportFileRecord& file = table[static_cast<size_t>(row)];
    if (file.data != nullptr) bytes = {file.data, file.received};
  }
  return write_counted(w, bytes);
}

bool write_all_files(ByteWriter& w, FileTable table, std::span<const uint8_t> aa_answer,
                     std::span<const uint8_t> challenge, const PassportTiming& timing) {
  for (uint16_t id = TQ_EF_DG1; id <= TQ_EF_DG16; ++id) {
    if (!write_file(w, table, id)) return false;
  }
  if (!write_file(w, table, TQ_EF_SOD) || !write_counted(w, aa_answer)) return false;
  w.bytes(challenge);
  w.fill(0x00, TQ_AA_CHALLENGE_LENGTH - challenge.size());
  if (!write_file(w, table, TQ_EF_COM)) return false;
  w.number(timing.bacTime & 0xFFFF, 2);
  w.number(timing.readTime & 0xFFFF, 2);
  return w.ok();
}

// The key under which a file's status stands in the monitor record; empty for other identifiers.
std::string_view status_name(uint16_t file_id, std::span<char> room) {
  if (file_id == TQ_EF_SOD) return "sod_str";
  if (file_id == TQ_EF_COM) return "com_str";
  if (file_id < TQ_EF_DG1 || file_id > TQ_EF_DG16) return {};
  constexpr std::string_view kStart = "dg";
  constexpr std::string_view kEnd = "_str";
  auto at = std::copy(kStart.begin(), kStart.end(), room.begin());
  const int number = file_id & 0xFF;
  if (number >= 10) *at++ = static_cast<char>('0' + number / 10);
  *at++ = static_cast<char>('0' + number % 10);
  at = std::copy(kEnd.begin(), kEnd.end(), at);
  return {room.data(), static_cast<size_t>(at - room.begin())};
}

// Text in a zeroed buffer that always keeps a NUL at its end.
class StatusText {
 public:
  explicit StatusText(std::span<char> out) : out_(out) { std::fill(out_.begin(), out_.end(), '\0'); }

  size_t size() const { return len_; }

  // Adds a row; false, and nothing added, when it does not fit.
  bool add(std::string_view name, std::string_view status) {
    const size_t needed = (len_ > 0 ? 1 : 0) + name.size() + 1 + status.size();
    if (needed >= out_.size() - len_) return false;
    if (len_ > 0) put(";");
    put(name);
    put(":");
    put(status);
    return true;
  }

 private:
  void put(std::string_view text) {
    std::copy(text.begin(), text.end(), out_.begin() + static_cast<ptrdiff_t>(len_));
    len_ += text.size();
  }

  std::span<char> out_;
  size_t len_ = 0;
};

int32_t malformed_unless_status(int32_t code) {
  return code == TQ_FAILED ? static_cast<int32_t>(TQ_RESPONSE_MALFORMED) : code;
}

int32_t exchange(SessionConfig& cfg, ScratchBuffer& request, int32_t request_len, ScratchBuffer& answer) {
  return tcp_send_and_recv(&cfg, request.data(), static_cast<uint32_t>(request_len), answer.data(),
                           static_cast<uint32_t>(answer.size()), TQ_LONG_FRAME);
}

size_t request_buffer_size(int32_t kind, FileTable table) {
  if (kind == TQ_EXCHANGE_7201) return kStartRequestBuffer;
  return table.empty() ? kEmptyRequestBuffer : 2 * (kStartRequestBuffer + bytes_in(table));
}

}  // namespace
}  // namespace tq

extern "C" {

int32_t passport_server_exchange(SessionConfig* ctx, const uint8_t* workKeys, info_data* result, int32_t kind,
                                 uint8_t* token, const PassportFileRecord* fileTable, uint32_t fileCount,
                                 const uint8_t* aaAnswer, uint32_t aaLength, const uint8_t* challenge,
                                 uint32_t challengeLength, const PassportTiming* timingPair) {
  using namespace tq;
  if (ctx == nullptr || workKeys == nullptr || token == nullptr) return TQ_REQUEST_NOT_BUILT;
  const bool starts = kind == TQ_EXCHANGE_7201;
  if (!starts && result == nullptr) return TQ_REQUEST_NOT_BUILT;
  ScratchBuffer request(request_buffer_size(kind, table_of(fileTable, fileCount)));
  if (!request) return TQ_REQUEST_NOT_BUILT;
  const auto room = static_cast<uint32_t>(request.size());
  const int32_t request_len =
      starts ? input_7201_cmd_group(ctx, workKeys, request.data(), room)
             : input_7202_cmd_group(fileTable, fileCount, workKeys, aaAnswer, aaLength, challenge,
                                    challengeLength, request.data(), room, token, timingPair);
  if (request_len < 0)
    return request_len == TQ_FAILED ? static_cast<int32_t>(TQ_REQUEST_NOT_BUILT) : request_len;

  ScratchBuffer answer(ctx->readMode != 0 ? kAnswerBufferSmall : kAnswerBuffer);
  if (!answer) return TQ_REQUEST_NOT_BUILT;
  const int32_t num_received = exchange(*ctx, request, request_len, answer);
  if (num_received < 0) return TQ_EXCHANGE_FAILED;
  const auto answer_len = static_cast<uint32_t>(num_received);
  if (starts) {
    return malformed_unless_status(
        output_7201_cmd_analysis(answer.data(), answer_len, workKeys, token, TQ_PASSPORT_TOKEN_LENGTH));
  }
  const int32_t len = output_7202_cmd_analysis(answer.data(), answer_len, workKeys, answer.data(),
                                               static_cast<uint32_t>(answer.size()));
  if (len < 0) return malformed_unless_status(len);
  return result_info_data_parse(ctx, answer.data(), static_cast<uint32_t>(len), result);
}

int32_t input_7201_cmd_group(SessionConfig* ctx, const uint8_t* workKeys, uint8_t* out, uint32_t capacity) {
  using namespace tq;
  if (ctx == nullptr || workKeys == nullptr || out == nullptr) return TQ_FAILED;
  Secret<kRequestStartMax> data;
  ByteWriter w(data.bytes());
  if (!write_request_start(w, *ctx)) return TQ_FAILED;

  Secret<kRequestStartMax + kSecretRoom> secret;
  const int32_t len =
      input_secret_command_group(data.data(), static_cast<uint32_t>(w.size()), kPassportStart, workKeys,
                                 secret.data(), static_cast<uint32_t>(w.size() + kSecretRoom));
  if (len < 0) return TQ_FAILED;
  return input_command_group(secret.data(), static_cast<uint32_t>(len), kHeaderPassport, kPassportStart,
                             kFrameParameter, kTypePlain, out, capacity);
}

int32_t output_7201_cmd_analysis(const uint8_t* frame, uint32_t length, const uint8_t* workKeys,
                                 uint8_t* token_out, uint32_t capacity) {
  using namespace tq;
  if (frame == nullptr || workKeys == nullptr || token_out == nullptr || length < kLeastStartFrame)
    return TQ_FAILED;
  ScratchBuffer payload(length);
  if (!payload) return TQ_FAILED;
  uint32_t parameter = 0;
  const int32_t len = output_command_anlysis(frame, length, kHeaderPassport, kPassportStart, &parameter,
                                             kTypePlain, workKeys, payload.data(), length);
  if (len < 0) return len;
  const std::span<uint8_t> token(token_out, capacity);
  if (static_cast<size_t>(len) > token.size()) return TQ_FAILED;
  std::fill(token.begin(), token.end(), uint8_t{0});
  static_cast<void>(copy_bytes(payload.bytes().first(static_cast<size_t>(len)), token));
  return len;
}

int32_t input_7202_cmd_group(const PassportFileRecord* table, uint32_t count, const uint8_t* workKeys,
                             const uint8_t* aaAnswer, uint32_t aaLength, const uint8_t* challenge,
                             uint32_t challengeLength, uint8_t* out, uint32_t capacity, const uint8_t* token,
                             const PassportTiming* timingPair) {
  using namespace tq;
  if (workKeys == nullptr || out == nullptr || token == nullptr || timingPair == nullptr) return TQ_FAILED;
  if (challengeLength > TQ_AA_CHALLENGE_LENGTH || capacity < kFrameHead + TQ_PASSPORT_TOKEN_LENGTH)
    return TQ_FAILED;
  const FileTable files = table_of(table, count);
  const std::span<const uint8_t> aa(aaAnswer, aaAnswer == nullptr ? 0 : aaLength);
  const std::span<const uint8_t> asked(challenge, challenge == nullptr ? 0 : challengeLength);
  ScratchBuffer data(bytes_in(files) + aa.size() + asked.size() + kFilesFraming);
  if (!data) return TQ_FAILED;
  ByteWriter w(data.bytes());
  if (!write_all_files(w, files, aa, asked, *timingPair)) return TQ_FAILED;

  // Token and encrypted files go to where they stay, so that the files are not copied once more.
  const std::span<uint8_t> payload = std::span(out, capacity).subspan(kFrameHead);
  std::copy_n(token, TQ_PASSPORT_TOKEN_LENGTH, payload.begin());
  const std::span<uint8_t> secret = payload.subspan(TQ_PASSPORT_TOKEN_LENGTH);
  const int32_t len =
      input_secret_command_group(data.data(), static_cast<uint32_t>(w.size()), kPassportFiles, workKeys,
                                 secret.data(), static_cast<uint32_t>(secret.size()));
  if (len < 0) return TQ_FAILED;
  return input_command_group(payload.data(), static_cast<uint32_t>(len) + TQ_PASSPORT_TOKEN_LENGTH,
                             kHeaderPassport, kPassportFiles, kFrameParameter, kTypePlain, out, capacity);
}

int32_t output_7202_cmd_analysis(const uint8_t* frame, uint32_t length, const uint8_t* workKeys, uint8_t* out,
                                 uint32_t capacity) {
  using namespace tq;
  if (frame == nullptr || workKeys == nullptr || out == nullptr || length < kLeastFilesFrame)
    return TQ_FAILED;
  uint32_t parameter = 0;
  return output_command_anlysis(frame, length, kHeaderPassport, kPassportFiles, &parameter, kTypeFlagged,
                                workKeys, out, capacity);
}

int32_t get_dg_data_sub(const PassportFileRecord* table, uint32_t count, uint16_t fileId) {
  const tq::FileTable files = tq::table_of(table, count);
  const auto at = std::find_if(files.begin(), files.end(),
                               [fileId](const PassportFileRecord& file) { return file.fileId == fileId; });
  return at == files.end() ? -1 : static_cast<int32_t>(at - files.begin());
}

int32_t passport_file_status_text(const PassportFileRecord* table, uint32_t count, char* out) {
  using namespace tq;
  if (out == nullptr) return TQ_FAILED;
  constexpr size_t kFull = 245;
  StatusText text({out, TQ_STATUS_TEXT_SIZE});
  for (const PassportFileRecord& file : table_of(table, count)) {
    std::array<char, 16> name_room{};
    const std::string_view name = status_name(file.fileId, name_room);
    if (name.empty()) continue;
    std::array<char, 66> status{};
    if (file.status != 0) my_itoa(file.status, status.data(), 16);
    if (!text.add(name, status.data()) || text.size() > kFull) break;
  }
  return static_cast<int32_t>(text.size());
}

}  // extern "C"
