#include "tests/embms/modem_fixture.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "atserver/atsw_link.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "gateway/at_queue.h"

void ModemFixture::SetUp() {
  setenv("ZORD_ROOT", root_.path().c_str(), 1);
  const char* path = getenv("PATH");
  setenv("PATH", (std::string(UCI_SIM_DIR) + ":" + (path != nullptr ? path : "/usr/bin:/bin")).c_str(), 1);
  ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
  ASSERT_EQ(init_shared_ipc(), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, client_), 0);
  zorSrv_OutSocket = client_[0];
  fresh_modem();
}

void ModemFixture::TearDown() {
  if (HasFailure()) std::cout << "---- log\n" << zt::read_file(root_.log_path());
  if (link_ >= 0) close(link_);
  sim_.reset();
  close(client_[0]);
  close(client_[1]);
}

void ModemFixture::fresh_modem() {
  if (link_ >= 0) close(link_);
  sim_.reset();
  sim_ = std::make_unique<atsw::Simulator>(atsw::Simulator::Options{root_.path(), 11, 12, false, false});
  std::string error;
  ASSERT_TRUE(sim_->start(&error)) << error;
  char path[ATSW_PATH_SIZE] = {};
  findSocketName("CUSTOM2", path);
  ASSERT_EQ(zor_OpenSocketToAtSwitch("AT_CMD_RSP", path, &cmd_atsw_fd), 0);
  link_ = cmd_atsw_fd;
}

std::string ModemFixture::modem(const std::string& control) {
  std::string reply = sim_->control(control);
  EXPECT_EQ(reply, "ok\n") << control;
  return reply;
}

std::string ModemFixture::modem_bytes() { return sim_->received_bytes(1); }
std::string ModemFixture::client_bytes() { return zt::read_available(client_[1]); }
std::string ModemFixture::unsol_bytes() { return zt::read_available(at_unsol_sockfd[0]); }
std::string ModemFixture::log() const { return zt::without_time_text(zt::read_file(root_.log_path())); }
