// zordctl as a user runs it: against a stand-in daemon for framing, refusals
// and silence, and against the real daemon beside the simulator.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/harness.h"

namespace {

struct Outcome {
  int status = -1;  // the exit status, -1 when it did not exit
  std::string out, err;
};

Outcome zordctl(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
  args.insert(args.begin(), ZORDCTL_BIN);
  zt::Child child = zt::spawn(args, env, true);
  zt::KillOnExit guard(child.pid);
  Outcome r;
  r.out = zt::read_until_eof(child.out_fd, zt::WAIT_MS);
  r.err = zt::read_until_eof(child.err_fd, zt::WAIT_MS);
  int status = 0;
  if (zt::wait_exit(child.pid, &status, zt::WAIT_MS) && WIFEXITED(status)) r.status = WEXITSTATUS(status);
  close(child.out_fd);
  close(child.err_fd);
  return r;
}

// A stand-in daemon on a loopback port, for what the real one cannot be made
// to do. The n-th line received is answered with answers[n], each piece in a
// write of its own; after the last answer it closes, or with `hold` stays
// silent until the client hangs up.
class FakeDaemon {
 public:
  FakeDaemon(std::vector<std::vector<std::string>> answers, bool hold) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof addr;
    bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), size);
    listen(listen_fd_, 1);
    getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &size);
    port_ = std::to_string(ntohs(addr.sin_port));
    thread_ = std::thread([this, answers, hold] { serve(answers, hold); });
  }
  ~FakeDaemon() {
    received();
    close(listen_fd_);
  }
  const std::string& port() const { return port_; }
  // Everything the client sent, once the exchange is over.
  const std::string& received() {
    if (thread_.joinable()) thread_.join();
    return received_;
  }

 private:
  void serve(const std::vector<std::vector<std::string>>& answers, bool hold) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (poll(&p, 1, zt::WAIT_MS) != 1) return;
    int fd = accept(listen_fd_, nullptr, nullptr);
    for (const auto& answer : answers) {
      std::string line;
      if (!zt::read_until(fd, "\n", zt::WAIT_MS, &line)) break;
      received_ += line;
      for (const auto& piece : answer) send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
    }
    if (hold) received_ += zt::read_until_eof(fd, zt::WAIT_MS);
    close(fd);
  }

  int listen_fd_ = -1;
  std::string port_;
  std::string received_;
  std::thread thread_;
};

const std::string ENABLE = "AT+CEVVMCMD=1\r\n";

TEST(ZordctlAlone, ReadsAnswersLineByLineAndMapsThemToExitStatuses) {
  struct Row {
    std::vector<std::string> args;
    std::vector<std::vector<std::string>> answers;
    bool hold;
    std::string sent, out;
    int status;
    std::string err;  // text that standard error holds
  } rows[] = {
      {{"cell"}, {{"OK\r\n"}, {"\r\n+CEVVMEV:NU", "LL,NULL\r\n"}}, true, ENABLE + "AT+CEVVMEV?\r\n",
       "+CEVVMEV:NULL,NULL\n", 0, ""},
      {{"identity"}, {{"\r\nOK\r\n"}, {"\r\n+CEVVMCMD:1234,A,FDD\r\n", "\r\nOK\r\n"}}, true,
       ENABLE + "AT+CEVVMCMD?\r\n", "+CEVVMCMD:1234,A,FDD\n", 0, ""},
      {{"send", "ATI"}, {{"OK\n"}, {"\r\nmodel 1\r\n\r\nOK\r\n"}}, true, ENABLE + "ATI\r\n", "model 1\nOK\n", 0, ""},
      // No final result: the information line is the whole answer.
      {{"send", "AT+CEVVMEV?"}, {{"OK\r\n"}, {"+CEVVMEV:A,TDD\r\n"}}, true, ENABLE + "AT+CEVVMEV?\r\n",
       "+CEVVMEV:A,TDD\n", 0, ""},
      {{"send", "ATE1"}, {{"OK\r\n"}, {"+CME ERROR: 4\r\n"}}, true, ENABLE + "ATE1\r\n", "+CME ERROR: 4\n", 4,
       "zordctl: the daemon answered +CME ERROR: 4 to ATE1\n"},
      {{"cell"}, {{"ERROR\r\n"}}, true, ENABLE, "", 4, "zordctl: the daemon answered ERROR to AT+CEVVMCMD=1\n"},
      {{"watch"}, {{"OK\r\n"}}, false, ENABLE, "", 5, "zordctl: the daemon closed the connection"},
      {{"--timeout=300", "identity"}, {}, true, ENABLE, "", 6, "zordctl: no answer to AT+CEVVMCMD=1 within 300 ms\n"},
  };
  for (const Row& row : rows) {
    FakeDaemon daemon(row.answers, row.hold);
    Outcome r = zordctl(row.args, {"ZORD_PORT=" + daemon.port()});
    EXPECT_EQ(daemon.received(), row.sent) << row.args.back();
    EXPECT_EQ(r.out, row.out) << row.args.back();
    EXPECT_EQ(r.status, row.status) << row.args.back();
    EXPECT_NE(r.err.find(row.err), std::string::npos) << r.err;
  }
}

