// The eMBMS handlers, the registration query thread and the unsolicited
// event thread, against atsw-sim and the fake uci.
#include <fstream>
#include <thread>

#include "core/relaxed.h"
#include "embms/cell_query.h"
#include "embms/handlers.h"
#include "embms/lte_reg_thread.h"
#include "embms/unsol_thread.h"
#include "tests/embms/modem_fixture.h"
#include "tests/support/support.h"

const std::string CEREG = "AT+CEREG?\n\r\n", COPS = "AT+COPS=3,2\n\r\nAT+COPS?\n\r\n",
                  PCONI = "AT%PCONI\n\r\n", CIMI = "AT+CIMI\n\r\n", OK = "\r\nOK\r\n",
                  ERROR = "\r\nERROR\r\n";
// The simulator's cell as the handlers build it (tac from its quote, ci after
// it), and a field longer than any buffer.
const std::string CELL = "310410\"1A201A2D10", LONG(3000, '7');
// The serving cell query; a registration answer with a location while not registered.
const std::string ALL = CEREG + COPS + PCONI,
                  UNREG = "answer AT+CEREG? +CEREG: 2,4,1A2B,01A2D101,7\\r\\nOK\\r\\n";
const std::string NO_PLMN = "answer AT+COPS? \\r\\n+COPS: 0\\r\\n\\r\\nOK\\r\\n";
std::string ev(const std::string& fields) { return "\r\n+CEVVMEV:" + fields + "\r\nAOK\r\n"; }
std::string line(const std::string& fields) { return "+CEVVMEV:" + fields + "\r\n"; }

using Embms = ModemFixture;

// Per handler (E: AT+CEVVMEV?, C: AT+CEVVMCMD?, S: AT+CEVVMEV=7), the modem's
// commands in order, the client's answer and the unsolicited line.
TEST_F(Embms, AskTheModemInOrderAndAnswerTheClient) {
  struct Row {
    std::vector<std::string> control;
    char handler;
    std::string sent, answer, unsol = "";
  } rows[] = {
      {{"fail 1"}, 'E', CEREG, ev("NULL,NULL")},  // no retry
      {{UNREG}, 'E', CEREG, ev("NULL,NULL")},
      {{"register roaming", "duplex TDD"}, 'E', ALL, ev(CELL + ",TDD")},
      {{"quote off", "plmn 26201"}, 'E', ALL, ev("262011A2B1A2D101,FDD")},
      {{"quote off", "plmn 2620"}, 'E', ALL, ev("2620,FDD")},
      {{"quote off", "plmn 12345678"}, 'E', ALL, ev("123451A2B1A2D101,FDD")},
      {{"quote off", "spacing on", "cell 00C1 0BEEF001"}, 'E', ALL, ev("31041000C1BEEF001,FDD")},
      {{"answer AT+CEREG? \\r\\nERROR\\r\\n"},
       'C',
       CIMI + CEREG,
       "\r\n+CEVVMCMD:310410123456789,NULL,NULL" + OK},
      {{UNREG, "imsi 0123456789012345678"},
       'C',
       CIMI + CEREG,
       "\r\n+CEVVMCMD:0123456789012345678,NULL,NULL" + OK},
      {{"answer AT+CIMI \\r\\n+CIMI: X310\\r\\n\\r\\nOK\\r\\n"}, 'C', CIMI, ERROR},
      // Both WAN addresses at the first check: IPv6 first, then IPv4 against an empty one.
      {{"wan4 10.0.0.1", "wan6 2001:db8::1"}, 'S', ALL, OK, line(CELL + ",FDD,1")},
      {{"fail 1"}, 'S', CEREG + ALL, OK},  // asked once more; nothing changed
      // A quote the PLMN does not close, a duplex mode that is not there.
      {{"answer AT+COPS? \\r\\n+COPS: 0,2,\\\"\\r\\n\\r\\nOK\\r\\n"},
       'E',
       ALL,
       ev("\r\n\r\nO\"1A201A2D10,FDD")},
      {{"answer AT%PCONI \\r\\n\\r\\nOK\\r\\nduplexing mode: "}, 'E', ALL, ev(CELL + ",")}};
  for (const Row& row : rows) {
    fresh_modem();
    for (const auto& c : row.control) modem(c);
    row.handler == 'E'   ? zorSrv_HandleReadCEVVMEV()
    : row.handler == 'C' ? zorSrv_HandleReadCEVVMCMD()
                         : zorSrv_HandleSetCEVVMEV(7);
    EXPECT_EQ(modem_bytes() + "|" + client_bytes() + "|" + unsol_bytes(),
              row.sent + "|" + row.answer + "|" + row.unsol)
        << row.handler << ::testing::PrintToString(row.control);
  }
}

