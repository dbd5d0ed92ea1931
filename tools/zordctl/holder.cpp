#include "tools/zordctl/holder.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool all_digits(const char* text) {
  return *text != '\0' && strspn(text, "0123456789") == strlen(text);
}

// Whether one of the process's descriptors is the socket.
bool holds(const char* pid, const char* socket_link) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%.20s/fd", pid);
  DIR* fds = opendir(path);
  if (fds == nullptr) return false;
  bool found = false;
  while (dirent* fd = readdir(fds)) {
    if (!all_digits(fd->d_name)) continue;
    char target[64] = {};
    ssize_t size = readlinkat(dirfd(fds), fd->d_name, target, sizeof target - 1);
    if (size > 0 && strcmp(target, socket_link) == 0) {
      found = true;
      break;
    }
  }
  closedir(fds);
  return found;
}

}  // namespace

bool port_holder(const Link& link, Holder& holder) {
  unsigned long inode = listener_inode(link);
  if (inode == 0) return false;
  char socket_link[40];
  snprintf(socket_link, sizeof socket_link, "socket:[%lu]", inode);
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return false;
  bool found = false;
  while (dirent* entry = readdir(proc)) {
    if (!all_digits(entry->d_name) || !holds(entry->d_name, socket_link)) continue;
    holder.pid = atoi(entry->d_name);
    char path[64];
    snprintf(path, sizeof path, "/proc/%.20s/comm", entry->d_name);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    ssize_t size = fd < 0 ? -1 : read(fd, holder.name, sizeof holder.name - 1);
    if (fd >= 0) close(fd);
    holder.name[size > 0 ? size : 0] = '\0';
    if (char* end = strchr(holder.name, '\n')) *end = '\0';
    found = true;
    break;
  }
  closedir(proc);
  return found;
}
