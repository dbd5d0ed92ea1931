# zord as a router runs it: under procd (a stand-in) beside the watchdog,
# with the rpcd plugin, the service script and the hotplug script, all run
# by busybox ash with stand-ins for procd, ubus and logger (standins/).
from harness import *  # from tests/e2e, on PYTHONPATH
import collections, json

BUSYBOX = shutil.which('busybox') or sys.exit('busybox is needed: apt-get install busybox')
HERE = os.path.dirname(os.path.abspath(__file__))
FILES, STANDINS = HERE + '/../../packaging/openwrt/zord/files', HERE + '/standins'
# Seconds, not minutes: a probe every 2 s that may take 2 s, a restart after
# two failures in a row, and none held back.
CHECK = ['check', '--interval', '2', '--failures', '2', '--timeout', '2000']
CHECK += ['--restart-interval', '0']
# Interval x failures + time-out; and up to a second of the watchdog's sleep
# to a whole second, and one for starting the probes under an emulator.
NOTICED = 2 * 2 + 2 + 1 + 1
DONE, EV = '=== at_cmd_q_entry_rd_index', '+CEVVMEV:3104101A2B1A2D101,FDD\r\n'


def sh(script, args, env, stdin=''):  # busybox ash runs one of the package's scripts
    p = subprocess.run([BUSYBOX, 'sh', f'{FILES}/{script}'] + args, input=stdin, env=env,
                       capture_output=True, text=True, timeout=WAIT)
    return p.returncode, p.stdout, p.stderr


def read(path):  # a file's text, empty when there is none
    return open(path).read() if os.path.exists(path) else ''


# zord under the stand-in procd, which starts it again a second after it
# ends; the simulator beside it (or not), and the watchdog. `hold_port`: a
# socket listens on the client port while zord starts, as another program would.
class Router(Run):

    def __init__(self, watchdog=CHECK, sim=True, hold_port=False):
        super().__init__(sim=sim)
        try:
            for folder in ('/var/run', '/bin'):
                os.makedirs(self.root + folder)
            with open(self.root + '/bin/zordctl', 'w') as f:  # zordctl as the watchdog finds it
                f.write('#!/bin/sh\nexec %s "$@"\n' % ' '.join(LAUNCHER + [ZORDCTL]))
            os.chmod(self.root + '/bin/zordctl', 0o755)
            self.env['PATH'] = ':'.join([self.root + '/bin', STANDINS, self.env['PATH']])
            self.holder = hold_port and socket.create_server(('', self.port))
            pidfile = self.root + '/var/run/zord.pid'
            self.host([BUSYBOX, 'sh', STANDINS + '/procd', pidfile] + LAUNCHER + [ZORD])
            assert self.wait_log(STARTED), 'no zord'
            if sim:
                assert self.wait_log('Registration stat is'), 'no registration query'
                self.modem_since()
            self.host([BUSYBOX, 'sh', FILES + '/zord.watchdog'] + watchdog)
        except BaseException:
            self.__exit__(*sys.exc_info())
            raise

    def host(self, argv):  # a program of this machine's, not of the build's target
        return subprocess.Popen(argv, env=self.env, stdin=subprocess.DEVNULL)

    def pid(self):
        return read(self.root + '/var/run/zord.pid').strip()

    def syslog(self):  # what the watchdog said there (zord's standard error goes there too)
        return ''.join(l for l in read(self.root + '/syslog').splitlines(True) if 'watchdog:' in l)

    def status(self):  # as rpcd asks the plugin for `ubus call zord status`
        return json.loads(sh('zord.rpcd', ['call', 'status'], self.env, '{}')[1])

    def answers(self):  # a query is answered, in time
        return run_program(self, [ZORDCTL, '--timeout', '2000', 'cell'])[0] == 0


# The wedges. A modem that goes silent while it has a command: answering
# again later changes nothing.
def silent_modem(r):
    r.modem('silent on')
    r.clients(1)[0].sendall(b'AT+CEVVMEV?\r\n')
    assert wait_until(lambda: r.modem_since()), 'nothing reached the modem'
    r.modem('silent off')


def two_lines_in_one_segment(r):
    r.clients(1)[0].sendall(b'AT+CEVVMEV?\r\nAT+CEVVMEV?\r\n')


