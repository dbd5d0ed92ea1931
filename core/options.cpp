// Option parsing and the usage text.
#include "core/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int32_t station_timeout = -1;
int32_t requested_log_severity = 1;

const char* const zord_build_date = __DATE__;
const char* const zord_build_time = __TIME__;

namespace {

constexpr int32_t DEFAULT_STATION_TIMEOUT = 1500000;  // 25 minutes

const struct option zord_long_options[] = {
    {"daemonize", no_argument, nullptr, 'd'},
    {"log_severity", required_argument, nullptr, 'v'},
    {"station_timeout", required_argument, nullptr, 't'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

void print_usage(const char* program_name) {
  printf(
      "Orvane ZOR Daemon. -  compilation time %s:%s\nUsage: %s:\n"
      "[-v 'log_severity (0-INIT, 1-ERROR, 2-WARNING, 3-INFO, 4-VERBOSE, 5-DEBUG)' ]\n"
      "[-d/--daemonize]\n"
      "[-t/--station_timeout timeout in msec for station incativity]\n"
      "[-h --help]\n",
      zord_build_date, zord_build_time, program_name);
}

void parse_options(int argc, char** argv, bool* daemonize_flag) {
  struct option long_options[sizeof zord_long_options / sizeof zord_long_options[0]];
  memcpy(long_options, zord_long_options, sizeof long_options);

  int index = 0;
  int opt;
  while ((opt = getopt_long(argc, argv, "hdv:t:", long_options, &index)) != -1) {
    switch (opt) {
      case 'h':
      case '?':
        print_usage(argv[0]);
        exit(1);
      case 'd':
        *daemonize_flag = true;
        break;
      case 'v':
        requested_log_severity = atoi(optarg);
        break;
      case 't':
        station_timeout = atoi(optarg);
        break;
      default:
        break;
    }
  }
  if (station_timeout == -1) station_timeout = DEFAULT_STATION_TIMEOUT;
}
