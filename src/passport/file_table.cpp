#include "passport/file_table.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "util/byte_cursor.hpp"
#include "util/byte_text.h"
#include "util/secret.hpp"
#include "util/tlv.hpp"

namespace tq {
namespace {

constexpr size_t kFullStatusText = 245;

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

}  // namespace

const PassportFileRecord* find_file(FileRows rows, uint16_t file_id) {
  const auto found = std::find_if(rows.begin(), rows.end(),
                                  [file_id](const PassportFileRecord& row) { return row.fileId == file_id; });
  return found == rows.end() ? nullptr : &*found;
}

std::span<const uint8_t> bytes_of(const PassportFileRecord& row) {
  return row.data == nullptr ? std::span<const uint8_t>{} : std::span<const uint8_t>(row.data, row.received);
}

uint32_t num_missing(const PassportFileRecord& row) {
  const uint32_t behind_first = row.received - row.firstChunk;
  return row.remaining > behind_first ? row.remaining - behind_first : 0;
}

size_t size_in_header(std::span<const uint8_t> start) {
  ByteReader r(start);
  uint32_t value_len = 0;
  if (!r.skip(1) || read_length(r, kChipLengths, value_len) != LengthField::kRead) return 0;
  return start.size() - r.size() + value_len;
}

bool begin_file(PassportFileRecord& row, std::span<const uint8_t> chunk) {
  if (chunk.empty()) return true;
  const size_t file_size = std::max(size_in_header(chunk), chunk.size());
  ScratchBuffer block(file_size);
  if (!block || !copy_bytes(chunk, block.bytes())) return false;
  row.data = block.release();
  row.received = static_cast<uint32_t>(chunk.size());
  row.firstChunk = static_cast<uint8_t>(chunk.size());
  row.remaining = static_cast<uint32_t>(file_size - chunk.size());
  return true;
}

void append_chunk(PassportFileRecord& row, std::span<const uint8_t> chunk) {
  if (chunk.empty()) return;
  std::copy(chunk.begin(), chunk.end(), row.data + row.received);
  row.received += static_cast<uint32_t>(chunk.size());
}

void drop_file(PassportFileRecord& row) {
  if (row.data != nullptr) wipe(row.data, row.received);
  tq_mem_free(row.data);
  row = {nullptr, 0, row.fileId, row.status, 0, 0};
}

FileRows FileTable::rows() const {
  return {rows_, std::min<uint32_t>(count_, TQ_PASSPORT_FILES_MAX)};
}

PassportFileRecord* FileTable::find(uint16_t file_id) {
  const PassportFileRecord* const row = find_file(rows(), file_id);
  return row == nullptr ? nullptr : rows_ + (row - rows_);
}

PassportFileRecord* FileTable::append(uint16_t file_id, uint32_t status) {
  if (full()) return nullptr;
  PassportFileRecord& row = rows_[count_++];
  row = {nullptr, 0, file_id, status, 0, 0};
  return &row;
}

OwnedFileTable::~OwnedFileTable() {
  for (PassportFileRecord& row : storage_) drop_file(row);
}

size_t write_status_text(FileRows rows, std::span<char> out) {
  StatusText text(out);
  for (const PassportFileRecord& row : rows) {
    std::array<char, 16> name_room{};
    const std::string_view name = status_name(row.fileId, name_room);
    if (name.empty()) continue;
    std::array<char, 66> status{};
    if (row.status != 0) my_itoa(row.status, status.data(), 16);
    if (!text.add(name, status.data()) || text.size() > kFullStatusText) break;
  }
  return text.size();
}

}  // namespace tq
