// The handlers' world in one process: atsw-sim as the modem, the fake uci
// first in PATH, the shared state, a socket pair standing for the command
// server's client, and the LTE interface's sysfs directory.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "atserver/atsw_link.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "gateway/at_queue.h"
#include "tests/support/support.h"
#include "tools/atsw-sim/atsw_sim.h"

class ModemFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ZORD_ROOT", root_.path().c_str(), 1);
    setenv("PATH", (std::string(UCI_SIM_DIR) + ":" + getenv("PATH")).c_str(), 1);
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
    ASSERT_EQ(init_shared_ipc(), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, client_), 0);
    zorSrv_OutSocket = client_[0];
    // Where the LTE interface keeps its forwarding rules.
    std::filesystem::create_directories(root_.path() + "/sys/devices/virtual/net/lte0");
    fresh_modem();
  }
  // A modem model fresh from its defaults, connected as the command link.
  void fresh_modem() {
    if (cmd_atsw_fd > 0) close(cmd_atsw_fd);
    sim_ = nullptr;
    sim_ = std::make_unique<atsw::Simulator>(
        atsw::Simulator::Options{root_.path(), 11, 12, false, false});
    std::string error;
    ASSERT_TRUE(sim_->start(&error)) << error;
    modem("quote on");  // the modem quirk the handlers copy as it comes
    char path[ATSW_PATH_SIZE] = {};
    findSocketName("CUSTOM2", path);
    ASSERT_EQ(zor_OpenSocketToAtSwitch("AT_CMD_RSP", path, &cmd_atsw_fd), 0);
  }
  void modem(const std::string& control) { EXPECT_EQ(sim_->control(control), "ok\n") << control; }
  std::string modem_bytes() { return sim_->received_bytes(1); }  // on the command link so far
  std::string client_bytes() { return zt::read_available(client_[1]); }
  std::string unsol_bytes() { return zt::read_available(at_unsol_sockfd[0]); }  // to the dispatcher
  std::string log() const { return zt::without_time_text(zt::read_file(root_.log_path())); }
  std::string rule(const char* f) const {
    return zt::read_file(root_.path() + "/sys/devices/virtual/net/lte0/" + f);
  }

  zt::TempRoot root_;
  std::unique_ptr<atsw::Simulator> sim_;
  int client_[2] = {-1, -1};
};
