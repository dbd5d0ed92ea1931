# A router as the OpenWrt package runs zord, in a throw-away root: atsw-sim,
# zord under bench/procd through the watchdog's start duty, and the
# watchdog's duties beside it, all run by busybox sh with stand-ins for ubus
# and logger (bench/standins) and zordctl first in PATH. bench/wedge and
# bench/supervision share it.
import os
import shutil
import signal
import subprocess
import time

from host import PROGRAMS, SRC
from rig import BenchError, Rig, WAIT_S

HERE = os.path.dirname(os.path.abspath(__file__))
BUSYBOX = shutil.which("busybox")
FILES = os.path.join(SRC, "packaging", "openwrt", "zord", "files")
WATCHDOG = os.path.join(FILES, "zord.watchdog")
STANDINS = os.path.join(HERE, "standins")  # ubus and logger

# The package's defaults (zord.init, zord.config): the watchdog's settings,
# procd's respawn delay and how long the start duty waits for the AT switch.
# The quick ones are the router tests' short settings.
DEFAULTS = dict(interval=30, failures=3, timeout=10000, restart_interval=300, respawn=5,
                switch_wait=60)
QUICK = dict(interval=2, failures=2, timeout=2000, restart_interval=0, respawn=1, switch_wait=0)
TRY_TIMEOUT_MS = 2000
# Set in the environment of the bench's own tries, so that what they leave
# behind is told from the watchdog's probes.
TRY_MARK = ("ZORD_BENCH_TRY", "1")
# zordctl as the watchdog finds it through PATH: the real one (or, for a
# probe that cannot run, a program that is not there), with each probe's
# start and end (seconds since boot) and exit status noted.
PROBE = """#!/bin/sh
read -r start _ </proc/uptime
%s "$@"
status=$?
read -r end _ </proc/uptime
echo "$start $end $status" >>"$ZORD_ROOT/probes"
exit $status
"""
# zordctl's exit status, by name (zordctl --help); 126 and 127 are the
# shell's for a program it cannot run.
RESULTS = {
    0: "serving", 3: "not-listening", 4: "modem-error", 5: "closed", 6: "no-answer", 7: "no-modem",
    8: "full", 9: "wrong-answer", 10: "foreign", 126: "cannot-run", 127: "cannot-run"
}


def uptime():
    """Seconds since boot, the clock of /proc/uptime that the stand-ins note."""
    return time.clock_gettime(time.CLOCK_BOOTTIME)


def rooted(root, mark=""):
    """The processes that run in this root (our own, and what they started),
    with `mark` in their environment too when given."""
    entry = ("ZORD_ROOT=" + root).encode()
    found = []
    for p in os.listdir("/proc"):
        if not p.isdigit():
            continue
        try:
            with open("/proc/%s/environ" % p, "rb") as f:
                env = f.read().split(b"\0")
        except OSError:
            continue
        if entry in env and (not mark or mark.encode() in env):
            found.append(int(p))
    return found


def end(pids, sig=signal.SIGTERM):
    for pid in pids:
        try:
            os.kill(pid, sig)
        except ProcessLookupError:
            pass


def timed_lines(path):
    """The lines of a stand-in's notes: (seconds since boot, the rest); lines
    that zord's standard error added to the system log have no time: None."""
    try:
        with open(path) as f:
            lines = [line.rstrip("\n") for line in f]
    except OSError:
        return []
    out = []
    for line in lines:
        first, _, rest = line.partition(" ")
        try:
            out.append((float(first), rest))
        except ValueError:
            out.append((None, line))
    return out


