# The measurements. Each takes a started rig, leaves no client behind and
# returns plain numbers (seconds, counts, kB); every time comes with the floor
# measured in the same run.
import ctypes
import selectors
import statistics
import subprocess
import sys
import time

from rig import BenchError, Rig, cpu_ticks, io_calls, now, proc_status, wakeups

EV_QUERY = "AT+CEVVMEV?\r\n"
CMD_QUERY = "AT+CEVVMCMD?\r\n"
# What the daemon sends the modem for them, as it sends it.
CELL_CMDS = ["AT+CEREG?\n\r", "AT+COPS=3,2\n\r", "AT+COPS?\n\r", "AT%PCONI\n\r"]
IMSI_CMD = "AT+CIMI\n\r"
UCI_KEYS = ["/tmp/wan.status.ipv6_addr_global", "/tmp/wan.status.ipv4_addr"]
HAND_OVER_S = 0.005  # the pause after each hand-over of a client's line, as asked
# Two cells to move between, and the cell identity the daemon makes of each
# (PLMN 310410, tac, ci less its first character).
CELLS = [("00C1", "0BEEF001", "31041000C1BEEF001"), ("1A2B", "01A2D101", "3104101A2B1A2D101")]
CLIENTS = ["127.0.0.%d" % n for n in range(2, 12)]


def median(xs):
    return statistics.median(xs) if xs else float("nan")


