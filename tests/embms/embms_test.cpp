// The eMBMS handlers, the registration query thread and the unsolicited
// event thread, against atsw-sim and the fake uci.
#include <thread>

#include "core/relaxed.h"
#include "embms/handlers.h"
#include "embms/lte_reg_thread.h"
#include "embms/unsol_thread.h"
#include "tests/embms/modem_fixture.h"
#include "tests/support/support.h"

const std::string CEREG = "AT+CEREG?\n\r\n", COPS = "AT+COPS=3,2\n\r\nAT+COPS?\n\r\n",
                  PCONI = "AT%PCONI\n\r\n", CIMI = "AT+CIMI\n\r\n", OK = "\r\nOK\r\n",
                  ERROR = "\r\nERROR\r\n";
// The serving cell query; the simulator's cell as the handlers build it (tac
// from its quote, ci after it).
const std::string ALL = CEREG + COPS + PCONI, CELL = "310410\"1A201A2D10";
// Modem answers: registered out of service (with a location), no operator, a
// quote the operator does not close, a duplex mode that is not there, an IMSI
// with a letter, registration failed.
const std::string UNREG = "answer AT+CEREG? +CEREG: 2,4,1A2B,01A2D101,7\\r\\nOK\\r\\n";
const std::string NO_PLMN = "answer AT+COPS? \\r\\n+COPS: 0\\r\\n\\r\\nOK\\r\\n";
const std::string OPEN_QUOTE = "answer AT+COPS? \\r\\n+COPS: 0,2,\\\"\\r\\n\\r\\nOK\\r\\n";
const std::string NO_DUPLEX = "answer AT%PCONI \\r\\n\\r\\nOK\\r\\nduplexing mode: ";
const std::string LETTER = "answer AT+CIMI \\r\\n+CIMI: X310\\r\\n\\r\\nOK\\r\\n";
const std::string REG_ERROR = "answer AT+CEREG? \\r\\nERROR\\r\\n";
// The client's answers to AT+CEVVMEV? and AT+CEVVMCMD?, and the event line.
std::string ev(const std::string& fields) { return "\r\n+CEVVMEV:" + fields + "\r\nAOK\r\n"; }
std::string cmd(const std::string& fields) { return "\r\n+CEVVMCMD:" + fields + OK; }
std::string line(const std::string& fields) { return "+CEVVMEV:" + fields + "\r\n"; }

using Embms = ModemFixture;

using Handler = int (*)();
const Handler EV_READ = zorSrv_HandleReadCEVVMEV, CMD_READ = zorSrv_HandleReadCEVVMCMD,
              EV_SET = [] { return zorSrv_HandleSetCEVVMEV(7); };

// Per handler, the modem's commands in order, the client's answer and the
// unsolicited line.
TEST_F(Embms, AskTheModemInOrderAndAnswerTheClient) {
  const std::string IMSI = "310410123456789", LONG_IMSI = "0123456789012345678";
  const std::string NEW_CELL = "31041000C1BEEF001";
  struct Row {
    std::vector<std::string> control;
    Handler handler;
    std::string sent, answer, unsol = "";
  } rows[] = {
      {{"fail 1"}, EV_READ, CEREG, ev("NULL,NULL")},  // no retry
      {{UNREG}, EV_READ, CEREG, ev("NULL,NULL")},
      {{"register roaming", "duplex TDD"}, EV_READ, ALL, ev(CELL + ",TDD")},
      {{"quote off", "plmn 26201"}, EV_READ, ALL, ev("262011A2B1A2D101,FDD")},
      {{"quote off", "plmn 2620"}, EV_READ, ALL, ev("2620,FDD")},
      {{"quote off", "plmn 12345678"}, EV_READ, ALL, ev("123451A2B1A2D101,FDD")},
      {{"quote off", "spacing on", "cell 00C1 0BEEF001"}, EV_READ, ALL, ev(NEW_CELL + ",FDD")},
      {{OPEN_QUOTE}, EV_READ, ALL, ev("\r\n\r\nO\"1A201A2D10,FDD")},
      {{NO_DUPLEX}, EV_READ, ALL, ev(CELL + ",")},
      {{REG_ERROR}, CMD_READ, CIMI + CEREG, cmd(IMSI + ",NULL,NULL")},
      {{UNREG, "imsi " + LONG_IMSI}, CMD_READ, CIMI + CEREG, cmd(LONG_IMSI + ",NULL,NULL")},
      {{LETTER}, CMD_READ, CIMI, ERROR},
      // Both WAN addresses at the first check: IPv6 first, then IPv4 against an empty one.
      {{"wan4 10.0.0.1", "wan6 2001:db8::1"}, EV_SET, ALL, OK, line(CELL + ",FDD,1")},
      {{"fail 1"}, EV_SET, CEREG + ALL, OK},  // asked once more; nothing changed
  };
  for (const Row& row : rows) {
    fresh_modem();
    for (const auto& c : row.control) modem(c);
    row.handler();
    EXPECT_EQ(modem_bytes() + "|" + client_bytes() + "|" + unsol_bytes(),
              row.sent + "|" + row.answer + "|" + row.unsol)
        << ::testing::PrintToString(row.control);
  }
}

