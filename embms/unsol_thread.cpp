#include "embms/unsol_thread.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "atserver/atsw_link.h"
#include "core/log.h"
#include "core/relaxed.h"
#include "embms/cell_query.h"
#include "embms/lte_reg_thread.h"
#include "gateway/at_queue.h"

int unsol_atsw_fd = 0;

namespace {

constexpr unsigned ENTER_REGISTERED_PAUSE_S = 7;

void send_signal(const char* name) {
  char signal_text[128] = {};
  snprintf(signal_text, sizeof signal_text, "%s\n\r", "+UNSOL:1");
  ssize_t ignored = write(at_unsol_sockfd[1], signal_text, strlen(signal_text));
  (void)ignored;
  ZLOG_INFO("##UNSOL %s:send unsol=%s\n", name, signal_text);
}

}  // namespace

int zorUnsol_ReadLine(int fd, char* buf, size_t size) {
  size_t count = 0;
  while (count < size) {
    char c;
    if (read(fd, &c, 1) <= 0) return -1;
    buf[count++] = c;
    if (c == '\n' || c == '\r') break;
  }
  return static_cast<int>(count);
}

int get_unsolenable() {
  ZLOG_INFO("%s entry\n", "get_unsolenable");
  for (int i = 0; i < MAX_CHILDS; ++i)
    if (relaxed_load(childs[i].unsol_enabled) == 1) return 1;
  return 0;
}

bool is_registration_report(const char* line) {
  return strcasestr(line, "CREG:") != nullptr || strcasestr(line, "CEREG:") != nullptr ||
         strcasestr(line, "CGREG:") != nullptr;
}

void* zorUnsol_ThreadMain(void*) {
  const char* name = "zorUnsol_ThreadMain";
  char path[ATSW_PATH_SIZE] = {};
  char line[2048] = {};
  findSocketName("VVMUNSOL", path);
  ZLOG_INFO("%s: entry will work with:\n  atsw_unsol: %s\n", name, path);
  zor_OpenSocketToAtSwitch("UNSOL", path, &unsol_atsw_fd);
  ZLOG_INFO("start reading UNSOL fd %d\n", unsol_atsw_fd);

  for (;;) {
    memset(line, 0, sizeof line);
    int n = zorUnsol_ReadLine(unsol_atsw_fd, line, sizeof line - 1);
    if (n == -1) {
      ZLOG_ERROR("%s: error reading from at switch %s\n", name, path);
      return nullptr;
    }
    ZLOG_INFO("read %d bytes[%s]\n", n, line);
    if (!is_registration_report(line)) continue;

    int state = -1;
    if (const char* colon = strchr(line, ':')) sscanf(colon, ": %3d", &state);
    if (get_unsolenable() == 0) {
      ZLOG_INFO("%s: unsol disable\n", name);
      relaxed_store(last_event_num, static_cast<int32_t>(state));
      continue;
    }
    bool was_registered = is_registered(relaxed_load(last_event_num));
    bool now_registered = is_registered(state);
    // Entering service waits 7 s; leaving it, or staying in it, is told at once.
    if (!was_registered && now_registered) sleep(ENTER_REGISTERED_PAUSE_S);
    relaxed_store(last_event_num, static_cast<int32_t>(state));
    if (was_registered || now_registered) send_signal(name);
  }
}
