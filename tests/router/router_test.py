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
CHECK = [
    'check', '--interval', '2', '--failures', '2', '--timeout', '2000', '--restart-interval', '0'
]
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
            for folder in ('/var/run', '/bin'):
                os.makedirs(self.root + folder)
            with open(self.root + '/bin/zordctl', 'w') as f:  # zordctl as the watchdog finds it
                f.write('#!/bin/sh\nexec %s "$@"\n' % ' '.join(LAUNCHER + [ZORDCTL]))
            os.chmod(self.root + '/bin/zordctl', 0o755)
            self.env['PATH'] = ':'.join([self.root + '/bin', STANDINS, self.env['PATH']])
            self.holder = hold_port and socket.create_server(('', self.port))
            pidfile = self.root + '/var/run/zord.pid'
            self.host([BUSYBOX, 'sh', STANDINS + '/procd', pidfile] + LAUNCHER + [ZORD])
            assert self.wait_log(STARTED) and (not sim
                                               or self.wait_log('Registration stat is')), 'no zord'
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


def client_stops_reading(
        r):  # with a small window, large answers soon fill what the daemon may send
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
    r.keep = [
        socket.create_connection(('127.0.0.1', r.port), WAIT, (f'127.0.1.{i}', 0))
        for i in range(10)
    ]


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
        eq(re.sub(r'\(.*\)', '()', line),
           f'-t zord -p daemon.notice watchdog: {cause} 2 times in a row ();'
           ' restarting zord', 'the system log')
        assert took <= NOTICED, f'noticed after {took:.1f} s'
        assert wait_until(lambda: r.pid() != first and r.answers()), 'no answer after the restart'
        assert wait_until(lambda: r.status()['check']['result'] == 'serving'), 'the next probe'
        status = r.status()
        eq((status['restarts'], status['restart_cause']), (1, cause), 'ubus call zord status')


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
        eq((r.status()['check']['registered'], r.syslog(), r.pid()), (False, '', first),
           'out of coverage')
    with Router(sim=False) as r:
        first = r.pid()
        three_more_probes(r)
        eq((r.status()['check']['result'], r.pid()), ('no-modem', first), 'no AT switch')
        eq(
            r.syslog(),
            "-t zord -p daemon.notice watchdog: zord reaches no AT switch, and the switch's"
            ' sockets are not there; waiting for them\n', 'said once')
        r.sim = r.start([SIM], stdin=subprocess.PIPE, stdout=subprocess.PIPE)  # its sockets appear
        r.modem('quote off')
        assert wait_until(lambda: 'no-modem 2 times in a row' in r.syslog(),
                          2 * NOTICED), r.syslog()
        assert wait_until(lambda: r.pid() != first and r.answers()), 'no answer after the restart'


def test_the_log_stays_within_its_budget_and_keeps_the_newest_entries():
    budget = 1024 * 1024
    with Router(watchdog=['log', '--max-kb', '1024']) as r:
        log, [client], sizes = r.root + '/tmp/logs/zord-vvm-app.log', r.clients(1), []
        size = lambda path: os.path.getsize(path) if os.path.exists(path) else 0

        def loaded():  # one query more; the pauses between keep the log below 384 KB a second
            expect(client, 'AT+CEVVMEV?\r\n', EV, 'a query under load')
            sizes.append(size(log) + size(log + '.1'))
            return r.status()['log']['rotations'] >= 2

        assert wait_until(loaded, 10 * WAIT), 'fewer than two rotations'
        eq((r.status()['log']['max_bytes'], max(sizes) <= budget), (budget, True),
           f'{max(sizes)} bytes')
        kept = open(log + '.1', encoding='latin-1').read()
        assert len(kept) <= budget // 8 and re.match(r'\d\d:\d\d:\d\d\.\d{3} ',
                                                     kept) and kept.endswith('\n')
        expect(client, 'AT+CEVVMEV?\r\n', EV, 'zord answers on')
        assert DONE in kept and DONE in r.log(), 'the newest answers in the log'


