// The simulator's insides, shared by its three files: the modem model (modem.cpp), the control
// commands (control.cpp) and the serving loop (atsw_sim.cpp); and which thread may touch what.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/atsw-sim/atsw_sim.h"

namespace atsw {

using Clock = std::chrono::steady_clock;

// Longest command or control line kept; a longer run without a line end is
// taken as it stands (commands) or ends the connection (control).
constexpr size_t MAX_LINE = 4096;

struct Model {
  int n = 2;
  int stat = 1;
  std::string tac = "1A2B";
  std::string ci = "01A2D101";
  int act = 7;
  std::string plmn = "310410";
  std::string duplex = "FDD";  // empty: no duplexing line (not camped)
  std::string imsi = "310410123456789";
  bool quoted = false;                     // tac and ci in double quotes, as some modems answer
  bool spaced = false;                     // a blank after each comma
  std::map<std::string, std::string> raw;  // command (upper case) -> answer bytes
  bool autoreport = true;
  std::string wan4, wan6;  // the router's WAN addresses in /tmp/wan; empty: none

  bool registered() const { return stat == 1 || stat == 5; }
};

struct Faults {
  int fail = 0;
  int cme = -1;  // -1: plain ERROR
  int delay_ms = 0;
  int split_ms = -1;  // >= 0: split the next answer, pausing this long
  bool silent = false;
  bool close_next = false;
};

// The socket a connection was accepted on, which says what it is for.
enum class Kind { COMMAND, REPORT, CONTROL };

struct Conn {
  int fd;
  Kind kind;
  int id;          // command connections: from 1 in accept order; the others 0
  std::string in;  // bytes read, not yet a whole line
};

struct Scheduled {
  Clock::time_point at;
  int fd;
  std::string bytes;
};

struct Sockets {
  int cmd = -1, report = -1, control = -1;  // listening
  int wake[2] = {-1, -1};                   // a byte in wake[1] ends the serving thread's wait
};

struct State {
  Model model;
  Faults faults;
  std::vector<Received> record;
  std::map<int, std::string> bytes_in;  // by command connection id
  std::vector<Session> sessions;
  Sockets sockets;
  std::vector<Conn> conns;  // in accept order, every kind
  std::vector<Scheduled> schedule;
  int next_id = 1;
  bool running = false;
};

// Two sides touch a Sim: the serving thread (serve(), from start() until stop() joins it) and
// the callers of Simulator's methods: a test's own thread, or atsw-sim's main and its standard
// input reader, which is never joined and so may be in control() while main is in stop().
// The serving thread alone accepts, reads and drops connections, keeps the schedule and adds to
// the records (stop() closes what is left once it has ended). Control commands change the model
// and the faults and write reports, on either side: control() runs them in its caller's thread,
// the serving thread those from the control socket. record() and the like copy out.
// mtx guards all of `state`, sockets included. The serving thread holds it for all its work and
// lets go only while it waits in poll, so a control command or a look at the record falls
// between two rounds, never inside one. Without the lock: `options`, fixed at construction, and
// `loop`, which only the owner's thread starts and joins.
struct Sim {
  explicit Sim(Simulator::Options o) : options(std::move(o)) {}

  const Simulator::Options options;
  std::thread loop;
  mutable std::mutex mtx;
  State state;  // guarded by mtx

  std::string path(const std::string& fixed) const { return options.root + fixed; }
};

// modem.cpp: what the modem says. Empty means no answer at all.
std::string answer(State& s, const std::string& command);
std::string report(const Model& model);  // the unsolicited registration report

// control.cpp: runs one control line (the caller holds mtx) and returns its reply.
std::string run_control(Sim& sim, const std::string& line);

// atsw_sim.cpp: writes bytes to every connection on the report socket.
void push(State& s, const std::string& bytes);

std::string upper(std::string s);

}  // namespace atsw
