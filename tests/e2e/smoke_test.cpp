// zord started by the fixture beside the simulator, ended by SIGTERM.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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

namespace {

// The fixture's client against a plain loopback server: its source address,
// one line per write, reading to a text, and noticing the close.
TEST(HarnessClient, TalksFromItsOwnLoopbackAddress) {
  int port = zt::free_tcp_port();
  int server = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(server, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(server, 1), 0);

  zt::Client client(port, "127.0.0.7");
  ASSERT_TRUE(client.connected());
  sockaddr_in peer{};
  socklen_t len = sizeof peer;
  int conn = accept(server, reinterpret_cast<sockaddr*>(&peer), &len);
  ASSERT_GE(conn, 0);
  EXPECT_EQ(ntohl(peer.sin_addr.s_addr), 0x7f000007u);

  ASSERT_TRUE(client.send_line("AT+CEVVMCMD=1\r\n"));
  std::string line;
  EXPECT_TRUE(zt::read_until(conn, "\r\n", zt::WAIT_MS, &line));
  EXPECT_EQ(line, "AT+CEVVMCMD=1\r\n");
  ASSERT_EQ(write(conn, "OK\r\n", 4), 4);
  EXPECT_EQ(client.read_until("OK\r\n"), "OK\r\n");
  close(conn);
  EXPECT_TRUE(client.closed_by_peer());
  close(server);
}

}  // namespace
