# The bench rig: atsw-sim and zord in a throw-away root on a free port, the
# fake uci first in PATH, clients from their own loopback addresses, a direct
# link to the simulator's command socket for the floors, and what /proc says
# about the daemon. Every wait has a deadline.
import os
import random
import shutil
import signal
import socket
import subprocess
import tempfile
import time

WAIT_S = 20.0  # anything the rig waits for (generous: valgrind is slow)
LOG = "/tmp/logs/zord-vvm-app.log"


class BenchError(Exception):
    pass


def now():
    return time.perf_counter()


def free_port():
    # Below the ephemeral range, so that no client's local port holds it.
    for _ in range(200):
        port = random.randint(20000, 31999)
        with socket.socket() as s:
            s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                s.bind(("0.0.0.0", port))
                return port
            except OSError:
                continue
    raise BenchError("no free TCP port")


def wait_until(condition, what, timeout=WAIT_S, pause=0.002):
    deadline = now() + timeout
    while not condition():
        if now() > deadline:
            raise BenchError("gave up waiting for " + what)
        time.sleep(pause)


class Client:
    """A client of the daemon bound to its own loopback source address."""

    def __init__(self, port, source):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.sock.bind((source, 0))
        self.sock.settimeout(WAIT_S)
        self.sock.connect(("127.0.0.1", port))
        self.source = source
        self.pending = b""

    def send(self, line):
        self.sock.sendall(line.encode())

    def read_until(self, texts, timeout=WAIT_S):
        """Reads until each text has arrived, in order. Returns the bytes up to
        the last of them and, for each text, the time of the receive that
        completed it. What came after stays for the next read."""
        texts = [t.encode() for t in texts]
        got, times, at = self.pending, [], 0
        self.pending = b""

        def scan(t):
            nonlocal at
            while len(times) < len(texts):
                found = got.find(texts[len(times)], at)
                if found < 0:
                    return
                at = found + len(texts[len(times)])
                times.append(t)

        scan(now())
        deadline = now() + timeout
        while len(times) < len(texts):
            left = deadline - now()
            if left <= 0:
                raise BenchError("%s: no %r in time, got %r" %
                                 (self.source, texts[len(times)], got))
            self.sock.settimeout(left)
            try:
                chunk = self.sock.recv(4096)
            except socket.timeout:
                continue  # the deadline check above reports it
            t = now()
            if not chunk:
                raise BenchError("%s: the daemon closed the connection, got %r" %
                                 (self.source, got))
            got += chunk
            scan(t)
        self.pending = got[at:]
        return got[:at], times

    def request(self, line, text):
        self.send(line)
        return self.read_until([text])[0].decode()

    def close(self):
        self.sock.close()


class SimLink:
    """A connection of our own to the simulator's command socket: what the
    daemon's AT switch link does, without the daemon."""

    FINALS = (b"\r\nOK\r\n", b"\r\nERROR\r\n", b"CME ERROR")

    def __init__(self, path):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(WAIT_S)
        self.sock.connect(path)

    def round_trip(self, cmd):
        """One command as the daemon sends it ("AT+CEREG?\\n\\r" plus "\\n"),
        until its final result; returns the seconds it took."""
        t0 = now()
        self.sock.sendall(cmd.encode() + b"\n")
        got = b""
        while not any(f in got for f in self.FINALS):
            chunk = self.sock.recv(4096)
            if not chunk:
                raise BenchError("the simulator closed the floor link")
            got += chunk
        return now() - t0

    def close(self):
        self.sock.close()


class LogWatch:
    """Counts texts in the daemon's log from a mark on."""

    def __init__(self, path):
        self.path = path
        self.offset = 0

    def size(self):
        try:
            return os.path.getsize(self.path)
        except OSError:
            return 0

    def mark(self):
        self.offset = self.size()

    def since_mark(self):
        try:
            with open(self.path, "rb") as f:
                f.seek(self.offset)
                return f.read().decode(errors="replace")
        except OSError:
            return ""

    def wait_for(self, text, count=1, timeout=WAIT_S):
        wait_until(lambda: self.since_mark().count(text) >= count,
                   "%d x %r in the log" % (count, text), timeout, pause=0.001)


def proc_status(pid):
    """VmRSS and VmSize in kB."""
    out = {}
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            key, _, value = line.partition(":")
            if key in ("VmRSS", "VmSize"):
                out[key] = int(value.split()[0])
    return out


