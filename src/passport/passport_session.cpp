#include "passport/passport_session.h"

#include <algorithm>
#include <iterator>

#include "core/session/read_session.hpp"
#include "passport/passport_read.hpp"
#include "protocol/tcp_transport.h"
#include "util/secret.hpp"

namespace {

void run_read(tq::ReadSession& session) {
  tq::PassportRead read(session);
  read.run();
}

int32_t check_mrz(const char* number, const char* birth, const char* expiry, tq::MrzFields& out) {
  if (int32_t rc = Passport_No_check(number, out.number); rc < 0) return rc;
  if (int32_t rc = Date_of_birth_or_expiry_check(birth, out.birth); rc < 0) return rc;
  return Date_of_birth_or_expiry_check(expiry, out.expiry);
}

}  // namespace

extern "C" {

int32_t passport_decode(SessionConfig* cfg, const char* number, const char* birth, const char* expiry,
                        const uint8_t* stickCardId) {
  if (cfg == nullptr || stickCardId == nullptr) return TQ_MISSING_CALL;
  cfg->authMode = 0;
  cfg->serverRoute = TQ_ROUTE_PASSPORT;
  if (int32_t rc = check_function_call(cfg); rc < 0) return rc;
  std::fill(std::begin(cfg->lastCommand), std::end(cfg->lastCommand), uint8_t{0});
  cfg->lastCommandLength = 0;
  tq::MrzFields mrz{};
  const tq::WipeOnExit wipe_mrz(mrz);
  if (int32_t rc = check_mrz(number, birth, expiry, mrz); rc < 0) return rc;
  std::copy_n(stickCardId, TQ_STICK_CARD_ID_LENGTH, cfg->stickCardId);
  return tq::start_read(tq::ReadKind::kPassport, *cfg, run_read, tq_socket_close,
                        {reinterpret_cast<const uint8_t*>(&mrz), sizeof mrz});
}

void passport_handler(SessionConfig* ctx, const uint8_t* data, uint32_t length, uint8_t serial,
                      int32_t status) {
  const std::span<const uint8_t> answer(data, data == nullptr ? 0 : length);
  tq::deliver_answer(tq::ReadKind::kPassport, ctx, answer, serial, status);
}

void passport_cancel(void) {
  tq::cancel_read(tq::ReadKind::kPassport, nullptr, tq_socket_close);
}

}  // extern "C"
