// zord started by the fixture beside the simulator, ended by SIGTERM.
#include <signal.h>
#include <sys/wait.h>

#include "tests/e2e/harness.h"

namespace {

using Smoke = zt::ZordHarness;

TEST_F(Smoke, StartsBesideTheSimulatorTakesAClientAndEndsOnSigterm) {
  std::string log = this->log();
  EXPECT_EQ(log.find("main entry\n"), 0u) << log;
  EXPECT_NE(log.find("STARTING ZOR Daemon compile time "), std::string::npos);

  auto c = client();
  ASSERT_TRUE(c->connected());
  EXPECT_EQ(c->request("AT+CEVVMCMD=1\r\n", "OK\r\n"), "OK\r\n");
  EXPECT_EQ(c->request("AT+CEVVMEV=1\r\n", "OK\r\n"), "OK\r\n");

  int status = signal_daemon(SIGTERM);
  ASSERT_NE(status, -1) << "zord did not end";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  const std::string last = "err: signal_handler: signal_number=15, so app is terminated!\n";
  log = this->log();
  ASSERT_GE(log.size(), last.size());
  EXPECT_EQ(log.substr(log.size() - last.size()), last);
}

}  // namespace
