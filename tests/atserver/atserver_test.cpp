// The AT command server's corners: the AT switch link against a switch
// played by the test, the result writers' bytes, and the command server
// thread with its grammar over a real connection, beside atsw-sim.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "atserver/at_parser.h"
#include "atserver/atsw_link.h"
#include "atserver/command_server.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "core/mutex_lock.h"
#include "gateway/at_queue.h"
#include "tests/support/support.h"
#include "tools/atsw-sim/atsw_sim.h"

namespace {

const std::string OK = "\r\nOK\r\n", ERR = "\r\nERROR\r\n", L = "\r\n";

class AtServer : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ZORD_ROOT", root_.path().c_str(), 1);
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
  }
  zt::TempRoot root_;
};

// Each row's answer comes in the given pieces, one read each (a packet
// socket keeps them apart); the receive area is not cleared between reads.
TEST_F(AtServer, TheLinkFramesACommandAndReadsItsAnswerToTheFinalResult) {
  std::string crs_expanded = "\r\nOK";
  for (int i = 0; i < 2046; ++i) crs_expanded += L;
  struct Row {
    const char* cmd;
    std::vector<std::string> parts;
    std::string sent;
    int status;  // 7: untouched
    std::string answer;
    bool closed = false;  // the switch closes after the parts
    size_t room = 5000;   // the caller's buffer
  } rows[] = {
      {"AT+CEREG?\n\r", {"\r\n+CEREG: 0,1\r\n", OK}, "AT+CEREG?\n\r\n", 0, OK + "EG: 0,1\r\n"},
      {"AT+X", {ERR}, "AT+X\n", 1, ERR},
      {"+X", {ERR}, "AT+X\n", 1, ERR},
      {"at+x", {ERR}, "ATat+x\n", 1, ERR},
      {"At+x", {ERR}, "ATAt+x\n", 1, ERR},
      {"+CIMI\r", {"\r+CIMI: 1\r\rOK\r"}, "AT+CIMI\r\n", 0, "\r\n+CIMI: 1\r\n\r\nOK\r\n"},
      {"ATI", {"\r\n+CME ERROR: 10\r\n"}, "ATI\n", 1, "\r\n+CME ERROR: 10\r\n"},
      {"ATI", {ERR + OK}, "ATI\n", 0, ERR + OK},
      {"ATI", {"\r\n+CEREG: 0,1\r\n"}, "ATI\n", 7, "", true},
      {"ATI", {std::string(2048, '\r'), OK}, "ATI\n", 0, crs_expanded},
      {"AT+CIMI",
       {"\r\n+CIMI: 310410123456789\r\n\r\nOK\r\n"},
       "AT+CIMI\n",
       0,
       "\r\n+CIMI: 3",
       false,
       11},
  };
  for (const Row& row : rows) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    for (const std::string& part : row.parts)
      ASSERT_EQ(write(sv[1], part.data(), part.size()), ssize_t(part.size()));
    if (row.closed) shutdown(sv[1], SHUT_WR);
    cmd_atsw_fd = sv[0];
    int status = 7;
    std::vector<char> answer(row.room + 1);
    zorSrv_sendATCmdToAtSwitch(row.cmd, &status, answer.data(), row.room);
    EXPECT_EQ(std::tuple(zt::read_available(sv[1]), status, std::string(answer.data())),
              std::tuple(row.sent, row.status, row.answer))
        << row.cmd;
    close(sv[0]);
    close(sv[1]);
  }
  cmd_atsw_fd = -1;  // a link that never connected: nothing read, nothing set
  int status = 7;
  zorSrv_sendATCmdToAtSwitch("AT+CEREG?\n\r", &status, nullptr);
  EXPECT_EQ(status, 7);
}

// By design the daemon keeps SIGPIPE's default action: writing to a switch
// that has gone away ends the process.
TEST(AtServerDeathTest, WritingToAClosedSwitchEndsTheProcess) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  close(sv[1]);
  cmd_atsw_fd = sv[0];
  EXPECT_EXIT(zorSrv_sendATCmdToAtSwitch("AT+CEREG?\n\r", nullptr, nullptr),
              ::testing::KilledBySignal(SIGPIPE), "");
}

TEST(AtServerDeathTest, TheCommandServerEndsTheProcessWhenItCannotBind) {
  EXPECT_EXIT(zorSrv_OpenServerSocket("/nonexistent-zord-dir/zor-vvm_at_prs_srv"),
              ::testing::ExitedWithCode(1), "bind: No such file or directory");
}