# With a small window, large answers soon fill what the daemon may send. A
# few lines are in flight at a time, so that the queue never overflows.
def client_stops_reading(r):
    r.modem(r'answer ATE9 \r\n' + 'x' * 1900 + r'\r\n\r\nOK\r\n')
    r.keep = socket.socket()
    r.keep.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
    r.keep.bind(('127.0.0.77', 0))
    r.keep.connect(('127.0.0.1', r.port))
    expect(r.keep, 'AT+CEVVMCMD=1\r\n', 'OK\r\n', 'enabling')
    base = r.log().count(DONE)
    for sent in range(100):
        r.keep.sendall(b'ATE9\r\n')
        if not wait_until(lambda: r.log().count(DONE) - base > sent - 3, 2.0):
            return
    raise AssertionError('the daemon kept writing to a client that does not read')


def ten_idle_connections(r):
    sources = [(f'127.0.1.{i}', 0) for i in range(10)]
    r.keep = [socket.create_connection(('127.0.0.1', r.port), WAIT, s) for s in sources]


def port_freed(r):  # the program that held the port while zord started has gone
    r.holder.close()


# The wedge begins; the watchdog names it in the system log within its
# bound, zord is started again and answers, and the status on the bus says so.
def restarted(wedge, cause, **router):
    with Router(**router) as r:
        first, began = r.pid(), time.monotonic()
        wedge(r)
        assert wait_until(lambda: 'restarting zord' in r.syslog(), 2 * NOTICED), 'no restart'
        took = time.monotonic() - began
        said = f'-t zord -p daemon.notice watchdog: {cause} 2 times in a row (); restarting zord\n'
        eq(re.sub(r'\(.*\)', '()', r.syslog()), said, 'the system log')
        assert took <= NOTICED, f'noticed after {took:.1f} s'
        assert wait_until(lambda: r.pid() != first and r.answers()), 'no answer after the restart'
        assert wait_until(lambda: r.status()['check']['result'] == 'serving'), 'the next probe'
        eq((r.status()['restarts'], r.status()['restart_cause']), (1, cause), 'zord status')


def test_restarts_zord_for_a_silent_modem():
    restarted(silent_modem, 'no-answer')


def test_restarts_zord_for_two_lines_in_one_segment():
    restarted(two_lines_in_one_segment, 'no-answer')


def test_restarts_zord_for_a_client_that_stops_reading():
    restarted(client_stops_reading, 'no-answer')


def test_restarts_zord_for_ten_idle_connections():
    restarted(ten_idle_connections, 'full')


def test_restarts_zord_for_a_taken_client_port():
    restarted(port_freed, 'not-listening', hold_port=True)


# Three probes in a row find nothing a restart would cure (two would do).
def three_more_probes(r):
    probes = lambda: r.log().count('connection accepted from')
    now = probes()
    assert wait_until(lambda: probes() >= now + 3, 4 * NOTICED), 'the watchdog stopped probing'


def test_no_restart_for_a_modem_out_of_coverage():
    with Router() as r:
        first = r.pid()
        r.modem('deregister')
        three_more_probes(r)
        eq((r.status()['check']['registered'], r.syslog(), r.pid()), (False, '', first), 'zord')


def test_without_the_switch_zord_is_restarted_only_once_its_sockets_are_there():
    waiting = ("-t zord -p daemon.notice watchdog: zord reaches no AT switch, and the switch's"
               ' sockets are not there; waiting for them\n')
    with Router(sim=False) as r:
        first = r.pid()
        three_more_probes(r)
        eq((r.status()['check']['result'], r.pid(), r.syslog()), ('no-modem', first, waiting),
           'no AT switch')
        r.sim = r.start([SIM], stdin=subprocess.PIPE, stdout=subprocess.PIPE)  # its sockets
        r.modem('quote off')
        assert wait_until(lambda: 'no-modem 2 times' in r.syslog(), 2 * NOTICED), r.syslog()
        assert wait_until(lambda: r.pid() != first and r.answers()), 'no answer after the restart'


