// What a step of a read comes to.
#pragma once

#include <cstdint>

namespace tq {

class Outcome {
 public:
  // The next command has been sent; its answer is awaited.
  static Outcome go_on() { return {Kind::kGoOn, 0}; }
  // The read is over: `code` is its result.
  static Outcome end_with(int32_t code) { return {Kind::kEnd, code}; }
  // The read is over and nobody is told.
  static Outcome end_silently() { return {Kind::kSilent, 0}; }
  // A negative code ends the read, anything else goes on.
  static Outcome unless_failed(int32_t code) { return code < 0 ? end_with(code) : go_on(); }

  bool goes_on() const { return kind_ == Kind::kGoOn; }
  bool silent() const { return kind_ == Kind::kSilent; }
  int32_t code() const { return code_; }

 private:
  enum class Kind : uint8_t { kGoOn, kEnd, kSilent };
  Outcome(Kind kind, int32_t code) : kind_(kind), code_(code) {}

  Kind kind_;
  int32_t code_;
};

}  // namespace tq
