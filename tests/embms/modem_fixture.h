// The handlers' world in one process: atsw-sim as the modem, the fake uci
// first in PATH, the shared state, and a socket pair standing for the
// command server's client.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/process.h"
#include "tools/atsw-sim/atsw_sim.h"

class ModemFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A modem model fresh from its defaults, connected as the command link.
  void fresh_modem();
  std::string modem(const std::string& control);  // expects "ok"
  std::string modem_bytes();                       // received on the command link so far
  std::string client_bytes();                      // written to the client so far
  std::string unsol_bytes();                       // written to the dispatcher's unsolicited pair
  std::string log() const;

  zt::TempRoot root_;
  std::unique_ptr<atsw::Simulator> sim_;
  int client_[2] = {-1, -1};
  int link_ = -1;
};
