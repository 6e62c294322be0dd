// The list of data groups in EF.COM and EF.SOD, against a plain reading by index. Choices: EF.COM, EF.SOD, or
// content as the hash list of an EF.SOD; room for identifiers.
#include <optional>

#include "harness.hpp"
#include "passport/data_groups.h"

namespace {

using fuzz::require;
using fuzz::View;
using Ids = std::vector<uint32_t>;

// Past tag and length of a walker's object. A first length byte of another form is no length.
bool pass_header(View f, size_t& at, size_t& len) {
  at += at < f.size() && (f[at] & 0x0F) == 0x0F ? 2 : 1;
  if (at >= f.size()) return false;
  const uint8_t first = f[at];
  const size_t width = first < 0x80 ? 1 : first == 0x81 ? 2 : first == 0x82 ? 3 : 0;
  if (at + width > f.size()) return false;
  len = width == 0 ? 0 : width == 1 ? first : fuzz::number(f.subspan(at + 1, width - 1));
  at += width;
  return true;
}

std::optional<Ids> listed_in_com(View f) {
  const uint8_t kTags[] = {0x61, 0x75, 0x63, 0x76, 0x65, 0x66, 0x67, 0x68,
                           0x69, 0x6A, 0x6B, 0x6C, 0x6D, 0x6E, 0x6F, 0x70};
  size_t at = 0;
  size_t len = 0;
  if (!pass_header(f, at, len)) return std::nullopt;
  for (int object = 0; object < 3; ++object) {
    if (object > 0) at += len;
    if (!pass_header(f, at, len) || len > f.size() - at) return std::nullopt;
  }
  Ids ids;
  for (const uint8_t tag : f.subspan(at, len)) {
    const auto* const found = std::find(std::begin(kTags), std::end(kTags), tag);
    if (found != std::end(kTags)) ids.push_back(static_cast<uint32_t>(0x0101 + (found - kTags)));
  }
  return ids;
}

// The content of a DER element, at whose end `at` is then.
bool take(View f, size_t& at, size_t end, int tag, View& content) {
  if (end - at < 2 || f[at] != tag) return false;
  size_t len = f[at + 1];
  at += 2;
  if (len >= 0x80) {
    const size_t width = len - 0x80;
    if (width == 0 || width > 4 || width > end - at) return false;
    len = fuzz::number(f.subspan(at, width));
    at += width;
  }
  if (len > end - at) return false;
  content = f.subspan(at, len);
  at += len;
  return true;
}

std::optional<Ids> listed_in_sod(View f) {
  size_t at = 0;
  size_t len = 0;
  if (!pass_header(f, at, len)) return std::nullopt;
  size_t end = f.size();
  View content;
  const struct {
    int tag;
    char what;
  } kRoad[] = {{0x30, '>'}, {0x06, '-'}, {0xA0, '>'}, {0x30, '>'}, {0x02, 'n'}, {0x31, '-'}, {0x30, '>'},
               {0x06, '-'}, {0xA0, '>'}, {0x04, '>'}, {0x30, '>'}, {0x02, 'n'}, {0x30, '-'}, {0x30, '>'}};
  for (const auto& step : kRoad) {
    if (!take(f, at, end, step.tag, content)) return std::nullopt;
    if (step.what == 'n' && (content.size() > 4 || (!content.empty() && content[0] >= 0x80)))
      return std::nullopt;
    if (step.what != '>') continue;
    end = at;
    at -= content.size();
  }
  if (at == end) return std::nullopt;
  Ids ids;
  while (at != end) {
    View number;
    View hash;
    size_t inside = 0;
    if (!take(f, at, end, 0x30, content) || !take(content, inside, content.size(), 0x02, number) ||
        number.empty() || !take(content, inside, content.size(), 0x04, hash) || inside != content.size()) {
      return std::nullopt;
    }
    ids.push_back(0x0100U | number[0]);
  }
  return ids;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t mode = choices.one_of<uint8_t>({0, 1, 2});
  const uint8_t room = choices.next() % 97;
  const auto walk = mode == 0 ? get_passport_files_IDS_COM : get_passport_files_IDS_SOD;
  const Block file(mode == 2 ? View(security_object(choices.content())) : choices.content());
  const std::optional<Ids> listed = mode == 0 ? listed_in_com(file.bytes()) : listed_in_sod(file.bytes());

  const std::unique_ptr<uint32_t[]> ids(new uint32_t[room]());
  const int32_t rc = walk(file.bytes().data(), file.size(), ids.get(), room);
  require(walk(file.bytes().data(), file.size(), nullptr, room) == std::min(rc, 0));
  require((rc < 0) == !listed && rc >= -1);
  if (!listed) return 0;
  require(static_cast<size_t>(rc) == std::min<size_t>(listed->size(), room));
  require(std::equal(ids.get(), ids.get() + rc, listed->begin()));
  return 0;
}
