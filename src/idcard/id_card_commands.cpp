#include "idcard/id_card_commands.h"

#include <algorithm>
#include <array>
#include <span>

#include "core/session/card_relay.h"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint8_t kReqb[] = {0x05, 0x00, 0x00};
constexpr uint8_t kAttrib[] = {0x1D, 0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x01, 0x08};
constexpr uint8_t kSelect6002[] = {0x00, 0xA4, 0x00, 0x00, 0x02, 0x60, 0x02};
constexpr uint8_t kReadManagement[] = {0x80, 0xB0, 0x00, 0x00, 0x20};
constexpr uint8_t kSelect6011[] = {0x00, 0xA4, 0x00, 0x00, 0x02, 0x60, 0x11};
constexpr uint8_t kSelect6012[] = {0x00, 0xA4, 0x00, 0x00, 0x02, 0x60, 0x12};
constexpr uint8_t kSelect6013[] = {0x00, 0xA4, 0x00, 0x00, 0x02, 0x60, 0x13};
constexpr uint8_t kGetChallenge[] = {0x00, 0x84, 0x00, 0x00, 0x08};

constexpr Bytes kFindCard[] = {kReqb, kAttrib, kSelect6002, kReadManagement};
constexpr Bytes kSelectFile[] = {kSelect6011, kSelect6012, kSelect6013};

// Row `index` of a table whose last row also stands for all larger indices.
template <size_t N>
Bytes row(const Bytes (&table)[N], uint32_t index) {
  return table[std::min<size_t>(index, N - 1)];
}

int32_t send(SessionConfig* cfg, Bytes command, uint8_t serial) {
  return tq_read_card_send(cfg, command.data(), static_cast<uint32_t>(command.size()), serial);
}

}  // namespace

extern "C" {

int32_t id_card_find_card(SessionConfig* cfg, uint32_t step) {
  return send(cfg, row(kFindCard, step), static_cast<uint8_t>(step));
}

int32_t id_card_select_file(SessionConfig* cfg, uint32_t which, uint8_t serial) {
  return send(cfg, row(kSelectFile, which), serial);
}

int32_t id_card_read_file(SessionConfig* cfg, uint32_t offset, uint32_t total, uint8_t serial) {
  if (cfg == nullptr || offset > total) return TQ_OK;
  const uint32_t count = std::min<uint32_t>(total - offset, cfg->readChunkSize);
  const std::array<uint8_t, 5> command = {0x80, 0xB0, static_cast<uint8_t>(offset >> 8),
                                          static_cast<uint8_t>(offset), static_cast<uint8_t>(count)};
  return send(cfg, command, serial);
}

int32_t id_card_auth_get_rand(SessionConfig* cfg, uint8_t serial) {
  return send(cfg, kGetChallenge, serial);
}

}  // extern "C"
