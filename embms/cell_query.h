// The serving-cell query shared by the AT+CEVVMEV and AT+CEVVMCMD handlers:
// registration, operator, duplex mode and the cell identity text built from them.
#pragma once

#include <cstddef>

constexpr size_t ANSWER_SIZE = 2048;

// The fields of a registration answer. tac and ci are also kept whole, as
// places in the scanned answer, for the log entry; the cut copies feed the
// cell identity text.
struct Registration {
  int fields = 0;  // conversions made (fewer than 4: no registration answer)
  int n = 0;
  int stat = 0;
  char tac[5] = {};  // as between the commas, quotes included
  char ci[9] = {};
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
// false when there is none; else plmn (7 bytes) holds at most 6 characters
// and *length the token's own length.
bool find_plmn(const char* answer, char* plmn, size_t* length);

// The 3 characters after "duplexing mode: " into duplex (4 bytes).
bool find_duplex(const char* answer, char* duplex);

// PLMN, then tac from its first character, then 7 characters of ci from its
// second: 17 characters for a 6-character PLMN token, else 16 from the first
// 5 PLMN characters ("mccmnc strlen 5" logged). A short piece ends the text.
void build_cell_id(const char* plmn, size_t plmn_length, const Registration& reg,
                   char* cell_id /* 18 bytes */);

// Steps of the query with their log entries, for handler `name`:
// AT+COPS=3,2 and AT+COPS? (answer cleared first), then AT%PCONI.
bool query_plmn(const char* name, char* answer, int* status, char* plmn, size_t* plmn_length);
bool query_duplex(const char* name, char* answer, int* status, char* duplex);
// The registration answer's log entries.
void log_registration(const char* name, const Registration& reg);