def test_the_rpcd_plugin_and_the_service_script_as_the_router_runs_them():
    with Run() as run:
        eq(json.loads(sh('zord.rpcd', ['list'], run.env)[1]), {'status': {}}, 'list')
        eq(
            json.loads(sh('zord.rpcd', ['call', 'status'], run.env, '{}')[1])['check'], None,
            'before a check')
    # What /etc/rc.common and procd give the script, as far as it uses them:
    # an instance comes out as a line. Options come from ZORD_CONFIG_<name>.
    procd = '''config_load() { :; }
config_get() { eval "$1=\\${ZORD_CONFIG_$3:-$4}"; }
config_get_bool() { config_get "$@"; }
procd_open_instance() { instance="[$1]"; }
procd_set_param() { instance="$instance $*;"; }
procd_append_param() { shift; instance="${instance%;} $*;"; }
procd_close_instance() { echo "$instance"; }
logger() { echo "logger $*" >&2; }
mkdir() { :; }
. "$1"; start_service'''
    zord = ('[zord] command /usr/libexec/zord-watchdog start --wait 60 /usr/sbin/zord;'
            ' respawn 3600 5 0; stderr 1; pidfile /var/run/zord.pid;')
    watchdog = ('[watchdog] command /usr/libexec/zord-watchdog check --interval 30 --failures 3'
                ' --timeout 10000 --restart-interval 300; respawn 3600 5 0; stderr 1;')
    log = '[log] command /usr/libexec/zord-watchdog log --max-kb 4096; respawn 3600 5 0; stderr 1;'
    rows = [({}, [zord, watchdog, log], ''),
            ({'station_timeout': '60000'}, [zord.replace('zord;', 'zord -t 60000;'), watchdog,
                                            log], ''),
            ({'station_timeout': '25m'}, [zord, watchdog,
                                          log], "logger -t zord station_timeout '25m' is not"),
            ({'check_interval': '0', 'log_max_kb': '0'}, [zord], ''),
            ({'check_failures': 'x',
              'log_max_kb': '64'}, [zord, watchdog, log.replace('4096', '64')],
             "logger -t zord check_failures 'x' is not a whole number of at least 1; using 3"),
            ({'check_timeout': '0'}, [zord, watchdog,
                                      log], "logger -t zord check_timeout '0' is not"),
            ({'enabled': '0'}, [], '')]
    for config, instances, said in rows:
        got = subprocess.run([BUSYBOX, 'sh', '-c', procd, '-', f'{FILES}/zord.init'],
                             capture_output=True, text=True,
                             env={f'ZORD_CONFIG_{k}': v
                                  for k, v in config.items()})
        eq((got.stdout.splitlines(), got.stderr[:len(said) or None]), (instances, said), config)


def test_zord_starts_once_the_switch_sockets_are_there_or_after_its_wait():
    for when, gave_up in ('before', False), ('later', False), ('never', True):
        with Run() as run:
            config = run.root + '/etc/atswitch_config/atswitch_ecm_config.csv'
            syslog = run.root + '/syslog'
            os.makedirs(os.path.dirname(config))
            open(config, 'w').write('11,CUSTOM2,commands\n12,VVMUNSOL,reports\n')
            sockets = [socket.socket(socket.AF_UNIX) for _ in (11, 12)]
            bind = lambda: [s.bind(f'{run.root}/tmp/atsw{n}') for s, n in zip(sockets, (11, 12))]
            if when == 'before':
                bind()
            p = subprocess.Popen([
                BUSYBOX, 'sh', FILES + '/zord.watchdog', 'start', '--wait', '2', BUSYBOX, 'echo',
                'zord'
            ], env=dict(run.env, PATH=STANDINS + ':' + run.env['PATH']), stdout=subprocess.PIPE,
                                 text=True)
            if when == 'later':
                assert not wait_until(lambda: p.poll() is not None, 0.5), 'it did not wait'
                bind()
            said = ("-t zord -p daemon.notice start: the AT switch's sockets (named in"
                    f" {config}) are not there after 2 s; starting zord without them\n"
                    ) if gave_up else ''
            out = p.communicate(timeout=WAIT)[0]
            eq((out, open(syslog).read() if os.path.exists(syslog) else ''), ('zord\n', said), when)


