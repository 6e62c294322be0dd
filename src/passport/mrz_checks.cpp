#include "passport/mrz_checks.h"

#include <algorithm>
#include <string_view>

#include "util/byte_text.h"

namespace {

constexpr size_t kNumberFieldLen = 9;  // of the machine-readable zone; shorter numbers are filled up
constexpr char kFiller = '<';
constexpr std::string_view kBlanks = " \t";

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool is_letter_or_digit(char c) {
  return is_digit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// The text between its blanks; empty for null.
std::string_view trimmed(const char* input) {
  if (input == nullptr) return {};
  const std::string_view text(input);
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

extern "C" {

int32_t Passport_No_check(const char* input, char* out) {
  const std::string_view number = trimmed(input);
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
  const std::string_view date = trimmed(input);
  if (date.empty() || out == nullptr) return TQ_MISSING_CALL;
  if (date.size() != TQ_MRZ_DATE_LENGTH || !std::all_of(date.begin(), date.end(), is_digit))
    return TQ_OUT_OF_RANGE;
  std::copy(date.begin(), date.end(), out);
  return TQ_OK;
}

}  // extern "C"
