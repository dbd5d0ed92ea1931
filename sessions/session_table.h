// The eMBMS session table: which client receives which session. Every record
// is mirrored by a kernel forwarding rule. Used by the activate and
// deactivate handlers only, on the command server thread (no lock).
#pragma once

#include <cstdint>

constexpr int ZOR_DB_MAX_ENTRIES = 9;
constexpr int TMGI_SIZE = 12;

struct zor_db_entry {
  char tmgi[TMGI_SIZE];  // 12 hex digits; no terminator when all are used
  int32_t areaid;
  uint32_t mc_addr;  // first octet in the most significant byte
  uint32_t uc_addr;  // likewise
  int32_t uc_port;
};
static_assert(sizeof(zor_db_entry) == 28);

// A session that lost its last receiver.
struct zor_db_pair {
  char tmgi[TMGI_SIZE];
  int32_t areaid;
};
static_assert(sizeof(zor_db_pair) == 16);

extern zor_db_entry zor_db[ZOR_DB_MAX_ENTRIES];
extern int32_t zor_db_num_entries;

// TMGI texts are compared and copied as 12 bytes: callers pass 12.
int32_t zor_db_insert_entry(const char* tmgi, uint32_t mc_addr, uint32_t uc_addr, int32_t uc_port,
                            int32_t areaid);
zor_db_entry* zor_db_get_entry_by_all(const char* tmgi, uint32_t mc_addr, uint32_t uc_addr,
                                      int32_t uc_port, int32_t areaid, int32_t* index);
zor_db_entry* zor_db_get_entry_by_tmgi_areaid(const char* tmgi, int32_t areaid, int32_t* index);
int32_t zor_db_count_entries_by_tmgi_areaid(const char* tmgi, int32_t areaid);
zor_db_entry* zor_db_get_entry_by_ucast(uint32_t uc_addr, int32_t uc_port, int32_t* index);
zor_db_entry* zor_db_get_entry_by_index(int32_t index);
int32_t zor_db_remove_entry_by_index(int32_t index);
// Removes every record of the client; list (ZOR_DB_MAX_ENTRIES pairs) gets the
// sessions that no other client receives, *count how many. Records removed.
int32_t zor_db_remove_entries_by_ucast(uint32_t uc_addr, int32_t uc_port, int32_t* count,
                                       zor_db_pair* list);
int32_t zor_db_print_db();
