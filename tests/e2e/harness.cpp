#include "tests/e2e/harness.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace zt {

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
  ASSERT_TRUE(wait_listening(port_, WAIT_MS)) << "zord does not listen on " << port_;
}

void ZordHarness::TearDown() {
  if (zord_ > 0) {
    kill(zord_, SIGKILL);
    int status = 0;
    wait_exit(zord_, &status, WAIT_MS);
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
  int status = -1;
  if (!end_by_signal(zord_, signal_number, root_.log_path(), &status, timeout_ms)) return -1;
  zord_ = -1;
  return status;
}

}  // namespace zt