// The set handler remembers the last cell and WAN addresses for good: one
// process, one sequence. It answers exactly one OK on every path.
TEST_F(Embms, SetReportsWhatChangedAndEveryNullLine) {
  struct Row {
    std::vector<std::string> control;
    std::string unsol;
  } rows[] = {
      {{}, line(CELL + ",FDD,0")},
      {{"wan4 10.0.0.1"}, ""},  // the first valid address is no change
      {{"wan4 10.0.0.2"}, line(CELL + ",FDD,1")},
      {{"wan4 1.2."}, ""},  // shorter than 5: never stored
      {{NO_PLMN}, ""},
      {{"answer AT+COPS?", "duplex none"}, ""},
      {{"duplex FDD", "plmn 26201"}, line("26201\"1A201A2D10,FDD,0")},  // the old 17th stays
      {{}, line("26201\"1A201A2D10,FDD,0")},                            // so it differs again
      {{"deregister 4"}, line("NULL,NULL,0")},
      {{UNREG}, line("NULL,NULL,0")},
      {{"wan6 2001:db8::1"}, line("NULL,NULL,1")},
      {{}, line("NULL,NULL,0")},  // one first-seen flag for both
  };
  for (const Row& row : rows) {
    for (const auto& c : row.control) modem(c);
    EV_SET();
    EXPECT_EQ(unsol_bytes() + client_bytes(), row.unsol + OK)
        << ::testing::PrintToString(row.control);
  }
}

// The thread polls the link once a second and asks nothing before it is up.
TEST_F(Embms, RegistrationThreadWaitsForTheLink) {
  int link = cmd_atsw_fd;
  relaxed_store(cmd_atsw_fd, 0);
  std::thread t(initial_LTE_reg_thread, nullptr);
  EXPECT_FALSE(zt::wait_for_text(root_.log_path(), ":start LTE Reg status", 1500));
  EXPECT_EQ(modem_bytes(), "");
  relaxed_store(cmd_atsw_fd, link);
  t.join();
  EXPECT_EQ(modem_bytes(), CEREG);
}

// Once the link is up (a failed connect's descriptor counts), the thread
// asks once, retrying an ERROR, and seeds the last state.
TEST_F(Embms, RegistrationThreadSeedsTheLastStateOnce) {
  struct Row {
    std::vector<std::string> control;
    int32_t state;
    std::string sent;
    bool connected = true;
  } rows[] = {
      {.control = {"n 0"}, .state = 1, .sent = CEREG},
      {.control = {"fail 1", "register roaming"}, .state = 5, .sent = CEREG + CEREG},
      {.control = {}, .state = 0, .sent = "", .connected = false},
  };
  const std::string nowhere = root_.path() + "/tmp/atsw99";
  for (const Row& row : rows) {
    fresh_modem();
    for (const auto& c : row.control) modem(c);
    if (!row.connected) {
      EXPECT_EQ(zor_OpenSocketToAtSwitch("AT_CMD_RSP", nowhere.c_str(), &cmd_atsw_fd), -1);
    }
    relaxed_store(last_event_num, -1);
    std::thread(initial_LTE_reg_thread, nullptr).join();
    EXPECT_EQ(std::to_string(relaxed_load(last_event_num)) + " " + modem_bytes(),
              std::to_string(row.state) + " " + row.sent);
  }
}

// Registration reports in any case; leaving service or staying in it is told
// at once, entering it after 7 s, and nothing to nobody. When the switch goes
// away the thread ends with an entry.
TEST_F(Embms, UnsolThreadSignalsRegistrationChangesToSubscribers) {
  const std::string SIGNAL = "+UNSOL:1\n\r";
  const char* CGREG = "+CGREG: 1,\\\"00C1\\\",\\\"0BEEF001\\\",7";
  struct Row {
    const char* report;
    bool subscribed;
    int32_t state;
    bool signal;
  } rows[] = {
      {.report = "+creg: 5", .subscribed = true, .state = 5, .signal = true},
      {.report = "+CEREG: 0", .subscribed = true, .state = 0, .signal = true},
      {.report = "+CEREG: 2", .subscribed = true, .state = 2, .signal = false},
      {.report = "+CSQ: 20,99", .subscribed = true, .state = 2, .signal = false},
      {.report = CGREG, .subscribed = true, .state = 1, .signal = true},
      {.report = "+CEREG: 0", .subscribed = false, .state = 0, .signal = false},
  };
  relaxed_store(last_event_num, 1);
  std::thread t(zorUnsol_ThreadMain, nullptr);
  ASSERT_TRUE(zt::wait_until([&] { return sim_->unsol_connections() == 1; }, zt::WAIT_MS));
  for (const Row& row : rows) {
    relaxed_store(childs[3].unsol_enabled, row.subscribed ? 1 : 0);
    modem(std::string("push \\r\\n") + row.report + "\\r\\n");
    std::string got;  // a signal too many shows here or in the last check, after the thread ends
    if (row.signal) {
      EXPECT_TRUE(zt::read_until(at_unsol_sockfd[0], SIGNAL, zt::WAIT_MS, &got) && got == SIGNAL)
          << row.report << got;
    }
    EXPECT_TRUE(
        zt::wait_until([&] { return relaxed_load(last_event_num) == row.state; }, zt::WAIT_MS))
        << row.report;
  }
  sim_->stop();
  t.join();
  EXPECT_EQ(unsol_bytes(), "");
  const std::string entry = "ThreadMain: error reading from at switch " + root_.path();
  EXPECT_EQ(zt::count_of(log(), entry + "/tmp/atsw12\n"), 1u);
}

// A report line ends at its CR or LF, or at the bound; a stream that ends
// before a line end is an error.
TEST_F(Embms, UnsolReadLineStopsAtALineEndOrAtItsBound) {
  ASSERT_EQ(write(client_[1], "+CEREG: 1\rABC", 13), 13);
  close(client_[1]);
  char buf[8];
  EXPECT_TRUE(zorUnsol_ReadLine(client_[0], buf, 5) == 5 && std::string(buf, 5) == "+CERE");
  EXPECT_TRUE(zorUnsol_ReadLine(client_[0], buf, 8) == 5 && std::string(buf, 5) == "G: 1\r");
  EXPECT_EQ(zorUnsol_ReadLine(client_[0], buf, 8), -1);
}
