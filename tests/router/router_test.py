# zord as a router runs it: under procd (a stand-in) beside the watchdog,
# with the rpcd plugin and the service script, all run by busybox ash with
# stand-ins for the platform's procd, ubus and logger (tests/router/standins).
from harness import *  # from tests/e2e, on PYTHONPATH
import json

BUSYBOX = shutil.which('busybox') or sys.exit('busybox is needed: apt-get install busybox')
HERE = os.path.dirname(os.path.abspath(__file__))
FILES, STANDINS = HERE + '/../../packaging/openwrt/zord/files', HERE + '/standins'
# Seconds, not minutes: a probe every 2 s that may take 2 s, a restart after
# two failures in a row, and none held back.
CHECK = ['check', '--interval', '2', '--failures', '2', '--timeout', '2000', '--restart-interval', '0']
# Interval x failures + time-out; and up to a second of the watchdog's sleep
# to a whole second, and one for starting the probes under an emulator.
NOTICED = 2 * 2 + 2 + 1 + 1
DONE, EV = '=== at_cmd_q_entry_rd_index', '+CEVVMEV:3104101A2B1A2D101,FDD\r\n'


def sh(script, args, env, stdin=''):  # busybox ash runs one of the package's scripts
    p = subprocess.run([BUSYBOX, 'sh', f'{FILES}/{script}'] + args, input=stdin, env=env,
                       capture_output=True, text=True, timeout=WAIT)
    return p.returncode, p.stdout, p.stderr


# zord under the stand-in procd, which starts it again a second after it
# ends; the simulator beside it (or not), and the watchdog. `hold_port`: a
# socket listens on the client port while zord starts, as another program would.
class Router(Run):
    def __init__(self, watchdog=CHECK, sim=True, hold_port=False):
        super().__init__(sim=sim)
        try:
            os.makedirs(self.root + '/var/run')
            os.makedirs(self.root + '/bin')
            with open(self.root + '/bin/zordctl', 'w') as f:  # zordctl as the watchdog finds it
                f.write('#!/bin/sh\nexec %s "$@"\n' % ' '.join(LAUNCHER + [ZORDCTL]))
            os.chmod(self.root + '/bin/zordctl', 0o755)
            self.env['PATH'] = ':'.join([self.root + '/bin', STANDINS, self.env['PATH']])
            self.holder = hold_port and socket.create_server(('', self.port))
            pidfile = self.root + '/var/run/zord.pid'
            self.host([BUSYBOX, 'sh', STANDINS + '/procd', pidfile] + LAUNCHER + [ZORD])
            assert self.wait_log(STARTED) and (not sim or self.wait_log('Registration stat is')), 'no zord'
            self.modem_since() if sim else None
            self.host([BUSYBOX, 'sh', FILES + '/zord.watchdog'] + watchdog)
        except BaseException:
            self.__exit__(*sys.exc_info())
            raise

    def host(self, argv):  # a program of this machine's, not of the build's target
        return subprocess.Popen(argv, env=self.env, stdin=subprocess.DEVNULL)

    def pid(self):
        return open(self.root + '/var/run/zord.pid').read().strip()

    def syslog(self):  # what the watchdog said there (zord's standard error goes there too)
        path = self.root + '/syslog'
        return ''.join(l for l in open(path) if ' watchdog: ' in l) if os.path.exists(path) else ''

    def status(self):  # as rpcd asks the plugin for `ubus call zord status`
        got = sh('zord.rpcd', ['call', 'status'], self.env, '{}')
        return json.loads(got[1])

    def answers(self):  # a query is answered, in time
        return run_program(self, [ZORDCTL, '--timeout', '2000', 'cell'])[0] == 0


def silent_modem(r):  # goes silent while it has a command; answering again later changes nothing
    r.modem('silent on')
    r.clients(1)[0].sendall(b'AT+CEVVMEV?\r\n')
    assert wait_until(lambda: r.modem_since()), 'nothing reached the modem'
    r.modem('silent off')


def two_lines_in_one_segment(r):
    r.clients(1)[0].sendall(b'AT+CEVVMEV?\r\nAT+CEVVMEV?\r\n')


