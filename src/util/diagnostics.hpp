// What log level 2 shows of a read on standard output, in a build with the full log. In any other there is
// neither a dump nor a label of one.
#pragma once

#include <cstdint>
#include <span>

namespace tq {

enum class Dump : uint8_t { kCommand, kAnswer, kRequest, kResponse };

// Label and bytes, as print_hex.
void dump(Dump what, std::span<const uint8_t> bytes);

}  // namespace tq
