// atsw-sim: the modem's AT switch on this machine, for running zord without
// a modem. Control commands come from standard input and from the control
// socket; SIGINT, SIGTERM or "quit" end it. `atsw-sim ctl COMMAND...` sends
// one control command to a running simulator and prints its reply.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <thread>

#include "core/host.h"
#include "tools/atsw-sim/atsw_sim.h"
#include "zord_version.h"

namespace {

void usage(const char* name) {
  fprintf(
      stderr,
      "usage: %s [--cmd-socket N] [--unsol-socket N] [--keep-config] [--version]\n"
      "       %s ctl COMMAND...   (send one control command to the simulator under $ZORD_ROOT)\n"
      "Plays the AT switch under $ZORD_ROOT: commands on /tmp/atsw<N> (role CUSTOM2, default 11),\n"
      "reports on /tmp/atsw<N> (role VVMUNSOL, default 12), control on /tmp/atsw-sim.ctl.\n"
      "Control commands, one a line, on standard input or the control socket:\n%s"
      "quit                      end the simulator (standard input only)\n",
      name, name, atsw::Simulator::help().c_str());
}

bool socket_number(const char* text, int* number) {
  char* end = nullptr;
  long v = strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || v < 1 || v > 9999) return false;
  *number = static_cast<int>(v);
  return true;
}

constexpr int CTL_WAIT_MS = 5000;

// The reply to one control command ends with a line "ok" or "error: ...";
// its last line, empty until that line is whole.
std::string last_line(const std::string& reply) {
  if (reply.empty() || reply.back() != '\n') return "";
  size_t start = reply.rfind('\n', reply.size() - 2);
  return reply.substr(start == std::string::npos ? 0 : start + 1);
}

bool reply_complete(const std::string& reply) {
  std::string last = last_line(reply);
  return last == "ok\n" || last.rfind("error: ", 0) == 0;
}

// atsw-sim ctl COMMAND...: the words as one control line to the simulator's
// control socket; its reply on standard output. 0 for "ok", 1 for an error
// reply, 2 when the simulator cannot be reached or does not answer.
int control_client(const char* name, int argc, char** argv) {
  if (argc < 1) {
    fprintf(stderr, "%s ctl: no control command given (try: %s ctl help)\n", name, name);
    return 2;
  }
  if (const char* error = host_seams_error()) {
    fprintf(stderr, "%s: %s\n", name, error);
    return 2;
  }
  std::string line;
  for (int i = 0; i < argc; ++i) {
    if (i > 0) line += ' ';
    line += argv[i];
  }
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  rooted_path(addr.sun_path, sizeof addr.sun_path, "/tmp/atsw-sim.ctl");
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    fprintf(stderr,
            "%s ctl: cannot reach the simulator's control socket %s: %s"
            " (is atsw-sim running, with this ZORD_ROOT?)\n",
            name, addr.sun_path, strerror(errno));
    if (fd >= 0) close(fd);
    return 2;
  }
  line += "\n";
  std::string reply;
  bool sent = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  while (sent && !reply_complete(reply)) {
    pollfd p{fd, POLLIN, 0};
    char buf[4096];
    ssize_t n = poll(&p, 1, CTL_WAIT_MS) == 1 ? read(fd, buf, sizeof buf) : -1;
    if (n <= 0) break;
    reply.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  fputs(reply.c_str(), stdout);
  if (!reply_complete(reply)) {
    fprintf(stderr, "%s ctl: no complete reply to %s", name, line.c_str());
    return 2;
  }
  return last_line(reply) == "ok\n" ? 0 : 1;
}

// Control commands typed on the terminal. A simulator started in the
// background of an interactive shell must not be stopped for reading it:
// with SIGTTIN ignored such a read fails instead, and the terminal is left
// alone from then on (the control socket still serves).
void read_standard_input(atsw::Simulator& sim) {
  if (isatty(STDIN_FILENO)) {
    signal(SIGTTIN, SIG_IGN);
    signal(SIGTTOU, SIG_IGN);
  }
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "quit") {
      kill(getpid(), SIGTERM);
      return;
    }
    std::cout << sim.control(line) << std::flush;
  }
  // A failed read ends std::cin as end of input does; stdin's error flag tells them apart.
  if (isatty(STDIN_FILENO) && ferror(stdin))
    fprintf(stderr,
            "atsw-sim: not reading the terminal (started in the background);"
            " use: atsw-sim ctl COMMAND\n");
  // End of input: keep serving until a signal.
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "ctl") == 0) return control_client(argv[0], argc - 2, argv + 2);
  atsw::Simulator::Options options;
  options.control_socket = true;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if ((arg == "--cmd-socket" || arg == "--unsol-socket") && i + 1 < argc) {
      int* number = arg == "--cmd-socket" ? &options.cmd_socket : &options.unsol_socket;
      if (!socket_number(argv[++i], number)) {
        fprintf(stderr, "%s: %s takes a socket number from 1 to 9999, not '%s'\n", argv[0],
                arg.c_str(), argv[i]);
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
          sim.socket_path(options.cmd_socket).c_str(),
          sim.socket_path(options.unsol_socket).c_str(), sim.control_path().c_str());

  std::thread(read_standard_input, std::ref(sim)).detach();

  int signal_number = 0;
  sigwait(&ending, &signal_number);
  sim.stop();
  return 0;
}