def client_stops_reading(r):  # with a small window, large answers soon fill what the daemon may send
    r.modem(r'answer ATE9 \r\n' + 'x' * 1900 + r'\r\n\r\nOK\r\n')
    s = socket.socket()
    s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
    s.bind(('127.0.0.77', 0))
    s.connect(('127.0.0.1', r.port))
    r.keep = s
    expect(s, 'AT+CEVVMCMD=1\r\n', 'OK\r\n', 'enabling')
    base = r.log().count(DONE)
    for sent in range(100):  # a few in flight at a time, so that the queue never overflows
        s.sendall(b'ATE9\r\n')
        if not wait_until(lambda: r.log().count(DONE) - base > sent - 3, 2.0):
            return
    raise AssertionError('the daemon kept writing to a client that does not read')


def ten_idle_connections(r):
    r.keep = [socket.create_connection(('127.0.0.1', r.port), WAIT, (f'127.0.1.{i}', 0)) for i in range(10)]


def port_freed(r):  # the program that held the port while zord started has gone: nothing listens
    r.holder.close()


# The wedge begins; the watchdog names it in the system log within its
# bound, zord is started again and answers, and the status on the bus says so.
def restarted(wedge, cause, **router):
    with Router(**router) as r:
        first, began = r.pid(), time.monotonic()
        wedge(r)
        assert wait_until(lambda: 'restarting zord' in r.syslog(), 2 * NOTICED), 'no restart'
        took = time.monotonic() - began
        [line] = [l for l in r.syslog().splitlines() if 'restarting zord' in l]
        eq(re.sub(r'\(.*\)', '()', line), f'-t zord -p daemon.notice watchdog: {cause} 2 times in a row ();'
           ' restarting zord', 'the system log')
        assert took <= NOTICED, f'noticed after {took:.1f} s'
        assert wait_until(lambda: r.pid() != first and r.answers()), 'no answer after the restart'
        assert wait_until(lambda: r.status()['check']['result'] == 'serving'), 'the next probe'
        status = r.status()
        eq((status['restarts'], status['restart_cause']), (1, cause), 'ubus call zord status')
        assert 'imsi' not in json.dumps(status) and '310410123456789' not in json.dumps(status)


def test_restarts_zord_for_a_silent_modem(): restarted(silent_modem, 'no-answer')
def test_restarts_zord_for_two_lines_in_one_segment(): restarted(two_lines_in_one_segment, 'no-answer')
def test_restarts_zord_for_a_client_that_stops_reading(): restarted(client_stops_reading, 'no-answer')
def test_restarts_zord_for_ten_idle_connections(): restarted(ten_idle_connections, 'full')
def test_restarts_zord_for_a_taken_client_port(): restarted(port_freed, 'not-listening', hold_port=True)


def test_no_restart_out_of_coverage_nor_before_the_switch_is_there():
    # Three probes in a row find nothing a restart would cure (two would do).
    def three_more_probes(r):
        probes = lambda: r.log().count('connection accepted from')
        now = probes()
        assert wait_until(lambda: probes() >= now + 3, 4 * NOTICED), 'the watchdog stopped probing'

    with Router() as r:
        first = r.pid()
        r.modem('deregister')
        three_more_probes(r)
        eq((r.status()['check']['registered'], r.syslog(), r.pid()), (False, '', first), 'out of coverage')
    with Router(sim=False) as r:
        first = r.pid()
        three_more_probes(r)
        eq((r.status()['check']['result'], r.pid()), ('no-modem', first), 'no AT switch')
        eq(r.syslog(), "-t zord -p daemon.notice watchdog: zord reaches no AT switch, and the switch's"
           ' sockets are not there; waiting for them\n', 'said once')
        r.sim = r.start([SIM], stdin=subprocess.PIPE, stdout=subprocess.PIPE)  # its sockets appear
        r.modem('quote off')
        assert wait_until(lambda: 'no-modem 2 times in a row' in r.syslog(), 2 * NOTICED), r.syslog()
        assert wait_until(lambda: r.pid() != first and r.answers()), 'no answer after the restart'


