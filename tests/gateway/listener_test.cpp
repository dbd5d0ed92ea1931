// The client listener and client threads over real loopback TCP, each test
// client from its own source address.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/options.h"
#include "core/relaxed.h"
#include "gateway/at_queue.h"
#include "gateway/listener.h"
#include "tests/support/client.h"
#include "tests/support/process.h"

namespace {

class Listener : public ::testing::Test {
 protected:
  void SetUp() override {
    port_ = zt::free_tcp_port();
    setenv("ZORD_PORT", std::to_string(port_).c_str(), 1);
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
    ASSERT_EQ(init_shared_ipc(), 0);
    station_timeout = 4321;
    pthread_t listener;
    ASSERT_EQ(pthread_create(&listener, nullptr, run_listener_thread, nullptr), 0);
    pthread_detach(listener);
    ASSERT_TRUE(zt::wait_listening(port_, zt::WAIT_MS));
  }

  // A client from 127.0.0.<host>, once the listener has given it a slot.
  std::unique_ptr<zt::Client> client(int host) {
    auto c = std::make_unique<zt::Client>(port_, "127.0.0." + std::to_string(host));
    EXPECT_TRUE(c->connected());
    EXPECT_TRUE(zt::wait_until([&] { return slot_of(*c) >= 0; }, zt::WAIT_MS));
    return c;
  }

  // The slot whose port is the client's, as the listener stores it (raw).
  static int slot_of(const zt::Client& c) {
    sockaddr_in local{};
    socklen_t len = sizeof local;
    getsockname(c.fd(), reinterpret_cast<sockaddr*>(&local), &len);
    for (int i = 0; i < MAX_CHILDS; ++i)
      if (relaxed_load(childs[i].port) == local.sin_port && relaxed_load(childs[i].connfd) != 0) return i;
    return -1;
  }

  std::string log() const { return zt::without_time_text(zt::read_file(root_.log_path())); }

  // The next command block handed to the dispatcher, or null.
  static std::unique_ptr<AtQEntry, decltype(&free)> handed_over(int timeout_ms) {
    pollfd p{at_cmd_sockfd[0], POLLIN, 0};
    AtQEntry* block = nullptr;
    if (poll(&p, 1, timeout_ms) == 1) {
      EXPECT_EQ(read(at_cmd_sockfd[0], &block, sizeof block), static_cast<ssize_t>(sizeof block));
    }
    return {block, &free};
  }

