// The gateway: a client's lines through its thread's accept checks and
// hand-over, then the command server's answers (played here) through the
// dispatcher's collection and routing back to the client. The dispatcher
// runs for good, as in the daemon. Input: the client's lines (at most 8: a
// packet socket's queue holds them and their answers), then the answer texts
// for the commands in turn, NUL between.
#include "fuzz/fuzz.h"

// An answer is the echoed command, a text and the final result that the
// text's length picks. A result inside it would end the answer there and leave
// the queue an answer behind (as designed): inputs that could hold one are left out.
static const std::string RESULTS[] = {"\r\nOK\r\n", "\r\nERROR\r\n", "CME ERROR", "\r\nAOK\r\n",
                                      "\r\nNOK\r\n"};
// Descriptor 0 takes the answers to the daemon's own command, which no client
// can send: nothing may arrive there.
static const std::array<int, 2> zero = fz::pair();

// Once: the dispatcher thread, connected to this harness as its command
// server; returns the harness's end of that connection.
static int start() {
  int listener = fz::init("zor-vvm_at_prs_srv");
  std::thread(run_at_q_thread, nullptr).detach();
  fz::check(dup2(zero[0], 0) == 0);
  return accept(listener, nullptr, nullptr);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int server = start();
  if (size > 4096 || memmem(data, size, "OK\r", 3) || memmem(data, size, "ERROR", 5) ||
      memmem(data, size, "SYNC", 4))
    return 0;
  auto answers = fz::split({reinterpret_cast<const char*>(data), size}, '\0');
  auto lines = fz::split(answers[0], '\n', true);
  auto client = fz::pair(SOCK_SEQPACKET);  // one receive, one line
  for (size_t i = 0; i < std::min<size_t>(lines.size(), 8); ++i) fz::put(client[1], lines[i]);
  shutdown(client[1], SHUT_WR);
  childs[0] = ChildEntry{CHILD_MID, 1, 1, client[0], CHILD_UCAST_PORT, 0, 0, 0};
  // The thread closes its descriptor as it ends; the answers still go to that number.
  int keep = dup(client[0]);
  std::thread(zor_listener_handler, nullptr).join();
  fz::check(dup2(keep, client[0]) == client[0] && close(keep) == 0);
  fz::made_of(fz::take(client[1]), {"OK\r\n", "ERROR\r\n"});

  // Last, a command of this harness's own; its answer ends the input.
  auto* mark = static_cast<AtQEntry*>(malloc(sizeof(AtQEntry)));  // the dispatcher frees it
  *mark = AtQEntry{0, 0, 0, client[0], 0, 0, "ATE+SYNC\r\n"};
  fz::put(at_cmd_sockfd[1], {reinterpret_cast<const char*>(&mark), sizeof mark});
  // One command at a time, each from the client's lines, with at most a line end more.
  size_t next = 1;
  for (std::string command, text; (command = fz::take(server, 1)) != "ATE+SYNC\r\n";) {
    fz::check(answers[0].find(command.substr(0, command.size() - 2)) != std::string::npos);
    text = next < answers.size() ? answers[next++] : "";
    fz::put(server, command + text + RESULTS[text.size() % 5]);
  }
  fz::put(server, "A\n+SYNC\r\nOK\r\n");
  // Each answer reaches the client ending in its result code (AOK: in its
  // information line's end), the last maybe behind a stray "AOK" of the one before.
  for (std::string got; !(got = fz::take(client[1], 1)).ends_with("+SYNC\r\nOK\r\n");)
    fz::check(got.ends_with("\r\n") || got.ends_with("CME ERROR"));
  fz::check(fz::take(zero[1]).empty());
  for (int fd : client) close(fd);
  return 0;
}
