#include "tests/support/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

extern char** environ;

namespace zt {
namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point deadline_in(int timeout_ms) { return Clock::now() + std::chrono::milliseconds(timeout_ms); }

int ms_left(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Between two looks at something that gives no event to wait on.
void short_pause() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

std::vector<std::string> launcher() {
  std::vector<std::string> words;
  std::stringstream in(ZORD_TEST_LAUNCHER);
  for (std::string w; std::getline(in, w, '|');)
    if (!w.empty()) words.push_back(w);
  return words;
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

}  // namespace

TempRoot::TempRoot() {
  char name[] = "/tmp/zordXXXXXX";
  if (mkdtemp(name) == nullptr) abort();
  path_ = name;
  mkdir((path_ + "/tmp").c_str(), 0755);
  mkdir((path_ + "/tmp/logs").c_str(), 0755);
}

TempRoot::~TempRoot() { nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS); }

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string without_time_text(const std::string& log) {
  static const std::regex time_text("(^|\n)[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3,4} ");
  return std::regex_replace(log, time_text, "$1");
}

Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, bool capture) {
  std::vector<std::string> words = launcher();
  words.insert(words.end(), argv.begin(), argv.end());
  std::vector<std::string> envs;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    std::string name = entry.substr(0, entry.find('=') + 1);
    bool replaced = std::any_of(env.begin(), env.end(), [&](const std::string& x) { return x.rfind(name, 0) == 0; });
    if (!replaced) envs.push_back(entry);
  }
  envs.insert(envs.end(), env.begin(), env.end());

  std::vector<char*> args, envp;
  for (auto& w : words) args.push_back(w.data());
  args.push_back(nullptr);
  for (auto& e : envs) envp.push_back(e.data());
  envp.push_back(nullptr);

  int out[2] = {-1, -1}, err[2] = {-1, -1};
  if (capture && (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)) return {};
  Child child;
  child.pid = fork();
  if (child.pid == 0) {
    // Output not captured goes nowhere: a program left running must not hold
    // the test runner's output open.
    int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(capture ? out[1] : null, 1);
    dup2(capture ? err[1] : null, 2);
    execvpe(args[0], args.data(), envp.data());  // the emulator is found through PATH
    _exit(127);
  }
  if (capture) {
    close(out[1]);
    close(err[1]);
    child.out_fd = out[0];
    child.err_fd = err[0];
  }
  return child;
}

bool wait_exit(pid_t pid, int* status, int timeout_ms) {
  auto deadline = deadline_in(timeout_ms);
  for (;;) {
    pid_t r = waitpid(pid, status, WNOHANG);
    if (r == pid) return true;
    if (r < 0 && errno != EINTR) return false;
    if (ms_left(deadline) == 0) return false;
    short_pause();
  }
}

namespace {

// Appends what fd gives to text until it holds `wanted` (true), or end of
// file, or the time is up (false). With no `wanted`, reads to end of file.
bool read_into(int fd, std::string& text, const std::string* wanted, int timeout_ms) {
  auto deadline = deadline_in(timeout_ms);
  while (wanted == nullptr || text.find(*wanted) == std::string::npos) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, ms_left(deadline)) <= 0) return false;
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    text.append(buf, static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

std::string read_available(int fd) {
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0) out.append(buf, static_cast<size_t>(n));
  return out;
}

std::string read_until_eof(int fd, int timeout_ms) {
  std::string text;
  read_into(fd, text, nullptr, timeout_ms);
  return text;
}

bool read_until(int fd, const std::string& wanted, int timeout_ms, std::string* got) {
  std::string text;
  bool found = read_into(fd, text, &wanted, timeout_ms);
  if (got != nullptr) *got = text;
  return found;
}

int connect_unix(const std::string& path) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) return -1;
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool wait_until(const std::function<bool()>& condition, int timeout_ms) {
  auto deadline = deadline_in(timeout_ms);
  while (!condition()) {
    if (ms_left(deadline) == 0) return false;
    short_pause();
  }
  return true;
}

bool wait_for_text(const std::string& path, const std::string& text, int timeout_ms) {
  return wait_until([&] { return read_file(path).find(text) != std::string::npos; }, timeout_ms);
}

bool wait_listening(int port, int timeout_ms) {
  char local[16];
  snprintf(local, sizeof local, ":%04X ", port);
  return wait_until(
      [&] {
        std::istringstream table(read_file("/proc/net/tcp"));
        for (std::string line; std::getline(table, line);) {
          std::istringstream fields(line);
          std::string slot, local_addr, remote_addr, state;
          fields >> slot >> local_addr >> remote_addr >> state;
          if (state == "0A" && (local_addr + " ").find(local) != std::string::npos) return true;
        }
        return false;
      },
      timeout_ms);
}

size_t count_of(const std::string& haystack, const std::string& text) {
  size_t n = 0;
  for (size_t at = haystack.find(text); at != std::string::npos; at = haystack.find(text, at + text.size())) ++n;
  return n;
}

std::vector<pid_t> pids_with_env(const std::string& entry) {
  std::vector<pid_t> pids;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return pids;
  while (dirent* d = readdir(proc)) {
    pid_t pid = static_cast<pid_t>(atoi(d->d_name));
    if (pid <= 0) continue;
    std::string env = read_file("/proc/" + std::string(d->d_name) + "/environ");
    std::stringstream in(env);
    for (std::string e; std::getline(in, e, '\0');)
      if (e == entry) {
        pids.push_back(pid);
        break;
      }
  }
  closedir(proc);
  return pids;
}

// A process that has ended but not been reaped yet (its parent is init, which
// may be slow to reap or never do it) counts as gone.
static bool ended(pid_t pid) {
  if (kill(pid, 0) != 0) return true;
  std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = stat.rfind(')');
  return paren == std::string::npos || stat.compare(paren, 3, ") Z") == 0;
}

KillOnExit::~KillOnExit() {
  if (pid_ <= 0 || kill(pid_, 0) != 0) return;
  kill(pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
}

bool wait_gone(pid_t pid, int timeout_ms) {
  return wait_until([&] { return ended(pid); }, timeout_ms);
}

int free_tcp_port() {
  // Below the ephemeral range, so that no client connection of a test running
  // beside this one holds the number as its local port; bound the way the
  // daemon binds, to see that it is free.
  static unsigned seed = static_cast<unsigned>(getpid()) * 2654435761u ^ static_cast<unsigned>(time(nullptr));
  for (int attempt = 0; attempt < 200; ++attempt) {
    int port = 20000 + static_cast<int>(rand_r(&seed) % 12000);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool free = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    if (free) return port;
  }
  return -1;
}

bool end_by_signal(pid_t pid, int signal_number, const std::string& log_path, int* status, int timeout_ms) {
  auto ended = [&](int ms) { return status != nullptr ? wait_exit(pid, status, ms) : wait_gone(pid, ms); };
  constexpr int LOST_SIGNAL_MS = 5000;  // the daemon logs a signal within 2 s
  kill(pid, signal_number);
  if (launcher().empty()) return ended(timeout_ms);
  if (ended(LOST_SIGNAL_MS)) return true;
  if (read_file(log_path).find("signal_handler:") == std::string::npos) kill(pid, signal_number);
  return ended(timeout_ms);
}

}  // namespace zt