class Router(Rig):
    """atsw-sim, and zord under the bench's stand-in procd with the given
    respawn delay, as the package runs it; the watchdog's duties are started
    apart. They find zordctl, ubus and logger through PATH (the first in a
    folder of the root, the others bench/standins). With probe_notes False,
    that zordctl is the built one itself, so that a probe is one process."""

    def __init__(self, bindir, settings, probe_notes=True):
        super().__init__(bindir, SRC)
        self.settings = settings
        self.probe_notes = probe_notes
        self.procd = self.watchdog = None
        self.first_start = None

    def make_root(self):
        super().make_root()
        for folder in ("/var/run", "/bin"):
            os.makedirs(self.root + folder)
        self.set_probe()
        # The start duty as procd runs it on a router: under the name
        # zord-watchdog (the process's name until it becomes zord, by which the
        # watchdog tells that zord does not run yet).
        with open(self.root + "/bin/zord-watchdog", "w") as f:
            f.write("#!%s sh\n. %s\n" % (BUSYBOX, WATCHDOG))
        os.chmod(self.root + "/bin/zord-watchdog", 0o755)
        self.env["PATH"] = ":".join([self.root + "/bin", STANDINS, self.env["PATH"]])
        self.pidfile = self.root + "/var/run/zord.pid"

    def start(self, switch="up", wait_answer=True, before_zord=None):
        """The root; the AT switch as asked: "up" (listening), "none" (its
        configuration, no sockets: a switch that has not started yet) or
        "stale" (the socket files of a switch killed, nothing listening);
        before_zord(), when given; then zord."""
        self.make_root()
        self.start_sim()
        if switch != "up":
            self.end_sim(signal.SIGKILL if switch == "stale" else signal.SIGTERM)
        if switch == "none":
            for name in os.listdir(self.root + "/tmp"):
                if name.startswith("atsw"):
                    os.unlink(os.path.join(self.root, "tmp", name))
        if before_zord is not None:
            before_zord()
        self.start_zord(wait_answer)

    def set_probe(self, runs=True):
        """zordctl as the watchdog finds it: the built one, or (runs False) a
        program that is not there, which the shell reports with status 127.
        Replaced whole, so that a probe starting meanwhile finds one or the
        other."""
        built = os.path.join(self.bindir, PROGRAMS["zordctl"])
        path = self.root + "/bin/zordctl"
        if not self.probe_notes:
            os.symlink(built, path + ".new")
        else:
            with open(path + ".new", "w") as f:
                f.write(PROBE % (built if runs else self.root + "/bin/not-there"))
            os.chmod(path + ".new", 0o755)
        os.rename(path + ".new", path)

    def start_zord(self, wait_answer=True):
        """The package's zord instance: the watchdog's start duty waits for the
        AT switch (up to switch_wait seconds) and becomes zord. With
        wait_answer, the start-up is measured: from the stand-in's start of
        zord (or, when the start duty waited for the switch, from the end of
        its wait) to the first answer, tries 20 ms apart."""
        procd = [BUSYBOX, "sh", HERE + "/procd", str(self.settings["respawn"]), self.pidfile]
        zord = [
            self.root + "/bin/zord-watchdog", "start", "--wait",
            str(self.settings["switch_wait"]),
            os.path.join(self.bindir, PROGRAMS["zord"])
        ]
        self.procd = subprocess.Popen(procd + zord, env=self.env, stdin=subprocess.DEVNULL)
        # The start duty notes its pid and the switch ("up" or "down") just
        # before it becomes zord.
        handed = self.root + "/var/run/zord/start"
        deadline = time.monotonic() + self.settings["switch_wait"] + WAIT_S
        while not self.times()[0] or len(self.handed_over()) < 2:
            if time.monotonic() > deadline or self.procd.poll() is not None:
                raise BenchError("the stand-in procd did not start zord")
            time.sleep(0.005)
        self.switch_at_start = self.handed_over()[1]
        start_from = self.times()[0][0][1]
        if self.switch_at_start != "up":
            start_from = os.stat(handed).st_mtime - time.time() + uptime()
        if not wait_answer:
            return
        while True:
            status, _, t, _ = self.query()
            if status == 0:
                break
            if t - start_from > WAIT_S:
                raise BenchError("zord did not answer after its start (zordctl: %s)" %
                                 RESULTS.get(status, status))
            self.end_lingering()
            time.sleep(0.02)
        self.first_start = t - start_from

    def handed_over(self):
        try:
            with open(self.root + "/var/run/zord/start") as f:
                return f.read().split()
        except OSError:
            return []

    def start_watchdog(self):
        s = self.settings
        argv = [
            "check", "--interval", s["interval"], "--failures", s["failures"], "--timeout",
            s["timeout"], "--restart-interval", s["restart_interval"]
        ]
        self.watchdog = subprocess.Popen([BUSYBOX, "sh", WATCHDOG] + [str(a) for a in argv],
                                         env=self.env, stdin=subprocess.DEVNULL)

    @property
    def pid(self):
        with open(self.pidfile) as f:
            return int(f.read())

    def query(self, source=None):
        """One try: zordctl --timeout 2000 cell, from its own loopback source
        as it picks one itself. Its exit status, when it began and when it
        ended (seconds since boot), and what it printed."""
        argv = [os.path.join(self.bindir, PROGRAMS["zordctl"]), "--timeout",
                str(TRY_TIMEOUT_MS)] + (["--source", source] if source else []) + ["cell"]
        t0 = uptime()
        p = subprocess.run(argv, env={**self.env, TRY_MARK[0]: TRY_MARK[1]},
                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, timeout=WAIT_S)
        return p.returncode, t0, uptime(), p.stdout.decode(errors="replace")

    def end_lingering(self):
        """A try that got no answer in time leaves a child that keeps its
        connection for 30 s to read the late answer (as zordctl does). Ours
        would soon take all ten of the daemon's slots and turn a silent
        modem into a full daemon; so they go at once."""
        end(rooted(self.root, "=".join(TRY_MARK)), signal.SIGKILL)

    def times(self):
        """zord's starts and ends as the stand-in procd noted them: two lists
        of (pid, seconds since boot)."""
        starts, ends = [], []
        try:
            with open(self.root + "/procd.times") as f:
                for word in (line.split() for line in f):
                    if len(word) >= 3:  # not a line being written
                        (starts if word[0] == "start" else ends).append(
                            (int(word[1]), float(word[2])))
        except OSError:
            pass
        return starts, ends

    def probes(self):
        """The watchdog's probes: (start, end, exit status)."""
        try:
            with open(self.root + "/probes") as f:
                return [(float(w[0]), float(w[1]), int(w[2])) for w in (line.split() for line in f)
                        if len(w) == 3]
        except OSError:
            return []

    def syslog(self, duty="watchdog"):
        """What a duty said in the system log: (seconds since boot, text)."""
        return [(t, text) for t, text in timed_lines(self.root + "/syslog")
                if t is not None and " %s: " % duty in text]

    def restarts(self):
        """When the watchdog asked procd to end zord (SIGTERM)."""
        return [t for t, text in timed_lines(self.root + "/ubus") if '"signal":15' in text]

    def stop(self):
        """The stand-in procd first, so that it starts nothing again; then
        zord, the watchdog and whatever else runs in the root."""
        for proc in (self.procd, self.watchdog):
            if proc is not None and proc.poll() is None:
                proc.send_signal(signal.SIGTERM)
                try:
                    proc.wait(timeout=WAIT_S)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
        self.procd = self.watchdog = None
        if self.root:
            sim = self.sim.pid if self.sim is not None else None
            deadline = time.monotonic() + WAIT_S
            while time.monotonic() < deadline:
                left = [pid for pid in rooted(self.root) if pid != sim]
                if not left:
                    break
                end(left, signal.SIGTERM if time.monotonic() + 5 < deadline else signal.SIGKILL)
                time.sleep(0.05)
        return super().stop()
