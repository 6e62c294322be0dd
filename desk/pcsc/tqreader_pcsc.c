// Carries commands to a card in a PC/SC reader. A program and no part of another process: pcscd may take its
// time for an answer, and ending this program gives the reader back whatever the card is doing.
//
//   tqreader-pcsc watch         tells of the readers, now and at every change, until standard input ends:
//                                 readers TAB state:name TAB ...    state: empty, card, used, mute
//   tqreader-pcsc card READER   connects to the card, alone, and takes commands from standard input, a line
//   each:
//                                 card TAB bytes of the ATR         once, when the card is connected
//                                 bytes                             answer to each command
// Bytes are hexadecimal. What goes wrong is told as `failed TAB code`, the code of PC/SC in eight hexadecimal
// digits; `watch` goes on when the service is back, `card` ends.

#include <ctype.h>
#include <poll.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <winscard.h>

enum {
  kMaxReaders = 16,
  kMaxNames = 4096,
  kMaxCommand = 4096,
  kMaxAnswer = 65538,
  kStatusWord = 2,
  kLookAgain = 500,   // milliseconds between looks at standard input, and for the service
  kRemovalSeen = 700  // pcscd looks at its cards every 400 ms
};

static const char kNewReaders[] = "\\\\?PnP?\\Notification";

static int failed(LONG code) {
  printf("failed\t%08lX\n", (unsigned long)code & 0xFFFFFFFFUL);
  return 1;
}

static void print_hex(const uint8_t* bytes, size_t len) {
  for (size_t i = 0; i < len; i++) printf("%02X", bytes[i]);
}

// True when standard input has ended; waits for at most `timeout_ms`.
static bool input_ended(int timeout_ms) {
  struct pollfd input = {.fd = 0, .events = POLLIN};
  char ignored[64];
  if (poll(&input, 1, timeout_ms) <= 0) return false;
  return fgets(ignored, sizeof ignored, stdin) == NULL;
}

// --- watch
// -------------------------------------------------------------------------------------------------------------

static const char* word_of(DWORD state) {
  if (!(state & SCARD_STATE_PRESENT)) return "empty";
  if (state & SCARD_STATE_MUTE) return "mute";
  return state & SCARD_STATE_EXCLUSIVE ? "used" : "card";
}

// The names of the readers, one behind the other, as PC/SC lists them; an empty list is no failure.
static LONG list_readers(SCARDCONTEXT context, char* names) {
  DWORD len = kMaxNames;
  memset(names, 0, kMaxNames);
  const LONG code = SCardListReaders(context, NULL, names, &len);
  return code == SCARD_E_NO_READERS_AVAILABLE ? SCARD_S_SUCCESS : code;
}

static void print_readers(const SCARD_READERSTATE* readers, size_t num_readers) {
  printf("readers");
  for (size_t i = 0; i < num_readers; i++) {
    printf("\t%s:", word_of(readers[i].dwEventState));
    for (const char* c = readers[i].szReader; *c != '\0'; c++) putchar(iscntrl((unsigned char)*c) ? ' ' : *c);
  }
  putchar('\n');
}

// Tells of the readers until their number changes (success) or the service fails. `*ended`: standard input
// has ended.
static LONG watch_these(SCARDCONTEXT context, bool* ended) {
  static char names[kMaxNames];
  SCARD_READERSTATE readers[kMaxReaders + 1] = {0};
  size_t num_readers = 0;
  LONG code = list_readers(context, names);
  if (code != SCARD_S_SUCCESS) return code;
  for (const char* name = names; *name != '\0' && num_readers < kMaxReaders; name += strlen(name) + 1) {
    readers[num_readers++].szReader = name;
  }
  const size_t num_states = num_readers + 1;
  readers[num_readers].szReader = kNewReaders;
  readers[num_readers].dwCurrentState = (DWORD)(num_readers << 16);
  bool changed =
      num_readers == 0 || SCardGetStatusChange(context, 0, readers, (DWORD)num_readers) == SCARD_S_SUCCESS;
  for (;;) {
    if (changed) print_readers(readers, num_readers);
    if ((*ended = input_ended(0))) return SCARD_S_SUCCESS;
    for (size_t i = 0; i < num_readers; i++) readers[i].dwCurrentState = readers[i].dwEventState;
    code = SCardGetStatusChange(context, kLookAgain, readers, (DWORD)num_states);
    changed = code == SCARD_S_SUCCESS;
    if (!changed && code != SCARD_E_TIMEOUT) return code == SCARD_E_UNKNOWN_READER ? SCARD_S_SUCCESS : code;
    if (!changed) continue;
    if (readers[num_readers].dwEventState & SCARD_STATE_CHANGED) return SCARD_S_SUCCESS;
    for (size_t i = 0; i < num_readers; i++) {
      if (readers[i].dwEventState & (SCARD_STATE_UNKNOWN | SCARD_STATE_UNAVAILABLE)) return SCARD_S_SUCCESS;
    }
  }
}

