// The LTE interface's multicast-to-unicast forwarding rules, kept in two
// control files of its sysfs directory: one line adds a rule, one deletes it.
#pragma once

#include <cstdint>

// Adds (set non-zero) or deletes the rule that forwards the group, encapsulated,
// to the unicast address and port. Addresses have their first octet in the
// most significant byte. 0 when the line was written, -1 when not.
int set_kernel_mcast_encaps(int set, uint32_t mc_addr, int32_t mc_port, uint32_t uc_addr,
                            int32_t uc_port);

// "a.b.c.d", most significant octet first, into text (at least 16 bytes).
void format_ipv4(uint32_t addr, char* text);
