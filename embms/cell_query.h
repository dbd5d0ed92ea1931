// The serving-cell query shared by the AT+CEVVMEV and AT+CEVVMCMD handlers:
// registration, operator, duplex mode and the cell identity text built from them.
// No state of its own: the handlers (command server thread) and the
// registration thread call it with their own buffers; their commands go over
// the one shared switch connection (atserver/atsw_link.h).
//
// zordctl includes this header for the layout of the cell identity text and
// links nothing of the daemon: keep it to declarations and constants.
#pragma once

#include <cstddef>

constexpr size_t ANSWER_SIZE = 2048;

// The cell identity text: the PLMN (6 characters, or the first 5 when the
// operator's token is not 6 long), then 4 characters of the tracking area
// from its first and 7 of the cell id from its second, as the registration
// answer has them.
constexpr size_t CELL_PLMN_WIDTH = 6;
constexpr size_t CELL_PLMN_SHORT_WIDTH = 5;
constexpr size_t CELL_TAC_WIDTH = 4;
constexpr size_t CELL_CI_WIDTH = 7;
constexpr size_t CELL_ID_LENGTH = CELL_PLMN_WIDTH + CELL_TAC_WIDTH + CELL_CI_WIDTH;  // 17
constexpr size_t CELL_ID_SHORT_LENGTH =
    CELL_PLMN_SHORT_WIDTH + CELL_TAC_WIDTH + CELL_CI_WIDTH;  // 16
constexpr size_t CELL_ID_SIZE = CELL_ID_LENGTH + 1;          // with its terminator

// The fields of a registration answer. tac and ci are also kept whole, as
// places in the scanned answer, for the log entry; the cut copies feed the
// cell identity text.
struct Registration {
  int fields = 0;  // conversions made (fewer than 4: no registration answer)
  int n = 0;
  int stat = 0;
  char tac[CELL_TAC_WIDTH + 1] = {};    // as between the commas, quotes included
  char ci[1 + CELL_CI_WIDTH + 1] = {};  // the cell text skips the first character
  int act = 0;
  const char* tac_whole = "";  // in the answer; valid while it is
  int tac_length = 0;
  const char* ci_whole = "";
  int ci_length = 0;
};

// Sends AT+CEREG? into answer (cleared first). With `retry`, an answer that
// did not end in OK is asked for once more after 500 ms.
void ask_registration(const char* name, char* answer, size_t size, bool retry);

// Scans an answer with "%[^:]: %d, %d, %[^,], %[^,], %d\n".
Registration scan_registration(const char* answer);

// stat 1 (home) or 5 (roaming).
bool is_registered(int stat);

// The PLMN: the second token of the answer split on double quotes. Returns
// false when there is none; else plmn (CELL_PLMN_WIDTH + 1 bytes) holds at
// most CELL_PLMN_WIDTH characters and *length the token's own length.
bool find_plmn(const char* answer, char* plmn, size_t* length);

// The 3 characters after "duplexing mode: " into duplex (4 bytes).
bool find_duplex(const char* answer, char* duplex);

// PLMN, then tac from its first character, then 7 characters of ci from its
// second: 17 characters for a 6-character PLMN token, else 16 from the first
// 5 PLMN characters ("mccmnc strlen 5" logged). A short piece ends the text.
void build_cell_id(const char* plmn, size_t plmn_length, const Registration& reg,
                   char* cell_id /* CELL_ID_SIZE bytes */);

// Steps of the query with their log entries, for handler `name`:
// AT+COPS=3,2 and AT+COPS? (answer cleared first), then AT%PCONI.
bool query_plmn(const char* name, char* answer, int* status, char* plmn, size_t* plmn_length);
bool query_duplex(const char* name, char* answer, int* status, char* duplex);
// The registration answer's log entries.
void log_registration(const char* name, const Registration& reg);