def test_the_log_stays_within_its_budget_and_keeps_the_newest_entries():
    budget = 1024 * 1024
    with Router(watchdog=['log', '--max-kb', '1024']) as r:
        log, [client], sizes = r.root + '/tmp/logs/zord-vvm-app.log', r.clients(1), []

        def loaded():  # one query more; the pauses between keep the log below 384 KB a second
            expect(client, 'AT+CEVVMEV?\r\n', EV, 'a query under load')
            sizes.append(len(read(log)) + len(read(log + '.1')))
            return r.status()['log']['rotations'] >= 2

        assert wait_until(loaded, 10 * WAIT), 'fewer than two rotations'
        eq((r.status()['log']['max_bytes'], max(sizes) <= budget), (budget, True), max(sizes))
        kept = read(log + '.1')
        assert len(kept) <= budget // 8 and kept.endswith('\n'), f'{len(kept)} bytes kept'
        assert re.match(r'\d\d:\d\d:\d\d\.\d{3} ', kept), 'the kept part begins with an entry'
        expect(client, 'AT+CEVVMEV?\r\n', EV, 'zord answers on')
        assert DONE in kept and DONE in r.log(), 'the newest answers in the log'


def test_the_rpcd_plugin_answers_list_and_status_as_rpcd_runs_it():
    with Run() as run:
        eq(json.loads(sh('zord.rpcd', ['list'], run.env)[1]), {'status': {}}, 'list')
        status = json.loads(sh('zord.rpcd', ['call', 'status'], run.env, '{}')[1])
        eq((status['check'], status['restarts'], status['log']['bytes']), (None, 0, 0), 'status')


# What /etc/rc.common and procd give the service script, as far as it uses
# them: an instance comes out as a line. Options come from ZORD_CONFIG_<name>.
PROCD = '''config_load() { :; }
config_get() { eval "$1=\\${ZORD_CONFIG_$3:-$4}"; }
config_get_bool() { config_get "$@"; }
procd_open_instance() { instance="[$1]"; }
procd_set_param() { instance="$instance $*;"; }
procd_append_param() { shift; instance="${instance%;} $*;"; }
procd_close_instance() { echo "$instance"; }
logger() { echo "logger $*" >&2; }
mkdir() { :; }
. "$1"; start_service'''
SERVICE = '[zord] command /usr/libexec/zord-watchdog start --wait 60 /usr/sbin/zord;'
SERVICE += ' respawn 3600 5 0; stderr 1; pidfile /var/run/zord.pid;'
DOG = '[watchdog] command /usr/libexec/zord-watchdog check --interval 30 --failures 3'
DOG += ' --timeout 10000 --restart-interval 300; respawn 3600 5 0; stderr 1;'
LOG = '[log] command /usr/libexec/zord-watchdog log --max-kb 4096; respawn 3600 5 0; stderr 1;'
WHOLE = "logger -t zord %s is not a whole number of at least 1; using %s"


def test_the_service_script_gives_procd_an_instance_per_duty():
    Row = collections.namedtuple('Row', 'config instances said')
    every, with_t = [SERVICE, DOG, LOG], SERVICE.replace('zord;', 'zord -t 60000;')
    rows = [
        Row({}, every, ''),
        Row({'station_timeout': '60000'}, [with_t, DOG, LOG], ''),
        Row({'station_timeout': '25m'}, every, "logger -t zord station_timeout '25m' is not"),
        Row({'check_interval': '0', 'log_max_kb': '0'}, [SERVICE], ''),
        Row({'log_max_kb': '64'}, [SERVICE, DOG, LOG.replace('4096', '64')], ''),
        Row({'check_failures': 'x'}, every, WHOLE % ("check_failures 'x'", 3)),
        Row({'enabled': '0'}, [], ''),
    ]
    for row in rows:
        env = {f'ZORD_CONFIG_{name}': value for name, value in row.config.items()}
        got = subprocess.run([BUSYBOX, 'sh', '-c', PROCD, '-', f'{FILES}/zord.init'], env=env,
                             capture_output=True, text=True)
        said = got.stderr[:len(row.said) or None]
        eq((got.stdout.splitlines(), said), (row.instances, row.said), row.config)


