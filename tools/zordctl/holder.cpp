#include "tools/zordctl/holder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned LISTEN = 0x0A;  // the kernel's TCP_LISTEN, as its tables show it

// The inode of the listening socket for address:port in /proc/net/tcp, or in
// /proc/net/tcp6 one bound to any address (it takes IPv4 connections too).
// The tables print an address as the 32-bit words it is stored in, in the
// kernel's order, which is how s_addr reads here too; under an emulator of
// another order (qemu-user) they come in the host's, so both are taken.
unsigned long listening_inode(in_addr address, int port) {
  unsigned long exact = 0, any = 0;
  char line[512];
  if (FILE* f = fopen("/proc/net/tcp", "re")) {
    while (fgets(line, sizeof line, f) != nullptr) {
      unsigned local = 0, local_port = 0, state = 0;
      unsigned long inode = 0;
      if (sscanf(line, " %*d: %8X:%4X %*8X:%*4X %2X %*X:%*X %*X:%*X %*X %*u %*d %lu", &local,
                 &local_port, &state, &inode) != 4 ||
          state != LISTEN || static_cast<int>(local_port) != port)
        continue;
      if (local == address.s_addr || local == __builtin_bswap32(address.s_addr)) exact = inode;
      if (local == INADDR_ANY) any = inode;
    }
    fclose(f);
  }
  if (exact != 0 || any != 0) return exact != 0 ? exact : any;
  if (FILE* f = fopen("/proc/net/tcp6", "re")) {
    while (fgets(line, sizeof line, f) != nullptr) {
      char local[33] = {};
      unsigned local_port = 0, state = 0;
      unsigned long inode = 0;
      if (sscanf(line,
                 " %*d: %32[0-9A-F]:%4X %*32[0-9A-F]:%*4X %2X %*X:%*X %*X:%*X %*X %*u %*d %lu",
                 local, &local_port, &state, &inode) == 4 &&
          state == LISTEN && static_cast<int>(local_port) == port && strspn(local, "0") == 32)
        any = inode;
    }
    fclose(f);
  }
  return any;
}

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

// Whether the address is one of this host's: only then are its listeners in
// this host's tables.
bool is_own(in_addr address) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_addr = address;
  bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&own), sizeof own) == 0;
  if (fd >= 0) close(fd);
  return bound;
}

}  // namespace

bool port_holder(in_addr address, int port, Holder& holder) {
  if (!is_own(address)) return false;
  unsigned long inode = listening_inode(address, port);
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
