// The registration query thread and the unsolicited event thread.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "atserver/atsw_link.h"
#include "core/relaxed.h"
#include "embms/lte_reg_thread.h"
#include "embms/unsol_thread.h"
#include "gateway/at_queue.h"
#include "tests/embms/modem_fixture.h"
#include "tests/support/client.h"

namespace {

using RegistrationThread = ModemFixture;

void run_registration_thread() {
  pthread_t t;
  ASSERT_EQ(pthread_create(&t, nullptr, initial_LTE_reg_thread, nullptr), 0);
  pthread_join(t, nullptr);
}

TEST_F(RegistrationThread, SeedsTheLastStateOnce) {
  struct Row {
    const char* name;
    std::vector<std::string> control;
    int32_t state;
    std::string sent;
  } rows[] = {
      {"+CEREG: 0,1", {"n 0"}, 1, "AT+CEREG?\n\r\n"},
      {"unreadable", {"answer AT+CEREG? \\r\\nOK\\r\\n"}, 0, "AT+CEREG?\n\r\n"},
      {"ERROR retried once", {"fail 1", "register roaming"}, 5, "AT+CEREG?\n\r\nAT+CEREG?\n\r\n"},
  };
  for (const Row& row : rows) {
    fresh_modem();
    for (const auto& c : row.control) modem(c);
    relaxed_store(last_event_num, -1);
    run_registration_thread();
    EXPECT_EQ(relaxed_load(last_event_num), row.state) << row.name;
    EXPECT_EQ(modem_bytes(), row.sent) << row.name;
  }
  EXPECT_NE(log().find("initial_LTE_reg_thread:Registration stat is 5\n"), std::string::npos);
}

TEST_F(RegistrationThread, WaitsForTheSwitchLinkPollingOnceASecond) {
  int connected = cmd_atsw_fd;
  relaxed_store(cmd_atsw_fd, 0);
  pthread_t t;
  ASSERT_EQ(pthread_create(&t, nullptr, initial_LTE_reg_thread, nullptr), 0);
  // Still waiting after more than one poll: nothing asked, nothing logged.
  EXPECT_FALSE(zt::wait_for_text(root_.log_path(), ":start LTE Reg status", 1500));
  EXPECT_EQ(modem_bytes(), "");
  relaxed_store(cmd_atsw_fd, connected);
  pthread_join(t, nullptr);
  EXPECT_EQ(relaxed_load(last_event_num), 1);
}

TEST_F(RegistrationThread, AfterAFailedConnectItStopsWaitingAndFindsNothing) {
  // The unconnected descriptor stays behind, as the link leaves it.
  EXPECT_EQ(zor_OpenSocketToAtSwitch("AT_CMD_RSP", (root_.path() + "/tmp/atsw99").c_str(), &cmd_atsw_fd), -1);
  ASSERT_GT(cmd_atsw_fd, 0);
  run_registration_thread();
  EXPECT_EQ(relaxed_load(last_event_num), 0);
}

using UnsolThread = ModemFixture;

TEST_F(UnsolThread, SignalsRegistrationChangesToSubscribers) {
  relaxed_store(childs[3].unsol_enabled, 1);
  relaxed_store(last_event_num, 1);
  pthread_t t;
  ASSERT_EQ(pthread_create(&t, nullptr, zorUnsol_ThreadMain, nullptr), 0);
  ASSERT_TRUE(zt::wait_until([&] { return sim_->unsol_connections() == 1; }, zt::WAIT_MS));

  const std::string SIGNAL = "+UNSOL:1\n\r";
  struct Row {
    const char* report;
    int32_t state;
    bool signal;
  } rows[] = {
      {"\\r\\n+CEREG: 5\\r\\n", 5, true},                           // 5 after 1: at once
      {"\\r\\n+creg: 1\\r\\n", 1, true},                             // any case; staying registered
      {"\\r\\n+CEREG: 0\\r\\n", 0, true},                            // 0 after 1: leaving is told
      {"\\r\\n+CEREG: 2\\r\\n", 2, false},                           // 2 after 0
      {"\\r\\n+CEREG: 3\\r\\n", 3, false},                           // 3 after 2
      {"\\r\\n+CSQ: 20,99\\r\\n", 3, false},                         // not a registration report
      {"\\r\\n+CGREG: 1\\r\\n", 1, true},                            // 1 after 3: after 7 s
      {"\\r\\n+CEREG: 5,\\\"00C1\\\",\\\"0BEEF001\\\",7\\r\\n", 5, true},  // the first number counts
  };
  for (const Row& row : rows) {
    ASSERT_EQ(sim_->control(std::string("push ") + row.report), "ok\n");
    std::string got;
    if (row.signal) {
      EXPECT_TRUE(zt::read_until(at_unsol_sockfd[0], SIGNAL, zt::WAIT_MS, &got)) << row.report;
      EXPECT_EQ(got, SIGNAL) << row.report;
    }
    EXPECT_TRUE(zt::wait_until([&] { return relaxed_load(last_event_num) == row.state; }, zt::WAIT_MS)) << row.report;
  }
  EXPECT_EQ(unsol_bytes(), "");  // no signal beyond those read

  relaxed_store(childs[3].unsol_enabled, 0);  // nobody subscribed: tracked, not told
  ASSERT_EQ(sim_->control("push \\r\\n+CEREG: 0\\r\\n"), "ok\n");
  EXPECT_TRUE(zt::wait_until([&] { return relaxed_load(last_event_num) == 0; }, zt::WAIT_MS));
  EXPECT_TRUE(zt::wait_for_text(root_.log_path(), "zorUnsol_ThreadMain: unsol disable\n", zt::WAIT_MS));

  sim_->stop();  // the switch goes away: the thread ends with its entry
  pthread_join(t, nullptr);
  EXPECT_EQ(unsol_bytes(), "");
  EXPECT_NE(log().find("err: zorUnsol_ThreadMain: error reading from at switch " + root_.path() + "/tmp/atsw12\n"),
            std::string::npos);
}

TEST(UnsolReadLine, StopsAtALineEndOrAtItsBound) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  const std::string input = "+CEREG: 1\rABCDEFGH";
  ASSERT_EQ(write(sv[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
  close(sv[1]);
  char buf[16] = {};
  EXPECT_EQ(zorUnsol_ReadLine(sv[0], buf, 5), 5);
  EXPECT_EQ(std::string(buf), "+CERE");
  EXPECT_EQ(zorUnsol_ReadLine(sv[0], buf, 15), 5);
  EXPECT_EQ(std::string(buf, 5), "G: 1\r");
  EXPECT_EQ(zorUnsol_ReadLine(sv[0], buf, 15), -1);  // end of stream before a line end
  close(sv[0]);
}

}  // namespace