# zord starts once the switch's sockets are there, when they are there at
# once or come later, or after its wait without them, and then says so.
def test_zord_starts_once_the_switch_sockets_are_there_or_after_its_wait():
    start = ['start', '--wait', '2', BUSYBOX, 'echo', 'zord']
    for sockets_come in 'before', 'later', 'never':
        with Run() as run:
            config = run.root + '/etc/atswitch_config/atswitch_ecm_config.csv'
            os.makedirs(os.path.dirname(config))
            open(config, 'w').write('11,CUSTOM2,commands\n12,VVMUNSOL,reports\n')
            sockets = {n: socket.socket(socket.AF_UNIX) for n in (11, 12)}
            bind = lambda: [s.bind(f'{run.root}/tmp/atsw{n}') for n, s in sockets.items()]
            if sockets_come == 'before':
                bind()
            env = dict(run.env, PATH=STANDINS + ':' + run.env['PATH'])
            p = subprocess.Popen([BUSYBOX, 'sh', FILES + '/zord.watchdog'] + start, env=env,
                                 stdout=subprocess.PIPE, text=True)
            if sockets_come == 'later':
                assert not wait_until(lambda: p.poll() is not None, 0.5), 'it did not wait'
                bind()
            gave_up = (
                f"-t zord -p daemon.notice start: the AT switch's sockets (named in {config})"
                ' are not there after 2 s; starting zord without them\n')
            said = gave_up if sockets_come == 'never' else ''
            eq((p.communicate(timeout=WAIT)[0], read(run.root + '/syslog')), ('zord\n', said),
               sockets_come)


def test_the_hotplug_script_hands_the_wan_addresses_to_zord():
    head, v4, v6 = "config status 'status'\n", "\toption ipv4_addr '%s'\n", '\toption '
    v6 += "ipv6_addr_global '2001:db8::1'\n"
    # netifd's event, the address its interface has then (None: none), and what /tmp/wan holds.
    rows = [
        ('ifup', 'wan', '10.0.0.1', v4 % '10.0.0.1'),
        ('ifup', 'wan6', '2001:db8::1', v4 % '10.0.0.1' + v6),
        ('ifupdate', 'wan', '10.0.0.2', v4 % '10.0.0.2' + v6),
        ('ifup', 'lan', '10.9.9.9', v4 % '10.0.0.2' + v6),  # not a WAN interface: nothing written
        ('ifdown', 'wan', None, v6),
    ]
    # A report after a new address says changed; one with a new cell and the same addresses not.
    reports = [
        (None, 'cell 00C1 0BEEF001', '31041000C1BEEF001', 1),  # the first to find both
        ('10.0.0.3', 'report', '31041000C1BEEF001', 1),
        (None, 'cell 1A2B 01A2D101', '3104101A2B1A2D101', 0),
    ]
    with Run(zord=[], sim=True) as road:
        os.makedirs(road.root + '/lib/functions')
        with open(road.root + '/lib/functions/network.sh', 'w') as f:  # the helpers, from files
            f.write('network_get_ipaddr() { read -r "$1" 2>/dev/null <"$ZORD_ROOT/$2.address"; }\n'
                    'network_get_ipaddr6() { network_get_ipaddr "$@"; }\n')

        def event(action, interface, address):  # the address changes, then netifd runs the script
            with open(f'{road.root}/{interface}.address', 'w') as f:
                f.write(address or '')
            sh('zord.hotplug', [], dict(road.env, ACTION=action, INTERFACE=interface))
            return read(road.root + '/tmp/wan')

        for action, interface, address, options in rows:
            eq(event(action, interface, address), head + options, (action, interface))
        [subscriber] = road.clients(1)
        expect(subscriber, 'AT+CEVVMEV=1\r\n', 'OK\r\n', 'subscribing')
        event('ifup', 'wan', '10.0.0.1')
        for address, control, cell, changed in reports:
            if address:
                event('ifupdate', 'wan', address)
            road.modem(control)
            expect(subscriber, None, f'+CEVVMEV:{cell},FDD,{changed}\r\n', control)


def test_each_install_component_puts_its_files_and_no_uci_in_a_bin():
    build = os.environ['ZT_BUILD']

    def installed(*component):
        with tempfile.TemporaryDirectory() as stage:
            subprocess.run(['cmake', '--install', build, '--prefix', stage, *component], check=True,
                           capture_output=True)
            walked = [os.path.join(folder, f) for folder, _, fs in os.walk(stage) for f in fs]
            return sorted(os.path.relpath(path, stage) for path in walked)

    runtime = ['bin/zordctl', 'sbin/zord', 'share/man/man1/zordctl.1', 'share/man/man8/zord.8']
    eq(installed('--component', 'runtime'), runtime, 'runtime')
    devel = ['bin/atsw-sim', 'libexec/zord/uci', 'share/man/man1/atsw-sim.1']
    eq(installed(), sorted(runtime + devel + ['share/doc/zord/LICENSE']), 'all')


globals()[sys.argv[1]]()  # the case named on the command line
