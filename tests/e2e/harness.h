// End-to-end fixture: the real zord beside the AT switch simulator, in a
// temporary root on a free port, with the fake uci first in PATH. Everything
// it starts it stops, also when a test fails; on failure it prints the log
// and the modem's command record.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/client.h"
#include "tests/support/process.h"
#include "tools/atsw-sim/atsw_sim.h"

namespace zt {

class ZordHarness : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Options for zord; a fixture that needs others overrides this.
  virtual std::vector<std::string> zord_options() const { return {}; }

  // The daemon's log with time text taken out.
  std::string log() const;
  bool wait_for_log(const std::string& text, int timeout_ms = WAIT_MS) const;

  // The modem model and its record.
  std::string modem(const std::string& control_line);
  std::vector<atsw::Received> modem_record() const;
  atsw::Simulator& sim() { return *sim_; }

  // A client from the next unused 127.0.0.N (N from 2), or from `source`.
  std::unique_ptr<Client> client(const std::string& source = "");

  // Sends the daemon a signal and collects its exit status (-1: did not end).
  int signal_daemon(int signal_number, int timeout_ms = WAIT_MS);

  const TempRoot& root() const { return root_; }
  int port() const { return port_; }

 private:
  TempRoot root_;
  int port_ = -1;
  int next_source_ = 2;
  std::unique_ptr<atsw::Simulator> sim_;
  pid_t zord_ = -1;
};

}  // namespace zt
