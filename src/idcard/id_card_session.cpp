#include "idcard/id_card_session.h"

#include <algorithm>

#include "core/session/read_session.hpp"
#include "idcard/id_card_read.hpp"
#include "protocol/tcp_transport.h"

namespace {

void run_read(tq::ReadSession& session) {
  tq::IdCardRead read(session);
  read.run();
}

}  // namespace

extern "C" {

int32_t id_card_decode(SessionConfig* cfg, const uint8_t* stickCardId) {
  if (cfg == nullptr || stickCardId == nullptr) return TQ_MISSING_CALL;
  cfg->authMode = 0;
  cfg->serverRoute = TQ_ROUTE_IDENTITY_CARD;
  std::copy_n(stickCardId, TQ_STICK_CARD_ID_LENGTH, cfg->stickCardId);
  if (int32_t rc = check_function_call(cfg); rc < 0) return rc;
  return tq::start_read(tq::ReadKind::kIdentityCard, *cfg, run_read, tq_socket_close);
}

void id_card_handler(SessionConfig* cfg, const uint8_t* data, uint32_t length, uint8_t serial,
                     int32_t status) {
  const std::span<const uint8_t> answer(data, data == nullptr ? 0 : length);
  tq::deliver_answer(tq::ReadKind::kIdentityCard, cfg, answer, serial, status);
}

void id_card_cancel(void) {
  tq::cancel_read(tq::ReadKind::kIdentityCard, nullptr, tq_socket_close);
}

}  // extern "C"
