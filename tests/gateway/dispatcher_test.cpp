// What the dispatcher writes to a client for each form of answer, and where
// an event text goes while commands wait.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "core/log.h"
#include "gateway/at_queue.h"
#include "gateway/dispatcher.h"
#include "tests/support/process.h"

namespace {

class Dispatcher : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
    ASSERT_EQ(init_shared_ipc(), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, client_), 0);
  }
  void TearDown() override {
    close(client_[0]);
    close(client_[1]);
  }
  // The answer handed over as collected, for the entry at the read index.
  std::string deliver(const std::string& answer, int delay_unsol = 0) {
    AtQEntry& e = at_cmd_q_entry[at_cmd_q_entry_rd_index];
    e.connfd = client_[0];
    e.delay_unsol = delay_unsol;
    memset(rsp_, 0, sizeof rsp_);
    memcpy(rsp_, answer.data(), answer.size());
    int handled = 0, end = 1, start = 1, count = static_cast<int>(answer.size());
    EXPECT_EQ(zor_handleAtRsp(count, rsp_, &handled, &end, &start, &count), 0);
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(end + start + count, 0);
    EXPECT_EQ(rsp_[0], '\0');
    return zt::read_available(client_[1]);
  }
  zt::TempRoot root_;
  int client_[2] = {-1, -1};
  char rsp_[RSP_BUFFER_SIZE + 1] = {};
};

TEST_F(Dispatcher, WritesTheClientItsPartOfEachAnswer) {
  const std::string long_line = "+CEVVMEV:" + std::string(1100, 'x');
  struct Row {
    std::string answer;
    std::string client;
  } rows[] = {
      // AOK: the information line alone, from the second "+".
      {"AT+CEVVMEV?\r\r\n+CEVVMEV:3104101A2B1A2D101,FDD\r\nAOK\r\n", "+CEVVMEV:3104101A2B1A2D101,FDD\r\n"},
      {"AT+CEVVMCMD?\r\n+CEVVMCMD: 2\r\nAOK\r\n", "+CEVVMCMD: 2\r\n"},
      {"AT+CEVVMEV?\r" + long_line + "\r\nAOK\r\n", long_line.substr(0, 1021) + "\r\n"},
      // OK and ERROR: everything after the echoed line.
      {"AT+CEVVMEV?\r\n+CEVVMEV: 1\r\n\r\nOK\r\n", "+CEVVMEV: 1\r\n\r\nOK\r\n"},
      {"ATE0\r\r\nOK\r\n", "OK\r\n"},
      {"XYZ\r\r\nERROR\r\n", "ERROR\r\n"},
      {"ATI\r\r\n+CME ERROR: 4\r\n", "+CME ERROR: 4\r\n"},
      // NOK: nothing.
      {"AT\r\r\nNOK\r\n", ""},
  };
  for (const Row& row : rows) EXPECT_EQ(deliver(row.answer), row.client) << row.answer;
  EXPECT_EQ(at_cmd_q_entry_rd_index, 8);
}

TEST_F(Dispatcher, AnEventWaitsForThePendingCommandsAnswers) {
  childs[4] = ChildEntry{CHILD_MID, 4004, 0x7f000002u, client_[0], CHILD_UCAST_PORT, 1, 1, 0};
  const std::string event = "+CEVVMEV:3104101A2B1A2D101,FDD,0\r\n";

  // Nothing queued: straight to the subscriber, whole.
  zor_handle_unsol_rsp(event.c_str(), static_cast<int>(event.size()), 0);
  EXPECT_EQ(zt::read_available(client_[1]), event);

  // Two queued behind the one in progress: after their answers, less the
  // last character; the command in progress and the subscriber get nothing.
  at_cmd_q_entry_rd_index = 18;
  for (int i : {18, 19, 0}) at_cmd_q_entry[i].delay_unsol = 0;
  zor_handle_unsol_rsp(event.c_str(), static_cast<int>(event.size()), 2);
  EXPECT_EQ(zt::read_available(client_[1]), "");
  EXPECT_EQ(at_cmd_q_entry[18].delay_unsol, 0);
  EXPECT_EQ(at_cmd_q_entry[19].delay_unsol, 1);
  EXPECT_EQ(at_cmd_q_entry[0].delay_unsol, 1);
  EXPECT_EQ(deliver("ATE0\r\r\nOK\r\n", 0), "OK\r\n");
  EXPECT_EQ(deliver("ATE0\r\r\nOK\r\n", 1), "OK\r\n" + event.substr(0, event.size() - 1));
  EXPECT_EQ(at_cmd_q_entry_rd_index, 0);

  // A shorter text later keeps the tail of the longer one behind it.
  zor_handle_unsol_rsp("+X\r\n", 4, 1);
  EXPECT_EQ(deliver("ATE0\r\r\nOK\r\n", 1), "OK\r\n+X\r\n" + event.substr(4, event.size() - 5));
}

}  // namespace
