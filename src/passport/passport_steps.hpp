// Numbers of the steps of a passport read: the command that an answer belongs to.
#pragma once

#include <cstdint>

#include "core/result_code.h"
#include "core/session/outcome.hpp"

namespace tq {

enum PassportStep : uint8_t {
  kSelectApplication,
  kChallenge,
  kExternalAuthenticate,
  kSelectCom,
  kReadCom,
  kSelectSod,
  kReadSod,
  kSelectDataGroup,
  kReadDataGroup,
  kInternalAuthenticate,
  // Where there is no Basic Access Control.
  kSelectMasterFile,
  kSelectCardAccess,
  kReadCardAccess,
  kPaceProtocol,  // MANAGE SECURITY ENVIRONMENT
  kPaceNonce,     // GENERAL AUTHENTICATE, four times
  kPaceMapping,
  kPaceKeyAgreement,
  kPaceToken,
  kSelectApplicationByPace,
};
constexpr uint8_t kFirstPaceStep = kSelectMasterFile;

// A command that cannot even be made is as good as one without answer.
inline Outcome wait_if(bool sent) {
  return sent ? Outcome::go_on() : Outcome::end_with(TQ_NO_CARD_ANSWER);
}

}  // namespace tq
