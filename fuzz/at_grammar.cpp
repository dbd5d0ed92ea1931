// The AT grammar: a client's command bytes through the command server's
// scanner and parser, which run for good on their own thread, as in the
// daemon. The echo and the answers, one connection in the daemon, come back
// here on two socket pairs so that each can be checked. The modem answers
// every command alike.
#include "fuzz/fuzz.h"

static const std::array<int, 2> in = fz::pair(), out = fz::pair(), modem = fz::pair();
// Every answer the command server can give with that modem: OK, ERROR, a
// forwarded answer, the cell query.
static const std::initializer_list<std::string_view> ANSWERS = {
    "\r\nOK\r\n", "\r\nERROR\r\n", "\r\nX\r\nOK\r\n\r\n", "\r\n+CEVVMEV:NULL,NULL\r\nAOK\r\n"};

static void answer_every_command() {
  for (char command[4096]; read(modem[1], command, sizeof command) > 0;)
    fz::put(modem[1], "\r\nX\r\nOK\r\n");
}

// Once: the shared state, the connections, the parser's and the modem's threads.
static bool start() {
  fz::init();
  yyin_socket = in[0];
  zorSrv_OutSocket = out[0];
  cmd_atsw_fd = modem[0];
  std::thread(yyparse).detach();
  std::thread(answer_every_command).detach();
  return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  [[maybe_unused]] static const bool started = start();
  if (!fz::small({reinterpret_cast<const char*>(data), size}))
    return 0;  // and a token fits the scanner's buffer
  // The line ends finish any line and leave the scanner at the start of a
  // token with nothing owed, so the last echo comes after the last answer.
  std::string sent = std::string(reinterpret_cast<const char*>(data), size) + "\r\n\r\n";
  fz::put(in[1], sent);
  // Every byte is scanned once and echoed as it came, in order.
  fz::check(fz::take(in[1], sent.size()) == sent);
  fz::made_of(fz::take(out[1]), ANSWERS);
  fz::made_of(fz::take(at_unsol_sockfd[0]),
              {"+CEVVMEV:NULL,NULL,0\r\n"});  // the set handler's event line
  return 0;
}
