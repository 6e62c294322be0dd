#include "passport/file_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "passport/chip_peer.hpp"
#include "util/memory.h"

namespace {

using namespace test;

constexpr uint8_t kStep = 8;
constexpr uint64_t kCounter = UINT64_MAX - 40;  // wraps in every longer read
const Bytes kEnc = from_hex("979ec13b1cbfe9dcd01ab0fed307eae5");
const Bytes kMac = from_hex("f1cb1f1fb5adf208806b89dc579dc1f8");
const Bytes kGood = {0x90, 0x00};
const Bytes kStatusObject = {0x99, 2, 0x90, 0x00};

// A file whose value has this many bytes, with the shortest length field.
Bytes file_of_value(size_t value_len) {
  std::mt19937 generator(static_cast<unsigned>(value_len));
  const Bytes header = value_len < 0x80    ? Bytes{0x61}
                       : value_len < 0x100 ? from_hex("7581")
                                           : from_hex("7782");
  return header + be(value_len, value_len < 0x100 ? 1 : 2) + random_bytes(generator, value_len);
}

// One read: the session and its table on the library's side, the chip and what came to it on the other.
struct Read {
  explicit Read(uint8_t chunk_size = 212) : table(new PassportFileRecord[TQ_PASSPORT_FILES_MAX]{}) {
    share_register_card_callback(&cfg, keep_command, this);
    cfg.readChunkSize = chunk_size;
    std::copy(kEnc.begin(), kEnc.end(), session->ksenc);
    std::copy(kMac.begin(), kMac.end(), session->ksmac);
    const Bytes ssc = chip.ssc();
    std::copy(ssc.begin(), ssc.end(), session->ssc);
  }
  ~Read() {
    for (uint32_t i = 0; i < count; ++i) tq_mem_free(table[i].data);
  }
  Read(const Read&) = delete;
  Read& operator=(const Read&) = delete;

  static int32_t keep_command(const uint8_t* apdu, uint32_t length, uint8_t serial, void* user_data) {
    auto& read = *static_cast<Read*>(user_data);
    EXPECT_EQ(serial, kStep);
    EXPECT_FALSE(read.command.has_value());
    read.command = Bytes(apdu, apdu + length);
    return 0;
  }
  // The one command sent is this one; takes it.
  bool sent(const Bytes& header, const Bytes& data, int le) {
    const Bytes last = command.value_or(Bytes{});
    command.reset();
    return chip.accepts(last, header, data, le);
  }
  bool sent_read(size_t offset, size_t le) {
    return sent({0x0C, 0xB0, static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset)}, {},
                static_cast<int>(le));
  }
  // As the chip gives `data`, or only a status when there is none.
  Bytes protect(const Bytes& data) {
    return chip.answer((data.empty() ? Bytes{} : chip.padded_cryptogram(data)) + kStatusObject) + kGood;
  }
  int32_t handle(const Bytes& answer, uint16_t file_id = TQ_EF_DG1) {
    std::fill(std::begin(session->answer), std::end(session->answer), uint8_t{0xEE});
    std::copy(answer.begin(), answer.end(), session->answer);
    return passport_file_read_next(&cfg, static_cast<uint32_t>(answer.size()), file_id, kStep, session.get(),
                                   table.get(), &count);
  }
  int32_t give(const Bytes& data, uint16_t file_id = TQ_EF_DG1) { return handle(protect(data), file_id); }
  std::string stored(size_t row = 0) const { return hex(table[row].data, table[row].received); }

  SessionConfig cfg{};
  std::unique_ptr<PassportSession> session = std::make_unique<PassportSession>();
  std::unique_ptr<PassportFileRecord[]> table;
  uint32_t count = 0;
  Chip chip{kEnc, kMac, kCounter};
  std::optional<Bytes> command;
};

TEST(FileReader, ACommandThatIsTooLongIsNotSent) {
  Read read;
  PassportSession& s = *read.session;
  for (const size_t n : {39, 40}) {
    const Bytes data(n, 0x5A);
    const Bytes command = from_hex("00880000") + be(n, 1) + data;
    EXPECT_EQ(passport_read_file(&read.cfg, command.data(), len(command), kStep, s.ksenc, s.ksmac, s.ssc, 1),
              n == 39 ? 0 : -1);
    EXPECT_EQ(read.sent(from_hex("0c880000"), data, 0x5A), n == 39);
  }
}

// Every form of the length field, in chunks of every kind, from chips that give what is asked for, more, or
// less.
TEST(FileReader, WholeFiles) {
  const uint8_t chunk_sizes[] = {1, 7, 8, 212, 223, 254, 255};
  const size_t value_lens[] = {3, 4, 127, 128, 255, 256, 18000, 0xFFFF};
  for (const size_t value_len : value_lens) {
    const Bytes file = file_of_value(value_len);
    for (const uint8_t chunk_size : chunk_sizes) {
      if (file.size() / chunk_size > 700) continue;
      for (const int surplus : {0, 5, -3}) {
        Read read(chunk_size);
        size_t offset = 0;
        size_t asked = 4;
        int32_t rc = 1;
        while (rc == 1) {
          const size_t fewer = surplus < 0 && offset != 0 && asked > 3 ? 3 : 0;
          const size_t given = asked - fewer;
          Bytes data = slice(file, offset, offset + given);
          for (int i = 0; i < surplus; ++i) data.push_back(0xDD);
          rc = read.give(data);
          offset += given;
          asked = std::min<size_t>(file.size() - offset, chunk_size);
          ASSERT_EQ(rc, asked == 0 ? 0 : 1) << value_len << " at " << offset;
          ASSERT_TRUE(rc == 0 || read.sent_read(offset, asked)) << value_len << " at " << offset;
        }
        EXPECT_FALSE(read.command.has_value());
        ASSERT_EQ(read.count, 1U);
        const PassportFileRecord& row = read.table[0];
        EXPECT_EQ(read.stored(), hex(file)) << value_len << " by " << int{chunk_size};
        EXPECT_EQ(row.remaining, file.size() - 4);
        EXPECT_EQ(row.firstChunk, 4);
        EXPECT_EQ(row.status, 0x9000U);

        EXPECT_EQ(read.give({0x61, 0x0F, 0x01, 0x02}), 0);  // once more: adds nothing
        EXPECT_EQ(read.stored(), hex(file));
      }
    }
  }
}

