// The AT command server's corners: the AT switch link against a switch
// played by the test, the result writers' bytes, and the command server
// thread with its grammar over a real connection, beside atsw-sim.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "atserver/atsw_link.h"
#include "atserver/command_server.h"
#include "atserver/result_writers.h"
#include "tests/embms/modem_fixture.h"
#include "tests/support/support.h"

namespace {

const std::string OK = "\r\nOK\r\n", ERR = "\r\nERROR\r\n", L = "\r\n";

// The switch's answer comes in the given reads (a packet socket keeps them
// apart). The receive area is not cleared between reads, lone CRs become CR
// LF, and the first final result ends the answer.
TEST(AtServer, TheLinkReadsTheAnswerToItsFinalResult) {
  constexpr int PASSED = 0, FAILED = 1, UNSET = 7;  // UNSET: the status is left alone
  const std::string REG = "\r\n+CEREG: 0,1\r\n", CME = "\r\n+CME ERROR: 10\r\n";
  const std::string STALE = OK + "EG: 0,1\r\n";  // the first read's tail stays behind the second
  const std::string LONE_CRS = "\r+CIMI: 1\r\rOK\r", EXPANDED = "\r\n+CIMI: 1\r\n\r\nOK\r\n";
  const std::string CIMI = "\r\n+CIMI: 310410123456789\r\n" + OK, CRS(2048, '\r');
  std::string crs_expanded = "\r\nOK";
  for (int i = 0; i < 2046; ++i) crs_expanded += L;
  struct Row {
    std::vector<std::string> reads;
    int status;
    std::string answer;
    bool closed = false;  // the switch closes after the reads
    size_t room = 5000;   // the caller's buffer
  } rows[] = {
      {.reads = {REG, OK}, .status = PASSED, .answer = STALE},
      {.reads = {ERR}, .status = FAILED, .answer = ERR},
      {.reads = {LONE_CRS}, .status = PASSED, .answer = EXPANDED},
      {.reads = {CME}, .status = FAILED, .answer = CME},
      {.reads = {ERR + OK}, .status = PASSED, .answer = ERR + OK},
      {.reads = {REG}, .status = UNSET, .answer = "", .closed = true},
      {.reads = {CRS, OK}, .status = PASSED, .answer = crs_expanded},
      {.reads = {CIMI}, .status = PASSED, .answer = "\r\n+CIMI: 3", .room = 11},
  };
  for (const Row& row : rows) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    for (const std::string& r : row.reads)
      ASSERT_EQ(write(sv[1], r.data(), r.size()), ssize_t(r.size()));
    if (row.closed) shutdown(sv[1], SHUT_WR);
    cmd_atsw_fd = sv[0];
    int status = UNSET;
    std::vector<char> answer(row.room + 1);
    zorSrv_sendATCmdToAtSwitch("ATI", &status, answer.data(), row.room);
    EXPECT_EQ(std::tuple(zt::read_available(sv[1]), status, std::string(answer.data())),
              std::tuple("ATI\n", row.status, row.answer))
        << row.reads[0];
    close(sv[0]);
    close(sv[1]);
  }
}

// OK, ERROR, information texts with OK or AOK and forwarded answers show in
// the command server's answers below.
TEST(AtServer, ResultWritersWriteExactlyTheseBytes) {
  int out[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, out), 0);
  zorSrv_OutSocket = out[0];
  struct Row {
    const char* text;  // none: the result code alone
    int code;
    std::string bytes;
  } rows[] = {
      {nullptr, RESULT_AOK, L + "AOK" + L},
      {nullptr, RESULT_NOK, L + "NOK" + L},
      {nullptr, RESULT_NONE, ""},
      {"t", RESULT_ERROR, L + "t" + L + ERR},
      {"t", RESULT_NOK, L + "t" + L + "NOK" + L},
      {"t", RESULT_NONE, L + "t" + L},
  };
  for (const Row& row : rows) {
    if (row.text != nullptr)
      zorSrv_SendResponseText(row.text, row.code);
    else
      zorSrv_SendResponse(row.code);
    EXPECT_EQ(zt::read_available(out[1]), row.bytes) << row.code;
  }
}

