# The built daemon as a process: its start-up entries, the station time-out
# its client threads log, how each signal ends it, daemon mode; and the
# command lines and development seams that zord and zordctl refuse.
from harness import *

END = 'err: signal_handler: signal_number=%d, so app is terminated!\n'
SEGV = "err: signal_handler: Detected the 'Segmentation Fault' error, so app is terminated!\n"
CHILD = r'zor_listener_handler: i am child num 0 \([0-9A-F]+:\d+:\d+:1E240\) timeout per child %d msec\n'
USAGE = ("Usage: %s:\n[-v 'log_severity (0-INIT, 1-ERROR, 2-WARNING, 3-INFO, 4-VERBOSE, 5-DEBUG)' ]\n[-d/--daemonize]\n"
         '[-t/--station_timeout timeout in msec for station incativity]\n[-h --help]\n')
PORT = 'ZORD_PORT must be a port number from 1 to 65535: '


def test_starts_in_order_and_ends_on_each_signal_with_status_zero():
    rows = [([], signal.SIGTERM, 1500000, END % 15),
            (['-v', '0', '-t', '5', '-t', '4321'], signal.SIGINT, 4321, END % 2),
            (['--log_severity=5', '--station_timeout=-1'], signal.SIGQUIT, 1500000, END % 3),
            (['-t', 'abc'], signal.SIGSEGV, 0, SEGV), (['-d'], None, 1500000, None)]
    for options, number, timeout, end in rows:
        with Run(zord=options) as run:
            assert re.match(f'main entry\n(.*\n)*STARTING ZOR Daemon compile time (.*\n)*{STARTED}', run.log()), 'order'
            # The threads' own entries may come before or after main's last one.
            assert all(map(run.wait_log, ('AtThreadMain entry\n', 'zor_StartServer entry\n',
                                          'Create and wait for AT command thread listener start\n'))), 'thread entries'
            client = run.clients(1)
            assert wait_until(lambda: re.search(CHILD % timeout, run.log())), f'{options}: the client entry'
            if options == ['-d']:  # the launching process has ended; the daemon, found by its root, serves
                eq((run.zord.wait(WAIT), len(run.rooted())), (0, 1), 'launcher status, processes in the root')
                continue
            eq((run.end_by_signal(number), run.log()[-len(end):]), (0, end), f'{options}: exit status and last entry')


# A row: the command line, the environment, and the exit status, standard
# output and standard error expected (patterns).
def test_zord_and_zordctl_refuse_bad_command_lines_and_unusable_seams():
    usage = ('Orvane ZOR Daemon\\. -  compilation time [A-Z][a-z]{2} [ 0-3]\\d \\d{4}:[0-2]\\d:[0-5]\\d:[0-5]\\d\n' +
             re.escape(USAGE % ZORD))
    zord = lambda text: (1, '', re.escape(f'{ZORD}: {text}\n'))
    ctl = lambda text, status=2: (status, '', re.escape(f'zordctl: {text}\n') + '(usage: zordctl .*)' * (status == 2))
    with Run() as run:
        port = str(run.port)  # nothing listens there
        rows = [([ZORD, '-h'], {}, (1, usage, '')), ([ZORD, '--help'], {}, (1, usage, '')),
                ([ZORD, '-x'], {}, (1, usage, '.*')), ([ZORD, '-v'], {}, (1, usage, '.*')),
                ([ZORD], {'ZORD_PORT': '70000'}, zord(PORT + '70000')),
                ([ZORD], {'ZORD_PORT': '66x'}, zord(PORT + '66x')),
                ([ZORD], {'ZORD_ROOT': 'relative/dir'}, zord('ZORD_ROOT must be an absolute path: relative/dir')),
                ([ZORD], {'ZORD_ROOT': '/' + 'r' * 60}, zord('ZORD_ROOT must be at most 40 characters long')),
                ([ZORDCTL], {}, ctl('no command given')), ([ZORDCTL, 'status'], {}, ctl('unknown command: status')),
                ([ZORDCTL, '--port=70000', 'cell'], {}, ctl('--port must be a port number from 1 to 65535: 70000')),
                ([ZORDCTL, 'cell'], {'ZORD_PORT': '66x'}, ctl(PORT + '66x')),
                ([ZORDCTL, '--timeout', '-5', 'cell'], {},
                 ctl('--timeout must be a number of milliseconds from 1 to 3600000: -5')),
                ([ZORDCTL, '--host', 'localhost', 'cell'], {}, ctl('--host must be an IPv4 address: localhost')),
                ([ZORDCTL, '--source'], {}, ctl('--source needs a value')),
                ([ZORDCTL, 'send', 'AT' + 'E' * 125], {}, ctl('the LINE to send is longer than 126 characters')),
                ([ZORDCTL, '--port', port, 'cell'], {},
                 ctl(f'cannot connect to 127.0.0.1:{port}: Connection refused', 3)),
                ([ZORDCTL, '--source', '192.0.2.1', '--port', port, 'cell'], {},
                 ctl('cannot bind to 192.0.2.1: Cannot assign requested address', 3)),
                ([ZORDCTL, '--help'], {}, (0, 'usage: zordctl .*', ''))]
        for argv, env, want in rows:
            got = run_program(run, argv, env)
            assert got[0] == want[0] and all(re.fullmatch(w, g, re.S) for w, g in zip(want[1:], got[1:])), \
                f'{argv} {env}\n  got:      {got}\n  expected: {want}'


globals()[sys.argv[1]]()  # the case named on the command line
