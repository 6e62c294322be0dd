// The file table of a passport read, one row for each file that the chip has been asked for.
#pragma once

#include <cstdint>
#include <span>

#include "passport/passport_session_record.h"

namespace tq {

using FileRows = std::span<const PassportFileRecord>;

// The first row of the file, or null.
const PassportFileRecord* find_file(FileRows rows, uint16_t file_id);

// The bytes of a row that have come.
std::span<const uint8_t> bytes_of(const PassportFileRecord& row);

// Bytes of the file that have not come yet.
uint32_t num_missing(const PassportFileRecord& row);

// The size of a file by the length field behind its tag of one byte; 0 when `start` does not tell it.
size_t size_in_header(std::span<const uint8_t> start);

// Keeps the first chunk in a block that has room for the whole file; a header that claims less than the chunk
// holds is a whole file. False without memory.
[[nodiscard]] bool begin_file(PassportFileRecord& row, std::span<const uint8_t> chunk);

// `chunk` is at most what is missing.
void append_chunk(PassportFileRecord& row, std::span<const uint8_t> chunk);

// Wipes and gives back what the row had.
void drop_file(PassportFileRecord& row);

// Rows that belong to somebody else.
class FileTable {
 public:
  FileTable(PassportFileRecord* rows, uint32_t& count) : rows_(rows), count_(count) {}

  FileRows rows() const;
  PassportFileRecord* find(uint16_t file_id);
  bool full() const { return count_ >= TQ_PASSPORT_FILES_MAX; }

  // A row without data, or null when the table is full.
  PassportFileRecord* append(uint16_t file_id, uint32_t status);

 private:
  PassportFileRecord* rows_;
  uint32_t& count_;
};

// Rows with their table; what they hold is wiped with them.
class OwnedFileTable : public FileTable {
 public:
  OwnedFileTable() : FileTable(storage_, num_rows_) {}
  ~OwnedFileTable();
  OwnedFileTable(const OwnedFileTable&) = delete;
  OwnedFileTable& operator=(const OwnedFileTable&) = delete;

 private:
  PassportFileRecord storage_[TQ_PASSPORT_FILES_MAX]{};
  uint32_t num_rows_ = 0;
};

// Writes each file's name and last status, e.g. "dg15_str:6A82;dg1_str:9000", NUL-terminated; no row is added
// once more than 245 characters are there, nor one that does not fit. Returns the length.
size_t write_status_text(FileRows rows, std::span<char> out);

}  // namespace tq
