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

TEST_F(Gateway, RemoveChildByFdFreesTheFirstSlotHoldingTheDescriptor) {
  struct Row {
    std::vector<int> fds;                         // connfd of slot 0, 1, ...; the rest 0
    int count, fd, result, cleared, count_after;  // cleared: the slot emptied, or -1
  } rows[] = {{{5, 6, 7, 8}, 4, 8, 1, 3, 3},
              {{5, 6}, 2, 99, 0, -1, 2},
              {{5}, 0, 5, 1, 0, 0},
              {{5, 5}, 2, 5, 1, 0, 1},
              {{5, 0, 7}, 2, 0, 1, 1, 1}};
  const ChildEntry empty{};
  for (const Row& row : rows) {
    for (int i = 0; i < MAX_CHILDS; ++i)
      childs[i] = ChildEntry{CHILD_MID,        4000, 1, i < int(row.fds.size()) ? row.fds[i] : 0,
                             CHILD_UCAST_PORT, 1,    1, 7};
    *childs_count = row.count;
    EXPECT_EQ(remove_child_by_fd(row.fd), row.result) << row.fd;
    EXPECT_EQ(*childs_count, row.count_after) << row.fd;
    for (int i = 0; i < MAX_CHILDS; ++i)
      EXPECT_EQ(memcmp(&childs[i], &empty, sizeof empty) == 0, i == row.cleared)
          << row.fd << ", slot " << i;
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
    ASSERT_TRUE(zt::wait_listening(port_, zt::WAIT_MS));
  }
  // A client from 127.0.0.<host>, once the listener has given it a slot.
  std::unique_ptr<zt::Client> client(int host) {
    auto c = std::make_unique<zt::Client>(port_, "127.0.0." + std::to_string(host));
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

TEST_F(Listener, AnswersTheSwitchCommandsAndRefusesOtherLines) {
  struct Row {
    std::vector<std::pair<std::string, std::string>> steps;  // a line and its reply ("": none)
    bool closed;                                             // after the last step
    int unsol = 0;  // the subscription after the last step, when open
  } rows[] = {
      {{{"at+cevvmcmd=1\r\n", OK}}, false},
      {{{"AT+CEVVMEV?\r\n", ERROR}, {ON, OK}}, false},
      {{{"AT+CEVVMEV?" + std::string(115, 'X') + "\r\n", ERROR}, {ON, OK}},
       false},  // 128 characters
      {{{"AT+CEVVMEV?" + std::string(116, 'X') + "\r\n", ERROR}}, true},
      {{{"AT+CSQ\r\n", ERROR}}, true},
      {{{"AT+CEVVMCMD=0\r\n", ""}, {ON, OK}}, false},
      {{{"AT+CEVVMCMD=?\r\n", ERROR}, {ON, OK}}, false},
      {{{ON, OK}, {"AT+CEVVMCMD=0\r\n", OK}, {"AT+CEVVMEV?\r\n", ERROR}}, false},
      {{{ON, OK}, {"AT+CEVVMCMD=?\r\n", OK}, {"AT+CEVVMEV=?\r\n", OK}}, false},
      {{{"AT+CEVVMCMD=?\r\n", ERROR}, {"AT+CEVVMCMD=0\r\n", ERROR}},
       false},  // the last reply again
      {{{ON, OK}, {"AT+CEVVMEV=1\r\n", OK}}, false, 1},
      {{{ON, OK}, {"AT+CEVVMEV=1\r\n", OK}, {"at+cevvmev=0\r\n", OK}}, false, 0},
  };
  int host = 2;
  for (const Row& row : rows) {
    auto c = client(host++);
    for (const auto& [line, reply] : row.steps) {
      // Without a reply, the next one must be the first bytes to come once the line was taken.
      if (reply.empty())
        EXPECT_TRUE(c->send_line(line) && wait_for_log("====get cmd: " + line)) << line;
      else
        EXPECT_EQ(c->request(line, reply), reply) << "client " << host - 1 << ": " << line;
    }
    if (row.closed)
      EXPECT_TRUE(c->closed_by_peer()) << "client " << host - 1;
    else
      EXPECT_EQ(relaxed_load(childs[slot_of(*c)].unsol_enabled), row.unsol)
          << "client " << host - 1;
  }
}

// Ten clients at most shows through the daemon (tests/e2e, tests/router).
// Each served socket probes an idle peer: after 10 s, 3 times, 10 s apart.
TEST_F(Listener, ServedSocketsProbeAnIdlePeer) {
  auto c = client(2);
  int fd = relaxed_load(childs[slot_of(*c)].connfd);
  for (auto [level, name, value] : {std::array{SOL_SOCKET, SO_KEEPALIVE, 1},
                                    {IPPROTO_TCP, TCP_KEEPIDLE, 10},
                                    {IPPROTO_TCP, TCP_KEEPCNT, 3},
                                    {IPPROTO_TCP, TCP_KEEPINTVL, 10}}) {
    int got = 0;
    socklen_t len = sizeof got;
    EXPECT_TRUE(getsockopt(fd, level, name, &got, &len) == 0 && got == value) << name;
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
  ASSERT_EQ(slot_of(*second), 1);
  const auto before = open_descriptors();
  EXPECT_EQ(client(3)->request(ON, OK), OK);
  for (int burst = 0; burst < 50;
       ++burst) {  // in fours, so that there are never more than ten clients
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
    *block = AtQEntry{0x7f000002u, 4000, CHILD_MID, pair[0], CHILD_UCAST_PORT, 0, {}};
    memcpy(block->cmd, line.data(), line.size());
    EXPECT_EQ(write(at_cmd_sockfd[1], &block, sizeof block), static_cast<ssize_t>(sizeof block));
    EXPECT_TRUE(wait_for_log("=== AT CMD read", ++queued_)) << line;
    return pair[1];
  }
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

TEST_F(Dispatcher, WritesTheClientItsPartOfEachAnswer) {
  const std::string info = "+CEVVMEV:" + std::string(1100, 'x');
  struct Row {
    std::string line, answer, client;
  } rows[] = {
      // AOK: the information line alone, from the second "+", at most 1021 characters.
      {"AT+CEVVMCMD?\r\n", "AT+CEVVMCMD?\r\n+CEVVMCMD: 2\r\nAOK\r\n", "+CEVVMCMD: 2\r\n"},
      {"AT+CEVVMEV?\r\n", "AT+CEVVMEV?\r" + info + "\r\nAOK\r\n", info.substr(0, 1021) + "\r\n"},
      // OK: all after the echoed line; what comes before its "A" is dropped.
      {"AT+CEVVMEV?\r\n", "\r\nx\nAT+CEVVMEV?\r\n+CEVVMEV: 1\r\n\r\nOK\r\n",
       "+CEVVMEV: 1\r\n\r\nOK\r\n"},
      {"ATI\r\n", "ATI\r\r\n+CME ERROR: 4\r\n",
       "+CME ERROR"},                     // ends there; the rest goes before the next "A"
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

// Twenty commands wait behind the one in progress: the twenty-first takes
// the oldest slot, that of the command in progress, whose client then gets
// nothing while the newcomer gets that answer and then its own. The same
// when the twenty-first is the daemon's own command, whose answers go to
// descriptor 0 (first round). Every other client gets its own answer; the
// command server gets every command once, in queue order.
// In the second round two event texts come while all wait: each goes to all
// twenty queued slots, so after every answer, less its last character; the
// copy is not terminated, so the shorter one keeps the longer one's tail.
TEST_F(Dispatcher, ATwentyFirstCommandOverwritesTheSlotInProgress) {
  int zero[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, zero), 0);
  ASSERT_EQ(dup2(zero[0], 0), 0);
  childs[3] =
      ChildEntry{CHILD_MID, 4003, 0x7f000002u, 99, CHILD_UCAST_PORT, 1, 1, 0};  // a subscriber
  const std::string event = "+CEVVMEV:3104101A2B1A2D101,FDD,0\r\n";
  for (const std::string name : {"AT+C", "at+d"}) {
    const bool own = name == "AT+C";
    std::vector<std::string> lines, due(21);
    std::vector<int> clients;
    for (int i = 0; i < 21; ++i) lines.push_back(name + std::to_string(i) + "\r\n");
    if (own) lines[20] = "AT+CEVVMEV=\"-1\"\n\r";
    for (int i = 0; i < (own ? 20 : 21); ++i) clients.push_back(hand_over(lines[i]));
    if (own) {
      ASSERT_EQ(write(at_unsol_sockfd[1], "+UNSOL:1", 8), 8);
      ASSERT_TRUE(wait_for_log("special handle of CEVVMEV unsol - send"));
    } else {
      for (const std::string& text : {event, std::string("+X\r\n")}) {
        ASSERT_EQ(write(at_unsol_sockfd[1], text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
        ASSERT_TRUE(wait_for_log("Process AT delay unsolicited", text == event ? 1 : 2));
      }
    }
    const std::string late = own ? "" : "+X\r\n" + event.substr(4, event.size() - 5);
    std::string first = answer(lines[0]) + late;
    for (int i = 1; i < 21; ++i) due[i] = answer(lines[i]) + late;
    due[20] = first + due[20];
    ASSERT_TRUE(wait_for_log("after rsp_end", own ? 21 : 42));
    EXPECT_EQ(zt::read_available(clients[0]), "") << name;
    for (int i = 1; i < 20; ++i) EXPECT_EQ(zt::read_available(clients[i]), due[i]) << name << i;
    EXPECT_EQ(zt::read_available(own ? zero[1] : clients[20]), due[20]) << name;
  }
}

}  // namespace
