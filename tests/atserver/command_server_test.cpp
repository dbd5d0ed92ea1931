// The command server thread and its grammar over a real connection: the test
// plays the dispatcher, atsw-sim (or a scripted peer) the AT switch.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "atserver/at_parser.h"
#include "atserver/command_server.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "core/mutex_lock.h"
#include "gateway/at_queue.h"
#include "tests/support/client.h"
#include "tests/support/process.h"
#include "tools/atsw-sim/atsw_sim.h"

namespace {

using zt::WAIT_MS;

const std::string OK = "\r\nOK\r\n", ERR = "\r\nERROR\r\n", L = "\r\n";
// What the handlers ask the modem: each command as the link frames it.
const std::string CELL_QUERY = "AT+CEREG?\n\r\nAT+COPS=3,2\n\r\nAT+COPS?\n\r\nAT%PCONI\n\r\n";
const std::string IMSI_QUERY = "AT+CIMI\n\r\n";
const std::string CELL = "310410\"1A201A2D10";  // the simulator's default cell, quoted tac and ci
constexpr int NO_EVENT = 1000;

class CommandServer : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ZORD_ROOT", root_.path().c_str(), 1);
    const char* path = getenv("PATH");
    setenv("PATH", (std::string(UCI_SIM_DIR) + ":" + (path != nullptr ? path : "/usr/bin:/bin")).c_str(), 1);
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
    ASSERT_EQ(init_shared_ipc(), 0);  // the set handler writes to the unsolicited pair
    snprintf(server_path_, sizeof server_path_, "%s/tmp/zor-vvm_at_prs_srv", root_.path().c_str());
  }

  void TearDown() override {
    if (started_) {
      if (fd_ < 0) fd_ = zt::connect_unix(server_path_);  // still in accept: let it through
      sim_.reset();  // a link read in progress ends with the simulator
      EXPECT_TRUE(hang_up()) << "the command server did not end";
    }
    if (HasFailure()) std::cout << "---- log\n" << zt::read_file(root_.log_path());
  }

  // Closes the connection as the dispatcher would and waits for the thread.
  bool hang_up() {
    close(fd_);
    fd_ = -1;
    started_ = false;
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += WAIT_MS / 1000;
    return pthread_timedjoin_np(thread_, nullptr, &until) == 0;
  }

  void start_sim() {
    sim_ = std::make_unique<atsw::Simulator>(atsw::Simulator::Options{root_.path(), 11, 12, false, false});
    std::string error;
    ASSERT_TRUE(sim_->start(&error)) << error;
  }

  // Starts the thread and connects as the dispatcher.
  void start_server() {
    ASSERT_EQ(pthread_create(&thread_, nullptr, zorSrv_ThreadMain, names_), 0);
    started_ = true;
    ASSERT_TRUE(zt::wait_until([&] { return (fd_ = zt::connect_unix(server_path_)) >= 0; }, WAIT_MS));
  }

  // Sends bytes and reads until `expected` has come; returns what came.
  std::string exchange(const std::string& sent, const std::string& expected) {
    EXPECT_EQ(write(fd_, sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    std::string got;
    zt::read_until(fd_, expected, WAIT_MS, &got);
    return got;
  }

  std::string log() const { return zt::without_time_text(zt::read_file(root_.log_path())); }

  zt::TempRoot root_;
  std::unique_ptr<atsw::Simulator> sim_;
  char server_path_[108] = {};
  char unused_[2][108] = {};
  char* names_[3] = {server_path_, unused_[0], unused_[1]};
  pthread_t thread_{};
  bool started_ = false;
  int fd_ = -1;
};

std::vector<int> logged_events(const std::string& log) {
  std::vector<int> events;
  const std::string mark = "zorSrv_HandleSetCEVVMEV event=";
  for (size_t at = log.find(mark); at != std::string::npos; at = log.find(mark, at + 1))
    events.push_back(atoi(log.c_str() + at + mark.size()));
  return events;
}

TEST_F(CommandServer, AnswersEachLineWithItsEchoesThenTheResultCodes) {
  start_sim();
  start_server();
  const std::string ati = "\r\natsw-sim modem model 1\r\n" + OK;
  const std::string cereg = "\r\n+CEREG: 2,1,\"1A2B\",\"01A2D101\",7\r\n" + OK;
  const std::string ev_read = "\r\n+CEVVMEV:" + CELL + ",FDD\r\nAOK\r\n";
  const std::string cmd_read = "\r\n+CEVVMCMD:310410123456789," + CELL + ",FDD" + OK;
  std::string nineteen = "AT+CEVVMEV=1";
  for (int i = 2; i <= 19; ++i) nineteen += "," + std::to_string(i);

  struct Row {
    std::string sent;
    std::string received;  // echoes, forwarded answers and result codes, in order
    std::string modem = "";
    int event = NO_EVENT;  // the set handler's argument
    int count = -1;        // parameters counted, checked when given
  } rows[] = {
      // The first line: no line end scanned yet, so the ERROR waits for it.
      {"XYZ\r\n", "XYZ\r" + ERR + "\n"},
      {"at\r\n", "at\r" + OK + "\n"},
      // After a line end a bad first character is answered at once.
      {"XYZ\r\n", "X" + ERR + "YZ\r\n"},
      {"A\r\n", "A" + ERR + "\r\n"},
      {"AT+CEVVMEV=5\r\n", "AT+CEVVMEV=5\r" + OK + "\n", CELL_QUERY, 5},
      {"AT+CEVVMEV=\"7\"\r\n", "AT+CEVVMEV=\"7\"\r" + OK + "\n", CELL_QUERY, 7},
      {"AT+CEVVMEV= 5\r\n", "AT+CEVVMEV= 5\r" + OK + "\n", CELL_QUERY, 5},
      {"at+cevvmev =\t7 \r\n", "at+cevvmev =\t7 \r" + OK + "\n", CELL_QUERY, 7},
      {"AT+CEVVMEV=+7\r\n", "AT+CEVVMEV=+7\r" + OK + "\n", CELL_QUERY, 7},
      {"AT+CEVVMEV=\"-1\"\r\n", "AT+CEVVMEV=\"-1\"\r" + OK + "\n", CELL_QUERY, -1},
      {"AT+CEVVMEV=a b\r\n", "AT+CEVVMEV=a b\r" + OK + "\n", CELL_QUERY, 0},
      // Not exactly one value: nothing called, no final result.
      {"AT+CEVVMEV=1,2\r\n", "AT+CEVVMEV=1,2\r\n"},
      {"AT+CEVVMEV=5,\r\n", "AT+CEVVMEV=5,\r\n"},
      {"AT+CEVVMEV=1,,2\r\n", "AT+CEVVMEV=1,,2\r\n"},
      // "" keeps the first slot of the line before, unless that began with a comma.
      {"AT+CEVVMEV=3\r\n", "AT+CEVVMEV=3\r" + OK + "\n", CELL_QUERY, 3},
      {"AT+CEVVMEV=\"\"\r\n", "AT+CEVVMEV=\"\"\r" + OK + "\n", CELL_QUERY, 3},
      {"AT+CEVVMEV=,5\r\n", "AT+CEVVMEV=,5\r\n"},
      {"AT+CEVVMEV=\"\"\r\n", "AT+CEVVMEV=\"\"\r" + OK + "\n", CELL_QUERY, 0},
      // From the 19th value on the count stays 18; the last value is in the overflow slot.
      {nineteen + "\r\nAT\r\n", nineteen + "\r\nAT\r" + OK + "\n", "", NO_EVENT, 18},
      // One ERROR a bad line, whether found in the line or on its end.
      {"AT+CEVVMEV=?\r\n", "AT+CEVVMEV=?\r" + ERR + "\n"},
      {"AT+CEVVMEV=#\r\n", "AT+CEVVMEV=#\r" + ERR + "\n"},
      {"AT+CEVVMEV=\r\n", "AT+CEVVMEV=\r" + ERR + "\n"},
      {"AT+CEVVMEV=,,\r\n", "AT+CEVVMEV=,,\r" + ERR + "\n"},
      {"AT+CEVVMEV=,5,\r\n", "AT+CEVVMEV=,5,\r" + ERR + "\n"},
      {"AT+CEVVMEV=\"x\"y\r\n", "AT+CEVVMEV=\"x\"y\r" + ERR + "\n"},
      {"AT+CEVVMEV=\"a,b\"\r\n", "AT+CEVVMEV=\"a,b\"\r" + ERR + "\n"},
      {"AT+CEVVMEV=1\"2\"\r\n", "AT+CEVVMEV=1\"2\"\r" + ERR + "\n"},
      {"AT+CEVVMEV\r\n", "AT+CEVVMEV\r" + ERR + "\n"},
      {"AT+CEVVMC\r\n", "AT+CEVVMC\r" + ERR + "\n"},
      {"AT+CEVVMEX\r\n", "AT+CEVVMEX\r" + ERR + "\n"},
      {"AT+CEVVMEV?X\r\n", "AT+CEVVMEV?X\r" + ERR + "\n"},
      {"AT+CEVVMCMD=1\r\n", "AT+CEVVMCMD=1\r" + ERR + "\n"},
      {"AT+CEVVMCMD=?\r\n", "AT+CEVVMCMD=?\r" + ERR + "\n"},
      // Everything else after AT goes to the switch up to the LF; the line
      // then still ends as a bare AT.
      {"ATI\r\n", "ATI\r" + ati + L + OK + "\n", "ATI\r\n"},
      {"AT+CEREG?\r\n", "AT+CEREG?\r" + cereg + L + OK + "\n", "AT+CEREG?\r\n"},
      {"ATE0\r\n", "ATE0\r" + OK + L + OK + "\n", "ATE0\r\n"},
      {"ATAT\r\n", "ATAT\r" + OK + L + OK + "\n", "AT\r\n"},
      {"AT+CGMI\r\n", "AT+CGMI\r" + ERR + L + OK + "\n", "AT+CGMI\r\n"},
      {"AT+CEVVMX\r\n", "AT+CEVVMX\r" + ERR + L + OK + "\n", "AT+CEVVMX\r\n"},
      {"AT  \r\n", "AT  \r" + ERR + L + OK + "\n", "AT  \r\n"},
      // The daemon's own queries, in any case.
      {"AT+CEVVMEV?\r\n", "AT+CEVVMEV?\r" + ev_read + "\n", CELL_QUERY},
      {"at+cevvmev? \r\n", "at+cevvmev? \r" + ev_read + "\n", CELL_QUERY},
      {"AT+CEVVMCMD?\r\n", "AT+CEVVMCMD?\r" + cmd_read + "\n", IMSI_QUERY + CELL_QUERY},
      {"At+CeVvMcMd?\r\n", "At+CeVvMcMd?\r" + cmd_read + "\n", IMSI_QUERY + CELL_QUERY},
      {"  AT\r\n", "  AT\r" + OK + "\n"},
      {"\r\n", "\r\n"},
      {"AT\r\n", "AT\r" + OK + "\n"},
  };
  std::vector<int> events;
  size_t modem_seen = 0;
  for (const Row& row : rows) {
    EXPECT_EQ(exchange(row.sent, row.received), row.received) << row.sent;
    std::string modem = sim_->received_bytes(1);
    EXPECT_EQ(modem.substr(modem_seen), row.modem) << row.sent;
    modem_seen = modem.size();
    if (row.event != NO_EVENT) events.push_back(row.event);
    if (row.count >= 0) {
      MutexLock sync(send_atcmd_lock);  // the OK that ended the row was written under it
      EXPECT_EQ(gATParser_Num_Params, row.count) << row.sent;
      EXPECT_STREQ(gATParams[AT_PARAM_SLOTS - 1].value, "18");
      EXPECT_STREQ(gATParams[AT_PARAM_SLOTS].value, "19");
    }
  }
  EXPECT_EQ(logged_events(log()), events);
}

// A bare LF right after AT may start a generic command, so the scanner waits
// for the next line, which then goes to the switch with it.
TEST_F(CommandServer, BareLineFeedAfterAtRunsIntoTheNextLine) {
  mkdir((root_.path() + "/etc").c_str(), 0755);
  mkdir((root_.path() + "/etc/atswitch_config").c_str(), 0755);
  FILE* config = fopen((root_.path() + "/etc/atswitch_config/atswitch_ecm_config.csv").c_str(), "w");
  ASSERT_NE(config, nullptr);
  fputs("11,CUSTOM2,scripted\n", config);
  fclose(config);
  // A switch that answers once, however many line ends the command holds.
  int peer = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s/tmp/atsw11", root_.path().c_str());
  ASSERT_EQ(bind(peer, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(peer, 1), 0);

  start_server();
  int link = accept(peer, nullptr, nullptr);
  ASSERT_GE(link, 0);
  EXPECT_EQ(exchange("AT\n", "AT"), "AT");
  ASSERT_EQ(write(fd_, "ATE0\r\n", 6), 6);
  std::string to_switch;
  EXPECT_TRUE(zt::read_until(link, "AT\nATE0\r\n", WAIT_MS, &to_switch));
  EXPECT_EQ(to_switch, "AT\nATE0\r\n");
  ASSERT_EQ(write(link, OK.data(), OK.size()), static_cast<ssize_t>(OK.size()));

  const std::string expected = "\nATE0\r" + OK + L + OK + "\n";
  std::string got;
  zt::read_until(fd_, expected, WAIT_MS, &got);
  EXPECT_EQ(got, expected);
  close(link);
  close(peer);
}

// Without a switch, with a stale file at its path and with a second
// dispatcher knocking, the server takes its one connection and runs until
// that closes; then only the thread ends.
TEST_F(CommandServer, TakesOneConnectionAndEndsWithIt) {
  FILE* stale = fopen(server_path_, "w");
  ASSERT_NE(stale, nullptr);
  fclose(stale);
  start_server();
  ASSERT_TRUE(zt::wait_for_text(root_.log_path(), "waits on AT commands on socket:", WAIT_MS));
  errno = 0;
  EXPECT_EQ(zt::connect_unix(server_path_), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(exchange("AT\r\n", "AT\r" + OK + "\n"), "AT\r" + OK + "\n");

  ASSERT_TRUE(hang_up());
  std::string text = log();
  const std::vector<std::string> entries = {
       "zorSrv_ThreadMain entry will work with:\n prs: " + std::string(server_path_) + "\n atsw \n",
        "create the socket\n", "bind the socket\n", "listen the socket\n",
        "Waiting to accept connection on " + std::string(server_path_) + " .... \n",
        "ZOR AT Ssrver - Accepted connection on " + std::string(server_path_) + " with fd = ",
        "err: cannot open connection to AT switch\n", "zorSrv thread ID = ",
        "err: my_yy_fatal_error: input from the dispatcher failed\n"};
  for (const std::string& entry : entries) EXPECT_NE(text.find(entry), std::string::npos) << entry;
}

// The scanner's and the parser's marks on standard output and error.
TEST_F(CommandServer, MarksEachTokenOnStandardOutput) {
  fflush(stdout);
  int saved[2] = {dup(1), dup(2)};
  const std::string out_path = root_.path() + "/out", err_path = root_.path() + "/err";
  FILE* out = fopen(out_path.c_str(), "w");
  FILE* err = fopen(err_path.c_str(), "w");
  dup2(fileno(out), 1);
  dup2(fileno(err), 2);
  start_server();
  const std::string last = "at\r" + OK + "\n";
  std::string got = exchange("  AT\r\nAT+CEVVMCMD=?\r\nAT+CEVVMEV=\"x\"y, z\r\nATI\r\n#\r\nat\r\n", last);
  EXPECT_TRUE(got.ends_with(last)) << got;
  EXPECT_TRUE(hang_up());
  fflush(stdout);
  for (int fd : {1, 2}) {
    dup2(saved[fd - 1], fd);
    close(saved[fd - 1]);
  }
  fclose(out);
  fclose(err);

  const std::string eol = "--- got EOL\n--- got EOL\n";
  EXPECT_EQ(zt::read_file(out_path),
            "got tab\n--- GOT AT\n" + eol + "--- GOT AT\n--- GOT CEVVMCMD\n" + eol +
                "--- GOT AT\n--- GOT CEVVMEV\n--- GOT SET\n" + eol + "--- GOT AT\n--- gen-e at cmd: I\r\n--- got EOL\n" +
                "--- lex error: #\n" + eol + "--- GOT AT\n" + eol);
  EXPECT_EQ(zt::read_file(err_path), "connect: Connection refused\ndestructing y\ndestructing  z\n");
}

TEST(CommandServerDeathTest, EndsTheProcessWhenItCannotBind) {
  EXPECT_EXIT(zorSrv_OpenServerSocket("/nonexistent-zord-dir/zor-vvm_at_prs_srv"), ::testing::ExitedWithCode(1),
              "bind: No such file or directory");
}

}  // namespace
