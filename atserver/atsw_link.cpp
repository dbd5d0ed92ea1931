#include "atserver/atsw_link.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atserver/result_writers.h"
#include "core/host.h"
#include "core/log.h"
#include "core/relaxed.h"

char* cmd_atsw_path = nullptr;
int cmd_atsw_fd = 0;

int findSocketName(const char* role, char* path) {
  char config[128];
  rooted_path(config, sizeof config, "/etc/atswitch_config/atswitch_ecm_config.csv");
  FILE* f = fopen(config, "r");
  if (f == nullptr) {
    ZLOG_ERROR("cannot read at switch config file\n");
    return -1;
  }
  // Only logged: the search below looks for the bare role name.
  char search[64];
  snprintf(search, sizeof search, "%%d,%s,", role);
  ZLOG_INFO("%s: search str= %s\n", "findSocketName", search);

  rewind(f);
  bool found = false;
  char line[1024];
  while (!found && fgets(line, sizeof line, f) != nullptr) {
    char* at = strstr(line, role);
    if (at == nullptr) continue;
    ZLOG_INFO("looking for %s  in %s\n", role, line);
    // The number ends where the role name starts: cut the line there.
    int number = 0;
    if (at > line) {
      at[-1] = '\0';
      number = atoi(line);
    }
    if (number > 0) {
      snprintf(path, ATSW_PATH_SIZE, "%s/tmp/atsw%d", zord_root(), number);
      ZLOG_INFO("%s found at sw config entry: %s\n", "findSocketName", path);
      found = true;
    } else {
      ZLOG_INFO("%s not in %s\n", role, line);
    }
  }
  if (!found) ZLOG_INFO("%s did not find  %s\n", "findSocketName", role);
  fclose(f);
  return 0;
}

int zor_OpenSocketToAtSwitch(const char* purpose, const char* path, int* fd_out) {
  ZLOG_INFO("%s entry\n", "zor_OpenSocketToAtSwitch");
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    release_store(*fd_out, fd);
    perror("socket");
    return -1;
  }
  ZLOG_INFO("Trying to connect to AT switch for %s \n", purpose);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path, strnlen(path, sizeof addr.sun_path));  // at most 108 characters
  // The descriptor is published once the connect is over, connected or not:
  // the registration thread starts using it as soon as it sees it.
  int connected = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  int error = errno;
  release_store(*fd_out, fd);
  if (connected < 0) {
    errno = error;
    perror("connect");
    return -1;  // the unconnected descriptor stays in *fd_out
  }
  ZLOG_INFO("connected to atswitch on %s for %s (FD %d)\n", path, purpose, fd);
  return 0;
}

int zor_checkRspOkOrError(const char* text, int* status) {
  int len = static_cast<int>(strlen(text));
  int ret = 1;
  int result = 0;
  if (strstr(text, "\r\nOK\r\n") != nullptr)
    result = 0;
  else if (strstr(text, "\r\nERROR\r\n") != nullptr)
    result = 1;
  else if (strstr(text, "CME ERROR") != nullptr)
    result = 1;
  else
    ret = 0;
  if (ret == 1 && status != nullptr) *status = result;
  if (ret == 0) LOG_AT_MSG(1, len, text);
  ZLOG_INFO("%s: msglen %d retval %d\n", "zor_checkRspOkOrError", len, ret);
  return ret;
}

int zorSrv_ExpandLoneCr(char* text, size_t capacity) {
  size_t len = strlen(text);
  size_t full = len;
  for (size_t i = 0; i < len; ++i)
    if (text[i] == '\r' && text[i + 1] != '\n') ++full;
  size_t kept = full < capacity ? full : capacity - 1;
  // In place, from the end: the expanded text never starts before the
  // original, so every byte is read before it can be overwritten. What lands
  // at or past `kept` is cut.
  size_t to = full;
  char next = '\0';  // the original byte after the one being moved
  for (size_t i = len; i-- > 0;) {
    char c = text[i];
    if (c == '\r' && next != '\n' && --to < kept) text[to] = '\n';
    if (--to < kept) text[to] = c;
    next = c;
  }
  text[kept] = '\0';
  return static_cast<int>(kept);
}

void zorSrv_sendATCmdToAtSwitch(const char* cmd, int* status, char* answer, size_t answer_size) {
  char out[ATSW_TEXT_SIZE] = {};
  // Reads land at the start of the first half; the second half stays zero so
  // that a full read is terminated, and takes what the line-end expansion
  // adds. One more byte holds the terminator of a fully expanded text.
  char rsp[2 * ATSW_TEXT_SIZE + 1] = {};

  // Only "A" or "a" followed by an upper-case "T" counts as a command's own
  // AT: "at+x" and "At+x" get another "AT" in front.
  if ((cmd[0] == 'A' || cmd[0] == 'a') && cmd[1] == 'T')
    snprintf(out, sizeof out, "%s\n", cmd);
  else
    snprintf(out, sizeof out, "AT%s\n", cmd);

  int fd = relaxed_load(cmd_atsw_fd);
  if (write(fd, out, strlen(out)) < 0) ZLOG_ERROR("    error is: %s\n", strerror(errno));

  for (;;) {
    ssize_t n = read(fd, rsp, ATSW_TEXT_SIZE);
    if (n < 0) {
      ZLOG_ERROR("error reading from at switch\n");
      return;
    }
    if (n == 0) {
      ZLOG_INFO("finished reading at switch rsp before getting OK or ERROR\n");
      return;
    }
    // Nothing is accumulated: a shorter read leaves the tail of the earlier
    // text behind it, and that tail is examined too.
    ZLOG_INFO("### ATSW RSP:  %X \n%s strlen(rsp)=%d \n",
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(rsp)), rsp,
              static_cast<int>(strlen(rsp)));
    zorSrv_ExpandLoneCr(rsp, sizeof rsp);
    if (zor_checkRspOkOrError(rsp, status) == 1) break;
  }
  if (status != nullptr) ZLOG_INFO("at switch rsp ended (%s)\n", *status != 0 ? "ERROR" : "OK");

  if (answer != nullptr) {
    size_t len = strlen(rsp);
    if (answer_size > 0 && len > answer_size - 1) len = answer_size - 1;
    memcpy(answer, rsp, len);
    return;
  }
  zorSrv_ForwardAtSwitchRsp(rsp);
}
