// Test helpers: temporary roots, programs started as children (through the
// emulator on a cross build), and bounded waits for what they write.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace zt {

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

struct Child {
  pid_t pid = -1;
  int out_fd = -1;  // the child's standard output, or -1
  int err_fd = -1;  // its standard error, or -1
};

// Starts argv (argv[0] a program path) with "NAME=value" entries added to
// its environment (replacing any of the same name), standard input on
// /dev/null. Standard output and error are captured when asked.
Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
            bool capture = false);

// Ends a started program that a test leaves running (a failed assertion
// returns early), so that nothing outlives the test.
class KillOnExit {
 public:
  explicit KillOnExit(pid_t pid) : pid_(pid) {}
  ~KillOnExit();
  KillOnExit(const KillOnExit&) = delete;
  KillOnExit& operator=(const KillOnExit&) = delete;

 private:
  pid_t pid_;
};

// Waits for the child to end; false when it has not ended in time.
bool wait_exit(pid_t pid, int* status, int timeout_ms);

// What fd holds now, without waiting (for writers that are done when they return).
std::string read_available(int fd);

// Reads fd until end of file or the time is up.
std::string read_until_eof(int fd, int timeout_ms);
// Reads fd until the text has arrived (true) or the time is up or the peer
// closes (false). What was read goes to *got when given.
bool read_until(int fd, const std::string& text, int timeout_ms, std::string* got = nullptr);

// A connected Unix stream socket, or -1.
int connect_unix(const std::string& path);

// Waits until the file holds the text.
bool wait_for_text(const std::string& path, const std::string& text, int timeout_ms);

// Processes whose environment holds this exact "NAME=value" entry.
std::vector<pid_t> pids_with_env(const std::string& entry);
// Waits until the process is gone (for processes that are not our children).
bool wait_gone(pid_t pid, int timeout_ms);

// Sends the daemon a signal that ends it and waits for the end: its exit
// status in *status for a child of ours, or, with status null, until it is
// gone. Under the emulator a process signal that lands on a thread in the
// middle of exiting can be lost (qemu-user queues it for that thread), so
// there, when the daemon has neither ended nor logged the signal after a few
// seconds, the signal goes once more. Natively it goes once.
bool end_by_signal(pid_t pid, int signal_number, const std::string& log_path, int* status, int timeout_ms);

// A TCP port below the ephemeral range that was free a moment ago.
int free_tcp_port();

// Waits until the condition holds; false when the time is up first.
bool wait_until(const std::function<bool()>& condition, int timeout_ms);
// Waits until something listens on the TCP port (without connecting to it).
bool wait_listening(int port, int timeout_ms);

// How often text stands in haystack.
size_t count_of(const std::string& haystack, const std::string& text);

}  // namespace zt