static int watch(void) {
  LONG told = SCARD_S_SUCCESS;
  bool ended = false;
  while (!ended) {
    SCARDCONTEXT context;
    LONG code = SCardEstablishContext(SCARD_SCOPE_SYSTEM, NULL, NULL, &context);
    if (code == SCARD_S_SUCCESS) {
      told = SCARD_S_SUCCESS;
      while (!ended && (code = watch_these(context, &ended)) == SCARD_S_SUCCESS) continue;
      SCardReleaseContext(context);
    }
    if (ended) break;
    if (code != told) failed(code);
    told = code;
    ended = input_ended(kLookAgain);
  }
  return 0;
}

// --- card
// --------------------------------------------------------------------------------------------------------------

// Bytes of a line of hexadecimal digits; -1 when it is none or does not fit.
static long bytes_of(const char* line, uint8_t* out, size_t room) {
  size_t len = 0;
  for (; isxdigit((unsigned char)line[0]) && isxdigit((unsigned char)line[1]); line += 2) {
    if (len == room) return -1;
    const char digits[3] = {line[0], line[1], '\0'};
    out[len++] = (uint8_t)strtoul(digits, NULL, 16);
  }
  return *line == '\n' || *line == '\0' ? (long)len : -1;
}

// Why an exchange has failed: the reader's own code tells little when card or reader are gone.
static LONG reason_of(SCARDCONTEXT context, const char* name, LONG code) {
  SCARD_READERSTATE reader = {.szReader = name, .dwCurrentState = SCARD_STATE_PRESENT | SCARD_STATE_INUSE};
  for (int waited = 0; waited < kRemovalSeen; waited += 100) {
    const LONG asked = SCardGetStatusChange(context, 0, &reader, 1);
    if (asked == SCARD_E_UNKNOWN_READER) return SCARD_E_READER_UNAVAILABLE;
    if (asked != SCARD_S_SUCCESS && asked != SCARD_E_TIMEOUT) return asked;
    if (reader.dwEventState & (SCARD_STATE_UNKNOWN | SCARD_STATE_UNAVAILABLE))
      return SCARD_E_READER_UNAVAILABLE;
    if (reader.dwEventState & SCARD_STATE_EMPTY) return SCARD_W_REMOVED_CARD;
    poll(NULL, 0, 100);
  }
  return code;
}

static LONG carry_commands(SCARDCONTEXT context, SCARDHANDLE card, const char* name,
                           const SCARD_IO_REQUEST* protocol) {
  static char line[2 * kMaxCommand + 2];
  static uint8_t command[kMaxCommand];
  static uint8_t answer[kMaxAnswer];
  while (fgets(line, sizeof line, stdin) != NULL) {
    const long len = bytes_of(line, command, sizeof command);
    if (len <= 0) return SCARD_E_INVALID_PARAMETER;
    DWORD received = sizeof answer;
    LONG code = SCardTransmit(card, protocol, command, (DWORD)len, NULL, answer, &received);
    if (code == SCARD_S_SUCCESS && received < kStatusWord) code = SCARD_E_NOT_TRANSACTED;
    if (code != SCARD_S_SUCCESS) return reason_of(context, name, code);
    print_hex(answer, received);
    putchar('\n');
  }
  return SCARD_S_SUCCESS;
}

static int carry(const char* name) {
  SCARDCONTEXT context;
  LONG code = SCardEstablishContext(SCARD_SCOPE_SYSTEM, NULL, NULL, &context);
  if (code != SCARD_S_SUCCESS) return failed(code);
  SCARDHANDLE card;
  DWORD protocol = 0;
  code = SCardConnect(context, name, SCARD_SHARE_EXCLUSIVE, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card,
                      &protocol);
  if (code == SCARD_S_SUCCESS) {
    uint8_t atr[MAX_ATR_SIZE];
    DWORD atr_len = sizeof atr;
    code = SCardStatus(card, NULL, NULL, NULL, NULL, atr, &atr_len);
    if (code == SCARD_S_SUCCESS) {
      printf("card\t");
      print_hex(atr, atr_len);
      putchar('\n');
      code = carry_commands(context, card, name, protocol == SCARD_PROTOCOL_T1 ? SCARD_PCI_T1 : SCARD_PCI_T0);
    }
    SCardDisconnect(card, SCARD_RESET_CARD);
  }
  SCardReleaseContext(context);
  return code == SCARD_S_SUCCESS ? 0 : failed(code);
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  setvbuf(stdin, NULL, _IOLBF, 0);
  if (argc == 2 && strcmp(argv[1], "watch") == 0) return watch();
  if (argc == 3 && strcmp(argv[1], "card") == 0) return carry(argv[2]);
  fprintf(stderr, "Usage: tqreader-pcsc watch | tqreader-pcsc card READER\n");
  return 2;
}
