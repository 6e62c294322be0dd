#include "tls/record_layer.hpp"

#include <algorithm>

#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq::tls {

namespace {

// The first hello says TLS 1.0, for servers that look at it (RFC 5246 appendix E.1); all that follows 1.2.
constexpr uint32_t kFirstRecordVersion = 0x0301;

bool is_known(uint8_t type) {
  return type >= static_cast<uint8_t>(ContentType::kChangeCipherSpec) &&
         type <= static_cast<uint8_t>(ContentType::kApplicationData);
}

}  // namespace

RecordLayer::~RecordLayer() {
  wipe(in_);
  wipe(out_);
}

bool RecordLayer::fail_silently() {
  failed_ = true;
  content_ = {};
  return false;
}

bool RecordLayer::fail(Alert alert) {
  if (failed_) return false;
  queued_len_ = 0;  // what has not been sent is of no use to the peer now
  const uint8_t content[] = {static_cast<uint8_t>(AlertLevel::kFatal), static_cast<uint8_t>(alert)};
  if (queue_record(ContentType::kAlert, content)) {
    channel_.write_without_waiting(std::span(out_).first(queued_len_));
  }
  return fail_silently();
}

void RecordLayer::consume(size_t n) {
  wipe(content_.first(n));
  content_ = content_.subspan(n);
}

bool RecordLayer::read_exactly(std::span<uint8_t> out) {
  while (!out.empty()) {
    const ptrdiff_t n = channel_.read(out);
    if (n <= 0) return fail_silently();  // an end without close_notify is an error like any other
    out = out.subspan(static_cast<size_t>(n));
  }
  return true;
}

// Refuses before the fragment is read, so that nonsense is answered at once.
bool RecordLayer::check_header(size_t fragment_len) {
  if (!is_known(header_[0])) return fail(Alert::kUnexpectedMessage);
  const uint32_t version = uint32_t{header_[1]} << 8 | header_[2];
  if (version_fixed_ ? version != kTls12 : version >> 8 != kTls12 >> 8) return fail(Alert::kProtocolVersion);
  const size_t longest = reading_.started() ? kMaxFragmentLen : kMaxPlainLen;
  return fragment_len <= longest || fail(Alert::kRecordOverflow);
}

bool RecordLayer::read_record() {
  if (!read_exactly(header_)) return false;
  const size_t fragment_len = size_t{header_[3]} << 8 | header_[4];
  if (!check_header(fragment_len)) return false;
  type_ = static_cast<ContentType>(header_[0]);
  const auto fragment = std::span(in_).first(fragment_len);
  if (!read_exactly(fragment)) return false;
  std::span<uint8_t> content;
  if (!reading_.open(type_, fragment, content)) return fail(Alert::kBadRecordMac);
  if (content.size() > kMaxPlainLen) return fail(Alert::kRecordOverflow);
  if (content.empty()) {
    if (type_ == ContentType::kApplicationData && !takes_data_) return fail(Alert::kUnexpectedMessage);
    if (type_ != ContentType::kApplicationData && type_ != ContentType::kHandshake)
      return fail(Alert::kDecodeError);
    return ++num_empty_ <= kMaxEmptyRecords || fail(Alert::kUnexpectedMessage);
  }
  if (type_ != ContentType::kAlert) num_empty_ = num_warnings_ = 0;
  content_ = content;
  return true;
}

bool RecordLayer::take_alert() {
  constexpr size_t kAlertLen = 2;
  if (content_.size() != kAlertLen) return fail(Alert::kDecodeError);
  const auto level = static_cast<AlertLevel>(content_[0]);
  const auto alert = static_cast<Alert>(content_[1]);
  content_ = {};
  if (level == AlertLevel::kFatal) return fail_silently();
  if (level != AlertLevel::kWarning) return fail(Alert::kIllegalParameter);
  if (alert == Alert::kCloseNotify) {
    closed_by_peer_ = true;
    return false;
  }
  return ++num_warnings_ <= kMaxWarnings || fail(Alert::kUnexpectedMessage);
}

bool RecordLayer::wait_for_content(ContentType& type) {
  while (content_.empty()) {
    if (failed_ || closed_by_peer_ || !read_record()) return false;
    if (!content_.empty() && type_ == ContentType::kAlert && !take_alert()) return false;
  }
  type = type_;
  return true;
}

// The caller has made sure of the room.
bool RecordLayer::queue_record(ContentType type, std::span<const uint8_t> content) {
  const auto record = std::span(out_).subspan(queued_len_);
  const size_t fragment_len = writing_.seal(type, content, random_, record.subspan(kRecordHeaderLen));
  if (fragment_len == 0) return false;
  ByteWriter w(record.first(kRecordHeaderLen));
  w.u8(static_cast<unsigned>(type));
  w.number(version_fixed_ ? kTls12 : kFirstRecordVersion, 2);
  w.number(static_cast<uint32_t>(fragment_len), 2);
  queued_len_ += kRecordHeaderLen + fragment_len;
  return true;
}

bool RecordLayer::write(ContentType type, std::span<const uint8_t> content) {
  while (!content.empty()) {
    if (failed_) return false;
    const auto piece = content.first(std::min(content.size(), kMaxSentLen));
    const size_t room = kRecordHeaderLen + piece.size() + kMaxSealingLen;
    if (room > out_.size() - queued_len_ && !flush()) return false;
    // Without random bytes or sequence numbers not even an alert can be sent any more.
    if (!queue_record(type, piece)) return fail_silently();
    content = content.subspan(piece.size());
  }
  return true;
}

bool RecordLayer::write_warning(Alert alert) {
  const uint8_t content[] = {static_cast<uint8_t>(AlertLevel::kWarning), static_cast<uint8_t>(alert)};
  return write(ContentType::kAlert, content);
}

bool RecordLayer::flush() {
  if (failed_) return false;
  const auto queued = std::span(out_).first(queued_len_);
  queued_len_ = 0;
  return channel_.write(queued) || fail_silently();
}

}  // namespace tq::tls
