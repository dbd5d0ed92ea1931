# The end-to-end fixture: the built programs started as separate processes
# (through the cross build's emulator when there is one) in a fresh short
# root on a free port; the fake uci comes first in PATH (the test's build
# file puts it there). Everything started is ended, also when a case fails;
# a failing case prints what it got against what it expected, the daemon's
# log and the modem's record.
import collections, contextlib, os, random, re, select, shutil, signal, socket
import subprocess, sys, tempfile, time

WAIT = 20.0  # seconds; generous: qemu and the sanitizers are slow
LAUNCHER = [w for w in os.environ.get('ZT_LAUNCHER', '').split('|') if w]
ZORD, SIM, ZORDCTL = os.environ['ZT_ZORD'], os.environ['ZT_SIM'], os.environ['ZT_ZORDCTL']
STARTED = 'ZOR main finished tarting threads\n'
PIPES = {'stdout': subprocess.PIPE, 'stderr': subprocess.PIPE}


def eq(got, want, what=''):
    if got != want:
        raise AssertionError(f'{what}\n  got:      {got!r}\n  expected: {want!r}')


def wait_until(condition, timeout=WAIT):
    deadline = time.monotonic() + timeout
    while not (done := condition()) and time.monotonic() < deadline:
        time.sleep(0.005)
    return done


# What a socket or pipe gives until `want` has arrived (None: its end), or
# until its end or the deadline come first.
def read_until(f, want, timeout=WAIT):
    got, deadline = b'', time.monotonic() + timeout
    while want is None or want.encode('latin-1') not in got:
        ready = select.select([f], [], [], max(0, deadline - time.monotonic()))[0]
        chunk = os.read(f.fileno(), 4096) if ready else b''
        if not chunk:
            break
        got += chunk
    return got.decode('latin-1')


# Sends the line (None: nothing) and reads until the answer has come; it must
# be all that came. One line per write: the daemon takes one receive as one line.
def expect(client, line, answer, what):
    if line:
        client.sendall(line.encode())
    eq(read_until(client, answer), answer, what)


def run_program(run, argv, env=()):  # exit status, standard output, standard error
    p = run.start(argv, env, **PIPES)
    out, err = p.communicate(timeout=WAIT)
    return p.returncode, out.decode(), err.decode()


def proc(pid, name):  # a /proc file of a process, empty when it is gone
    with contextlib.suppress(OSError), open(f'/proc/{pid}/{name}', 'rb') as f:
        return f.read()
    return b''


# A TCP port below the ephemeral range, so that no client of a case running
# beside this one holds it as its local port.
def free_port():
    while True:
        with socket.socket() as s, contextlib.suppress(OSError):
            s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            s.bind(('', random.randint(20000, 31999)))
            return s.getsockname()[1]


# A temporary root and port, and the programs started in it: zord with the
# given options, and the simulator beside it, driven through its standard
# input. With the simulator the cell answers come unquoted, and the case
# begins once the registration thread has asked AT+CEREG? (which it does
# once, at the start): queries wait for that, and the modem's bytes count
# from after it.
class Run(contextlib.AbstractContextManager):

    def __init__(self, zord=None, sim=False):
        self.root = tempfile.mkdtemp(prefix='zord', dir='/tmp')
        os.makedirs(self.root + '/tmp/logs')
        self.port, self.seen, self.sources = free_port(), 0, iter(range(2, 250))
        self.env = dict(os.environ, ZORD_ROOT=self.root, ZORD_PORT=str(self.port))
        try:
            if sim:
                self.sim = self.start([SIM], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
                self.modem('quote off')  # answered once it serves
            if zord is not None:
                self.zord = self.start([ZORD] + zord, stdout=subprocess.DEVNULL)  # its traces
                assert self.wait_log(STARTED), 'zord did not start'
                assert wait_until(self.idle), 'zord does not listen'
            if sim and zord is not None:
                assert self.wait_log('Registration stat is'), 'no registration query'
                self.modem_since()
        except BaseException:
            self.__exit__(*sys.exc_info())
            raise

    def __exit__(self, kind, value, trace):
        if kind is not None:
            print(f'---- zord log\n{self.log()}---- modem record')
            with contextlib.suppress(Exception):
                print(self.modem('record'))
        for pid in self.rooted():  # also what a started program started
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        wait_until(lambda: not self.rooted())
        shutil.rmtree(self.root, ignore_errors=True)

    def rooted(self):  # the processes that run in this root
        entry = ('ZORD_ROOT=' + self.root).encode()
        return [
            int(p) for p in os.listdir('/proc')
            if p.isdigit() and entry in proc(p, 'environ').split(b'\0')
        ]

    # Listening on the port, with no connection waiting to be accepted (seen
    # in the kernel's table: a connection would be a client).
    def idle(self):
        return b':%04X 00000000:0000 0A 00000000:00000000' % self.port in proc('self', 'net/tcp')

    def start(self, argv, env=(), stdin=subprocess.DEVNULL, **pipes):
        return subprocess.Popen(LAUNCHER + argv, env={**self.env, **dict(env)}, stdin=stdin,
                                **pipes)

    def log(self):  # without the time texts
        path = self.root + '/tmp/logs/zord-vvm-app.log'
        text = open(path, encoding='latin-1', newline='').read() if os.path.exists(path) else ''
        return re.sub(r'(?m)^[0-2]\d:[0-5]\d:[0-6]\d\.\d{3,4} ', '', text)

    def wait_log(self, text):
        return wait_until(lambda: text in self.log())

    # Control commands for the simulator: the last one's reply without its
    # "ok" (lines of replies are escaped: "ok" ends a line only there).
    def modem(self, *lines):
        reply = 'ok\n'
        for line in lines:
            os.write(self.sim.stdin.fileno(), line.encode() + b'\n')
            reply = read_until(self.sim.stdout, 'ok\n')
            assert reply.endswith('ok\n'), f'{line}: {reply}'
        return reply[:-3]

    # What the modem received on the daemon's command connection since the last call.
    def modem_since(self):
        got = self.modem('bytes 1')[:-1].encode('latin-1').decode('unicode_escape')
        fresh, self.seen = got[self.seen:], len(got)
        return fresh

    # Enabled clients, each from its own loopback address: a new connection
    # from the address of the client in the first slot drops that client.
    def clients(self, n):
        clients = [
            socket.create_connection(('127.0.0.1', self.port), WAIT,
                                     (f'127.0.0.{next(self.sources)}', 0)) for _ in range(n)
        ]
        for c in clients:
            expect(c, 'AT+CEVVMCMD=1\r\n', 'OK\r\n', 'enabling')
        return clients

    # Sends zord the signal and waits for its end: its exit status. Under the
    # emulator a signal that lands on a thread in the middle of exiting can be
    # lost (qemu-user queues it for that thread), so there, when the daemon
    # has neither ended nor logged it in a few seconds, the signal goes again.
    def end_by_signal(self, number):
        ended = lambda: self.zord.poll() is not None
        self.zord.send_signal(number)
        if LAUNCHER and not wait_until(ended, 5.0) and 'signal_handler:' not in self.log():
            self.zord.send_signal(number)
        return self.zord.returncode if wait_until(ended) else 'still running'
