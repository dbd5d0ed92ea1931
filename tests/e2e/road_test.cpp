// The whole road through the built daemon: client, client thread, queue,
// dispatcher, command server, handlers, modem, and back; and the road of a
// registration report to the subscribers.
#include <signal.h>
#include <sys/wait.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/harness.h"

namespace {

const std::string CELL_QUERY = "AT+CEREG?\n\r\nAT+COPS=3,2\n\r\nAT+COPS?\n\r\nAT%PCONI\n\r\n";
const std::string IMSI_QUERY = "AT+CIMI\n\r\n";
const std::string IMSI = "310410123456789";
const std::string CELL = "3104101A2B1A2D101";     // the simulator's cell, unquoted
const std::string NEW_CELL = "31041000C1BEEF001";  // after "cell 00C1 0BEEF001"

class Road : public zt::ZordHarness {
 protected:
  // The registration thread asks AT+CEREG? over the command link once, at
  // the start; queries wait for it, and the modem record starts after it.
  void SetUp() override {
    zt::ZordHarness::SetUp();
    if (HasFatalFailure()) return;
    modem("quote off");
    ASSERT_TRUE(wait_for_log("Registration stat is")) << "no registration query";
    seen_ = sim().received_bytes(1).size();
  }

  std::unique_ptr<zt::Client> enabled_client() {
    auto c = client();
    EXPECT_EQ(c->request("AT+CEVVMCMD=1\r\n", "OK\r\n"), "OK\r\n");
    return c;
  }

  // What the modem received since the last call.
  std::string modem_since() {
    std::string bytes = sim().received_bytes(1);
    std::string fresh = bytes.substr(seen_);
    seen_ = bytes.size();
    return fresh;
  }