def test_the_log_stays_within_its_budget_and_keeps_the_newest_entries():
    budget = 1024 * 1024
    with Router(watchdog=['log', '--max-kb', '1024']) as r:
        log, [client], most = r.root + '/tmp/logs/zord-vvm-app.log', r.clients(1), 0
        size = lambda path: os.path.getsize(path) if os.path.exists(path) else 0
        deadline = time.monotonic() + 10 * WAIT
        while r.status()['log']['rotations'] < 2 and time.monotonic() < deadline:
            expect(client, 'AT+CEVVMEV?\r\n', EV, 'a query under load')
            most = max(most, size(log) + size(log + '.1'))
            time.sleep(0.005)  # about 150 KB of log a second, below the 384 KB a second the budget allows
        eq(r.status()['log']['max_bytes'], budget, 'the budget')
        assert r.status()['log']['rotations'] >= 2 and most <= budget, f'{most} bytes'
        kept = open(log + '.1', encoding='latin-1').read()
        assert len(kept) <= budget // 8 and re.match(r'\d\d:\d\d:\d\d\.\d{3} ', kept) and kept.endswith('\n')
        expect(client, 'AT+CEVVMEV?\r\n', EV, 'zord answers on')
        assert DONE in kept and DONE in r.log(), 'the newest answers in the log'


def test_the_rpcd_plugin_and_the_service_script_as_the_router_runs_them():
    env = dict(os.environ, ZORD_ROOT=tempfile.mkdtemp(prefix='zord'))
    eq(json.loads(sh('zord.rpcd', ['list'], env)[1]), {'status': {}}, 'list')
    eq(json.loads(sh('zord.rpcd', ['call', 'status'], env, '{}')[1])['check'], None, 'status before a check')
    # What /etc/rc.common and procd give the script, as far as it uses them:
    # an instance comes out as a line. Options come from ZORD_CONFIG_<name>.
    procd = '''config_load() { :; }
config_get() { eval "$1=\\${ZORD_CONFIG_$3:-$4}"; }
procd_open_instance() { instance="[$1]"; }
procd_set_param() { instance="$instance $*;"; }
procd_append_param() { shift; instance="${instance%;} $*;"; }
procd_close_instance() { echo "$instance"; }
logger() { echo "logger $*" >&2; }
mkdir() { :; }
. "$1"; start_service'''
    zord = '[zord] command /usr/sbin/zord; respawn 3600 5 0; stderr 1; pidfile /var/run/zord.pid;'
    watchdog = ('[watchdog] command /usr/libexec/zord-watchdog check --interval 30 --failures 3 --timeout 10000'
                ' --restart-interval 300; respawn 3600 5 0; stderr 1;')
    log = '[log] command /usr/libexec/zord-watchdog log --max-kb 4096; respawn 3600 5 0; stderr 1;'
    rows = [({}, [zord, watchdog, log], ''),
            ({'station_timeout': '60000'}, [zord.replace('zord;', 'zord -t 60000;'), watchdog, log], ''),
            ({'station_timeout': '25m'}, [zord, watchdog, log], "logger -t zord station_timeout '25m' is not"),
            ({'check_interval': '0', 'log_max_kb': '0'}, [zord], ''),
            ({'check_failures': 'x', 'log_max_kb': '64'}, [zord, watchdog, log.replace('4096', '64')],
             "logger -t zord check_failures 'x' is not a whole number of at least 1; using 3"),
            ({'check_timeout': '0'}, [zord, watchdog, log], "logger -t zord check_timeout '0' is not")]
    for config, instances, said in rows:
        got = subprocess.run([BUSYBOX, 'sh', '-c', procd, '-', f'{FILES}/zord.init'], capture_output=True,
                             text=True, env={f'ZORD_CONFIG_{k}': v for k, v in config.items()})
        eq((got.stdout.splitlines(), got.stderr[:len(said) or None]), (instances, said), config)
    shutil.rmtree(env['ZORD_ROOT'])


globals()[sys.argv[1]]()  # the case named on the command line
