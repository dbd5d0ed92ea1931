// The simulator: one thread serves every socket with poll; answers wait in a
// schedule so that delays and split answers never hold up other connections.
#include "tools/atsw-sim/atsw_sim.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "tools/atsw-sim/sim.h"

namespace atsw {
namespace {

bool mkdirs(const std::string& dir) {
  for (size_t i = 1; i <= dir.size(); ++i) {
    if (i < dir.size() && dir[i] != '/') continue;
    if (mkdir(dir.substr(0, i).c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

int listen_unix(const std::string& path, std::string* error) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) {
    *error = "cannot bind " + path + ": path too long";
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  unlink(path.c_str());
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(fd, 8) != 0) {
    *error = "cannot bind " + path + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

void write_all(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

void wake_up(const Sockets& sockets) {
  if (sockets.wake[1] < 0) return;
  ssize_t ignored = write(sockets.wake[1], "x", 1);
  (void)ignored;
}

// --- answers -----------------------------------------------------------------------------

void queue(State& s, int fd, std::string bytes) {
  Clock::time_point at = Clock::now() + std::chrono::milliseconds(s.faults.delay_ms);
  for (const auto& q : s.schedule)  // never overtake an earlier answer
    if (q.fd == fd) at = std::max(at, q.at);
  if (s.faults.split_ms >= 0 && bytes.size() > 1) {
    size_t half = bytes.size() / 2;
    s.schedule.push_back({at, fd, bytes.substr(0, half)});
    s.schedule.push_back(
        {at + std::chrono::milliseconds(s.faults.split_ms), fd, bytes.substr(half)});
    s.faults.split_ms = -1;
  } else {
    s.schedule.push_back({at, fd, std::move(bytes)});
  }
  std::stable_sort(s.schedule.begin(), s.schedule.end(),
                   [](auto& a, auto& b) { return a.at < b.at; });
}

// Answers due now go out before the next wait, so an answer without
// a delay leaves as soon as its command is read.
void send_due(State& s) {
  while (!s.schedule.empty() && s.schedule.front().at <= Clock::now()) {
    write_all(s.schedule.front().fd, s.schedule.front().bytes);
    s.schedule.erase(s.schedule.begin());
  }
}

// Returns false when the connection is to be closed.
bool take_commands(State& s, Conn& c) {
  size_t end;
  while ((end = c.in.find_first_of("\r\n")) != std::string::npos || c.in.size() > MAX_LINE) {
    bool ended = end != std::string::npos;
    if (!ended) end = MAX_LINE;
    std::string text = c.in.substr(0, end);
    c.in.erase(0, ended ? end + 1 : end);
    if (text.find_first_not_of(" \t") == std::string::npos) continue;
    s.record.push_back({c.id, text});
    if (s.faults.close_next) {
      s.faults.close_next = false;
      return false;
    }
    if (s.faults.silent) continue;
    std::string bytes = answer(s, text);
    if (!bytes.empty()) queue(s, c.fd, std::move(bytes));
  }
  return true;
}

// Returns false when the connection is to be closed.
bool take_control(Sim& sim, Conn& c) {
  size_t end;
  while ((end = c.in.find('\n')) != std::string::npos) {
    std::string line = c.in.substr(0, end);
    c.in.erase(0, end + 1);
    write_all(c.fd, run_control(sim, line));
  }
  return c.in.size() <= MAX_LINE;
}

// --- serving -----------------------------------------------------------------------------

void accept_on(State& s, int listen_fd, Kind kind) {
  int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) s.conns.push_back({fd, kind, kind == Kind::COMMAND ? s.next_id++ : 0, {}});
}

void drop(State& s, size_t i) {
  int fd = s.conns[i].fd;
  s.schedule.erase(
      std::remove_if(s.schedule.begin(), s.schedule.end(), [&](auto& q) { return q.fd == fd; }),
      s.schedule.end());
  close(fd);
  s.conns.erase(s.conns.begin() + static_cast<long>(i));
}

void read_from(Sim& sim, int fd) {
  State& s = sim.state;
  auto it = std::find_if(s.conns.begin(), s.conns.end(), [&](auto& c) { return c.fd == fd; });
  if (it == s.conns.end()) return;
  size_t i = static_cast<size_t>(it - s.conns.begin());
  char buf[4096];
  ssize_t n = read(fd, buf, sizeof buf);
  if (n <= 0) {
    drop(s, i);
    return;
  }
  if (it->kind == Kind::REPORT) return;  // nothing is asked on that socket
  it->in.append(buf, static_cast<size_t>(n));
  if (it->kind == Kind::COMMAND) s.bytes_in[it->id].append(buf, static_cast<size_t>(n));
  bool keep = it->kind == Kind::COMMAND ? take_commands(s, *it) : take_control(sim, *it);
  if (!keep) drop(s, i);
}

// What to wait on: the wake pipe, the listening sockets, then the connections, commands first,
// reports, then control lines, so that of a command and a control line read in one round the
// command is answered from the model as it was.
std::vector<pollfd> poll_set(const State& s) {
  std::vector<pollfd> fds;
  const Sockets& k = s.sockets;
  for (int fd : {k.wake[0], k.cmd, k.report, k.control})
    if (fd >= 0) fds.push_back({fd, POLLIN, 0});
  for (Kind kind : {Kind::COMMAND, Kind::REPORT, Kind::CONTROL})
    for (const auto& c : s.conns)
      if (c.kind == kind) fds.push_back({c.fd, POLLIN, 0});
  return fds;
}

// Until the next answer is due, rounded up: waking before it is due would only spin.
int poll_timeout(const State& s) {
  if (s.schedule.empty()) return -1;
  auto us =
      std::chrono::duration_cast<std::chrono::microseconds>(s.schedule.front().at - Clock::now())
          .count();
  return static_cast<int>(std::clamp<long long>((us + 999) / 1000, 0, 600000));
}

// One descriptor poll found ready: the wake pipe, a listening socket or a connection.
void handle(Sim& sim, int fd) {
  const Sockets& k = sim.state.sockets;
  if (fd == k.wake[0]) {
    char buf[64];
    while (read(k.wake[0], buf, sizeof buf) > 0) {
    }
  } else if (fd == k.cmd) {
    accept_on(sim.state, k.cmd, Kind::COMMAND);
  } else if (fd == k.report) {
    accept_on(sim.state, k.report, Kind::REPORT);
  } else if (fd == k.control) {
    accept_on(sim.state, k.control, Kind::CONTROL);
  } else {
    read_from(sim, fd);
  }
}

void serve(Sim& sim) {
  std::unique_lock lock(sim.mtx);
  while (sim.state.running) {
    send_due(sim.state);
    std::vector<pollfd> fds = poll_set(sim.state);
    int timeout = poll_timeout(sim.state);
    lock.unlock();
    poll(fds.data(), fds.size(), timeout);
    lock.lock();
    if (!sim.state.running) break;
    for (const auto& p : fds)
      if (p.revents & (POLLIN | POLLHUP | POLLERR)) handle(sim, p.fd);
  }
}

bool write_config(const Simulator::Options& o, const std::string& config, std::string* error) {
  std::ofstream out;
  if (mkdirs(config.substr(0, config.rfind('/')))) out.open(config, std::ios::trunc);
  out << o.cmd_socket << ",CUSTOM2,atsw-sim commands\n"
      << o.unsol_socket << ",VVMUNSOL,atsw-sim unsolicited reports\n";
  out.flush();
  if (!out) {
    *error = "cannot write " + config + ": " + strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

void push(State& s, const std::string& bytes) {
  for (const auto& c : s.conns)
    if (c.kind == Kind::REPORT) write_all(c.fd, bytes);
}

Simulator::Simulator(Options options) : sim_(std::make_unique<Sim>(std::move(options))) {}

Simulator::~Simulator() { stop(); }

bool Simulator::start(std::string* error) {
  Sim& sim = *sim_;
  const Options& o = sim.options;
  std::string config = config_path();
  struct stat st {};
  if (!(o.keep_config && stat(config.c_str(), &st) == 0) && !write_config(o, config, error))
    return false;
  if (!mkdirs(sim.path("/tmp")) || !mkdirs(sim.path("/uci/tmp"))) {
    *error = "cannot make " + sim.path("/tmp") + ": " + strerror(errno);
    return false;
  }
  std::lock_guard lock(sim.mtx);
  Sockets& k = sim.state.sockets;
  if ((k.cmd = listen_unix(socket_path(o.cmd_socket), error)) < 0) return false;
  if ((k.report = listen_unix(socket_path(o.unsol_socket), error)) < 0) return false;
  if (o.control_socket && (k.control = listen_unix(control_path(), error)) < 0) return false;
  if (pipe2(k.wake, O_CLOEXEC | O_NONBLOCK) != 0) {
    *error = std::string("cannot make a pipe: ") + strerror(errno);
    return false;
  }
  sim.state.running = true;
  sim.loop = std::thread([&sim] { serve(sim); });
  return true;
}

void Simulator::stop() {
  Sim& sim = *sim_;
  {
    std::lock_guard lock(sim.mtx);
    sim.state.running = false;
    wake_up(sim.state.sockets);
  }
  if (sim.loop.joinable()) sim.loop.join();
  std::lock_guard lock(sim.mtx);
  for (auto& c : sim.state.conns) close(c.fd);
  sim.state.conns.clear();
  Sockets& k = sim.state.sockets;
  for (int* fd : {&k.cmd, &k.report, &k.control, &k.wake[0], &k.wake[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

std::string Simulator::control(const std::string& line) {
  std::lock_guard lock(sim_->mtx);
  std::string reply = run_control(*sim_, line);
  wake_up(
      sim_->state.sockets);  // the serving thread sets its next wait from the state as it is now
  return reply;
}

std::vector<Received> Simulator::record() const {
  std::lock_guard lock(sim_->mtx);
  return sim_->state.record;
}

std::string Simulator::received_bytes(int connection) const {
  std::lock_guard lock(sim_->mtx);
  auto it = sim_->state.bytes_in.find(connection);
  return it == sim_->state.bytes_in.end() ? "" : it->second;
}

int Simulator::unsol_connections() const {
  std::lock_guard lock(sim_->mtx);
  return static_cast<int>(std::count_if(sim_->state.conns.begin(), sim_->state.conns.end(),
                                        [](auto& c) { return c.kind == Kind::REPORT; }));
}

std::vector<Session> Simulator::sessions() const {
  std::lock_guard lock(sim_->mtx);
  return sim_->state.sessions;
}

std::string Simulator::config_path() const {
  return sim_->path("/etc/atswitch_config/atswitch_ecm_config.csv");
}
std::string Simulator::socket_path(int number) const {
  return sim_->path("/tmp/atsw" + std::to_string(number));
}
std::string Simulator::control_path() const { return sim_->path("/tmp/atsw-sim.ctl"); }
std::string Simulator::uci_dir() const { return sim_->path("/uci"); }

}  // namespace atsw