def cpu_ticks(pid):
    """utime + stime of the whole process, in clock ticks."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def wakeups(pid):
    """Context switches summed over the process's threads: a thread that
    never ran made no system call."""
    total = 0
    task = "/proc/%d/task" % pid
    for tid in os.listdir(task):
        try:
            with open("%s/%s/status" % (task, tid)) as f:
                for line in f:
                    if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                        total += int(line.split()[1])
        except OSError:
            pass  # a thread that has just ended
    return total


def io_calls(pid):
    """The read- and write-family system calls the process has made, or None."""
    try:
        with open("/proc/%d/io" % pid) as f:
            fields = dict(line.split(":") for line in f)
        return int(fields["syscr"]) + int(fields["syscw"])
    except (OSError, KeyError, ValueError):
        return None


class Rig:
    """atsw-sim and zord in a fresh root. `launcher` goes before zord's path
    (valgrind, for example); "{root}" in it stands for the root."""

    def __init__(self, bindir, srcdir, launcher=()):
        self.bindir, self.srcdir, self.launcher = bindir, srcdir, list(launcher)
        self.root = None
        self.sim = self.zord = None
        self.ctl_sock = None
        self.next_source = 2

    # --- start and stop -----------------------------------------------------

    def start(self):
        self.start_sim()
        self.start_zord()

    def make_root(self):
        """The root, the port and the environment, without the simulator."""
        self.root = tempfile.mkdtemp(prefix="zb", dir="/tmp")
        os.makedirs(self.root + "/tmp/logs")
        self.port = free_port()
        uci = os.path.join(self.srcdir, "tools", "uci-sim")
        self.env = dict(os.environ, ZORD_ROOT=self.root, ZORD_PORT=str(self.port),
                        PATH=uci + ":" + os.environ.get("PATH", "/usr/bin:/bin"))
        self.log = LogWatch(self.root + LOG)

    def start_sim(self):
        """The root, the port and the environment when there are none yet, and
        the simulator: a fresh one, or one that comes back in the same root
        (over the socket files a simulator before it left)."""
        if self.root is None:
            self.make_root()
        ctl = self.root + "/tmp/atsw-sim.ctl"
        if os.path.exists(ctl):
            os.unlink(ctl)  # left by a simulator before: ours is there once it is made again
        self.sim_err = open(self.root + "/sim.err", "wb")
        self.sim = subprocess.Popen([self.bindir + "/tools/atsw-sim/atsw-sim"], env=self.env,
                                    stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                    stderr=self.sim_err)
        wait_until(lambda: os.path.exists(ctl) or self.sim.poll() is not None, "atsw-sim")
        if self.sim.poll() is not None:
            raise BenchError("atsw-sim ended: " + open(self.root + "/sim.err").read())
        # The file is there once bound; the simulator listens a moment later.
        deadline = now() + WAIT_S
        while True:
            self.ctl_sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            self.ctl_sock.settimeout(WAIT_S)
            try:
                self.ctl_sock.connect(ctl)
                break
            except ConnectionRefusedError:
                self.ctl_sock.close()
                if now() > deadline:
                    raise BenchError("atsw-sim does not listen on " + ctl)
                time.sleep(0.002)
        self.ctl("quote off")

    def start_zord(self):
        launcher = [word.format(root=self.root) for word in self.launcher]
        self.zord = subprocess.Popen(launcher + [self.bindir + "/core/zord"], env=self.env,
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)
        wait_until(
            lambda: "Registration stat is" in self.log.since_mark() or self.zord.poll() is not None,
            "zord to start", timeout=WAIT_S * 3)
        if self.zord.poll() is not None:
            raise BenchError("zord ended at start with status %d" % self.zord.returncode)
        self.log.mark()

    def end_sim(self, sig=signal.SIGTERM):
        """Ends the simulator alone. It leaves its socket files behind either
        way (SIGKILL or not), as a switch that died would."""
        if self.sim is None:
            return
        self.sim.send_signal(sig)
        try:
            self.sim.wait(timeout=WAIT_S)
        except subprocess.TimeoutExpired:
            self.sim.kill()
            self.sim.wait()
        self.ctl_sock.close()
        self.sim.stdin.close()
        self.sim_err.close()
        self.sim = self.ctl_sock = None

    def stop(self):
        """Ends zord by SIGTERM (so that a valgrind tool writes its output) and
        the simulator; returns zord's exit status."""
        status = None
        for proc in (self.zord, self.sim):
            if proc is None or proc.poll() is not None:
                continue
            proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(timeout=WAIT_S * 3)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        if self.zord is not None:
            status = self.zord.returncode
        if self.ctl_sock:
            self.ctl_sock.close()
        if self.sim is not None:
            self.sim.stdin.close()
            self.sim_err.close()
        self.zord = self.sim = self.ctl_sock = None
        return status

    def remove(self):
        if self.root:
            shutil.rmtree(self.root, ignore_errors=True)
            self.root = None

    @property
    def pid(self):
        return self.zord.pid

    def log_bytes(self):
        """The size of the daemon's log now."""
        return self.log.size()

    # --- the simulator --------------------------------------------------------

    def ctl(self, line):
        """One control command; its reply ends with a line "ok" or "error: ..."."""
        self.ctl_sock.sendall(line.encode() + b"\n")
        reply = b""
        while not (reply.endswith(b"ok\n") or b"error: " in reply and reply.endswith(b"\n")):
            chunk = self.ctl_sock.recv(4096)
            if not chunk:
                raise BenchError("atsw-sim closed its control socket")
            reply += chunk
        if not reply.endswith(b"ok\n"):
            raise BenchError("atsw-sim refused %r: %r" % (line, reply))
        return reply.decode()

    def sim_link(self):
        return SimLink(self.root + "/tmp/atsw11")

    def uci_run(self, key):
        """One run of the uci tool as the daemon makes it (popen: sh -c)."""
        t0 = now()
        subprocess.run("uci get " + key, shell=True, env=self.env, stdout=subprocess.PIPE,
                       stderr=subprocess.DEVNULL)
        return now() - t0

    # --- clients --------------------------------------------------------------

    def client(self, source=None, enable=True, subscribe=False):
        if source is None:
            source = "127.0.0.%d" % self.next_source
            self.next_source += 1
        c = Client(self.port, source)
        if enable:
            c.request("AT+CEVVMCMD=1\r\n", "OK\r\n")
        if subscribe:
            c.request("AT+CEVVMEV=1\r\n", "OK\r\n")
        return c

    def close_clients(self, clients):
        """Closes clients that have read all their answers, and waits until
        the daemon has let each of them go, so that their slots are free."""
        self.log.mark()
        for c in clients:
            c.close()
        self.log.wait_for("zor_listener_handler EXIT", len(clients))
