// atsw-sim: plays the modem's AT switch on Unix sockets, with a modem model
// behind it that tests and people can change while it runs.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace atsw {

struct Sim;  // the simulator's insides (sim.h), private to tools/atsw-sim

struct Received {
  int connection;    // command connections are numbered from 1 in accept order
  std::string text;  // one command, without its line ending
};

struct Session {
  bool activate;
  std::string args;  // what followed the verb, as received
};

class Simulator {
 public:
  struct Options {
    std::string root;             // like ZORD_ROOT: every path below it
    int cmd_socket = 11;          // role CUSTOM2
    int unsol_socket = 12;        // role VVMUNSOL
    bool keep_config = false;     // leave an existing configuration file alone
    bool control_socket = false;  // also take control commands on root/tmp/atsw-sim.ctl
  };

  explicit Simulator(Options options);
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // Writes the configuration, binds the sockets and starts serving. On
  // failure returns false with a message naming what and why.
  bool start(std::string* error);
  void stop();

  // Runs one control command (see help()); the reply's last line is "ok" or
  // starts with "error: ".
  std::string control(const std::string& line);
  static std::string help();

  std::vector<Received> record() const;
  std::string received_bytes(int connection) const;  // byte for byte
  std::vector<Session> sessions() const;
  int unsol_connections() const;  // how many listen for reports now

  std::string config_path() const;
  std::string socket_path(int number) const;
  std::string control_path() const;
  std::string uci_dir() const;  // where the fake uci finds its values

 private:
  std::unique_ptr<Sim> sim_;
};

// C-style escapes for control texts: \r \n \t \\ \" and \xHH.
std::string unescape(const std::string& text);
std::string escape(const std::string& bytes);

}  // namespace atsw