  size_t seen_ = 0;
};

TEST_F(Road, EachQueryGetsItsPartOfTheAnswerAndTheModemItsCommands) {
  auto c = enabled_client();
  struct Row {
    std::vector<std::string> control;
    std::string line;
    std::string answer;
    std::string modem;
  } rows[] = {
      {{}, "AT+CEVVMEV?\r\n", "+CEVVMEV:" + CELL + ",FDD\r\n", CELL_QUERY},
      {{}, "AT+CEVVMCMD?\r\n", "+CEVVMCMD:" + IMSI + "," + CELL + ",FDD\r\nOK\r\n", IMSI_QUERY + CELL_QUERY},
      {{"deregister 2"}, "AT+CEVVMEV?\r\n", "+CEVVMEV:NULL,NULL\r\n", "AT+CEREG?\n\r\n"},
      {{}, "AT+CEVVMCMD?\r\n", "+CEVVMCMD:" + IMSI + ",NULL,NULL\r\nOK\r\n", IMSI_QUERY + "AT+CEREG?\n\r\n"},
      {{"register", "answer AT+COPS? \\r\\n+COPS: 0\\r\\n\\r\\nOK\\r\\n"},
       "AT+CEVVMEV?\r\n",
       "ERROR\r\n",
       "AT+CEREG?\n\r\nAT+COPS=3,2\n\r\nAT+COPS?\n\r\n"},
      {{"answer AT+COPS?", "duplex none"}, "AT+CEVVMCMD?\r\n", "ERROR\r\n", IMSI_QUERY + CELL_QUERY},
      // The dispatcher ends every line for the command server; LF alone stays.
      {{"duplex FDD"}, "ATE0", "OK\r\n", "ATE0\r\n"},
      {{}, "ATE0\r", "OK\r\n", "ATE0\r\n"},
      {{}, "ATE0\n", "OK\r\n", "ATE0\n"},
      {{}, "ate1\r\n", "OK\r\n", "ATe1\r\n"},
  };
  for (const Row& row : rows) {
    for (const auto& control : row.control) EXPECT_EQ(modem(control), "ok\n") << control;
    EXPECT_EQ(c->request(row.line, row.answer), row.answer) << row.line;
    EXPECT_EQ(modem_since(), row.modem) << row.line;
  }
}

TEST_F(Road, QueuedQueriesAreAnsweredInOrderEachToItsOwnClient) {
  // Two back to back while the modem is slow: the second waits in the queue.
  auto first = enabled_client();
  auto second = enabled_client();
  modem("delay 300");
  ASSERT_TRUE(first->send_line("AT+CEVVMCMD?\r\n"));
  ASSERT_TRUE(wait_for_log("--> send command 14 AT+CEVVMCMD?"));
  ASSERT_TRUE(second->send_line("AT+CEVVMEV?\r\n"));
  const std::string cmd_answer = "+CEVVMCMD:" + IMSI + "," + CELL + ",FDD\r\nOK\r\n";
  const std::string ev_answer = "+CEVVMEV:" + CELL + ",FDD\r\n";
  EXPECT_EQ(first->read_until(cmd_answer), cmd_answer);
  EXPECT_EQ(second->read_until(ev_answer), ev_answer);
  EXPECT_EQ(modem_since(), IMSI_QUERY + CELL_QUERY + CELL_QUERY);
  modem("delay 0");

  // Ten at once, every other one asking the other query.
  std::vector<std::unique_ptr<zt::Client>> clients;
  clients.push_back(std::move(first));
  clients.push_back(std::move(second));
  while (clients.size() < 10) clients.push_back(enabled_client());
  for (size_t i = 0; i < clients.size(); ++i)
    ASSERT_TRUE(clients[i]->send_line(i % 2 ? "AT+CEVVMEV?\r\n" : "AT+CEVVMCMD?\r\n"));
  for (size_t i = 0; i < clients.size(); ++i) {
    const std::string& answer = i % 2 ? ev_answer : cmd_answer;
    EXPECT_EQ(clients[i]->read_until(answer), answer) << "client " << i;
  }
}

TEST_F(Road, SubscribersHearOfRegistrationChanges) {
  auto subscriber = enabled_client();
  auto other = enabled_client();
  EXPECT_EQ(subscriber->request("AT+CEVVMEV=1\r\n", "OK\r\n"), "OK\r\n");

  // Staying registered with a new cell is told at once; leaving service too;
  // entering it again (here back in the first cell) after a 7-second pause.
  struct Row {
    const char* control;
    std::string event;  // none: the modem reports nothing while out of service
  } rows[] = {
      {"cell 00C1 0BEEF001", "+CEVVMEV:" + NEW_CELL + ",FDD,0\r\n"},
      {"deregister", "+CEVVMEV:NULL,NULL,0\r\n"},
      {"cell 1A2B 01A2D101", ""},
      {"register", "+CEVVMEV:" + CELL + ",FDD,0\r\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(modem(row.control), "ok\n");
    if (!row.event.empty()) {
      EXPECT_EQ(subscriber->read_until(row.event), row.event) << row.control;
    }
  }
  // The other client heard nothing: its next answer comes first.
  const std::string answer = "+CEVVMEV:" + CELL + ",FDD\r\n";
  EXPECT_EQ(other->request("AT+CEVVMEV?\r\n", answer), answer);
}

TEST_F(Road, WithoutSubscribersAReportQueuesNothing) {
  auto c = enabled_client();
  EXPECT_EQ(modem("cell 00C1 0BEEF001"), "ok\n");
  ASSERT_TRUE(wait_for_log("zorUnsol_ThreadMain: unsol disable\n"));
  const std::string answer = "+CEVVMEV:" + NEW_CELL + ",FDD\r\n";
  EXPECT_EQ(c->request("AT+CEVVMEV?\r\n", answer), answer);
  std::string text = log();
  EXPECT_EQ(text.find("special handle of CEVVMEV"), std::string::npos);
  EXPECT_EQ(zt::count_of(text, "--> send command"), 1u);
}

// An event text that arrives while commands wait in the queue goes to the
// clients of those commands, after their answers and without its last
// character; the subscriber itself hears nothing of it.
TEST_F(Road, AnEventWhileCommandsWaitGoesToTheirClientsAfterTheirAnswers) {
  auto subscriber = enabled_client();
  EXPECT_EQ(subscriber->request("AT+CEVVMEV=1\r\n", "OK\r\n"), "OK\r\n");
  auto slow = enabled_client();
  auto b = enabled_client();
  auto c = enabled_client();

  modem("delay 4000");
  ASSERT_TRUE(slow->send_line("ATE0\r\n"));
  ASSERT_TRUE(wait_for_log("--> send command 6 ATE0\r\n"));
  EXPECT_EQ(modem("cell 00C1 0BEEF001"), "ok\n");  // the daemon's own command queues behind ATE0
  ASSERT_TRUE(wait_for_log("special handle of CEVVMEV unsol - send"));
  ASSERT_TRUE(b->send_line("AT+CEVVMEV?\r\n"));
  ASSERT_TRUE(c->send_line("AT+CEVVMCMD?\r\n"));
  ASSERT_TRUE(zt::wait_until([&] { return zt::count_of(log(), "=== AT CMD read") == 3; }, zt::WAIT_MS));
  modem("delay 0");

  const std::string late = "+CEVVMEV:" + NEW_CELL + ",FDD,0\r";
  const std::string b_gets = "+CEVVMEV:" + NEW_CELL + ",FDD\r\n" + late;
  const std::string c_gets = "+CEVVMCMD:" + IMSI + "," + NEW_CELL + ",FDD\r\nOK\r\n" + late;
  EXPECT_EQ(slow->read_until("OK\r\n"), "OK\r\n");
  EXPECT_EQ(b->read_until(b_gets), b_gets);
  EXPECT_EQ(c->read_until(c_gets), c_gets);
  // Nothing reached the subscriber: its own next query is answered first.
  const std::string answer = "+CEVVMEV:" + NEW_CELL + ",FDD\r\n";
  EXPECT_EQ(subscriber->request("AT+CEVVMEV?\r\n", answer), answer);
}

// The client goes while the modem still holds its answer back. The other
// client is connected before, so no new client can get the freed
// descriptor and with it the stale answer.
TEST_F(Road, AClientThatLeavesMidCommandHoldsUpNobody) {
  auto leaving = enabled_client();
  auto staying = enabled_client();
  modem("delay 2000");
  ASSERT_TRUE(leaving->send_line("ATE0\r\n"));
  ASSERT_TRUE(wait_for_log("--> send command 6 ATE0\r\n"));
  leaving.reset();
  ASSERT_TRUE(wait_for_log(" closed\n"));
  modem("delay 0");
  const std::string answer = "+CEVVMEV:" + CELL + ",FDD\r\n";
  EXPECT_EQ(staying->request("AT+CEVVMEV?\r\n", answer), answer);
  int status = signal_daemon(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "zord ended before SIGTERM: " << status;
}

}  // namespace
