// What the dispatcher writes to a client for each form of answer, and where
// an event text goes while commands wait.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/relaxed.h"
#include "gateway/at_queue.h"
#include "gateway/dispatcher.h"
#include "tests/support/client.h"
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

// The dispatcher thread against a command server played by the test, which
// holds each answer until it chooses to give it.
class DispatcherThread : public Dispatcher {
 protected:
  void SetUp() override {
    Dispatcher::SetUp();
    setenv("ZORD_ROOT", root_.path().c_str(), 1);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s/tmp/zor-vvm_at_prs_srv", root_.path().c_str());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, run_at_q_thread, nullptr), 0);
    pthread_detach(thread);
    server_ = accept(listener, nullptr, nullptr);
    close(listener);
    ASSERT_GE(server_, 0);
  }

  // A client's command, handed over as its client thread does; the answer
  // goes to the client's own end of a new socket pair, returned.
  int hand_over(const std::string& line) {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    auto* block = static_cast<AtQEntry*>(calloc(1, sizeof(AtQEntry)));
    *block = AtQEntry{0x7f000002u, 4000, CHILD_MID, pair[0], CHILD_UCAST_PORT, 0, {}};
    memcpy(block->cmd, line.data(), line.size());
    EXPECT_EQ(write(at_cmd_sockfd[1], &block, sizeof block), static_cast<ssize_t>(sizeof block));
    return pair[1];
  }

  bool wait_for_log(const std::string& entry, size_t count) {
    return zt::wait_until([&] { return zt::count_of(log(), entry) >= count; }, zt::WAIT_MS);
  }
  std::string log() const { return zt::read_file(root_.log_path()); }

  // Reads the line the command server is sent next (unless already read)
  // and answers it with an information line naming it; returns what its
  // client is then written.
  std::string answer_next(const std::string& line, const std::string& name, bool read = true) {
    std::string got = line;
    if (read) {
      EXPECT_TRUE(zt::read_until(server_, line, zt::WAIT_MS, &got));
    }
    EXPECT_EQ(got, line);
    std::string answer = line + "+R:" + name + "\r\nOK\r\n";
    EXPECT_EQ(write(server_, answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
    return answer.substr(answer.find('\n') + 1);
  }

  int server_ = -1;
};

// Twenty commands wait behind the one in progress: the twenty-first takes
// the oldest slot, that of the command in progress, whose client then gets
// nothing while the newcomer gets that answer and then its own. The same
// when the twenty-first is the daemon's own command, whose answers go to
// descriptor 0. Every other client gets its own answer; the modem gets
// every command once, in queue order.
TEST_F(DispatcherThread, ATwentyFirstCommandOverwritesTheSlotInProgress) {
  int zero[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, zero), 0);
  ASSERT_EQ(dup2(zero[0], 0), 0);
  relaxed_store(childs[3].unsol_enabled, 1);  // someone is subscribed
  const std::string own = "AT+CEVVMEV=\"-1\"\n\r";
  size_t queued = 0, delivered = 0;

  struct Round {
    const char* name;
    bool own_last;  // the twenty-first is the daemon's own command
    int first_slot;
  } rounds[] = {{"C", true, 0}, {"D", false, 1}};
  for (const Round& round : rounds) {
    std::vector<std::string> lines, expected(21);
    std::vector<int> clients;
    for (int i = 0; i < 21; ++i) lines.push_back("AT+" + std::string(round.name) + std::to_string(i) + "\r\n");
    if (round.own_last) lines[20] = own;
    int last = round.own_last ? 20 : 21;
    for (int i = 0; i < last; ++i) {
      clients.push_back(hand_over(lines[i]));
      ASSERT_TRUE(wait_for_log("=== AT CMD read", ++queued)) << round.name << i;
      if (i == 0) {
        ASSERT_TRUE(zt::read_until(server_, lines[0], zt::WAIT_MS));  // in progress
      }
    }
    if (round.own_last) {
      ASSERT_EQ(write(at_unsol_sockfd[1], "+UNSOL:1", 8), 8);
      ASSERT_TRUE(wait_for_log("special handle of CEVVMEV unsol - send", 1));
    }
    std::string first = answer_next(lines[0], round.name + std::string("0"), false);
    for (int i = 1; i < 21; ++i) expected[i] = answer_next(lines[i], round.name + std::to_string(i));
    expected[20] = first + expected[20];  // the newcomer has the oldest answer first
    delivered += 21;
    ASSERT_TRUE(wait_for_log("after rsp_end", delivered));

    EXPECT_NE(log().find("=== AT CMD read (at_cmd_q_entry_index " + std::to_string(round.first_slot) +
                         ") 7F000002:4000 " + lines[0]),
              std::string::npos);
    EXPECT_EQ(zt::read_available(clients[0]), "") << round.name;
    for (int i = 1; i < 20; ++i) EXPECT_EQ(zt::read_available(clients[i]), expected[i]) << round.name << i;
    EXPECT_EQ(zt::read_available(round.own_last ? zero[1] : clients[20]), expected[20]) << round.name;
    EXPECT_EQ(zt::count_of(log(), "queue full"), 0u);
  }
}

}  // namespace
