#include "sessions/session_table.h"

#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "sessions/kernel_encaps.h"

zor_db_entry zor_db[ZOR_DB_MAX_ENTRIES];
int32_t zor_db_num_entries = 0;

namespace {

bool same_session(const zor_db_entry& e, const char* tmgi, int32_t areaid) {
  return memcmp(e.tmgi, tmgi, TMGI_SIZE) == 0 && e.areaid == areaid;
}

// Header and nine rows of at most 77 characters each.
constexpr size_t PRINT_SIZE = 1024;

}  // namespace

zor_db_entry* zor_db_get_entry_by_all(const char* tmgi, uint32_t mc_addr, uint32_t uc_addr,
                                      int32_t uc_port, int32_t areaid, int32_t* index) {
  const char* name = "zor_db_get_entry_by_all";
  ZLOG_INFO("%s: looking for TMGI %s mc_addr %X uc_addr %X:%d areaid %d \n", name, tmgi, mc_addr,
            uc_addr, uc_port, areaid);
  for (int32_t i = 0; i < zor_db_num_entries; ++i) {
    zor_db_entry& e = zor_db[i];
    if (same_session(e, tmgi, areaid) && e.mc_addr == mc_addr && e.uc_addr == uc_addr &&
        e.uc_port == uc_port) {
      ZLOG_INFO("%s: found at index %d\n", name, i);
      *index = i;
      return &e;
    }
    // The stored TMGI may fill its field: at most its 12 characters.
    ZLOG_INFO("%s: [%02d] TMGI %.12s mc_addr %X uc_addr %X:%d areaid %d \n", name, i, e.tmgi,
              e.mc_addr, e.uc_addr, e.uc_port, e.areaid);
  }
  ZLOG_INFO("%s: didnt find entry\n", name);
  return nullptr;
}

zor_db_entry* zor_db_get_entry_by_tmgi_areaid(const char* tmgi, int32_t areaid, int32_t* index) {
  ZLOG_INFO("%s: looking for TMGI %s  areaid %d \n", "zor_db_get_entry_by_tmgi_areaid", tmgi,
            areaid);
  for (int32_t i = 0; i < zor_db_num_entries; ++i) {
    if (same_session(zor_db[i], tmgi, areaid)) {
      *index = i;
      return &zor_db[i];
    }
  }
  return nullptr;
}

int32_t zor_db_count_entries_by_tmgi_areaid(const char* tmgi, int32_t areaid) {
  int32_t count = 0;
  for (int32_t i = 0; i < zor_db_num_entries; ++i)
    if (same_session(zor_db[i], tmgi, areaid)) ++count;
  return count;
}

zor_db_entry* zor_db_get_entry_by_ucast(uint32_t uc_addr, int32_t uc_port, int32_t* index) {
  for (int32_t i = 0; i < zor_db_num_entries; ++i) {
    if (zor_db[i].uc_addr == uc_addr && zor_db[i].uc_port == uc_port) {
      *index = i;
      return &zor_db[i];
    }
  }
  return nullptr;
}

zor_db_entry* zor_db_get_entry_by_index(int32_t index) {
  if (index >= zor_db_num_entries) {
    ZLOG_ERROR("error: zor_db index %d is invalid\n", index);
    return nullptr;
  }
  return &zor_db[index];
}

int32_t zor_db_insert_entry(const char* tmgi, uint32_t mc_addr, uint32_t uc_addr, int32_t uc_port,
                            int32_t areaid) {
  if (zor_db_num_entries >= ZOR_DB_MAX_ENTRIES) {
    ZLOG_ERROR("zor db is full cannot insert new entry\n");
    return -1;
  }
  int32_t found = -1;
  if (zor_db_get_entry_by_all(tmgi, mc_addr, uc_addr, uc_port, areaid, &found) != nullptr) {
    ZLOG_ERROR("zor db cannot insert duplicate entries, former entry index is %d\n", found);
    return -1;
  }
  ZLOG_INFO("inserting index %d tmgi %s mcaddr %X ucaddr %X ucport %d areaid %d\n",
            zor_db_num_entries, tmgi, mc_addr, uc_addr, uc_port, areaid);
  zor_db_entry& e = zor_db[zor_db_num_entries];
  memcpy(e.tmgi, tmgi, TMGI_SIZE);
  e.areaid = areaid;
  e.mc_addr = mc_addr;
  e.uc_addr = uc_addr;
  e.uc_port = uc_port;
  ++zor_db_num_entries;
  set_kernel_mcast_encaps(1, mc_addr, 0, uc_addr, uc_port);
  return 0;
}

int32_t zor_db_remove_entry_by_index(int32_t index) {
  if (zor_db_num_entries == 0) {
    ZLOG_ERROR("error cannot erase from zor db when it is empty\n");
    return -1;
  }
  // Callers never pass a negative index; it is refused all the same.
  if (index >= zor_db_num_entries || index < 0) {
    ZLOG_ERROR("error: zor_db index %d is invalid\n", index);
    return -1;
  }
  const zor_db_entry& e = zor_db[index];
  set_kernel_mcast_encaps(0, e.mc_addr, 0, e.uc_addr, e.uc_port);
  memmove(&zor_db[index], &zor_db[index + 1],
          sizeof(zor_db_entry) * static_cast<size_t>(zor_db_num_entries - index - 1));
  --zor_db_num_entries;
  return 0;
}

int32_t zor_db_remove_entries_by_ucast(uint32_t uc_addr, int32_t uc_port, int32_t* count,
                                       zor_db_pair* list) {
  memset(list, 0, 4);
  int32_t removed = 0;
  int32_t pairs = 0;
  // A record that moves into a freed place is looked at in the next pass.
  for (bool again = true; again;) {
    again = false;
    for (int32_t i = 0; i < zor_db_num_entries; ++i) {
      const zor_db_entry& e = zor_db[i];
      if (e.uc_addr != uc_addr || e.uc_port != uc_port) continue;
      if (zor_db_count_entries_by_tmgi_areaid(e.tmgi, e.areaid) == 1 &&
          pairs < ZOR_DB_MAX_ENTRIES) {
        memcpy(list[pairs].tmgi, e.tmgi, TMGI_SIZE);
        list[pairs].areaid = e.areaid;
        ++pairs;
      }
      zor_db_remove_entry_by_index(i);
      ++removed;
      again = true;
    }
  }
  *count = pairs;
  return removed;
}

int32_t zor_db_print_db() {
  char text[PRINT_SIZE] = {};
  size_t used = static_cast<size_t>(
      snprintf(text, sizeof text, "#    TMGI        AREAID MC_ADDR      UC_ADDR      UC_PORT\n"));
  for (int32_t i = 0; i < zor_db_num_entries && used < sizeof text; ++i) {
    const zor_db_entry& e = zor_db[i];
    char mc[20], uc[20];
    format_ipv4(e.mc_addr, mc);
    format_ipv4(e.uc_addr, uc);
    int n =
        snprintf(text + used, sizeof text - used, "[%02d] %.*s %d %s %s %d \n", i,
                 static_cast<int>(strnlen(e.tmgi, TMGI_SIZE)), e.tmgi, e.areaid, mc, uc, e.uc_port);
    if (n > 0) used += static_cast<size_t>(n);
  }
  ZLOG_INFO("%s\n", text);
  return 0;
}
