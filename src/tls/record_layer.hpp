// The record layer (RFC 5246 section 6) with the alerts (section 7.2): a stream of typed content in each
// direction.
//
// A reading or writing member that returns false has ended the connection: nothing is read or written any
// more.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "tls/alert.hpp"
#include "tls/environment.hpp"
#include "tls/record_protection.hpp"

namespace tq::tls {

inline constexpr size_t kRecordHeaderLen = 5;
inline constexpr size_t kMaxPlainLen = size_t{1} << 14;
inline constexpr size_t kMaxFragmentLen = kMaxPlainLen + 2048;
inline constexpr size_t kMaxSentLen = 4096;  // content of one record of ours; more goes into several
inline constexpr int kMaxEmptyRecords = 32;  // one after the other
inline constexpr int kMaxWarnings = 5;       // one after the other

class RecordLayer {
 public:
  RecordLayer(ByteChannel& channel, RandomSource& random) : channel_(channel), random_(random) {}
  ~RecordLayer();
  RecordLayer(const RecordLayer&) = delete;
  RecordLayer& operator=(const RecordLayer&) = delete;

  // Reads until there is content that is not an alert; what is left of the last record comes first. Warnings
  // and empty records are passed over while they are few.
  [[nodiscard]] bool wait_for_content(ContentType& type);

  // What is left of the record; valid until the next wait_for_content.
  std::span<const uint8_t> content() const { return content_; }
  void consume(size_t n);

  // Queues content, and sends what is queued when there is no more room.
  [[nodiscard]] bool write(ContentType type, std::span<const uint8_t> content);
  [[nodiscard]] bool write_warning(Alert alert);  // queued too
  [[nodiscard]] bool flush();

  // Until the version has been agreed upon, the record header of the peer may name any version 3.x.
  void fix_version() { version_fixed_ = true; }
  // Until then not even an empty record of application data is passed over.
  void take_application_data() { takes_data_ = true; }
  RecordProtection& reading() { return reading_; }
  RecordProtection& writing() { return writing_; }

  // Ends the connection with a fatal alert, or without one when there is nobody to tell. Always false, so
  // that a caller can return it.
  bool fail(Alert alert);
  bool fail_silently();

  bool failed() const { return failed_; }
  bool closed_by_peer() const { return closed_by_peer_; }  // close_notify has come; reads fail from now on

 private:
  bool read_exactly(std::span<uint8_t> out);
  bool read_record();
  bool check_header(size_t fragment_len);
  bool take_alert();
  bool queue_record(ContentType type, std::span<const uint8_t> content);

  ByteChannel& channel_;
  RandomSource& random_;
  RecordProtection reading_;
  RecordProtection writing_;
  bool version_fixed_ = false;
  bool takes_data_ = false;
  bool failed_ = false;
  bool closed_by_peer_ = false;
  int num_empty_ = 0;
  int num_warnings_ = 0;
  ContentType type_ = ContentType::kHandshake;
  std::span<uint8_t> content_;  // in in_
  size_t queued_len_ = 0;       // in out_
  std::array<uint8_t, kRecordHeaderLen> header_{};
  std::array<uint8_t, kMaxFragmentLen> in_;
  std::array<uint8_t, kRecordHeaderLen + kMaxSentLen + kMaxSealingLen> out_;
};

}  // namespace tq::tls
