// The gateway's corners that the end-to-end tests cannot reach: the client
// listener over loopback TCP (each test client from its own source address),
// the dispatcher thread against a command server played by the test, and the
// client table.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "atserver/command_server.h"
#include "core/log.h"
#include "core/relaxed.h"
#include "gateway/at_queue.h"
#include "gateway/dispatcher.h"
#include "gateway/listener.h"
#include "tests/support/support.h"

namespace {

const std::string OK = "OK\r\n", ERROR = "ERROR\r\n", ON = "AT+CEVVMCMD=1\r\n";
// A client of slot 3 that has subscribed (descriptor 99: nothing may go there).
const ChildEntry SUBSCRIBER{.mid = CHILD_MID,
                            .port = 4003,
                            .addr = 0x7f000002u,
                            .connfd = 99,
                            .ucast_port = CHILD_UCAST_PORT,
                            .cmd_enabled = 1,
                            .unsol_enabled = 1,
                            .tid = 0};

class Gateway : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
    ASSERT_EQ(init_shared_ipc(), 0);
  }
  bool wait_for_log(const std::string& entry, size_t count = 1) {
    return zt::wait_until(
        [&] { return zt::count_of(zt::read_file(root_.log_path()), entry) >= count; }, zt::WAIT_MS);
  }
  zt::TempRoot root_;
};

// The first slot with the descriptor is emptied and counted off, never below 0.
TEST_F(Gateway, RemoveChildByFdFreesTheFirstSlotHoldingTheDescriptor) {
  constexpr int NONE = -1;
  struct Row {
    std::vector<int> fds;  // connfd of slot 0, 1, ...; the rest 0
    int count, fd, freed, slot, count_after;
  } rows[] = {
      {.fds = {5, 6, 7, 8}, .count = 4, .fd = 8, .freed = 1, .slot = 3, .count_after = 3},
      {.fds = {5, 6}, .count = 2, .fd = 99, .freed = 0, .slot = NONE, .count_after = 2},
      {.fds = {5}, .count = 0, .fd = 5, .freed = 1, .slot = 0, .count_after = 0},
      {.fds = {5, 5}, .count = 2, .fd = 5, .freed = 1, .slot = 0, .count_after = 1},
      {.fds = {5, 0, 7}, .count = 2, .fd = 0, .freed = 1, .slot = 1, .count_after = 1},
  };
  for (const Row& row : rows) {
    for (int i = 0; i < MAX_CHILDS; ++i) {
      childs[i] = SUBSCRIBER;
      childs[i].connfd = i < int(row.fds.size()) ? row.fds[i] : 0;
    }
    *childs_count = row.count;
    EXPECT_EQ(remove_child_by_fd(row.fd), row.freed) << row.fd;
    EXPECT_EQ(*childs_count, row.count_after) << row.fd;
    for (int i = 0; i < MAX_CHILDS; ++i)
      EXPECT_EQ(childs[i].mid == 0, i == row.slot) << row.fd << ", slot " << i;
  }
}

class Listener : public Gateway {
 protected:
  void SetUp() override {
    Gateway::SetUp();
    port_ = zt::free_tcp_port();
    setenv("ZORD_PORT", std::to_string(port_).c_str(), 1);
    pthread_t listener;
    ASSERT_EQ(pthread_create(&listener, nullptr, run_listener_thread, nullptr), 0);
    pthread_detach(listener);
  }
  // A client from 127.0.0.<host>, once the listener has given it a slot
  // (connecting again while the listener is not listening yet).
  std::unique_ptr<zt::Client> client(int host) {
    std::unique_ptr<zt::Client> c;
    auto connected = [&] {
      c = std::make_unique<zt::Client>(port_, "127.0.0." + std::to_string(host));
      return c->connected();
    };
    EXPECT_TRUE(zt::wait_until(connected, zt::WAIT_MS));
    EXPECT_TRUE(zt::wait_until([&] { return slot_of(*c) >= 0; }, zt::WAIT_MS));
    return c;
  }
  // The slot that holds the client's port as the listener stores it (raw).
  static int slot_of(const zt::Client& c) {
    sockaddr_in local{};
    socklen_t len = sizeof local;
    getsockname(c.fd(), reinterpret_cast<sockaddr*>(&local), &len);
    for (int i = 0; i < MAX_CHILDS; ++i)
      if (relaxed_load(childs[i].port) == local.sin_port && relaxed_load(childs[i].connfd) != 0)
        return i;
    return -1;
  }
  int port_ = -1;
};