// The set handler remembers the last cell and WAN addresses for good: one
// process, one sequence. It answers exactly one OK on every path.
TEST_F(Embms, SetReportsWhatChangedAndEveryNullLine) {
  struct Row {
    std::vector<std::string> control;
    int event;
    std::string unsol;
  } rows[] = {{{}, 7, line(CELL + ",FDD,0")},
              {{"wan4 10.0.0.1"}, -1, ""},  // the first valid address is no change
              {{"wan4 10.0.0.2"}, 7, line(CELL + ",FDD,1")},
              {{"wan4 1.2."}, 7, ""},  // shorter than 5: never stored
              {{NO_PLMN}, 7, ""},
              {{"answer AT+COPS?", "duplex none"}, 7, ""},
              {{"duplex FDD", "plmn 26201"},
               7,
               line("26201\"1A201A2D10,FDD,0")},         // leaves the old 17th character
              {{}, 7, line("26201\"1A201A2D10,FDD,0")},  // so it differs again
              {{"deregister 4"}, 7, line("NULL,NULL,0")},
              {{UNREG}, -1, line("NULL,NULL,0")},
              {{"wan6 2001:db8::1"}, 7, line("NULL,NULL,1")},
              {{}, 7, line("NULL,NULL,0")}};  // one first-seen flag for both
  for (const Row& row : rows) {
    for (const auto& c : row.control) modem(c);
    zorSrv_HandleSetCEVVMEV(row.event);
    EXPECT_EQ(unsol_bytes() + client_bytes(), row.unsol + OK)
        << ::testing::PrintToString(row.control);
  }
}

TEST_F(Embms, UciGetTakesTheFirstLineLessItsLastCharacter) {
  struct Row {
    std::string prints, value;
  } rows[] = {{"10.0.0.1\n", "10.0.0.1"},
              {"", ""},
              {"a\nb\n", "a"},
              {"abc", "ab"},
              {"2001:0db8:0000:0000:0000:0000:0000:0001\n", "2001:0db8:0000:0000"}};
  for (const Row& row : rows) {
    std::ofstream(sim_->uci_dir() + "/tmp/key") << row.prints;
    char out[24] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'Z'};
    EXPECT_EQ(zorSrv_UciGet("/tmp/key", out, 20), 0);
    EXPECT_TRUE(std::string(out) == row.value && out[20] == 'Z') << row.prints << " gave " << out;
  }
}

// Answers longer than every buffer (whose tail the link may keep), or
// without the commas or colons looked for: each handler still answers once.
TEST_F(Embms, SurviveAnswersOfAnyShape) {
  for (const std::string& answer :
       {"AT+CEREG? \\r\\n+CEREG: 2,1," + LONG + "," + LONG + ",7\\r\\n\\r\\nOK\\r\\n",
        "AT+COPS? \\r\\n+COPS: 0,2,\\\"" + LONG + "\\\",7\\r\\n\\r\\nOK\\r\\n",
        "AT+CIMI \\r\\n+CIMI: " + LONG + "\\r\\n\\r\\nOK\\r\\n"}) {
    fresh_modem();
    modem("answer " + answer);
    zorSrv_HandleReadCEVVMEV(), zorSrv_HandleReadCEVVMCMD(), zorSrv_HandleSetCEVVMEV(7);
    std::string out = client_bytes();
    EXPECT_EQ(zt::count_of(out, "OK\r\n") + zt::count_of(out, "ERROR\r\n"), 3u)
        << answer.substr(0, 40) << out;
  }
}

TEST_F(Embms, ScanTheRegistrationAnswerAndLogItsFieldsWhole) {
  struct Row {
    std::string answer;
    int fields;
    const char *tac, *ci;
    std::string entry;
  } rows[] = {
      {"\r\n+CEREG: 2,1,\"1A2B\",\"01A2B3C4\",7\r\n", 6, "\"1A2", "\"01A2B3C",
       "get Stat: 1, TAC: \"1A2B\", ECI: \"01A2B3C4\"\n"},
      {"+CEREG: 2,5,1A2B,01A2B3C4,7\r\n", 6, "1A2B", "01A2B3C4",
       "get Stat: 5, TAC: 1A2B, ECI: 01A2B3C4\n"},
      {"\r\n+CEREG: 2,5,\"ABCDEFGH\",\"0123456789ABCDEF\",7\r\n", 6, "\"ABC", "\"0123456",
       "get Stat: 5, TAC: \"ABCDEFGH\", ECI: \"0123456789ABCDEF\"\n"},
      {"+CEREG: 2,1,\"1A2B\"\r\n", 4, "\"1A2", "", "get Stat: 1, TAC: \"1A2B\"\r\n, ECI: \n"},
      {"+CEREG: 0,1\r\n", 3, "", "", "x:does not get CEREG\n"},
      {"no colon here", 1, "", "", "x:does not get CEREG\n"},
      {":", 0, "", "", "x:does not get CEREG\n"},
      {"", -1, "", "", "x:does not get CEREG\n"}};
  for (const Row& row : rows) {
    Registration reg = scan_registration(row.answer.c_str());
    size_t before = log().size();
    log_registration("x", reg);
    EXPECT_EQ(
        std::to_string(reg.fields) + " [" + reg.tac + "] [" + reg.ci + "] " + log().substr(before),
        std::to_string(row.fields) + " [" + row.tac + "] [" + row.ci + "] " + row.entry)
        << row.answer;
  }
}