TEST(ZordctlAlone, RefusesBadUsageAndReportsAnUnreachableDaemon) {
  const std::string port = std::to_string(zt::free_tcp_port());
  struct Row {
    std::vector<std::string> args;
    std::vector<std::string> env;
    int status;
    std::string err;  // the first line of standard error
  } rows[] = {
      {{}, {}, 2, "zordctl: no command given\n"},
      {{"status"}, {}, 2, "zordctl: unknown command: status\n"},
      {{"--port=70000", "cell"}, {}, 2, "zordctl: --port must be a port number from 1 to 65535: 70000\n"},
      {{"cell"}, {"ZORD_PORT=66x"}, 2, "zordctl: ZORD_PORT must be a port number from 1 to 65535: 66x\n"},
      {{"--timeout", "-5", "cell"}, {}, 2,
       "zordctl: --timeout must be a number of milliseconds from 1 to 3600000: -5\n"},
      {{"--host", "localhost", "cell"}, {}, 2, "zordctl: --host must be an IPv4 address: localhost\n"},
      {{"--source"}, {}, 2, "zordctl: --source needs a value\n"},
      {{"send", "AT" + std::string(125, 'E')}, {}, 2, "zordctl: the LINE to send is longer than 126 characters\n"},
      {{"--port", port, "cell"}, {}, 3, "zordctl: cannot connect to 127.0.0.1:" + port + ": Connection refused\n"},
      {{"--source", "192.0.2.1", "--port", port, "cell"}, {}, 3,
       "zordctl: cannot bind to 192.0.2.1: Cannot assign requested address\n"},
  };
  for (const Row& row : rows) {
    Outcome r = zordctl(row.args, row.env);
    EXPECT_EQ(r.status, row.status) << row.err;
    EXPECT_EQ(r.err.substr(0, r.err.find('\n') + 1), row.err);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.find("usage: zordctl") != std::string::npos, row.status == 2) << r.err;
  }
  Outcome help = zordctl({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: zordctl ", 0), 0u) << help.out;
}

class ZordctlWithDaemon : public zt::ZordHarness {
 protected:
  void SetUp() override {
    zt::ZordHarness::SetUp();
    ASSERT_TRUE(wait_for_log("Registration stat is")) << "no registration query";
  }
};

TEST_F(ZordctlWithDaemon, AnswersEachCommand) {
  struct Row {
    std::vector<std::string> args;
    std::string out;
    int status;
  } rows[] = {
      {{"cell"}, "+CEVVMEV:310410\"1A201A2D10,FDD\n", 0},
      {{"identity"}, "+CEVVMCMD:310410123456789,310410\"1A201A2D10,FDD\n", 0},
      {{"send", "ATE0"}, "OK\n", 0},
      {{"send", "XYZ"}, "ERROR\n", 4},
  };
  for (const Row& row : rows) {
    Outcome r = zordctl(row.args, {"ZORD_PORT=" + std::to_string(port())});
    EXPECT_EQ(r.out, row.out) << row.args[0] << ": " << r.err;
    EXPECT_EQ(r.status, row.status) << row.args[0] << ": " << r.err;
  }
}

TEST_F(ZordctlWithDaemon, WatchPrintsACellChangeAndEndsOnSigint) {
  zt::Child child =
      zt::spawn({ZORDCTL_BIN, "--port", std::to_string(port()), "--source", "127.0.0.7", "watch"}, {}, true);
  zt::KillOnExit guard(child.pid);
  std::string err;
  ASSERT_TRUE(zt::read_until(child.err_fd, "zordctl: watching 127.0.0.1:" + std::to_string(port()) + "\n",
                             zt::WAIT_MS, &err))
      << "no subscription: " << err;
  EXPECT_EQ(modem("cell 00C1 0BEEF001"), "ok\n");

  std::string out;
  ASSERT_TRUE(zt::read_until(child.out_fd, "\n", zt::WAIT_MS, &out)) << out;
  // The changed flag is the daemon's business, not the tool's.
  std::regex event("[0-2][0-9]:[0-5][0-9]:[0-6][0-9] \\+CEVVMEV:310410\"00C0BEEF00,FDD,[01]\n");
  EXPECT_TRUE(std::regex_match(out, event)) << out;
  kill(child.pid, SIGINT);
  int status = -1;
  ASSERT_TRUE(zt::wait_exit(child.pid, &status, zt::WAIT_MS));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  close(child.out_fd);
  close(child.err_fd);
}

}  // namespace
