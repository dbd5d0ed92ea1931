// A TCP client of the daemon for tests, bound to its own loopback source
// address: a new connection from the address of the client in the first
// slot drops that client, by design.
#pragma once

#include <string>

namespace zt {

// Deadline for anything a test waits for (generous: qemu and sanitizers are slow).
constexpr int WAIT_MS = 20000;

// A TCP client of the daemon, from its own loopback source address.
class Client {
 public:
  Client(int port, const std::string& source);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool connected() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  // One line per write: the daemon takes one receive as one line.
  bool send_line(const std::string& line);
  // Everything received until `text` arrived (or the deadline or the end of
  // the connection came first: then without it).
  std::string read_until(const std::string& text, int timeout_ms = WAIT_MS);
  // Sends a line and reads until `text`.
  std::string request(const std::string& line, const std::string& text, int timeout_ms = WAIT_MS);
  // True when the daemon closes the connection within the time.
  bool closed_by_peer(int timeout_ms = WAIT_MS);

 private:
  int fd_ = -1;
};

}  // namespace zt