// Once the switch link is up (a failed connect's descriptor counts), the
// thread asks once, retrying an ERROR, and seeds the last state.
TEST_F(Embms, RegistrationThreadWaitsForTheLinkThenSeedsTheLastStateOnce) {
  struct Row {
    std::vector<std::string> control;
    int32_t state;
    std::string sent;
  } rows[] = {{{"n 0"}, 1, CEREG},
              {{"fail 1", "register roaming"}, 5, CEREG + CEREG},
              {{"unconnected"}, 0, ""}};
  for (const Row& row : rows) {
    fresh_modem();
    for (const auto& c : row.control)
      if (c != "unconnected")
        modem(c);
      else
        EXPECT_EQ(zor_OpenSocketToAtSwitch("AT_CMD_RSP", (root_.path() + "/tmp/atsw99").c_str(),
                                           &cmd_atsw_fd),
                  -1);
    int link = cmd_atsw_fd;
    relaxed_store(cmd_atsw_fd, 0);
    relaxed_store(last_event_num, -1);
    std::thread t(initial_LTE_reg_thread, nullptr);
    // Still waiting after more than one poll: nothing asked.
    EXPECT_TRUE(&row != rows ||
                !zt::wait_for_text(root_.log_path(), ":start LTE Reg status", 1500));
    EXPECT_EQ(modem_bytes(), "");
    relaxed_store(cmd_atsw_fd, link);
    t.join();
    EXPECT_EQ(std::to_string(relaxed_load(last_event_num)) + " " + modem_bytes(),
              std::to_string(row.state) + " " + row.sent);
  }
}

TEST_F(Embms, UnsolThreadSignalsRegistrationChangesToSubscribers) {
  relaxed_store(childs[3].unsol_enabled, 1);
  relaxed_store(last_event_num, 1);
  std::thread t(zorUnsol_ThreadMain, nullptr);
  ASSERT_TRUE(zt::wait_until([&] { return sim_->unsol_connections() == 1; }, zt::WAIT_MS));
  struct Row {
    const char* report;
    int32_t state;
    bool signal;
  } rows[] = {
      {"\\r\\n+creg: 5\\r\\n", 5, true},
      {"\\r\\n+CEREG: 0\\r\\n", 0, true},  // any case; staying or leaving: at once
      {"\\r\\n+CEREG: 2\\r\\n", 2, false},
      {"\\r\\n+CSQ: 20,99\\r\\n", 2, false},  // not a registration report
      {"\\r\\n+CGREG: 1,\\\"00C1\\\",\\\"0BEEF001\\\",7\\r\\n", 1, true}};  // entering: after 7 s
  for (const Row& row : rows) {
    modem(std::string("push ") + row.report);
    std::string got;  // a signal too many shows here or in the last check, after the thread ends
    EXPECT_TRUE(!row.signal ||
                (zt::read_until(at_unsol_sockfd[0], "+UNSOL:1\n\r", zt::WAIT_MS, &got) &&
                 got == "+UNSOL:1\n\r"))
        << row.report << got;
    EXPECT_TRUE(
        zt::wait_until([&] { return relaxed_load(last_event_num) == row.state; }, zt::WAIT_MS))
        << row.report;
  }
  relaxed_store(childs[3].unsol_enabled, 0);  // nobody subscribed: tracked, not told
  modem("push \\r\\n+CEREG: 0\\r\\n");
  EXPECT_TRUE(zt::wait_until([&] { return relaxed_load(last_event_num) == 0; }, zt::WAIT_MS));
  sim_->stop();  // the switch goes away: the thread ends with its entry
  t.join();
  EXPECT_EQ(unsol_bytes(), "");
  EXPECT_EQ(zt::count_of(log(), "ThreadMain: error reading from at switch " + root_.path() +
                                    "/tmp/atsw12\n"),
            1u);
}

TEST_F(Embms, UnsolReadLineStopsAtALineEndOrAtItsBound) {
  ASSERT_EQ(write(client_[1], "+CEREG: 1\rABC", 13), 13);
  close(client_[1]);
  char buf[8];
  EXPECT_TRUE(zorUnsol_ReadLine(client_[0], buf, 5) == 5 && std::string(buf, 5) == "+CERE");
  EXPECT_TRUE(zorUnsol_ReadLine(client_[0], buf, 8) == 5 && std::string(buf, 5) == "G: 1\r");
  EXPECT_EQ(zorUnsol_ReadLine(client_[0], buf, 8), -1);  // end of stream before a line end
}
