# The built daemon as a process: its start-up entries, the station time-out
# its client threads log, how each signal ends it, daemon mode; the command
# lines and development seams that zord refuses; and what hostile clients
# leave of it.
from harness import *

END = 'err: signal_handler: signal_number=%d, so app is terminated!\n'
SEGV = "err: signal_handler: Detected the 'Segmentation Fault' error, so app is terminated!\n"
CHILD = (r'zor_listener_handler: i am child num 0 \([0-9A-F]+:\d+:\d+:1E240\)'
         r' timeout per child %d msec\n')
USAGE = (
    'Orvane ZOR Daemon\\. -  compilation time '
    '[A-Z][a-z]{2} [ 0-3]\\d \\d{4}:[0-2]\\d:[0-5]\\d:[0-5]\\d\n' +
    re.escape(f"Usage: {ZORD}:\n[-v 'log_severity (0-INIT, 1-ERROR, 2-WARNING, 3-INFO, 4-VERBOSE,"
              " 5-DEBUG)' ]\n[-d/--daemonize]\n"
              '[-t/--station_timeout timeout in msec for station incativity]\n[-h --help]\n'))
SAID = re.escape(ZORD + ': ')  # how it begins what it says of a seam it cannot use
PORT, ROOT = 'ZORD_PORT must be a port number from 1 to 65535: ', 'ZORD_ROOT must be '
ON, Q, EV = 'AT+CEVVMCMD=1\r\n', 'AT+CEVVMEV?\r\n', '+CEVVMEV:3104101A2B1A2D101,FDD\r\n'
DONE = '=== at_cmd_q_entry_rd_index'  # an answer written
WEB = b'GET / HTTP/1.1\r\nHost: zord\r\n\r\n'
BIG = b'AT+CEVVMEV?' + b'X' * 102387 + b'\r\n'  # 100 KB


# The start-up entries: main's in their order, the threads' own before or after main's last.
def test_start_up_entries_come_in_order():
    with Run(zord=[]) as run:
        order = f'main entry\n(.*\n)*STARTING ZOR Daemon compile time (.*\n)*{STARTED}'
        assert re.match(order, run.log()), 'the order of main\'s entries'
        threads = ('AtThreadMain entry\n', 'zor_StartServer entry\n',
                   'Create and wait for AT command thread listener start\n')
        for entry in threads:
            assert run.wait_log(entry), entry


# The station time-out that a client's thread logs: the last -t, the default for a negative
# one, 0 for one that is not a number.
def test_a_client_thread_logs_the_station_timeout_of_the_command_line():
    rows = [
        ([], 1500000),
        (['-v', '0', '-t', '5', '-t', '4321'], 4321),
        (['--log_severity=5', '--station_timeout=-1'], 1500000),
        (['-t', 'abc'], 0),
    ]
    for options, timeout in rows:
        with Run(zord=options) as run:
            run.clients(1)
            assert wait_until(lambda: re.search(CHILD % timeout, run.log())), options


# Each signal it handles ends it with status 0, its last entry naming the signal.
def test_each_signal_ends_it_with_status_zero_and_its_last_entry():
    rows = [
        (signal.SIGTERM, END % 15),
        (signal.SIGINT, END % 2),
        (signal.SIGQUIT, END % 3),
        (signal.SIGSEGV, SEGV),
    ]
    for number, end in rows:
        with Run(zord=[]) as run:
            eq((run.end_by_signal(number), run.log()[-len(end):]), (0, end), number)


# With -d the launching process ends with status 0 and leaves the daemon alone in the root,
# serving.
def test_daemon_mode_leaves_one_process_that_serves():
    with Run(zord=['-d']) as run:
        eq((run.zord.wait(WAIT), len(run.rooted())), (0, 1), 'launcher status, processes')
        run.clients(1)


# zord stops at once with status 1: with its usage for help and for a bad option (which getopt
# names on standard error), with one line for a development seam it cannot use.
def test_zord_stops_with_status_one_for_help_bad_options_and_unusable_seams():
    Row = collections.namedtuple('Row', 'options env out err')
    rows = [
        Row(['-h'], {}, USAGE, ''),
        Row(['--help'], {}, USAGE, ''),
        Row(['-x'], {}, USAGE, '.*'),
        Row(['-v'], {}, USAGE, '.*'),
        Row([], {'ZORD_PORT': '70000'}, '', SAID + PORT + '70000\n'),
        Row([], {'ZORD_PORT': '66x'}, '', SAID + PORT + '66x\n'),
        Row([], {'ZORD_ROOT': 'rel'}, '', SAID + 'ZORD_ROOT must be an absolute path: rel\n'),
        Row([], {'ZORD_ROOT': '/' + 'r' * 60}, '', SAID + ROOT + 'at most 40 characters long\n'),
    ]
    with Run() as run:
        for row in rows:
            status, out, err = run_program(run, [ZORD] + row.options, row.env)
            assert status == 1 and re.fullmatch(row.out, out), f'{row}: {status} {out}'
            assert re.fullmatch(row.err, err, re.S), f'{row}: standard error {err!r}'


# Hostile clients, one kind at a time. After each kind, once the daemon has
# taken every connection, it holds the descriptors it held before and a new
# client gets its answer. A hostile client leaves only once the daemon has
# closed its end or answered: a write to a peer that has gone raises SIGPIPE,
# which ends the daemon by design.
def test_hostile_clients_leave_it_serving_with_every_descriptor_back():
    rng, hosts = random.Random(16), iter(range(1, 1 << 16))
    lines = [rng.randbytes(rng.randrange(1, 999)) for _ in range(20)]
    lines += [WEB] * 10 + [BIG]

    # From 127.1.x.y (the clients of Run come from 127.0.0.y).
    def connect(reset=False):
        n = next(hosts)
        c = socket.create_connection(('127.0.0.1', road.port), WAIT,
                                     (f'127.1.{n >> 8}.{n & 255}', 0))
        if reset:  # linger on, for 0 s: the close resets
            c.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b'\1' + bytes(7))
        return c

    def refused():  # not enabled: junk, web requests, 100 KB; the daemon refuses it and closes
        for line in lines:
            with connect() as c, contextlib.suppress(ConnectionError):
                c.sendall(line)
                read_until(c, None)
                assert select.select([c], [], [], 0)[0], f'the daemon did not close: {line[:20]}'

    def gone_before_the_answer():  # each asks and leaves while the modem holds the answer back
        road.modem('delay 200')
        for _ in range(5):
            done = road.log().count(DONE)
            with connect() as c:
                expect(c, ON, 'OK\r\n', 'enabling')
                c.sendall(Q.encode())
            assert wait_until(lambda: road.log().count(DONE) > done), 'no answer'
        road.modem('delay 0')

    # Ten times ten, each ten gone before the next (the daemon listens with a queue of ten), and
    # twelve (it serves ten at most); each fourth resets.
    def crowds():
        for size in [10] * 10 + [12]:
            for c in [connect(reset=i % 4 == 0) for i in range(size)]:
                c.close()
            assert wait_until(road.idle), 'connections wait'

    with Run(zord=[], sim=True) as road:
        fds = lambda: len(os.listdir(f'/proc/{road.zord.pid}/fd'))
        base = fds()
        for hostile in refused, gone_before_the_answer, crowds:
            hostile()
            assert wait_until(lambda: road.idle() and fds() == base), f'{hostile.__name__}: {fds()}'
            expect(road.clients(1)[0], Q, EV, hostile.__name__)  # and the client closes


globals()[sys.argv[1]]()  # the case named on the command line
