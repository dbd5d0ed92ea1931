// atsw-sim: the modem's AT switch on this machine, for running zord without
// a modem. Control commands come from standard input and from the control
// socket; SIGINT, SIGTERM or "quit" end it.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

#include "core/host.h"
#include "tools/atsw-sim/atsw_sim.h"
#include "zord_version.h"

namespace {

void usage(const char* name) {
  fprintf(stderr,
          "usage: %s [--cmd-socket N] [--unsol-socket N] [--keep-config] [--version]\n"
          "Plays the AT switch under $ZORD_ROOT: commands on /tmp/atsw<N> (role CUSTOM2, default 11),\n"
          "reports on /tmp/atsw<N> (role VVMUNSOL, default 12), control on /tmp/atsw-sim.ctl.\n"
          "Control commands, one a line, on standard input or the control socket:\n%s"
          "quit                      end the simulator (standard input only)\n",
          name, atsw::Simulator::help().c_str());
}

bool socket_number(const char* text, int* number) {
  char* end = nullptr;
  long v = strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || v < 1 || v > 9999) return false;
  *number = static_cast<int>(v);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  atsw::Simulator::Options options;
  options.control_socket = true;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if ((arg == "--cmd-socket" || arg == "--unsol-socket") && i + 1 < argc) {
      int* number = arg == "--cmd-socket" ? &options.cmd_socket : &options.unsol_socket;
      if (!socket_number(argv[++i], number)) {
        fprintf(stderr, "%s: %s takes a socket number from 1 to 9999, not '%s'\n", argv[0], arg.c_str(), argv[i]);
        return 1;
      }
    } else if (arg == "--keep-config") {
      options.keep_config = true;
    } else if (arg == "--version") {
      printf("atsw-sim " ZORD_VERSION_TEXT "\n");
      return 0;
    } else {
      usage(argv[0]);
      return arg == "-h" || arg == "--help" ? 0 : 1;
    }
  }
  if (const char* error = host_seams_error()) {
    fprintf(stderr, "%s: %s\n", argv[0], error);
    return 1;
  }
  options.root = zord_root();

  // SIGINT and SIGTERM are taken by sigwait below, in this thread only.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  atsw::Simulator sim(options);
  std::string error;
  if (!sim.start(&error)) {
    fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
    return 1;
  }
  fprintf(stderr, "atsw-sim: commands on %s, reports on %s, control on %s\n",
          sim.socket_path(options.cmd_socket).c_str(), sim.socket_path(options.unsol_socket).c_str(),
          sim.control_path().c_str());

  std::thread([&sim] {
    for (std::string line; std::getline(std::cin, line);) {
      if (line == "quit") break;
      std::cout << sim.control(line) << std::flush;
    }
    if (!std::cin) return;  // end of input: keep serving until a signal
    kill(getpid(), SIGTERM);
  }).detach();

  int signal_number = 0;
  sigwait(&ending, &signal_number);
  sim.stop();
  return 0;
}