// `remaining` is what the next READ BINARY asks for, and 0 where there is none.
TEST(FileReader, TheHeaderTellsTheSizeWhateverTheFirstChunk) {
  const struct {
    const char* first;
    uint32_t remaining;
  } cases[] = {{"610f0102", 13}, {"77820a4b", 2635},  {"758181aa", 128}, {"6180aabb", 0}, {"61830001", 0},
               {"61ffaabb", 0},  {"7782ffff", 65535}, {"6100aabb", 0},   {"6102aabb", 0}, {"6103aabb", 1},
               {"618101aa", 0},  {"7f03aabb", 1},     {"610f01", 14},    {"610f", 15},    {"61", 0},
               {"", 0},          {"618105", 5},       {"6181", 0},       {"61820a", 0},   {"610001", 0}};
  for (const auto& c : cases) {
    Read read(255);
    const Bytes first = from_hex(c.first);
    EXPECT_EQ(read.give(first), c.remaining == 0 ? 0 : 1) << c.first;
    const PassportFileRecord& row = read.table[0];
    EXPECT_EQ(read.count, 1U);
    EXPECT_EQ(read.stored(), c.first);
    EXPECT_EQ(row.data == nullptr, first.empty());
    EXPECT_EQ(row.remaining, c.remaining) << c.first;
    EXPECT_EQ(row.firstChunk, first.size());
    EXPECT_EQ(row.status, 0x9000U);
    if (c.remaining == 0) {
      EXPECT_FALSE(read.command.has_value());
    } else {
      EXPECT_TRUE(read.sent_read(first.size(), std::min(c.remaining, 255U))) << c.first;
      EXPECT_EQ(read.give({}), 0);  // nothing more: the file ends as read so far
      EXPECT_EQ(read.stored(), c.first);
      EXPECT_FALSE(read.command.has_value());
    }
  }
}

// No answer, one that cannot be opened, one longer than any, and data for a file whose row has none.
TEST(FileReader, AnswersThatNobodyCanGive) {
  Read read;
  EXPECT_EQ(read.handle({}), -93001);
  EXPECT_EQ(read.handle(kGood), -93006);
  read.chip.answer({});  // it has counted, too
  EXPECT_EQ(read.count, 1U);
  EXPECT_EQ(read.give({0x61, 0x0F, 1, 2}), 0);
  EXPECT_EQ(read.table[0].received, 0U);
  EXPECT_EQ(read.table[0].status, 0x9000U);
  EXPECT_EQ(passport_file_read_next(&read.cfg, TQ_CARD_ANSWER_MAX + 1, TQ_EF_DG1, kStep, read.session.get(),
                                    read.table.get(), &read.count),
            -93006);
  EXPECT_EQ(passport_file_read_next(&read.cfg, 2, TQ_EF_DG1, kStep, nullptr, read.table.get(), &read.count),
            -93006);
}

TEST(FileReader, EachFileHasItsRowAndAFullTableRefuses) {
  Read read;
  for (uint16_t i = 0; i < TQ_PASSPORT_FILES_MAX; ++i) {
    ASSERT_EQ(read.give({0x61, 3, static_cast<uint8_t>(i), 0}, static_cast<uint16_t>(0x0101 + i)), 1);
    ASSERT_TRUE(read.sent_read(4, 1));
  }
  for (uint16_t i = TQ_PASSPORT_FILES_MAX; i > 0; --i)
    ASSERT_EQ(read.give({0xAA}, static_cast<uint16_t>(0x0100 + i)), 0);
  EXPECT_EQ(read.give({0x61, 0x0F, 1, 2}, 0x0201), -93006);
  EXPECT_EQ(read.handle({0x69, 0x82}, 0x0201), -1);
  EXPECT_FALSE(read.command.has_value());
  EXPECT_EQ(read.handle({0x6A, 0x82}, 0x0101), -1);
  ASSERT_EQ(read.count, uint32_t{TQ_PASSPORT_FILES_MAX});
  for (uint16_t i = 0; i < TQ_PASSPORT_FILES_MAX; ++i) {
    EXPECT_EQ(read.table[i].fileId, 0x0101 + i);
    EXPECT_EQ(read.stored(i), hex(Bytes{0x61, 3, static_cast<uint8_t>(i), 0, 0xAA}));
    EXPECT_EQ(read.table[i].status, i == 0 ? 0x6A82U : 0x9000U);
  }
}

}  // namespace
