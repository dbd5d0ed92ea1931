// For thread bodies that are not written yet: the real ones never return, so
// a placeholder logs its entry and then waits for good, as they would.
#pragma once

#include <unistd.h>

[[noreturn]] inline void block_for_good() {
  for (;;) pause();
}
