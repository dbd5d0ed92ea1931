# The built daemon as a process: its start-up entries, the station time-out
# its client threads log, how each signal ends it, daemon mode; the command
# lines and development seams that zord and zordctl refuse; and what hostile
# clients and a faulty modem leave of it.
from harness import *

END = 'err: signal_handler: signal_number=%d, so app is terminated!\n'
SEGV = "err: signal_handler: Detected the 'Segmentation Fault' error, so app is terminated!\n"
CHILD = (r'zor_listener_handler: i am child num 0 \([0-9A-F]+:\d+:\d+:1E240\)'
         r' timeout per child %d msec\n')
USAGE = (
    "Usage: %s:\n[-v 'log_severity (0-INIT, 1-ERROR, 2-WARNING, 3-INFO, 4-VERBOSE, 5-DEBUG)' ]\n"
    "[-d/--daemonize]\n"
    '[-t/--station_timeout timeout in msec for station incativity]\n[-h --help]\n')
PORT = 'ZORD_PORT must be a port number from 1 to 65535: '
# The last: the simulator's cell.
ON, Q, EV = 'AT+CEVVMCMD=1\r\n', 'AT+CEVVMEV?\r\n', '+CEVVMEV:3104101A2B1A2D101,FDD\r\n'
DONE, NULL = '=== at_cmd_q_entry_rd_index', '+CEVVMEV:NULL,NULL\r\n'  # an answer written; no cell
NO_MODEM = ('no-modem: the daemon reaches no AT switch: AT+CEVVMCMD? got ERROR and AT+CEVVMEV? '
            '+CEVVMEV:NULL,NULL\n')


def test_starts_in_order_and_ends_on_each_signal_with_status_zero():
    rows = [([], signal.SIGTERM, 1500000, END % 15),
            (['-v', '0', '-t', '5', '-t', '4321'], signal.SIGINT, 4321, END % 2),
            (['--log_severity=5', '--station_timeout=-1'], signal.SIGQUIT, 1500000, END % 3),
            (['-t', 'abc'], signal.SIGSEGV, 0, SEGV), (['-d'], None, 1500000, None)]
    for options, number, timeout, end in rows:
        with Run(zord=options) as run:
            assert re.match(f'main entry\n(.*\n)*STARTING ZOR Daemon compile time (.*\n)*{STARTED}',
                            run.log()), 'order'
            # The threads' own entries may come before or after main's last one.
            assert all(
                map(run.wait_log,
                    ('AtThreadMain entry\n', 'zor_StartServer entry\n',
                     'Create and wait for AT command thread listener start\n'))), 'thread entries'
            client = run.clients(1)
            eq(run_program(run, [ZORDCTL, 'check']), (7, NO_MODEM, ''), f'{options}: no AT switch')
            assert wait_until(
                lambda: re.search(CHILD % timeout, run.log())), f'{options}: the client entry'
            if options == [
                    '-d'
            ]:  # the launching process has ended; the daemon, found by its root, serves
                eq((run.zord.wait(WAIT), len(run.rooted())), (0, 1),
                   'launcher status, processes in the root')
                continue
            eq((run.end_by_signal(number), run.log()[-len(end):]), (0, end),
               f'{options}: exit status and last entry')


# A row: the command line, the environment, and the exit status, standard
# output and standard error expected (patterns).
def test_zord_and_zordctl_refuse_bad_command_lines_and_unusable_seams():
    usage = ('Orvane ZOR Daemon\\. -  compilation time '
             '[A-Z][a-z]{2} [ 0-3]\\d \\d{4}:[0-2]\\d:[0-5]\\d:[0-5]\\d\n' +
             re.escape(USAGE % ZORD))
    zord = lambda text: (1, '', re.escape(f'{ZORD}: {text}\n'))
    ctl = lambda text, status=2: (status, '', re.escape(f'zordctl: {text}\n') +
                                  '(usage: zordctl .*)' * (status == 2))
    with Run() as run:
        port = str(run.port)  # nothing listens there
        rows = [
            ([ZORD, '-h'], {}, (1, usage, '')), ([ZORD, '--help'], {}, (1, usage, '')),
            ([ZORD, '-x'], {}, (1, usage, '.*')), ([ZORD, '-v'], {}, (1, usage, '.*')),
            ([ZORD], {'ZORD_PORT': '70000'}, zord(PORT + '70000')),
            ([ZORD], {'ZORD_PORT': '66x'}, zord(PORT + '66x')),
            ([ZORD], {'ZORD_ROOT': 'relative/dir'},
             zord('ZORD_ROOT must be an absolute path: relative/dir')),
            ([ZORD], {'ZORD_ROOT': '/' + 'r' * 60},
             zord('ZORD_ROOT must be at most 40 characters long')),
            ([ZORDCTL], {}, ctl('no command given')),
            ([ZORDCTL, 'status'], {}, ctl('unknown command: status')),
            ([ZORDCTL, 'cell'], {'ZORD_PORT': '66x'}, ctl(PORT + '66x')),
            ([ZORDCTL, '--timeout', '-5',
              'cell'], {}, ctl('--timeout must be a number of milliseconds from 1 to 3600000: -5')),
            ([ZORDCTL, '--host', 'localhost',
              'cell'], {}, ctl('--host must be an IPv4 address: localhost')),
            ([ZORDCTL, 'send',
              'AT' + 'E' * 125], {}, ctl('the LINE to send is longer than 126 characters')),
            ([ZORDCTL, '--port', port, 'check'], {},
             (3, f'not-listening: cannot connect to 127.0.0.1:{port}: Connection .*', '')),
            ([ZORDCTL, '--source', '192.0.2.1', '--port', port,
              'cell'], {}, ctl('cannot bind to 192.0.2.1: Cannot assign requested address', 3)),
            ([ZORDCTL, '--help'], {}, (0, 'usage: zordctl .*', ''))
        ]
        for argv, env, want in rows:
            got = run_program(run, argv, env)
            matched = all(re.fullmatch(w, g, re.S) for w, g in zip(want[1:], got[1:]))
            assert got[0] == want[
                0] and matched, f'{argv} {env}\n  got:      {got}\n  expected: {want}'


