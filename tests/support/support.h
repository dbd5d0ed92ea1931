// Test helpers: temporary roots, files and logs, sockets read with a deadline,
// bounded waits, and a TCP client from its own loopback source address (a new
// connection from the address of the client in the first slot drops that
// client, by design).
#pragma once

#include <functional>
#include <string>

namespace zt {

// Deadline for anything a test waits for (generous: qemu and sanitizers are slow).
constexpr int WAIT_MS = 20000;

// A fresh, short directory under /tmp with tmp/logs in it, removed at the end.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;
  const std::string& path() const { return path_; }
  std::string log_path() const { return path_ + "/tmp/logs/zord-vvm-app.log"; }

 private:
  std::string path_;
};

std::string read_file(const std::string& path);
// The log with every entry's leading time text taken out.
std::string without_time_text(const std::string& log);
// How often text stands in haystack.
size_t count_of(const std::string& haystack, const std::string& text);

// Waits until the condition holds; false when the time is up first.
bool wait_until(const std::function<bool()>& condition, int timeout_ms);
bool wait_for_text(const std::string& path, const std::string& text, int timeout_ms);

// What fd holds now, without waiting (for writers that are done when they return).
std::string read_available(int fd);
// Reads fd until the text has arrived (true) or the time is up or the peer
// closes (false); what was read goes to *got when given. An empty text: to the end.
bool read_until(int fd, const std::string& text, int timeout_ms, std::string* got = nullptr);

// A connected Unix stream socket, or -1.
int connect_unix(const std::string& path);
// A TCP port below the ephemeral range that was free a moment ago.
int free_tcp_port();

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
  // Sends a line and returns everything received until `text` arrived (or
  // the deadline or the end of the connection came first: then without it).
  std::string request(const std::string& line, const std::string& text, int timeout_ms = WAIT_MS);
  // True when the daemon closes the connection within the time.
  bool closed_by_peer(int timeout_ms = WAIT_MS);

 private:
  int fd_ = -1;
};

}  // namespace zt
