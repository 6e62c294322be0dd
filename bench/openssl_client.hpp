// The exchange of tls_bench.cpp by libssl. It is looked up at run time: the library's own calls have the same
// names.
#pragma once

#include <string>

// A context for each exchange, as the library does it, or one for all.
enum class Context { kEach, kKept };

// Handshake, request, answer to its end, close_notify, on a connected socket. The answer; ends the program
// when it fails.
std::string openssl_exchange(int fd, const std::string& request, Context context);