def test_the_hotplug_script_hands_the_wan_addresses_to_zord():
    v4, v6 = "\toption ipv4_addr '%s'\n", "\toption ipv6_addr_global '2001:db8::1'\n"
    # netifd's event, the address its interface has then (None: none), and what /tmp/wan holds.
    rows = [
        ('ifup', 'wan', '10.0.0.1', v4 % '10.0.0.1'),
        ('ifup', 'wan6', '2001:db8::1', v4 % '10.0.0.1' + v6),
        ('ifupdate', 'wan', '10.0.0.2', v4 % '10.0.0.2' + v6),
        ('ifup', 'lan', '10.9.9.9', v4 % '10.0.0.2' + v6),  # not a WAN interface: nothing written
        ('ifdown', 'wan', None, v6)
    ]
    # A report after a new address says changed; one with a new cell and the same addresses not.
    reports = [
        (None, 'cell 00C1 0BEEF001', '31041000C1BEEF001', 1),  # the first to find both
        ('10.0.0.3', 'report', '31041000C1BEEF001', 1),
        (None, 'cell 1A2B 01A2D101', '3104101A2B1A2D101', 0)
    ]
    with Run(zord=[], sim=True) as road:
        os.makedirs(road.root + '/lib/functions')
        with open(road.root + '/lib/functions/network.sh',
                  'w') as f:  # the platform's helpers, from files
            f.write('network_get_ipaddr() { read -r "$1" 2>/dev/null <"$ZORD_ROOT/$2.address"; }\n'
                    'network_get_ipaddr6() { network_get_ipaddr "$@"; }\n')

        def event(action, interface, address):  # the address changes, then netifd runs the script
            with open(f'{road.root}/{interface}.address', 'w') as f:
                f.write(address or '')
            sh('zord.hotplug', [], dict(road.env, ACTION=action, INTERFACE=interface))
            return open(road.root + '/tmp/wan').read()

        for action, interface, address, options in rows:
            eq(event(action, interface, address), "config status 'status'\n" + options,
               (action, interface))
        [subscriber] = road.clients(1)
        expect(subscriber, 'AT+CEVVMEV=1\r\n', 'OK\r\n', 'subscribing')
        event('ifup', 'wan', '10.0.0.1')
        for address, control, cell, changed in reports:
            if address:
                event('ifupdate', 'wan', address)
            road.modem(control)
            expect(subscriber, None, f'+CEVVMEV:{cell},FDD,{changed}\r\n', control)


def test_each_install_component_puts_its_files_and_no_uci_in_a_bin():

    def installed(*component):
        with tempfile.TemporaryDirectory() as stage:
            subprocess.run(
                ['cmake', '--install', os.environ['ZT_BUILD'], '--prefix', stage, *component],
                check=True, capture_output=True)
            return sorted(
                os.path.relpath(os.path.join(d, f), stage) for d, _, fs in os.walk(stage)
                for f in fs)

    eq(installed('--component', 'runtime'),
       ['bin/zordctl', 'sbin/zord', 'share/man/man1/zordctl.1', 'share/man/man8/zord.8'], 'runtime')
    eq(installed(), [
        'bin/atsw-sim', 'bin/zordctl', 'libexec/zord/uci', 'sbin/zord', 'share/doc/zord/LICENSE',
        'share/man/man1/atsw-sim.1', 'share/man/man1/zordctl.1', 'share/man/man8/zord.8'
    ], 'all')


globals()[sys.argv[1]]()  # the case named on the command line
