#include "tests/support/client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/process.h"

namespace zt {

Client::Client(int port, const std::string& source) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  inet_pton(AF_INET, source.c_str(), &local.sin_addr);
  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<uint16_t>(port));
  remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0 &&
      connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) == 0) {
    fd_ = fd;
  } else if (fd >= 0) {
    close(fd);
  }
}

Client::~Client() {
  if (fd_ >= 0) close(fd_);
}

bool Client::send_line(const std::string& line) {
  return fd_ >= 0 && send(fd_, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
}

std::string Client::read_until(const std::string& text, int timeout_ms) {
  std::string got;
  if (fd_ >= 0) zt::read_until(fd_, text, timeout_ms, &got);
  return got;
}

std::string Client::request(const std::string& line, const std::string& text, int timeout_ms) {
  return send_line(line) ? read_until(text, timeout_ms) : "";
}

bool Client::closed_by_peer(int timeout_ms) {
  if (fd_ < 0) return false;
  read_until_eof(fd_, timeout_ms);
  char byte;
  return recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
}

}  // namespace zt