// A row is one client: its lines in turn, each with its reply ("": none, so
// the next reply must be the first bytes to come), then whether the listener
// has closed the connection or else the client's subscription.
TEST_F(Listener, AnswersTheSwitchCommandsAndRefusesOtherLines) {
  const std::string LONGEST = "AT+CEVVMEV?" + std::string(115, 'X') + "\r\n";  // 128 characters
  const std::string TOO_LONG = "AT+CEVVMEV?" + std::string(116, 'X') + "\r\n";
  const std::string OFF = "AT+CEVVMCMD=0\r\n", ASK = "AT+CEVVMCMD=?\r\n", EV = "AT+CEVVMEV?\r\n";
  struct Row {
    std::vector<std::pair<std::string, std::string>> steps;
    bool closed = false;
    int unsol = 0;
  } rows[] = {
      {.steps = {{"at+cevvmcmd=1\r\n", OK}}},
      {.steps = {{EV, ERROR}, {ON, OK}}},
      {.steps = {{LONGEST, ERROR}, {ON, OK}}},
      {.steps = {{TOO_LONG, ERROR}}, .closed = true},
      {.steps = {{"AT+CSQ\r\n", ERROR}}, .closed = true},
      {.steps = {{OFF, ""}, {ON, OK}}},
      {.steps = {{ASK, ERROR}, {ON, OK}}},
      {.steps = {{ON, OK}, {OFF, OK}, {EV, ERROR}}},
      {.steps = {{ON, OK}, {ASK, OK}, {"AT+CEVVMEV=?\r\n", OK}}},
      {.steps = {{ASK, ERROR}, {OFF, ERROR}}},  // the last reply again
      {.steps = {{ON, OK}, {"AT+CEVVMEV=1\r\n", OK}}, .unsol = 1},
      {.steps = {{ON, OK}, {"AT+CEVVMEV=1\r\n", OK}, {"at+cevvmev=0\r\n", OK}}, .unsol = 0},
  };
  int host = 2;
  for (const Row& row : rows) {
    auto c = client(host);
    for (const auto& [line, reply] : row.steps) {
      if (reply.empty())
        EXPECT_TRUE(c->send_line(line) && wait_for_log("====get cmd: " + line)) << line;
      else
        EXPECT_EQ(c->request(line, reply), reply) << "client " << host << ": " << line;
    }
    if (row.closed)
      EXPECT_TRUE(c->closed_by_peer()) << "client " << host;
    else
      EXPECT_EQ(relaxed_load(childs[slot_of(*c)].unsol_enabled), row.unsol) << "client " << host;
    ++host;
  }
}

// Ten clients at most shows through the daemon (tests/e2e, tests/router).
// Each served socket probes an idle peer: after 10 s, 3 times, 10 s apart.
TEST_F(Listener, ServedSocketsProbeAnIdlePeer) {
  auto c = client(2);
  int fd = relaxed_load(childs[slot_of(*c)].connfd);
  for (auto [level, option, value] : {std::array{SOL_SOCKET, SO_KEEPALIVE, 1},
                                      {IPPROTO_TCP, TCP_KEEPIDLE, 10},
                                      {IPPROTO_TCP, TCP_KEEPCNT, 3},
                                      {IPPROTO_TCP, TCP_KEEPINTVL, 10}}) {
    int got = 0;
    socklen_t len = sizeof got;
    EXPECT_TRUE(getsockopt(fd, level, option, &got, &len) == 0 && got == value) << option;
  }
}

