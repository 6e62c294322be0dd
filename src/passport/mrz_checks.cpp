#include "passport/mrz_checks.h"

#include <algorithm>
#include <string_view>

#include "util/byte_text.h"
#include "util/text.hpp"

namespace {

constexpr size_t kNumberFieldLen = 9;  // of the machine-readable zone; shorter numbers are filled up
constexpr char kFiller = '<';

using tq::is_digit;
using tq::is_letter_or_digit;

// Empty for null.
std::string_view trimmed_or_empty(const char* input) {
  return input == nullptr ? std::string_view{} : tq::trimmed(input);
}

}  // namespace

extern "C" {

int32_t Passport_No_check(const char* input, char* out) {
  const std::string_view number = trimmed_or_empty(input);
  if (number.empty() || out == nullptr) return TQ_MISSING_CALL;
  if (number.size() > TQ_DOCUMENT_NUMBER_MAX ||
      !std::all_of(number.begin(), number.end(), is_letter_or_digit)) {
    return TQ_OUT_OF_RANGE;
  }
  std::fill_n(out, kNumberFieldLen, kFiller);
  std::transform(number.begin(), number.end(), out, [](char c) { return static_cast<char>(my_toupper(c)); });
  return TQ_OK;
}

int32_t Date_of_birth_or_expiry_check(const char* input, char* out) {
  const std::string_view date = trimmed_or_empty(input);
  if (date.empty() || out == nullptr) return TQ_MISSING_CALL;
  if (date.size() != TQ_MRZ_DATE_LENGTH || !std::all_of(date.begin(), date.end(), is_digit))
    return TQ_OUT_OF_RANGE;
  std::copy(date.begin(), date.end(), out);
  return TQ_OK;
}

}  // extern "C"