// The command server thread, with the test as its dispatcher and atsw-sim as
// the switch, which it finds by its role. It removes a stale file at its path.
class CommandServer : public ModemFixture {
 protected:
  void SetUp() override {
    ModemFixture::SetUp();
    fclose(fopen(server_.c_str(), "w"));
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, zorSrv_ThreadMain, paths_), 0);
    pthread_detach(thread);
    auto connected = [&] {
      fd_ = zt::connect_unix(server_);
      return fd_ >= 0;
    };
    ASSERT_TRUE(zt::wait_until(connected, zt::WAIT_MS));
  }
  std::string modem_since() {                     // what the switch received since the last call
    std::string modem = sim_->received_bytes(2);  // the thread's link, after the fixture's
    return modem.substr(std::exchange(modem_seen_, modem.size()));
  }
  std::string events_since() {  // the set handler's arguments logged since the last call
    const std::string log = zt::read_file(root_.log_path()), mark = "HandleSetCEVVMEV event=";
    std::string events;
    for (size_t at = log.find(mark, log_seen_); at != std::string::npos;
         at = log.find(mark, at + 1))
      events += log.substr(at + mark.size(), log.find('\n', at) - at - mark.size()) + ";";
    log_seen_ = log.size();
    return events;
  }
  // The line sent; what came back (echoes, forwarded answers and result
  // codes, in order); what the switch got; the handler's arguments.
  struct Row {
    std::string sent, received, modem = "", events = "";
  };
  void check(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      EXPECT_EQ(write(fd_, row.sent.data(), row.sent.size()), ssize_t(row.sent.size()));
      std::string received;  // read first: what the switch got and the log come before it
      zt::read_until(fd_, row.received, zt::WAIT_MS, &received);
      EXPECT_EQ(std::tuple(received, modem_since(), events_since()),
                std::tuple(row.received, row.modem, row.events))
          << row.sent;
    }
  }
  // A set command with one value: its handler asks the cell and answers OK.
  static Row set(const std::string& line, const std::string& event) {
    return {line + L, line + "\r" + OK + "\n", CELL_QUERY, event + ";"};
  }
  // A list that is not one value: nothing called, no result.
  static Row none(const std::string& line) { return {line + L, line + L}; }
  static Row bad(const std::string& line) { return {line + L, line + "\r" + ERR + "\n"}; }
  // A line for the switch: everything after AT up to the LF goes there
  // (the line then ends as a bare AT).
  static Row pass(const std::string& line, const std::string& answer, std::string modem = "") {
    return {line + L, line + "\r" + answer + L + OK + "\n", modem.empty() ? line + L : modem};
  }

  static inline const std::string CELL_QUERY =
      "AT+CEREG?\n\r\nAT+COPS=3,2\n\r\nAT+COPS?\n\r\nAT%PCONI\n\r\n";
  std::string server_ = root_.path() + "/tmp/zor-vvm_at_prs_srv";
  char* paths_[1] = {server_.data()};
  int fd_ = -1;
  size_t modem_seen_ = 0, log_seen_ = 0;
};

// A set command takes one value, bare or quoted, blanks around it; "" keeps
// the first slot of the line before, unless that began with a comma.
TEST_F(CommandServer, ASetCommandCallsItsHandlerWithItsOneValue) {
  check({
      set("AT+CEVVMEV=5", "5"),
      set("AT+CEVVMEV=\"7\"", "7"),
      set("at+cevvmev =\t7 ", "7"),
      set("AT+CEVVMEV=+7", "7"),
      set("AT+CEVVMEV=\"-1\"", "-1"),
      set("AT+CEVVMEV=a b", "0"),
      none("AT+CEVVMEV=1,2"),
      none("AT+CEVVMEV=5,"),
      none("AT+CEVVMEV=1,,2"),
      set("AT+CEVVMEV=3", "3"),
      set("AT+CEVVMEV=\"\"", "3"),
      none("AT+CEVVMEV=,5"),
      set("AT+CEVVMEV=\"\"", "0"),
  });
}

// One ERROR per bad line: on the first line at its end, later at once.
TEST_F(CommandServer, ABadLineGetsOneError) {
  check({
      {"XYZ\r\n", "XYZ\r" + ERR + "\n"},
      {"at\r\n", "at\r" + OK + "\n"},
      {"XYZ\r\n", "X" + ERR + "YZ\r\n"},
      {"A\r\n", "A" + ERR + "\r\n"},
      bad("AT+CEVVMEV=?"),
      bad("AT+CEVVMEV=#"),
      bad("AT+CEVVMEV="),
      bad("AT+CEVVMEV=,,"),
      bad("AT+CEVVMEV=\"x\"y"),
      bad("AT+CEVVMEV=\"a,b\""),
      bad("AT+CEVVMEV=1\"2\""),
      bad("AT+CEVVMEV"),
      bad("AT+CEVVMC"),
      bad("AT+CEVVMEV?X"),
      bad("AT+CEVVMCMD=1"),
      bad("AT+CEVVMCMD=?"),
  });
}

// Lines that are not the daemon's own go to the switch, whose answer is
// passed on; a bare AT is answered OK, blanks and line ends echoed.
TEST_F(CommandServer, OtherCommandsGoToTheSwitch) {
  check({
      pass("ATI", "\r\natsw-sim modem model 1\r\n" + OK),
      pass("ATAT", OK, "AT\r\n"),  // only "A" or "a" before an upper-case "T" is its own AT
      pass("ATat+x", ERR),
      pass("AT+CEREG?", "\r\n+CEREG: 2,1,\"1A2B\",\"01A2D101\",7\r\n" + OK),
      pass("AT+CGMI", ERR),
      pass("AT  ", ERR),
      {"  AT\r\n", "  AT\r" + OK + "\n"},
      {"\r\n", "\r\n"},
      {"AT\r\n", "AT\r" + OK + "\n"},
  });
}

// A bare LF right after AT may start a command for the switch, which then
// runs into the next line. The switch closes at it: nothing is forwarded.
TEST_F(CommandServer, ALineFeedAfterATRunsIntoTheNextLine) {
  modem("close");
  check({{"AT\nATE0\r\n", "AT\nATE0\r" + OK + "\n", "AT\nATE0\r\n"}});
}

}  // namespace
