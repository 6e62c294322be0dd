// The location server's response: collected in pieces, and its chunks put together. Choices: size of the
// pieces, room for the body. The content is the text; what comes of it is compared with a plain reading of
// the same rules.
#include "location/http_response.hpp"

#include <algorithm>
#include <optional>
#include <string>

#include "core/result_code.h"
#include "harness.hpp"

namespace {

constexpr size_t kNowhere = std::string::npos;
constexpr uint64_t kTooLarge = uint64_t{1} << 32;

uint64_t size_in(const std::string& line) {
  const std::string digits = "0123456789abcdefghijklmnopqrstuvwxyz";
  const std::string start = line.substr(0, 2);
  uint64_t size = 0;
  for (size_t i = start == "0x" || start == "0X" ? 2 : 0; i < line.size(); ++i) {
    const char c = line[i];
    const size_t value = digits.find(c >= 'A' && c <= 'Z' ? static_cast<char>(c + 'a' - 'A') : c);
    if (value == kNowhere) break;
    size = std::min(size * 16 + value, kTooLarge);
  }
  return size;
}

std::optional<std::string> body_of(const std::string& text, size_t room) {
  const size_t end = text.find("0\r\n\r\n");
  if (end == kNowhere) return std::nullopt;
  size_t at = text.find("\r\n\r\n") + 4;
  std::string body;
  while (text.compare(at, 5, "0\r\n\r\n") != 0) {
    const size_t line_end = text.find("\r\n", at);
    if (line_end == kNowhere || line_end + 2 - at > 8191) return std::nullopt;
    const uint64_t size = size_in(text.substr(at, line_end - at));
    const size_t data = line_end + 2;
    if (size > text.size() - data || text.compare(data + size, 2, "\r\n") != 0) return std::nullopt;
    body += text.substr(data, size);
    at = data + size + 2;
    if (at > end || body.size() > room) return std::nullopt;
  }
  return body;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const size_t piece_size = size_t{choices.next()} * 8 + 1;
  const size_t room = size_t{choices.next()} * 4;
  const View content = choices.content();

  tq::ResponseText response;
  std::string text;
  for (View rest = content; !rest.empty();) {
    const std::span<uint8_t> space = response.room();
    if (space.empty()) {
      require(text.size() + tq::ResponseText::kLargestPiece > tq::ResponseText::kLongest);
      break;
    }
    require(space.size() == tq::ResponseText::kLargestPiece);
    const View piece = rest.first(std::min({piece_size, rest.size(), space.size()}));
    std::copy(piece.begin(), piece.end(), space.begin());
    response.add(piece.size());
    text.append(piece.begin(), std::find(piece.begin(), piece.end(), uint8_t{0}));
    rest = rest.subspan(piece.size());
  }
  require(response.text() == text);
  const bool ends = text.size() >= 6 && text.compare(text.size() - 5, 5, "0\r\n\r\n") == 0;
  require(response.complete() == ends);

  Block exact(View(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
  Block body(room);
  auto* const chars = reinterpret_cast<char*>(body.data());
  const int32_t len =
      tq::decode_chunked_body({reinterpret_cast<const char*>(exact.data()), exact.size()}, {chars, room});
  const std::optional<std::string> wanted = body_of(text, room);
  require(wanted ? len >= 0 && std::string(chars, static_cast<size_t>(len)) == *wanted : len == TQ_FAILED);
  return 0;
}