# Hostile clients or a faulty modem, a row each. After each row, once the
# daemon has taken every connection, it holds the descriptors it held before
# and a new client gets its answer. A hostile client leaves only once the
# daemon has closed its end or answered: a write to a peer that has gone
# raises SIGPIPE, which ends the daemon by design. The split answer is the
# cell query's, whose final result comes whole in the second write; one cut
# inside its final result would stop the queue for good, also by design.
def test_survives_hostile_clients_and_a_faulty_modem_and_gives_back_every_descriptor():
    rng, big, hosts = random.Random(16), b'AT+CEVVMEV?' + b'X' * 102387 + b'\r\n', iter(
        range(1, 1 << 16))  # 100 KB
    junk = [rng.randbytes(rng.randrange(1, 999))
            for _ in range(20)] + [b'GET / HTTP/1.1\r\nHost: zord\r\n\r\n'] * 10
    rst = (socket.SOL_SOCKET, socket.SO_LINGER, b'\1' + bytes(7)
           )  # linger on, for 0 s: the close resets

    def connect(*options
                ):  # from 127.1.x.y (the clients of Run come from 127.0.0.y), each write a segment
        c = socket.create_connection(('127.0.0.1', road.port), WAIT,
                                     (f'127.1.{(n := next(hosts)) >> 8}.{n & 255}', 0))
        return [
            c.setsockopt(*o) for o in ((socket.IPPROTO_TCP, socket.TCP_NODELAY, 1), ) + options
        ] and c

    def refused(*pieces):  # not enabled: the daemon refuses the line (or the one after) and closes
        with connect() as c, contextlib.suppress(ConnectionError):
            [c.sendall(p) for p in pieces] and read_until(c, None)
            assert select.select([c], [], [], 0)[0], 'the daemon did not close'

    def leave():  # asks, and has gone before its answer is written
        with connect() as c:
            done = road.log().count(DONE)
            expect(c, ON, 'OK\r\n', 'enabling') or c.sendall(Q.encode())
        assert wait_until(lambda: road.log().count(DONE) > done), 'no answer'

    hostile = [
        lambda: [refused(j) for j in junk],
        lambda: refused(big),
        lambda: [leave() for _ in range(30)],
        lambda: refused(*(big[i * 128:i * 128 + 128] for i in range(800))),
        # In tens, each ten gone before the next: the daemon listens with a queue of ten.
        lambda: [
            connect(*[rst] * (i % 4 == 0)).close() or i % 10 < 9 or wait_until(idle)
            for i in range(100)
        ],
        lambda: [c.close() for c in [connect() for _ in range(12)]]
    ]  # twelve at once; it serves ten at most
    rows = [(a, Q, EV) for a in hostile] + [(['fail 1'], Q, NULL),
                                            (['fail 1'], 'AT+CEVVMCMD?\r\n', 'ERROR\r\n'),
                                            (['split 50'], Q, NULL),
                                            ([], Q, EV)]  # split: the info line is overwritten
    with Run(zord=[], sim=True) as road:
        fds = lambda: len(os.listdir(f'/proc/{road.zord.pid}/fd'))
        # Listening, with no connection waiting to be accepted.
        idle = lambda: b'%04X 00000000:0000 0A 00000000:00000000' % road.port in proc(
            road.zord.pid, 'net/tcp')
        base, gone = fds(), lambda: idle() and fds() == base
        for row, (action, line, answer) in enumerate(rows):
            road.modem(*action) if isinstance(action, list) else action()
            assert wait_until(gone), f'row {row}: {fds()} descriptors, {base} before'
            expect(road.clients(1)[0], line, answer,
                   f'row {row}: {line!r}')  # and the client closes


globals()[sys.argv[1]]()  # the case named on the command line