// A new connection from the address of the client in slot 0 drops that
// client; from the address of any other slot, nobody. Slot 0's address
// connecting again and again, each time before the last connection is
// closed and often before the thread of the connection it replaces has
// started: every accepted descriptor is closed exactly once.
TEST_F(Listener, ANewConnectionFromTheSlotZeroAddressDropsThatClientOnly) {
  auto open_descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  auto first = client(2), second = client(3);
  ASSERT_EQ(slot_of(*first), 0);
  const auto before = open_descriptors();
  EXPECT_EQ(client(3)->request(ON, OK), OK);
  for (int burst = 0; burst < 50; ++burst) {
    // In fours, so that there are never more than ten clients.
    ASSERT_TRUE(zt::wait_until([] { return relaxed_load(*childs_count) <= 5; }, zt::WAIT_MS));
    std::vector<std::unique_ptr<zt::Client>> clients;
    for (int i = 0; i < 3; ++i) clients.push_back(std::make_unique<zt::Client>(port_, "127.0.0.2"));
    clients.push_back(client(2));
  }
  EXPECT_TRUE(first->closed_by_peer());
  // Of all the ends of slot 0's address, only the first client's here stays open.
  EXPECT_TRUE(zt::wait_until(
      [&] { return relaxed_load(*childs_count) == 1 && open_descriptors() == before - 1; },
      zt::WAIT_MS))
      << open_descriptors() - before << " more descriptors, " << relaxed_load(*childs_count)
      << " clients";
  EXPECT_EQ(second->request(ON, OK), OK);
}

class Dispatcher : public Gateway {
 protected:
  void SetUp() override {
    Gateway::SetUp();
    setenv("ZORD_ROOT", root_.path().c_str(), 1);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, run_at_q_thread, nullptr), 0);
    pthread_detach(thread);
    server_ = zorSrv_OpenServerSocket((root_.path() + "/tmp/zor-vvm_at_prs_srv").c_str());
    ASSERT_GE(server_, 0);
  }
  // A client's command, handed over as its client thread does, once the
  // dispatcher has queued it. Returns the client's end of a new socket pair.
  int hand_over(const std::string& line) {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    auto* block = static_cast<AtQEntry*>(calloc(1, sizeof(AtQEntry)));
    *block = AtQEntry{.addr = 0x7f000002u,
                      .port = 4000,
                      .mid = CHILD_MID,
                      .connfd = pair[0],
                      .ucast_port = CHILD_UCAST_PORT,
                      .delay_unsol = 0,
                      .cmd = {}};
    memcpy(block->cmd, line.data(), line.size());
    EXPECT_EQ(write(at_cmd_sockfd[1], &block, sizeof block), static_cast<ssize_t>(sizeof block));
    EXPECT_TRUE(wait_for_log("=== AT CMD read", ++queued_)) << line;
    return pair[1];
  }
  // Lower case: an answer starts at its echo's "a" as well.
  static std::string line(int i) { return "at+c" + std::to_string(i) + "\r\n"; }
  // Reads the line the command server is sent next and gives the answer
  // (by default one of its own); returns what the client is then due.
  std::string answer(const std::string& line, std::string bytes = "") {
    if (bytes.empty()) bytes = line + "+R:" + std::to_string(++answered_) + "\r\nOK\r\n";
    std::string got;
    EXPECT_TRUE(zt::read_until(server_, line, zt::WAIT_MS, &got) && got == line) << got;
    EXPECT_EQ(write(server_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return bytes.substr(bytes.find('\n') + 1);
  }
  int server_ = -1;
  size_t queued_ = 0, answered_ = 0;
};

// The client gets its part of the command server's answer, as the answer's
// final result picks it.
TEST_F(Dispatcher, WritesTheClientItsPartOfEachAnswer) {
  const std::string INFO = "+CEVVMEV:" + std::string(1100, 'x');
  const std::string EV = "AT+CEVVMEV?\r\n";
  struct Row {
    std::string line, answer, client;
  } rows[] = {
      // AOK: the information line alone, from the second "+", at most 1021 characters.
      {"AT+CEVVMCMD?\r\n", "AT+CEVVMCMD?\r\n+CEVVMCMD: 2\r\nAOK\r\n", "+CEVVMCMD: 2\r\n"},
      {EV, "AT+CEVVMEV?\r" + INFO + "\r\nAOK\r\n", INFO.substr(0, 1021) + "\r\n"},
      // OK: all after the echoed line; what comes before its "A" is dropped.
      {EV, "\r\nx\nAT+CEVVMEV?\r\n+CEVVMEV: 1\r\n\r\nOK\r\n", "+CEVVMEV: 1\r\n\r\nOK\r\n"},
      // CME ERROR ends the answer; the rest goes before the next "A".
      {"ATI\r\n", "ATI\r\r\n+CME ERROR: 4\r\n", "+CME ERROR"},
      {"AT\r\n", "AT\r\r\nNOK\r\n", ""},  // NOK: nothing
  };
  size_t delivered = 0;
  for (const Row& row : rows) {
    int client = hand_over(row.line);
    answer(row.line, row.answer);
    ASSERT_TRUE(wait_for_log("after rsp_end", ++delivered));
    EXPECT_EQ(zt::read_available(client), row.client) << row.answer;
  }
}

// Twenty commands wait behind the one in progress: a twenty-first takes the
// oldest slot, that of the command in progress, whose client then gets
// nothing while the newcomer gets that answer and then its own. Every other
// client gets its own answer; the command server gets every command once,
// in queue order.
TEST_F(Dispatcher, ATwentyFirstCommandTakesTheSlotInProgress) {
  std::vector<int> clients;
  for (int i = 0; i <= AT_Q_SIZE; ++i) clients.push_back(hand_over(line(i)));
  std::vector<std::string> due;
  for (int i = 0; i <= AT_Q_SIZE; ++i) due.push_back(answer(line(i)));
  ASSERT_TRUE(wait_for_log("after rsp_end", AT_Q_SIZE + 1));
  EXPECT_EQ(zt::read_available(clients[0]), "");
  for (int i = 1; i < AT_Q_SIZE; ++i) EXPECT_EQ(zt::read_available(clients[i]), due[i]) << i;
  EXPECT_EQ(zt::read_available(clients[AT_Q_SIZE]), due[0] + due[AT_Q_SIZE]);
}

// The daemon's own command (a registration change while a client
// subscribes) goes out as it was queued, LF before CR, and its answer to
// descriptor 0.
TEST_F(Dispatcher, TheDaemonsOwnCommandIsAnsweredToDescriptorZero) {
  int zero[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, zero), 0);
  ASSERT_EQ(dup2(zero[0], 0), 0);
  childs[3] = SUBSCRIBER;
  ASSERT_EQ(write(at_unsol_sockfd[1], "+UNSOL:1", 8), 8);
  std::string due = answer("AT+CEVVMEV=\"-1\"\n\r");
  ASSERT_TRUE(wait_for_log("after rsp_end"));
  EXPECT_EQ(zt::read_available(zero[1]), due);
}