def p99(xs):
    """Nearest rank."""
    if not xs:
        return float("nan")
    s = sorted(xs)
    return s[max(0, -(-99 * len(s) // 100) - 1)]


def move_cell(rig):
    """Changes the simulated cell; the simulator pushes a registration report.
    Returns the cell identity the daemon will report."""
    rig.cell = (getattr(rig, "cell", 1) + 1) % 2
    tac, ci, cell_id = CELLS[rig.cell]
    rig.ctl("cell %s %s" % (tac, ci))
    return cell_id


def hand_over_pause(count):
    """What a 5 ms sleep lasts on this machine, with the timer slack the
    daemon uses (none): the floor of every hand-over. A virtual machine's
    timer adds a tenth of a millisecond or more to it."""
    try:
        ctypes.CDLL(None).prctl(29, ctypes.c_ulong(1), 0, 0, 0)  # PR_SET_TIMERSLACK
    except (OSError, AttributeError):
        pass
    times = []
    for _ in range(count):
        t0 = now()
        time.sleep(HAND_OVER_S)
        times.append(now() - t0)
    return median(times)


def query_latency(rig, count, pause):
    """Both queries, one at a time from one client, each followed by its
    floor: the same modem commands sent straight to the simulator, plus the
    hand-over pause as measured."""
    client = rig.client("127.0.0.20")
    link = rig.sim_link()
    cell = CELLS[getattr(rig, "cell", 1)][2]
    rows = [(EV_QUERY, "+CEVVMEV:%s,FDD\r\n" % cell, CELL_CMDS),
            (CMD_QUERY, "\r\nOK\r\n", [IMSI_CMD] + CELL_CMDS)]
    out = {}
    for line, answer, _ in rows:  # once each before timing, and a check of the answer
        got = client.request(line, answer)
        if not got.endswith(answer) or (line == CMD_QUERY and cell not in got):
            raise BenchError("%r answered %r" % (line, got))
        out[line] = ([], [])
    round_trips = []
    # The log's size before each query: what it grew by until the next one
    # is that query's. The floor's round trips in between give the daemon
    # time to write the entries that follow an answer.
    sizes = []
    for _ in range(count):
        for line, answer, cmds in rows:
            sizes.append((line, rig.log_bytes()))
            t0 = now()
            client.send(line)
            _, (t1, ) = client.read_until([answer])
            trips = [link.round_trip(c) for c in cmds]
            round_trips += trips
            out[line][0].append(t1 - t0)
            out[line][1].append(pause + sum(trips))
    sizes.append((None, rig.log_bytes()))
    rig.close_clients([client])
    link.close()
    result = {"round_trip": median(round_trips)}
    for name, line in (("ev", EV_QUERY), ("cmd", CMD_QUERY)):
        times, floors = out[line]
        grown = [b[1] - a[1] for a, b in zip(sizes, sizes[1:]) if a[0] == line]
        result[name] = {
            "median": median(times), "p99": p99(times), "floor_median": median(floors),
            "floor_p99": p99(floors), "log_bytes": median(grown)
        }
    return result


def start_hog(seconds):
    """A busy process on one core; it ends by itself."""
    code = ("import time\nend = time.monotonic() + %f\n"
            "while time.monotonic() < end:\n    pass\n" % seconds)
    return subprocess.Popen([sys.executable, "-c", code])


def settled_log_bytes(rig, quiet=0.2):
    """The log's size once it has not grown for `quiet` seconds."""
    size, since = rig.log_bytes(), now()
    deadline = since + 5.0
    while now() - since < quiet and now() < deadline:
        time.sleep(0.01)
        if rig.log_bytes() != size:
            size, since = rig.log_bytes(), now()
    return size


def throughput(rig, seconds, hog=False):
    """Ten clients, each sending AT+CEVVMEV? as soon as its last answer is in.
    Returns answers per second, the daemon's memory while they are
    connected, and its log: bytes per answer over all the answers the run
    caused (the last ones, after the time is up, included), and bytes per
    second while the time ran."""
    clients = [rig.client(source) for source in CLIENTS]
    for c in clients:  # once each, so that every client thread has run a query
        c.request(EV_QUERY, "\r\n")
    memory = proc_status(rig.pid)
    hog_proc = start_hog(seconds + 3) if hog else None
    try:
        if hog_proc:
            time.sleep(0.3)  # let it take its core
        sel = selectors.DefaultSelector()
        buffers = {}
        for c in clients:
            c.sock.setblocking(False)
            sel.register(c.sock, selectors.EVENT_READ, c)
            buffers[c] = b""
        log_start = settled_log_bytes(rig)
        start = now()
        deadline = start + seconds
        for c in clients:
            c.sock.send(EV_QUERY.encode())
        answers, waiting, log_at_end = 0, len(clients), None
        while waiting:
            if now() > deadline + 20:
                raise BenchError("throughput: answers stopped coming")
            for key, _ in sel.select(timeout=1.0):
                c = key.data
                chunk = c.sock.recv(4096)
                if not chunk:
                    raise BenchError("throughput: the daemon closed %s" % c.source)
                buffers[c] += chunk
                while b"\r\n" in buffers[c]:
                    buffers[c] = buffers[c].split(b"\r\n", 1)[1]
                    t = now()
                    if t <= deadline:
                        answers += 1
                        c.sock.send(EV_QUERY.encode())
                    else:
                        if log_at_end is None:
                            log_at_end = (rig.log_bytes(), t)
                        waiting -= 1
        sel.close()
        log_after = settled_log_bytes(rig)
    finally:
        if hog_proc:
            hog_proc.kill()
            hog_proc.wait()
    for c in clients:
        c.sock.setblocking(True)
    rig.close_clients(clients)
    return {
        "per_s": answers / seconds, "memory": memory,
        "log_bytes": (log_after - log_start) / (answers + len(clients)),
        "log_per_s": (log_at_end[0] - log_start) / (log_at_end[1] - start)
    }


def event_latency(rig, count):
    """From the simulator's registration report to the subscriber's +CEVVMEV
    line. Floor: the four modem commands of the daemon's own set command and
    the two uci runs it makes."""
    subscriber = rig.client("127.0.0.21", subscribe=True)
    link = rig.sim_link()
    times, floors, round_trips, uci_runs = [], [], [], []
    # Once untimed: the first line after the subscription's "OK" waits for
    # the subscriber's delayed acknowledgement of that OK.
    subscriber.read_until(["+CEVVMEV:%s,FDD,0\r\n" % move_cell(rig)])
    rig.log.wait_for("=== at_cmd_q_entry_rd_index")
    for _ in range(count):
        rig.log.mark()
        t0 = now()
        cell = move_cell(rig)
        line = "+CEVVMEV:%s,FDD,0\r\n" % cell
        got, (t1, ) = subscriber.read_until([line])
        if got != line.encode():
            raise BenchError("the subscriber got %r, not %r" % (got, line))
        times.append(t1 - t0)
        rig.log.wait_for("=== at_cmd_q_entry_rd_index")  # the daemon's own command is done
        trips = [link.round_trip(c) for c in CELL_CMDS]
        runs = [rig.uci_run(k) for k in UCI_KEYS]
        round_trips += trips
        uci_runs += runs
        floors.append(sum(trips) + sum(runs))
    rig.close_clients([subscriber])
    link.close()
    return {
        "median": median(times), "p99": p99(times), "floor_median": median(floors),
        "floor_p99": p99(floors), "uci_run": median(uci_runs)
    }


def deferred_gap(rig, tries):
    """A report arrives while the daemon's own command runs and a client's
    query waits behind it: the event text goes to that client after its
    answer. The gap is between the receive that completes the answer and the
    one that completes the text."""
    subscriber = rig.client("127.0.0.22", subscribe=True)
    asking = rig.client("127.0.0.23")
    gaps, missed = [], 0
    for _ in range(tries):
        rig.log.mark()
        rig.ctl("delay 30")  # holds the own command long enough to queue the query behind it
        cell = move_cell(rig)
        rig.log.wait_for("special handle of CEVVMEV unsol - send")
        asking.send(EV_QUERY)
        rig.log.wait_for("=== AT CMD read")
        rig.ctl("delay 0")
        answer = "+CEVVMEV:%s,FDD\r\n" % cell
        late = "+CEVVMEV:%s,FDD,0\r" % cell  # less its last character
        try:
            got, (t_answer, t_late) = asking.read_until([answer, late], timeout=3)
            if got != (answer + late).encode():
                raise BenchError("the asking client got %r" % got)
            gaps.append(t_late - t_answer)
        except BenchError:
            missed += 1
            asking.pending = b""
        rig.log.wait_for("=== at_cmd_q_entry_rd_index", 2)
    rig.close_clients([subscriber, asking])
    return {
        "median": median(gaps), "p99": p99(gaps), "over_1ms": sum(g > 0.001 for g in gaps),
        "tries": len(gaps), "missed": missed
    }


def idle(rig, seconds):
    """CPU ticks, wakeups and read/write system calls of the daemon while no
    client is connected and the modem is quiet."""
    time.sleep(0.2)
    pid = rig.pid
    t0, w0, s0 = cpu_ticks(pid), wakeups(pid), io_calls(pid)
    time.sleep(seconds)
    t1, w1, s1 = cpu_ticks(pid), wakeups(pid), io_calls(pid)
    return {
        "ticks": t1 - t0, "wakeups": w1 - w0,
        "syscalls": None if s0 is None or s1 is None else s1 - s0
    }


def callgrind_total(bindir, srcdir, queries):
    """Total instructions of zord under callgrind for a run with this many
    AT+CEVVMEV? queries."""
    rig = Rig(
        bindir, srcdir,
        launcher=["valgrind", "--tool=callgrind", "--callgrind-out-file={root}/callgrind.out"])
    try:
        rig.start()
        client = rig.client("127.0.0.24")
        for _ in range(queries):
            client.request(EV_QUERY, "\r\n")
        rig.close_clients([client])
        rig.stop()
        with open(rig.root + "/callgrind.out") as f:
            for line in f:
                if line.startswith(("totals:", "summary:")):
                    return int(line.split()[1])
        raise BenchError("no total in callgrind's output")
    finally:
        rig.stop()
        rig.remove()


def instructions_per_query(bindir, srcdir, few, many):
    """The difference of two runs over the difference of their query counts:
    start-up and shutdown cancel."""
    return (callgrind_total(bindir, srcdir, many) - callgrind_total(bindir, srcdir, few)) / (many -
                                                                                             few)
