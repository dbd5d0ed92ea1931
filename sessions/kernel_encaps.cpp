#include "sessions/kernel_encaps.h"

#include <cstdio>

#include "core/host.h"
#include "core/log.h"

namespace {

constexpr const char* ENCAPS_DIR = "/sys/devices/virtual/net/lte0";
constexpr size_t ADDR_TEXT_SIZE = 20;
constexpr size_t COMMAND_SIZE = 512;

}  // namespace

void format_ipv4(uint32_t addr, char* text) {
  snprintf(text, ADDR_TEXT_SIZE, "%d.%d.%d.%d", static_cast<int>(addr >> 24),
           static_cast<int>((addr >> 16) & 0xff), static_cast<int>((addr >> 8) & 0xff),
           static_cast<int>(addr & 0xff));
}

int set_kernel_mcast_encaps(int set, uint32_t mc_addr, int32_t mc_port, uint32_t uc_addr,
                            int32_t uc_port) {
  char mc_text[ADDR_TEXT_SIZE] = {};
  char uc_text[ADDR_TEXT_SIZE] = {};
  if (mc_addr == 0)
    snprintf(mc_text, sizeof mc_text, "0.0.0.0");
  else
    format_ipv4(mc_addr, mc_text);
  format_ipv4(uc_addr, uc_text);

  const char* file = set ? "ue_fw_mcast_encaps_set" : "ue_fw_mcast_encaps_del";
  char dir[128];
  rooted_path(dir, sizeof dir, ENCAPS_DIR);
  // The entry shows the shell line that writes the rule; the file is written
  // directly, with the same line, so no shell is started per rule.
  char command[COMMAND_SIZE];
  snprintf(command, sizeof command, "echo %s %d %s %d > %s/%s\n", mc_text, mc_port, uc_text,
           uc_port, dir, file);
  ZLOG_INFO("data to kernel: %s", command);

  char path[COMMAND_SIZE];
  snprintf(path, sizeof path, "%s/%s", dir, file);
  FILE* f = fopen(path, "w");
  if (f == nullptr) return -1;
  int written = fprintf(f, "%s %d %s %d\n", mc_text, mc_port, uc_text, uc_port);
  int closed = fclose(f);
  return written < 0 || closed != 0 ? -1 : 0;
}