  zt::TempRoot root_;
  int port_ = -1;
};

TEST_F(Listener, AnswersTheSwitchCommandsAndRefusesOtherLines) {
  const std::string OK = "OK\r\n", ERROR = "ERROR\r\n", NOTHING = "";
  struct Step {
    std::string line;
    std::string reply;
  };
  struct Row {
    const char* name;
    std::vector<Step> steps;
    bool closed;  // after the last step
  } rows[] = {
      {"lower-case enable", {{"at+cevvmcmd=1\r\n", OK}}, false},
      {"query before enabling", {{"AT+CEVVMEV?\r\n", ERROR}, {"AT+CEVVMCMD=1\r\n", OK}}, false},
      {"other command first", {{"AT+CSQ\r\n", ERROR}}, true},
      {"other command when enabled", {{"AT+CEVVMCMD=1\r\n", OK}, {"AT+CSQ\r\n", ERROR}}, true},
      {"129 characters", {{"AT+CEVVMEV?" + std::string(116, 'X') + "\r\n", ERROR}}, true},
      {"disable first writes nothing", {{"AT+CEVVMCMD=0\r\n", NOTHING}, {"AT+CEVVMCMD=1\r\n", OK}}, false},
      {"test form while refused", {{"AT+CEVVMCMD=?\r\n", ERROR}}, false},
      {"refused again after =0", {{"AT+CEVVMCMD=1\r\n", OK}, {"AT+CEVVMCMD=0\r\n", OK}, {"AT+CEVVMEV?\r\n", ERROR}}, false},
      {"test forms when enabled", {{"AT+CEVVMCMD=1\r\n", OK}, {"AT+CEVVMCMD=?\r\n", OK}, {"AT+CEVVMEV=?\r\n", OK}}, false},
      {"the last reply again", {{"AT+CEVVMCMD=?\r\n", ERROR}, {"AT+CEVVMCMD=0\r\n", ERROR}}, false},
  };
  int host = 2;
  for (const Row& row : rows) {
    auto c = client(host++);
    for (const Step& step : row.steps) {
      if (step.reply.empty()) {
        // Nothing comes back: wait for the thread to take the line, then the
        // next reply must be the first bytes to arrive.
        std::string entry = "====get cmd: " + step.line;
        size_t seen = zt::count_of(log(), entry);
        ASSERT_TRUE(c->send_line(step.line));
        EXPECT_TRUE(zt::wait_until([&] { return zt::count_of(log(), entry) > seen; }, zt::WAIT_MS)) << row.name;
        continue;
      }
      EXPECT_EQ(c->request(step.line, step.reply), step.reply) << row.name << ": " << step.line;
    }
    EXPECT_EQ(c->closed_by_peer(row.closed ? zt::WAIT_MS : 50), row.closed) << row.name;
  }
}

TEST_F(Listener, SubscribingStaysWithTheClientThread) {
  auto c = client(2);
  int slot = slot_of(*c);
  ASSERT_EQ(c->request("AT+CEVVMCMD=1\r\n", "OK\r\n"), "OK\r\n");
  EXPECT_EQ(relaxed_load(childs[slot].cmd_enabled), 1);
  ASSERT_EQ(c->request("AT+CEVVMEV=1\r\n", "OK\r\n"), "OK\r\n");
  EXPECT_EQ(relaxed_load(childs[slot].unsol_enabled), 1);
  ASSERT_EQ(c->request("at+cevvmev=0\r\n", "OK\r\n"), "OK\r\n");
  EXPECT_EQ(relaxed_load(childs[slot].unsol_enabled), 0);
  EXPECT_EQ(handed_over(0), nullptr);  // the reply came after any hand-over would have
}

TEST_F(Listener, HandsOtherAcceptedLinesToTheDispatcher) {
  auto c = client(2);
  int slot = slot_of(*c);
  ASSERT_EQ(c->request("AT+CEVVMCMD=1\r\n", "OK\r\n"), "OK\r\n");
  for (const char* line : {"AT+CEVVMEV?\r\n", "ATE0\r\n", "AT+CEVVMCMD?\n"}) {
    ASSERT_TRUE(c->send_line(line));
    auto block = handed_over(zt::WAIT_MS);
    ASSERT_NE(block, nullptr) << line;
    EXPECT_EQ(block->addr, relaxed_load(childs[slot].addr));
    EXPECT_EQ(block->addr, inet_addr("127.0.0.2"));
    EXPECT_EQ(block->port, relaxed_load(childs[slot].port));
    EXPECT_EQ(block->connfd, relaxed_load(childs[slot].connfd));
    EXPECT_EQ(block->mid, 123456u);
    EXPECT_EQ(block->ucast_port, 6688u);
    EXPECT_EQ(block->delay_unsol, 0);
    EXPECT_STREQ(block->cmd, line);
  }
  EXPECT_NE(log().find("-------------->write to cmd AT: ATE0\r\n\n"), std::string::npos);
}

TEST_F(Listener, TakesTenClientsAndClosesTheEleventh) {
  std::vector<std::unique_ptr<zt::Client>> clients;
  for (int host = 2; host < 12; ++host) clients.push_back(client(host));
  EXPECT_EQ(relaxed_load(*childs_count), 10);
  zt::Client eleventh(port_, "127.0.0.12");
  ASSERT_TRUE(eleventh.connected());
  EXPECT_TRUE(eleventh.closed_by_peer());
  EXPECT_NE(log().find("ERROR: over accept more 10 \n"), std::string::npos);
  EXPECT_EQ(relaxed_load(*childs_count), 10);
}

TEST_F(Listener, ANewConnectionFromTheSlotZeroAddressDropsThatClientOnly) {
  auto first = client(2);   // slot 0
  auto second = client(3);  // slot 1
  ASSERT_EQ(slot_of(*first), 0);
  ASSERT_EQ(slot_of(*second), 1);

  auto again = client(2);
  EXPECT_TRUE(first->closed_by_peer());
  char expected[64];
  snprintf(expected, sizeof expected, " Re-connect Addr %X,#connfd=", inet_addr("127.0.0.2"));
  EXPECT_NE(log().find(expected), std::string::npos);

  auto second_again = client(3);
  EXPECT_EQ(second->request("AT+CEVVMCMD=1\r\n", "OK\r\n"), "OK\r\n");  // not dropped
  EXPECT_EQ(again->request("AT+CEVVMCMD=1\r\n", "OK\r\n"), "OK\r\n");
}

// Slot 0's address connecting again and again, each time before the last
// connection is closed and often before the thread of the connection it
// replaces has started: every accepted descriptor is closed exactly once.
TEST_F(Listener, AReconnectStormLeavesTheDescriptorCountWhereItWas) {
  auto open_descriptors = [] {
    DIR* dir = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
  };
  const int before = open_descriptors();
  // In bursts of five, no more than the listener's backlog holds.
  for (int burst = 0; burst < 40; ++burst) {
    std::vector<std::unique_ptr<zt::Client>> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(std::make_unique<zt::Client>(port_, "127.0.0.2"));
    clients.push_back(client(2));
  }
  EXPECT_TRUE(zt::wait_until([&] { return relaxed_load(*childs_count) == 0 && open_descriptors() == before; },
                             zt::WAIT_MS))
      << open_descriptors() - before << " more descriptors, " << relaxed_load(*childs_count) << " clients";
  // The listener still serves.
  EXPECT_EQ(client(3)->request("AT+CEVVMCMD=1\r\n", "OK\r\n"), "OK\r\n");
}

TEST_F(Listener, AClientThatClosesFreesItsSlotAndLogsItsLife) {
  auto c = client(2);
  int slot = slot_of(*c);
  int fd = relaxed_load(childs[slot].connfd);
  uint32_t addr = relaxed_load(childs[slot].addr);
  uint32_t port = relaxed_load(childs[slot].port);
  ASSERT_EQ(relaxed_load(*childs_count), 1);
  c.reset();
  EXPECT_TRUE(zt::wait_until([] { return relaxed_load(*childs_count) == 0; }, zt::WAIT_MS));
  EXPECT_EQ(relaxed_load(childs[slot].connfd), 0);

  auto refused = client(3);
  ASSERT_EQ(refused->request("AT+CSQ\r\n", "ERROR\r\n"), "ERROR\r\n");
  ASSERT_TRUE(refused->closed_by_peer());
  ASSERT_TRUE(zt::wait_until([] { return relaxed_load(*childs_count) == 0; }, zt::WAIT_MS));

  char entries[5][160];
  snprintf(entries[0], sizeof entries[0], "connection accepted from %X:%d, #connfd=%d \n", addr, port, fd);
  snprintf(entries[1], sizeof entries[1], "new child #%d: Addr %X:%d fd %d mid 1E240\n", slot, addr, port, fd);
  snprintf(entries[2], sizeof entries[2], "zor_listener_handler: i am child num %d (%X:%d:%d:1E240) timeout per child 4321 msec\n",
           slot, addr, port, fd);
  snprintf(entries[3], sizeof entries[3], "%X:%d:%d closed\n", addr, port, fd);
  snprintf(entries[4], sizeof entries[4], "not accepted connection %X:", inet_addr("127.0.0.3"));
  std::string text = log();
  for (const char* entry : entries) EXPECT_NE(text.find(entry), std::string::npos) << entry;
}

TEST(IsCmdAccepted, TakesThreePrefixesInAnyCaseUpTo128Characters) {
  struct Row {
    std::string line;
    int accepted;
  } rows[] = {
      {"ATE0\r\n", 1},           {"ate\r\n", 1},
      {"AT+CEVVMCMD?\r\n", 1},   {"at+CevvmEV=1\r\n", 1},
      {"AT+CEVVM\r\n", 0},       {"AT+CSQ\r\n", 0},
      {"AT\r\n", 0},             {" ATE0\r\n", 0},
      {"AT+CEVVMEV?" + std::string(117, 'X'), 1},
      {"AT+CEVVMEV?" + std::string(118, 'X'), 0},
  };
  for (const Row& row : rows) EXPECT_EQ(is_cmd_accepted(row.line.c_str()), row.accepted) << row.line;
}

}  // namespace
