// Who holds a TCP port on this host: the process with the listening socket,
// found through the kernel's tables in /proc.
#pragma once

#include <netinet/in.h>

struct Holder {
  int pid = 0;
  char name[16] = {};  // its command name, as /proc/<pid>/comm gives it
};

// The process that listens on `port` for connections to `address` (as a
// connection to it would be taken: by the socket bound to the address
// itself, else by one bound to any address). False when it cannot be told:
// nobody listens, the socket belongs to a process this user may not look
// into, or there is no /proc.
bool port_holder(in_addr address, int port, Holder& holder);
