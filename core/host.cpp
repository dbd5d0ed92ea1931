#include "core/host.h"

#include <pthread.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct HostSeams {
  char root[ZORD_ROOT_MAX + 1] = {};
  int port = ZORD_DEFAULT_PORT;
  char error[160] = {};
};

HostSeams seams_read;
pthread_once_t seams_once = PTHREAD_ONCE_INIT;

void read_seams() {
  HostSeams& s = seams_read;
  if (const char* root = getenv("ZORD_ROOT"); root != nullptr && root[0] != '\0') {
    if (root[0] != '/')
      snprintf(s.error, sizeof s.error, "ZORD_ROOT must be an absolute path: %s", root);
    else if (strlen(root) > ZORD_ROOT_MAX)
      snprintf(s.error, sizeof s.error, "ZORD_ROOT must be at most %zu characters long",
               ZORD_ROOT_MAX);
    else
      snprintf(s.root, sizeof s.root, "%s", root);
  }
  if (const char* port = getenv("ZORD_PORT"); port != nullptr && port[0] != '\0') {
    char* end = nullptr;
    long value = strtol(port, &end, 10);
    if (*end != '\0' || value < 1 || value > 65535)
      snprintf(s.error, sizeof s.error, "ZORD_PORT must be a port number from 1 to 65535: %s",
               port);
    else
      s.port = static_cast<int>(value);
  }
}

const HostSeams& seams() {
  pthread_once(&seams_once, read_seams);
  return seams_read;
}

}  // namespace

const char* zord_root() { return seams().root; }

int zord_port() { return seams().port; }

bool rooted_path(char* out, size_t size, const char* fixed_path) {
  int n = snprintf(out, size, "%s%s", zord_root(), fixed_path);
  if (n < 0 || static_cast<size_t>(n) >= size) {
    if (size > 0) out[0] = '\0';
    return false;
  }
  return true;
}

const char* host_seams_error() { return seams().error[0] != '\0' ? seams().error : nullptr; }

namespace {
bool in_foreground = true;  // set by main() before any thread starts
}  // namespace

void set_foreground(bool foreground) { in_foreground = foreground; }

void foreground_warning(const char* format, ...) {
  if (!in_foreground) return;
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  fprintf(stderr, "zord: warning: %s\n", text);
}

bool missing_root_directory(char* out, size_t size) {
  out[0] = '\0';
  if (zord_root()[0] == '\0') return false;
  // The sockets live in tmp; the log in tmp/logs is warned about when it
  // cannot be opened.
  struct stat st {};
  rooted_path(out, size, "/tmp");
  if (stat(out, &st) == 0 && S_ISDIR(st.st_mode)) {
    out[0] = '\0';
    return false;
  }
  return true;
}
