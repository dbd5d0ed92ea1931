// What the fuzz targets share: the daemon's headers and state, byte plumbing
// around socket pairs, and a short temporary ZORD_ROOT. Included by exactly
// one file of each target, since it also defines the stand-ins below.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "atserver/at_parser.h"
#include "atserver/at_scanner.h"
#include "atserver/atsw_link.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "embms/handlers.h"
#include "embms/unsol_thread.h"
#include "gateway/at_queue.h"
#include "gateway/dispatcher.h"
#include "gateway/listener.h"

// The daemon's pauses (7 s on entering registration, 500 ms before asking
// again, 5 ms per hand-over) are real; here they would only slow the search.
// A second is a millisecond, though: libFuzzer's memory watch waits in sleep().
extern "C" unsigned sleep(unsigned) {
  static const timespec ms{0, 1000000};
  return nanosleep(&ms, nullptr) ? 1 : 0;
}
extern "C" int usleep(useconds_t) { return 0; }
// The WAN addresses come from uci, not from a client or the modem: no shell
// per command (the address check then skips both families).
extern "C" FILE* popen(const char*, const char*) { return nullptr; }

// Each target starts its threads and connections at its first input, once
// libFuzzer has set itself up (its signal handlers, its descriptors).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fz {

inline void check(bool holds) {
  if (!holds) __builtin_trap();
}

// The shared state; a log that formats every entry (hostile text goes into
// many) and keeps none; a fresh, short ZORD_ROOT (removed at exit) holding
// the AT switch configuration and, when named, a listening socket under tmp/.
// libFuzzer's timer signal must not cut short a wait of the daemon's threads
// or of this harness (the daemon gets no such signal): they resume.
inline int init(const char* socket_name = nullptr) {
  static char root[] = "/tmp/zfuzzXXXXXX";
  struct sigaction timer {};
  check(sigaction(SIGALRM, nullptr, &timer) == 0);
  timer.sa_flags |= SA_RESTART;
  check(sigaction(SIGALRM, &timer, nullptr) == 0);
  check(log_open("/dev/null") != nullptr && init_shared_ipc() == 0 && mkdtemp(root) != nullptr);
  check(setenv("ZORD_ROOT", root, 1) == 0);
  atexit([] { std::filesystem::remove_all(root); });
  for (const char* dir : {"/tmp", "/etc/atswitch_config"})
    std::filesystem::create_directories(root + std::string(dir));
  std::ofstream(root + std::string("/etc/atswitch_config/atswitch_ecm_config.csv"))
      << "12,VVMUNSOL,x\n";
  if (socket_name == nullptr) return -1;
  sockaddr_un addr{AF_UNIX, {}};
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s/tmp/%s", root, socket_name);
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  check(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 && listen(fd, 1) == 0);
  return fd;
}

inline std::array<int, 2> pair(int type = SOCK_STREAM) {
  std::array<int, 2> fds{};
  check(socketpair(AF_UNIX, type, 0, fds.data()) == 0);
  return fds;
}

inline void put(int fd, std::string_view b) {
  check(write(fd, b.data(), b.size()) == static_cast<ssize_t>(b.size()));
}

// Waits until `want` bytes came (1: one read, one record of a packet
// socket); with want 0, what is there now.
inline std::string take(int fd, size_t want = 0) {
  std::string got, buf(65536, '\0');
  for (ssize_t n; (!want || got.size() < want) &&
                  (n = recv(fd, buf.data(), buf.size(), want ? 0 : MSG_DONTWAIT)) >= 0;)
    check(n > 0 || !want), got.append(buf, 0, static_cast<size_t>(n));
  return got;
}

// A socket pair holds some 270 writes unread. The daemon's readers take them
// as they come, this harness only after the input: inputs are kept to 4 KiB
// and 64 line ends (each makes at most 3 writes of answers or reports).
inline bool small(std::string_view s) {
  return s.size() <= 4096 && std::ranges::count(s, '\n') + std::ranges::count(s, '\r') <= 64;
}

// The pieces of s between separators; with keep, each keeps its separator.
inline std::vector<std::string> split(std::string_view s, char separator, bool keep = false) {
  std::vector<std::string> parts;
  for (size_t at = 0, end = 0; at <= s.size(); at = end + 1) {
    end = std::min(s.find(separator, at), s.size());
    parts.emplace_back(s.substr(at, end - at + (keep && end < s.size())));
  }
  return parts;
}

// Whether bytes are these pieces one after the other, in any order and number.
inline void made_of(std::string_view bytes, std::initializer_list<std::string_view> pieces) {
  while (!bytes.empty()) {
    auto piece = std::ranges::find_if(pieces, [&](auto p) { return bytes.starts_with(p); });
    check(piece != pieces.end());
    bytes.remove_prefix(piece->size());
  }
}

}  // namespace fz

#ifndef ZORD_FUZZ
// Without libFuzzer, each target is a program that feeds itself the one file named.
int main(int, char** argv) {
  std::ifstream file(argv[1], std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(file), {}};
  return LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}
#endif