// OK, ERROR, information texts with OK or AOK and forwarded answers show in
// the command server's answers below.
TEST_F(AtServer, ResultWritersWriteExactlyTheseBytes) {
  int out[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, out), 0);
  zorSrv_OutSocket = out[0];
  struct Row {
    const char* text;  // none: the result code alone
    int code;
    std::string bytes;
  } rows[] = {
      {nullptr, 2, L + "AOK" + L}, {nullptr, 3, L + "NOK" + L},       {nullptr, 4, ""},
      {"t", 1, L + "t" + L + ERR}, {"t", 3, L + "t" + L + "NOK" + L}, {"t", 4, L + "t" + L}};
  for (const Row& row : rows) {
    row.text != nullptr ? zorSrv_SendResponseText(row.text, row.code)
                        : zorSrv_SendResponse(row.code);
    EXPECT_EQ(zt::read_available(out[1]), row.bytes) << row.code;
  }
  zorSrv_OutSocket = -1;
  zorSrv_SendResponse(0);
  EXPECT_EQ(zt::read_available(out[1]), "");
  EXPECT_TRUE(zt::wait_for_text(root_.log_path(), "err: no output socket!\n", zt::WAIT_MS));
}

// The server removes a stale file at its path first and refuses any
// connection after its one. The switch's line is found past lines that do
// not name it after a number above 0, and inside a longer role name.
TEST_F(AtServer, TheCommandServerAnswersEachLineWithItsEchoesThenTheResultCodes) {
  const char* path = getenv("PATH");
  setenv("PATH",
         (std::string(UCI_SIM_DIR) + ":" + (path != nullptr ? path : "/usr/bin:/bin")).c_str(), 1);
  mkdir((root_.path() + "/etc").c_str(), 0755);
  mkdir((root_.path() + "/etc/atswitch_config").c_str(), 0755);
  FILE* config =
      fopen((root_.path() + "/etc/atswitch_config/atswitch_ecm_config.csv").c_str(), "w");
  fputs("0,CUSTOM2\nabc,CUSTOM2\n11,CUSTOM22,x\n", config);
  fclose(config);
  atsw::Simulator sim({root_.path(), 11, 12, true});  // keeps the configuration
  std::string error;
  ASSERT_TRUE(sim.start(&error)) << error;
  sim.control("quote on");
  const std::string server = root_.path() + "/tmp/zor-vvm_at_prs_srv";
  fclose(fopen(server.c_str(), "w"));
  ASSERT_EQ(init_shared_ipc(), 0);  // the set handler writes to the unsolicited pair
  char* paths[] = {const_cast<char*>(server.c_str())};
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, zorSrv_ThreadMain, paths), 0);
  pthread_detach(thread);
  int fd = -1;  // the test is the dispatcher
  ASSERT_TRUE(zt::wait_until([&] { return (fd = zt::connect_unix(server)) >= 0; }, zt::WAIT_MS));
  // Sends bytes and reads until `expected` has come; returns what came.
  auto exchange = [&](const std::string& sent, const std::string& expected) {
    EXPECT_EQ(write(fd, sent.data(), sent.size()), ssize_t(sent.size()));
    std::string got;
    zt::read_until(fd, expected, zt::WAIT_MS, &got);
    return got;
  };

  const std::string cell_query = "AT+CEREG?\n\r\nAT+COPS=3,2\n\r\nAT+COPS?\n\r\nAT%PCONI\n\r\n";
  const std::string cell = "310410\"1A201A2D10";  // the simulator's, with quoted tac and ci
  std::string nineteen = "AT+CEVVMEV=1";
  for (int i = 2; i <= 19; ++i) nineteen += "," + std::to_string(i);
  constexpr int NO_EVENT = 1000;
  struct Row {
    std::string sent, received;  // received: echoes, forwarded answers and result codes, in order
    std::string modem = "";
    int event = NO_EVENT;  // the set handler's argument
  };
  // The kinds of line: a set command with its one value, a list that is not
  // one value (nothing called, no result), a bad line (one ERROR, found in
  // the line or on its end), a line for the switch (everything after AT up
  // to the LF; the line then ends as a bare AT), and the two queries.
  auto set = [&](std::string line, int event) {
    return Row{line + L, line + "\r" + OK + "\n", cell_query, event};
  };
  auto none = [](std::string line) { return Row{line + L, line + L}; };
  auto bad = [](std::string line) { return Row{line + L, line + "\r" + ERR + "\n"}; };
  auto pass = [](std::string line, std::string answer, std::string modem = "") {
    return Row{line + L, line + "\r" + answer + L + OK + "\n", modem.empty() ? line + L : modem};
  };
  Row rows[] = {
      {"XYZ\r\n", "XYZ\r" + ERR + "\n"},
      {"at\r\n", "at\r" + OK + "\n"},  // the first line: ERROR at its end
      {"XYZ\r\n", "X" + ERR + "YZ\r\n"},
      {"A\r\n", "A" + ERR + "\r\n"},  // after a line end: at once
      set("AT+CEVVMEV=5", 5),
      set("AT+CEVVMEV=\"7\"", 7),
      set("AT+CEVVMEV= 5", 5),
      set("at+cevvmev =\t7 ", 7),
      set("AT+CEVVMEV=+7", 7),
      set("AT+CEVVMEV=\"-1\"", -1),
      set("AT+CEVVMEV=a b", 0),
      none("AT+CEVVMEV=1,2"),
      none("AT+CEVVMEV=5,"),
      none("AT+CEVVMEV=1,,2"),
      // "" keeps the first slot of the line before, unless that began with a comma.
      set("AT+CEVVMEV=3", 3),
      set("AT+CEVVMEV=\"\"", 3),
      none("AT+CEVVMEV=,5"),
      set("AT+CEVVMEV=\"\"", 0),
      bad("AT+CEVVMEV=?"),
      bad("AT+CEVVMEV=#"),
      bad("AT+CEVVMEV="),
      bad("AT+CEVVMEV=,,"),
      bad("AT+CEVVMEV=,5,"),
      bad("AT+CEVVMEV=\"x\"y"),
      bad("AT+CEVVMEV=\"a,b\""),
      bad("AT+CEVVMEV=1\"2\""),
      bad("AT+CEVVMEV"),
      bad("AT+CEVVMC"),
      bad("AT+CEVVMEX"),
      bad("AT+CEVVMEV?X"),
      bad("AT+CEVVMCMD=1"),
      bad("AT+CEVVMCMD=?"),
      pass("ATI", "\r\natsw-sim modem model 1\r\n" + OK),
      pass("ATAT", OK, "AT\r\n"),
      pass("AT+CEREG?", "\r\n+CEREG: 2,1,\"1A2B\",\"01A2D101\",7\r\n" + OK),
      pass("AT+CGMI", ERR),
      pass("AT+CEVVMX", ERR),
      pass("AT  ", ERR),
      {"at+cevvmev? \r\n", "at+cevvmev? \r\r\n+CEVVMEV:" + cell + ",FDD\r\nAOK\r\n\n", cell_query},
      {"At+CeVvMcMd?\r\n",
       "At+CeVvMcMd?\r\r\n+CEVVMCMD:310410123456789," + cell + ",FDD" + OK + "\n",
       "AT+CIMI\n\r\n" + cell_query},
      {"  AT\r\n", "  AT\r" + OK + "\n"},
      {"\r\n", "\r\n"},
      {"AT\r\n", "AT\r" + OK + "\n"},
      // From the 19th value on the count stays 18; the last value is in the overflow slot.
      {nineteen + "\r\nAT\r\n", nineteen + "\r\nAT\r" + OK + "\n"},
  };
  std::vector<int> events;
  size_t modem_seen = 0;
  for (const Row& row : rows) {
    EXPECT_EQ(exchange(row.sent, row.received), row.received) << row.sent;
    std::string modem = sim.received_bytes(1);
    EXPECT_EQ(modem.substr(modem_seen), row.modem) << row.sent;
    modem_seen = modem.size();
    if (row.event != NO_EVENT) events.push_back(row.event);
  }
  {
    MutexLock sync(send_atcmd_lock);  // the OK that ended the last row was written under it
    EXPECT_EQ(gATParser_Num_Params, 18);
    EXPECT_STREQ(gATParams[AT_PARAM_SLOTS - 1].value, "18");
    EXPECT_STREQ(gATParams[AT_PARAM_SLOTS].value, "19");
  }
  errno = 0;
  EXPECT_EQ(zt::connect_unix(server), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  std::string log = zt::read_file(root_.log_path()), mark = "zorSrv_HandleSetCEVVMEV event=";
  std::vector<int> logged;
  for (size_t at = log.find(mark); at != std::string::npos; at = log.find(mark, at + 1))
    logged.push_back(atoi(log.c_str() + at + mark.size()));
  EXPECT_EQ(logged, events);

  // A bare LF right after AT may start a command for the switch, which then
  // runs into the next line. The switch closes at it: nothing is forwarded.
  sim.control("close");
  EXPECT_EQ(exchange("AT\nATE0\r\n", "ATE0\r" + OK + "\n"), "AT\nATE0\r" + OK + "\n");
  EXPECT_EQ(sim.received_bytes(1).substr(modem_seen), "AT\nATE0\r\n");
}

}  // namespace