// Event texts that come while commands wait follow the answer of each
// waiting command, less their last character; the copy is not terminated,
// so the shorter one keeps the longer one's tail. The command in progress
// gets its answer alone.
TEST_F(Dispatcher, EventsWhileCommandsWaitFollowTheirAnswers) {
  const std::string EVENT = "+CEVVMEV:3104101A2B1A2D101,FDD,0\r\n", SHORT = "+X\r\n";
  childs[3] = SUBSCRIBER;
  std::vector<int> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(hand_over(line(i)));
  for (const std::string& text : {EVENT, SHORT}) {
    ASSERT_EQ(write(at_unsol_sockfd[1], text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
    ASSERT_TRUE(wait_for_log("Process AT delay unsolicited", text == EVENT ? 1 : 2));
  }
  const std::string late = SHORT + EVENT.substr(SHORT.size(), EVENT.size() - SHORT.size() - 1);
  std::vector<std::string> due;
  for (int i = 0; i < 3; ++i) due.push_back(answer(line(i)));
  ASSERT_TRUE(wait_for_log("after rsp_end", 3));
  EXPECT_EQ(zt::read_available(clients[0]), due[0]);
  for (int i = 1; i < 3; ++i) EXPECT_EQ(zt::read_available(clients[i]), due[i] + late) << i;
}

}  // namespace
