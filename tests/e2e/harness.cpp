#include "tests/e2e/harness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

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

void ZordHarness::SetUp() {
  port_ = free_tcp_port();
  atsw::Simulator::Options options;
  options.root = root_.path();
  sim_ = std::make_unique<atsw::Simulator>(options);
  std::string error;
  ASSERT_TRUE(sim_->start(&error)) << error;

  const char* path = getenv("PATH");
  std::vector<std::string> argv = {ZORD_BIN};
  for (const auto& o : zord_options()) argv.push_back(o);
  zord_ = spawn(argv, {"ZORD_ROOT=" + root_.path(), "ZORD_PORT=" + std::to_string(port_),
                       std::string("PATH=") + UCI_SIM_DIR + ":" + (path != nullptr ? path : "/usr/bin:/bin")})
              .pid;
  ASSERT_GT(zord_, 0);
  ASSERT_TRUE(wait_for_log("ZOR main finished tarting threads\n")) << "zord did not start";
  // Once the listener is in, also wait here until the port accepts.
}

void ZordHarness::TearDown() {
  if (zord_ > 0) {
    kill(zord_, SIGKILL);
    int status = 0;
    wait_exit(zord_, &status, E2E_WAIT_MS);
    zord_ = -1;
  }
  if (HasFailure()) {
    std::cout << "---- zord log\n" << read_file(root_.log_path()) << "---- modem record\n";
    if (sim_) std::cout << sim_->control("record");
  }
  sim_.reset();
}

std::string ZordHarness::log() const { return without_time_text(read_file(root_.log_path())); }

bool ZordHarness::wait_for_log(const std::string& text, int timeout_ms) const {
  return wait_for_text(root_.log_path(), text, timeout_ms);
}

std::string ZordHarness::modem(const std::string& control_line) { return sim_->control(control_line); }

std::vector<atsw::Received> ZordHarness::modem_record() const { return sim_->record(); }

std::unique_ptr<Client> ZordHarness::client(const std::string& source) {
  std::string from = source.empty() ? "127.0.0." + std::to_string(next_source_++) : source;
  return std::make_unique<Client>(port_, from);
}

int ZordHarness::signal_daemon(int signal_number, int timeout_ms) {
  if (zord_ <= 0) return -1;
  kill(zord_, signal_number);
  int status = -1;
  if (!wait_exit(zord_, &status, timeout_ms)) return -1;
  zord_ = -1;
  return status;
}

}  // namespace zt
