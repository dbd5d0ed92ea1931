// Who holds the port of a daemon on this host: the process with the
// listening socket that the kernel's table of TCP sockets names.
#pragma once

#include "tools/zordctl/link.h"

struct Holder {
  int pid = 0;
  char name[16] = {};  // its command name, as /proc/<pid>/comm gives it
};

// False when it cannot be told: a daemon on another host, nobody listening,
// or a socket of a process this user may not look into.
bool port_holder(const Link& link, Holder& holder);
