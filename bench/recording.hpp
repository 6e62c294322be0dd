// A recorded read: what the server and the card answered to which bytes. Of a passport, whose commands differ
// in every read, the recording has the files.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct Recording {
  using Bytes = std::vector<uint8_t>;
  struct ServerExchange {
    Bytes request;
    Bytes response;
  };
  struct CardExchange {
    uint8_t serial;
    Bytes command;
    Bytes answer;
  };

  struct Passport {
    std::string number;
    std::string birth;
    std::string expiry;
    std::map<uint16_t, Bytes> files;
  };

  std::map<std::string, std::string> init;
  int64_t time = 0;
  std::vector<ServerExchange> server;
  std::vector<CardExchange> card;
  Passport passport;

  bool of_passport() const { return !passport.files.empty(); }

  // Reads a file of record.mjs; ends the program when it cannot.
  static Recording load(const char* path);
};

// Whole frame length of a frame that starts with these bytes, 0 while it is not known.
size_t frame_length(const Recording::Bytes& bytes);

// Serves recorded responses on loopback, each after `delay_ms`, until the process ends. Prints the port. A
// request that is not the recorded one ends the program with a message; of a passport's files, which are
// encrypted in a chain, only what comes behind the new answer to INTERNAL AUTHENTICATE may differ. `silent`
// reads and never answers.
[[noreturn]] void serve(const Recording& recording, int delay_ms, bool silent);

// Connects to a loopback port; ends the program when it cannot.
int connect_to(uint16_t port);
