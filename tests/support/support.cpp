#include "tests/support/support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

namespace zt {
namespace {

using Clock = std::chrono::steady_clock;

int ms_left(Clock::time_point deadline) {
  auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

TempRoot::TempRoot() {
  char name[] = "/tmp/zordXXXXXX";
  if (mkdtemp(name) == nullptr) abort();
  path_ = name;
  std::filesystem::create_directories(path_ + "/tmp/logs");
}

TempRoot::~TempRoot() { std::filesystem::remove_all(path_); }

std::string read_file(const std::string& path) {
  // One bulk read: a log that threads fill without pause is large, and a
  // byte-at-a-time copy of it is slow under the sanitizers.
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string without_time_text(const std::string& log) {
  static const std::regex time_text("(^|\n)[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3,4} ");
  return std::regex_replace(log, time_text, "$1");
}

size_t count_of(const std::string& haystack, const std::string& text) {
  size_t n = 0;
  for (size_t at = haystack.find(text); at != std::string::npos;
       at = haystack.find(text, at + text.size()))
    ++n;
  return n;
}

// Polled: what is waited for gives no event to wait on.
bool wait_until(const std::function<bool()>& condition, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!condition()) {
    if (ms_left(deadline) == 0) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

bool wait_for_text(const std::string& path, const std::string& text, int timeout_ms) {
  return wait_until([&] { return read_file(path).find(text) != std::string::npos; }, timeout_ms);
}

std::string read_available(int fd) {
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0) out.append(buf, static_cast<size_t>(n));
  return out;
}

bool read_until(int fd, const std::string& text, int timeout_ms, std::string* got) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string read_so_far;
  bool found = false;
  while (!(found = !text.empty() && read_so_far.find(text) != std::string::npos)) {
    pollfd p{fd, POLLIN, 0};
    char buf[4096];
    ssize_t n = poll(&p, 1, ms_left(deadline)) > 0 ? read(fd, buf, sizeof buf) : -1;
    if (n <= 0) break;
    read_so_far.append(buf, static_cast<size_t>(n));
  }
  if (got != nullptr) *got = read_so_far;
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

int free_tcp_port() {
  // Below the ephemeral range, so that no client connection of a test running
  // beside this one holds the number as its local port; bound the way the
  // daemon binds, to see that it is free.
  static unsigned seed =
      static_cast<unsigned>(getpid()) * 2654435761u ^ static_cast<unsigned>(time(nullptr));
  for (int attempt = 0; attempt < 200; ++attempt) {
    int port = 20000 + static_cast<int>(rand_r(&seed) % 12000);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool free = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    if (free) return port;
  }
  return -1;
}

Client::Client(int port, const std::string& source) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{}, remote{};
  local.sin_family = remote.sin_family = AF_INET;
  inet_pton(AF_INET, source.c_str(), &local.sin_addr);
  remote.sin_port = htons(static_cast<uint16_t>(port));
  remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0 &&
      connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) == 0)
    fd_ = fd;
  else if (fd >= 0)
    close(fd);
}

Client::~Client() {
  if (fd_ >= 0) close(fd_);
}

bool Client::send_line(const std::string& line) {
  return fd_ >= 0 &&
         send(fd_, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
}

std::string Client::request(const std::string& line, const std::string& text, int timeout_ms) {
  std::string got;
  if (send_line(line)) read_until(fd_, text, timeout_ms, &got);
  return got;
}

bool Client::closed_by_peer(int timeout_ms) {
  if (fd_ < 0) return false;
  read_until(fd_, "", timeout_ms);
  char byte;
  return recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
}

}  // namespace zt
