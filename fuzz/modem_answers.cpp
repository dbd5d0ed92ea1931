// The modem's side: arbitrary reports through the unsolicited thread (a
// client has subscribed), and arbitrary answers through the AT switch link to
// one handler's commands. Input: the reports, then the answers, NUL between,
// one read each; its first byte picks the handler (modulo 3).
#include "fuzz/fuzz.h"

static const std::array<int, 2> out = fz::pair();

// Once: the switch's unsolicited socket to listen on (returned), the
// answers' connection, a subscriber.
static int start() {
  int listener = fz::init("atsw12");
  zorSrv_OutSocket = out[0];
  childs[0].unsol_enabled = 1;
  return listener;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int reports_listener = start();
  auto parts = fz::split({reinterpret_cast<const char*>(data), size}, '\0');
  if (size > 4096 || !fz::small(parts[0])) return 0;
  std::thread reader(zorUnsol_ThreadMain, nullptr);
  int reports = accept(reports_listener, nullptr, nullptr);
  fz::put(reports, parts[0]);
  close(reports);
  reader.join();  // at the end of the reports
  close(unsol_atsw_fd);
  fz::made_of(fz::take(at_unsol_sockfd[0]), {"+UNSOL:1\n\r"});

  // A packet socket keeps the answers apart, then reads as a closed switch.
  // No handler asks more often than the kernel's default queue (10) holds.
  auto modem = fz::pair(SOCK_SEQPACKET);
  for (size_t i = 1; i < std::min<size_t>(parts.size(), 11); ++i) fz::put(modem[1], parts[i]);
  shutdown(modem[1], SHUT_WR);
  cmd_atsw_fd = modem[0];
  static int (*const HANDLERS[])() = {zorSrv_HandleReadCEVVMEV, zorSrv_HandleReadCEVVMCMD,
                                      [] { return zorSrv_HandleSetCEVVMEV(-1); }};
  const int pick = size > 0 ? data[0] % 3 : 0;
  HANDLERS[pick]();
  // One answer, ending in the handler's own result code, or ERROR alone; at
  // most one event line, whole.
  std::string answer = fz::take(out[1]), line = fz::take(at_unsol_sockfd[0]);
  fz::check(answer.ends_with(pick ? "\r\nOK\r\n" : "\r\nAOK\r\n") || answer == "\r\nERROR\r\n");
  fz::check(line.empty() || (line.starts_with("+CEVVMEV:") &&
                             (line.ends_with(",0\r\n") || line.ends_with(",1\r\n"))));
  for (int fd : modem) close(fd);
  return 0;
}
