# zord as a router runs it, on OpenWrt's own userland (tools/openwrt): the
# package's service under the real procd, its watchdog restarting zord
# through `ubus call service signal`, its status through rpcd, its hotplug
# script through procd's dispatch and hotplug-call with the real
# network.sh, and what it says in logd's log. atsw-sim plays the AT switch.
from harness import *  # from tests/e2e, on PYTHONPATH
import collections, gzip, json, shutil
import router as openwrt  # tools/openwrt

ROOT = os.environ['ZT_ROUTER_ROOT']

# Seconds, not minutes: a probe every 2 s that may take 2 s, a restart after
# two failures in a row, none held back, and zord started at once.
SHORT = dict(switch_wait=0, check_interval=2, check_failures=2, check_timeout=2000,
             restart_interval=0)
# Interval x failures + time-out, and up to a second of the watchdog's
# sleep to a whole second; procd starts zord again 5 s after it ended.
NOTICED, RESPAWN = 2 * 2 + 2 + 1, 5
DONE, EV = '=== at_cmd_q_entry_rd_index', '+CEVVMEV:3104101A2B1A2D101,FDD\r\n'
RPCD_LOGIN = '''config login
	option username 'status'
	option password '$1$zordtest$xn.nDBn2qZCyN7O7MPtXu.'
	list read 'zord'
'''  # the password: status


def config(**options):  # a list for a list value
    lines = [(k, w) for k, v in options.items() for w in (v if isinstance(v, list) else [v])]
    return "config zord 'main'\n" + ''.join(
        f"\t{'list' if isinstance(options[k], list) else 'option'} {k} '{w}'\n" for k, w in lines)


# A booted router with the package installed and, unless sim=False, the
# simulated switch; zord's service enabled and started with `options`.
class Zord(openwrt.Router):

    def __init__(self, sim=True, start=True, files=(), **options):
        super().__init__(ROOT, files={'/etc/config/zord': config(**options), **dict(files)})
        try:
            self.sim = sim and self.start(['/usr/bin/atsw-sim'], stdin=subprocess.PIPE,
                                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            if sim:
                self.modem('quote off')
            if start:
                self.ok('/etc/init.d/zord enable && /etc/init.d/zord start')
                assert self.wait(lambda: self.pid()), 'no zord'
            if start and sim:  # a query while zord first asks the modem would wedge it
                assert self.wait(lambda: 'Registration stat is' in self.log()), 'no registration'
        except BaseException:
            self.__exit__(*sys.exc_info())
            raise

    def modem(self, line):  # a control command for the switch; its reply
        os.write(self.sim.stdin.fileno(), line.encode() + b'\n')
        return read_until(self.sim.stdout, 'ok\n')

    def pid(self):  # zord's process, once the start wrapper has become zord
        pid = self.read('/var/run/zord.pid').strip()
        return pid if pid and self.read(f'/proc/{pid}/comm') == 'zord\n' else ''

    # procd's instances of the service: {name: (pid, command, respawn values)}
    def instances(self):
        listed = json.loads(self.ok("ubus call service list '{\"name\":\"zord\"}'") or '{}')
        found = listed.get('zord', {}).get('instances', {})
        return {
            k: (v.get('pid'), ' '.join(v['command']), tuple(v['respawn'].values()))
            for k, v in found.items()
        }

    def syslog(self, word='zord'):  # logd's lines with `word`, without their time
        lines = self.ok('/sbin/logread').splitlines()
        return [l[25:] for l in lines if word in l and 'procd:' not in l]

    def said(self, text):  # the watchdog's lines with `text`
        return [l for l in self.syslog('watchdog:') if text in l]

    def status(self):  # as a client of rpcd asks for it
        return json.loads(self.ok('ubus call zord status'))

    def answers(self):
        return self.sh('zordctl --timeout 2000 cell')[0] == 0

    def log(self):
        return self.read('/tmp/logs/zord-vvm-app.log')

    # A client from a loopback address of its own (a new connection from the
    # address of the client in the first slot drops that client); enabled
    # unless `enable` is False.
    def client(self, source=None, enable=True):
        self.sources = getattr(self, 'sources', iter(range(2, 250)))
        source = source or f'127.0.0.{next(self.sources)}'
        client = socket.create_connection(('127.0.0.1', 6666), WAIT, (source, 0))
        if enable:
            expect(client, 'AT+CEVVMCMD=1\r\n', 'OK\r\n', 'enabling')
        return client


def test_lifecycle_under_procd():
    step = lambda text: print('lifecycle:', text, flush=True)
    with Zord(start=False, **SHORT) as r:
        r.ok('/etc/init.d/zord enable')
        eq(r.ok('ls /etc/rc.d | grep zord').split(), ['K05zord', 'S95zord'], 'enable')
        step('enabled: /etc/rc.d/S95zord and K05zord')
        r.ok('/etc/init.d/zord start')
        assert r.wait(r.pid), 'no zord'
        every = {name: (3600, 5, 0) for name in ('log', 'watchdog', 'zord')}  # never given up
        eq({k: v[2] for k, v in r.instances().items()}, every, 'instances and their respawn')
        step('started: procd runs the instances log, watchdog and zord')
        eq(r.read(f'/proc/{r.pid()}/cmdline'), '/usr/sbin/zord\0', 'the pidfile')
        step(f'the pidfile names zord ({r.pid()})')
        assert r.wait(lambda: r.status()['check'] and r.status()['check']['result'] == 'serving')
        status = r.status()
        step(f"ubus call zord status: {status['check']['result']}, {status['restarts']} restarts")
        first = r.pid()
        r.ok(f'kill -9 {first}')
        assert r.wait(lambda: r.pid() not in ('', first) and r.answers()), 'not respawned'
        step(f'killed: procd started zord again ({first} -> {r.pid()}), and it answers')
        before = r.instances()
        r.ok('uci set zord.main.check_interval=30 && uci commit zord && reload_config')
        assert r.wait(lambda: r.instances()['watchdog'] != before['watchdog']), 'no reload'
        after = r.instances()
        eq((after['zord'], after['log']), (before['zord'], before['log']), 'kept by a reload')
        assert '--interval 30' in after['watchdog'][1], after
        step('uci commit + reload_config: a new watchdog; zord and the log duty kept')
        r.ok('/etc/init.d/zord stop')
        assert r.wait(lambda: not r.instances()), 'still running'
        eq([p for p in r.ok('ps').splitlines() if re.search(r'zord|sleep', p)], [], 'left over')
        step('stopped: no instance, and no process of them left behind')


# What goes to logd, with its facility, level and tag: zord's standard
# error (without a switch it cannot connect), the init script's word on an
# option, and the watchdog's.
def test_system_log_lines_tags_and_facilities():
    with Zord(sim=False, **dict(SHORT, check_failures='x')) as r:
        zord = r.pid()
        lines = [
            f'daemon.err zord[{zord}]: connect: Connection refused',  # no switch configured
            "daemon.warn zord: check_failures 'x' is not and(uinteger,min(1)); using 3",
            'daemon.notice zord: watchdog: zord reaches no AT switch, and nothing listens on'
            " the switch's sockets; waiting for the switch",
        ]
        for line in lines:
            assert r.wait(lambda: line in r.syslog()), (line, r.syslog())


def test_the_service_gives_procd_an_instance_per_duty():
    zord = '/usr/libexec/zord/zord --wait 60 /usr/sbin/zord'
    dog = ('/usr/libexec/zord-watchdog check --interval 30 --failures 3 --timeout 10000'
           ' --restart-interval 300')
    log = '/usr/libexec/zord-watchdog log --max-kb 4096'
    Row = collections.namedtuple('Row', 'options commands')
    rows = [
        Row({}, {'zord': zord, 'watchdog': dog, 'log': log}),
        Row({'station_timeout': '60000'},
            {'zord': zord + ' -t 60000', 'watchdog': dog, 'log': log}),
        Row({'station_timeout': '25m'}, {'zord': zord, 'watchdog': dog, 'log': log}),
        Row({'check_interval': '0', 'log_max_kb': '0'}, {'zord': zord}),
        Row({'enabled': '0'}, {}),
    ]
    with Zord(sim=False, start=False) as r:
        for row in rows:
            r.ok(
                f"printf %s '{config(**row.options)}' >/etc/config/zord && /etc/init.d/zord restart"
            )
            eq({k: v[1] for k, v in r.instances().items()}, row.commands, row.options)


# The ACL lets a limited rpcd login read zord's status and nothing else; the
# status says whether logd is there.
def test_status_through_rpcd_and_its_acl():
    with Zord(files={'/etc/config/rpcd': RPCD_LOGIN}, **SHORT) as r:
        assert r.wait(lambda: r.status()['check']), 'no probe'
        status = r.status()
        eq((status['check']['result'], status['restarts'], status['system_log']),
           ('serving', 0, True), status)
        login = json.loads(
            r.ok('ubus call session login \'{"username":"status",'
                 '"password":"status"}\''))['ubus_rpc_session']
        for scope, obj, function, allowed in [('ubus', 'zord', 'status', True),
                                              ('ubus', 'service', 'list', False),
                                              ('ubus', 'file', 'read', False)]:
            asked = json.dumps(
                dict(ubus_rpc_session=login, scope=scope, object=obj, function=function))
            eq(
                json.loads(r.ok(f"ubus call session access '{asked}'"))['access'], allowed,
                (obj, function))
        r.ok('/etc/init.d/log stop')
        assert r.wait(lambda: not r.status()['system_log']), 'system_log still true'


# The wedges. A modem that goes silent while it has a command: answering
# again later changes nothing.
def silent_modem(r):
    r.modem('silent on')
    before = r.modem('bytes 1')
    r.client().sendall(b'AT+CEVVMEV?\r\n')
    assert r.wait(lambda: r.modem('bytes 1') != before), 'nothing reached the modem'
    r.modem('silent off')


def two_lines_in_one_segment(r):
    r.keep = r.client()
    r.keep.sendall(b'AT+CEVVMEV?\r\nAT+CEVVMEV?\r\n')


def ten_idle_connections(r):
    r.keep = [r.client(f'127.0.1.{i}', enable=False) for i in range(10)]


# The wedge begins; the watchdog names it in the system log within its
# bound, procd starts zord again and it answers, and the status says so.
def restarted(wedge, cause):
    with Zord(**SHORT) as r:
        assert r.wait(r.answers), 'no answer'
        first, began = r.pid(), time.monotonic()
        wedge(r)
        assert r.wait(lambda: r.said('restarting zord'), 2 * NOTICED), 'no restart'
        took = time.monotonic() - began
        line = f'daemon.notice zord: watchdog: {cause} 2 times in a row (); restarting zord'
        eq([re.sub(r'\(.*\)', '()', l) for l in r.said('watchdog')], [line], 'the system log')
        assert took <= NOTICED, f'noticed after {took:.1f} s'
        assert r.wait(lambda: r.pid() not in ('', first) and r.answers(), RESPAWN + WAIT)
        eq((r.status()['restarts'], r.status()['restart_cause']), (1, cause), 'zord status')


def test_restarts_zord_for_a_silent_modem():
    restarted(silent_modem, 'no-answer')


def test_restarts_zord_for_ten_idle_connections():
    restarted(ten_idle_connections, 'full')


# A wedge right after a restart is restarted as soon as it is found; when it
# keeps coming back, restarts back off to restart_interval apart; a zord that
# has served that long starts the back-off over. procd starts zord at once.
def test_restarts_back_off_and_start_over_after_serving():
    fast = dict(SHORT, check_interval=1, check_timeout=1000, restart_interval=8)
    with Zord(start=False, **fast) as r:
        r.ok('/etc/init.d/zord enable && respawn_timeout=0 /etc/init.d/zord start')
        restarts = []  # when each came, by the clock here

        def wedge_and_restart():
            assert r.wait(lambda: r.pid() and r.answers(), RESPAWN + WAIT), 'not serving'
            two_lines_in_one_segment(r)
            began = time.monotonic()
            assert wait_until(lambda: len(r.said('; restarting zord')) > len(restarts), 30)
            restarts.append(time.monotonic())
            return restarts[-1] - began

        for _ in range(5):
            wedge_and_restart()
        gaps = [b - a for a, b in zip(restarts, restarts[1:])]
        # Allowed 1 s apart, then 2, 4 and 8 (step 1 x (2 - 1), doubled, up to 8).
        assert gaps[3] >= 7.5 > gaps[0], gaps
        held = r.said('not restarting zord yet')
        assert held[-1].endswith('back off to 8 s apart (restart_interval 8)'), held
        assert r.wait(lambda: r.answers(), RESPAWN + WAIT), 'not serving'
        time.sleep(8 + 2)  # served for restart_interval
        for _ in range(2):
            assert wedge_and_restart() <= 4 * NOTICED, 'held back after serving'
        assert r.wait(lambda: r.status()['restarts'] == 7), r.status()  # counted


# Another program on the client port (zord, started after it, cannot bind
# it): named once, and zord is not restarted while it holds the port; once
# it has gone, zord is restarted and serves again.
def test_a_foreign_program_on_the_port_is_named_once_and_outwaited():
    with Zord(start=False, **SHORT) as r:
        r.start(['nc', '-ll', '-p', '6666', '-e', 'cat'])  # an echo server
        assert r.wait(lambda: r.sh('netstat -ltn | grep -q :6666')[0] == 0), 'nc is not listening'
        r.ok('/etc/init.d/zord enable && /etc/init.d/zord start')
        assert r.wait(lambda: r.status()['check'] and r.status()['check']['result'] == 'foreign')
        three_more_probes(r)
        said = [re.sub(r'process \d+', 'process N', l) for l in r.said('')]
        eq(said, [
            "daemon.notice zord: watchdog: another program holds zord's client port (127.0.0.1:6666"
            ' is held by nc (process N), not by zord); zord is not restarted while it does'
        ], 'the system log')
        r.ok('killall nc')
        assert r.wait(lambda: r.said('; restarting zord'), 2 * NOTICED), r.said('')
        assert r.wait(r.answers, RESPAWN + WAIT), 'not serving'


# Three probes in a row find nothing a restart would cure (two would do).
def three_more_probes(r):  # by when the watchdog last probed, to the second
    since = r.wait(lambda: r.status()['check_time'], 2 * NOTICED)
    more = lambda: r.status()['check_time'] >= since + 3 * 2
    assert r.wait(more, 4 * NOTICED), 'the watchdog stopped probing'


def test_no_restart_for_a_modem_out_of_coverage():
    with Zord(**SHORT) as r:
        first = r.pid()
        r.modem('deregister')
        three_more_probes(r)
        eq((r.status()['check']['registered'], r.said(''), r.pid()), (False, [], first), 'zord')


# Without a switch that takes connections when zord starts (none, or the
# socket files of one that died), zord is restarted once one does, whether it
# comes after three probes or before the first.
def test_without_the_switch_zord_is_restarted_only_once_it_listens():
    csv = "printf '11,CUSTOM2,c\\n12,VVMUNSOL,r\\n' >/etc/atswitch_config/atswitch_ecm_config.csv"
    for stale_sockets, comes in [(False, 'after three probes'), (True, 'before the first')]:
        with Zord(sim=False, start=False, **SHORT) as r:
            if stale_sockets:
                r.ok(f'mkdir -p /etc/atswitch_config && {csv}')
                for n in 11, 12:
                    with socket.socket(socket.AF_UNIX) as left:
                        left.bind(r.path(f'/tmp/atsw{n}'))
            r.ok('/etc/init.d/zord enable && /etc/init.d/zord start')
            assert r.wait(r.pid), 'no zord'
            first = r.pid()
            # The switch comes once zord has tried both of its sockets.
            tried = ('start reading UNSOL', 'cannot open connection to AT switch')
            assert r.wait(lambda: all(t in r.log() for t in tried)), 'zord did not try'
            if comes == 'after three probes':
                three_more_probes(r)
                eq((r.status()['check']['result'], r.pid()), ('no-modem', first), 'no AT switch')
            r.sim = r.start(['/usr/bin/atsw-sim'], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL)
            r.modem('quote off')
            assert r.wait(lambda: r.said('no-modem 2 times'), 2 * NOTICED), (comes, r.said(''))
            assert r.wait(lambda: r.pid() not in ('', first) and r.answers(), RESPAWN + WAIT)


# A probe that cannot run says nothing of zord: it is named once for each
# way it fails, shown in the status, and restarts nothing.
def test_a_probe_that_cannot_run_is_named_once_and_restarts_nothing():
    with Zord(**SHORT) as r:
        first, said = r.pid(), []
        for command, status in [('chmod -x /usr/bin/zordctl', 126), ('rm /usr/bin/zordctl', 127)]:
            r.ok(command)
            assert r.wait(lambda: r.status()['probe_error'] == status, 2 * NOTICED), r.status()
            three_more_probes(r)
            said.append(f'zord: watchdog: zordctl check cannot run (status {status}); zord is not'
                        ' judged until it can')
            shell = r'(status \d+): [^;]*zordctl[^;]*\)'  # what the shell said of zordctl
            lines = [re.sub(shell, r'\1)', l[l.index('zord:'):]) for l in r.said('')]
            eq((lines, r.pid()), (said, first), command)


# zord starts once the switch's sockets are there, when they are there at
# once or come later, or after its wait without them, and then says so. The
# socket's number is what stands before the character just before the role.
def test_zord_starts_once_the_switch_sockets_are_there_or_after_its_wait():
    Row = collections.namedtuple('Row', 'lines sockets come')
    rows = [
        Row('11,CUSTOM2,commands\n12,VVMUNSOL,reports\n', (11, 12), 'before'),
        Row('11,CUSTOM2,commands\n12,VVMUNSOL,reports\n', (11, 12), 'later'),
        Row('11,CUSTOM2,commands\n12,VVMUNSOL,reports\n', (11, 12), 'never'),
        Row('131CUSTOM2\n0,VVMUNSOL\n+014 VVMUNSOL\n', (13, 14), 'before'),
    ]
    csv = '/etc/atswitch_config/atswitch_ecm_config.csv'
    gave_up = ("daemon.notice zord: start: the AT switch's sockets (named in"
               f' {csv}) are not there, or nothing listens on them, after 2 s; starting zord'
               ' without them')
    with Zord(sim=False, start=False) as r:
        for row in rows:
            r.ok(
                f"mkdir -p /etc/atswitch_config && printf '{row.lines}' >{csv} && rm -f /tmp/atsw*")
            switch = []

            def listen():  # a switch that listens, from inside the router's root
                switch.append(os.fork())
                if switch[0] == 0:
                    os.chroot(r.path('/'))
                    sockets = [socket.socket(socket.AF_UNIX) for _ in row.sockets]
                    for s, n in zip(sockets, row.sockets):
                        s.bind(f'/tmp/atsw{n}')
                        s.listen()
                    time.sleep(3 * WAIT)
                    os._exit(0)

            if row.come == 'before':
                listen()
            said = len(r.syslog(gave_up))
            p = r.start(['/usr/libexec/zord/zord', '--wait', '2', 'echo', 'zord'],
                        stdout=subprocess.PIPE, text=True)
            if row.come == 'later':
                assert not wait_until(lambda: p.poll() is not None, 0.5), 'it did not wait'
                listen()
            eq(p.communicate(timeout=WAIT)[0], 'zord\n', row)
            eq(len(r.syslog(gave_up)) - said, int(row.come == 'never'), row)
            for pid in switch:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)


# netifd's dump, as network.sh and fw4 read it: each interface on a device
# of its name and 0 (wan0, lan0), up while it has an address.
def netifd(ipv4, ipv6, lan=None):
    interface = lambda name, key, address: dict(interface=name, up=bool(
        address), l3_device=name + '0', **{key: [{'address': address}] if address else []})
    return json.dumps({
        'interface': [
            interface('wan', 'ipv4-address', ipv4),
            interface('wan6', 'ipv6-address', ipv6),
            interface('lan', 'ipv4-address', lan)
        ]
    })


# netifd (an rpcd plugin in its place, standins/network.interface) knows
# the WAN addresses; procd's dispatch or hotplug-call runs the hotplug
# script, which writes /tmp/wan; a report after a new address says changed.
def test_the_hotplug_script_hands_the_wan_addresses_to_zord():
    head, v4, v6 = "config status 'status'\n", "\toption ipv4_addr '%s'\n", '\toption '
    v6 += "ipv6_addr_global '%s'\n"
    dispatch = 'ubus call hotplug.iface call \'{"env":["ACTION=%s","INTERFACE=%s"]}\''
    call = 'ACTION=%s INTERFACE=%s /sbin/hotplug-call iface'
    # How the event comes, what netifd then knows, and what /tmp/wan holds after it.
    Row = collections.namedtuple('Row', 'run action interface ipv4 ipv6 wan')
    rows = [
        Row(dispatch, 'ifup', 'wan', '10.0.0.1', None, v4 % '10.0.0.1'),
        Row(call, 'ifup', 'wan6', '10.0.0.1', '2001:db8::1', v4 % '10.0.0.1' + v6 % '2001:db8::1'),
        Row(dispatch, 'ifupdate', 'wan', '10.0.0.2', '2001:db8::1',
            v4 % '10.0.0.2' + v6 % '2001:db8::1'),
        Row(call, 'ifup', 'lan', '10.9.9.9', None, v4 % '10.0.0.2' + v6 % '2001:db8::1'),
        Row(dispatch, 'ifdown', 'wan', None, '2001:db8::1', v6 % '2001:db8::1'),
    ]
    # A report after a new address says changed; one with a new cell and the same addresses not.
    reports = [
        (None, 'cell 00C1 0BEEF001', '31041000C1BEEF001', 1),  # the first to find both
        ('2001:db8::2', 'report', '31041000C1BEEF001', 1),
        (None, 'cell 1A2B 01A2D101', '3104101A2B1A2D101', 0),
    ]

    with Zord() as r:
        for row in rows:
            r.ok(f"echo '{netifd(row.ipv4, row.ipv6, row.ipv4)}' >/tmp/netifd.json")
            r.ok(row.run % (row.action, row.interface))
            assert r.wait(lambda: r.read('/tmp/wan') == head + row.wan,
                          5), (row, r.read('/tmp/wan'))
        subscriber = r.client()
        expect(subscriber, 'AT+CEVVMEV=1\r\n', 'OK\r\n', 'subscribing')
        ipv4, ipv6 = '10.0.0.1', '2001:db8::1'
        r.ok(f"echo '{netifd(ipv4, ipv6)}' >/tmp/netifd.json && {dispatch % ('ifup', 'wan')}")
        assert r.wait(lambda: ipv4 in r.read('/tmp/wan')), 'no address'
        for address, control, cell, changed in reports:
            if address:
                r.ok(
                    f"echo '{netifd(ipv4, address)}' >/tmp/netifd.json && {call % ('ifup', 'wan6')}"
                )
                assert r.wait(lambda: address in r.read('/tmp/wan')), 'no new address'
            r.modem(control)
            expect(subscriber, None, f'+CEVVMEV:{cell},FDD,{changed}\r\n', control)


# Under load the log is moved on, compressed, into its .1.gz and .2.gz,
# within the budget; together they are the log as zord wrote it, in order,
# every query's entries there but those of the instants between a last look
# and an emptying.
def test_the_log_keeps_its_history_within_its_budget():
    budget = 1024 * 1024
    with Zord(**dict(SHORT, check_interval=0, log_max_kb=1024)) as r:
        log, client, sizes, asked = '/tmp/logs/zord-vvm-app.log', r.client(), [], 0
        files = [log + '.2.gz', log + '.1.gz', log]
        while r.status()['log']['rotations'] < 3:
            expect(client, 'AT+CEVVMEV?\r\n', EV, 'a query under load')
            asked += 1
            sizes.append(sum(os.path.getsize(r.path(f)) for f in files if r.read(f)))
        eq((r.status()['log']['max_bytes'], max(sizes) <= budget), (budget, True), max(sizes))
        kept = b''.join(
            gzip.decompress(open(r.path(f), 'rb').read()) for f in files[:2] if r.read(f))
        kept = kept.decode('latin-1') + r.log()
        times = re.findall(r'^(\d\d:\d\d:\d\d\.\d{3}) ', kept, re.M)
        assert times == sorted(times) and re.match(r'\d\d:\d\d:\d\d\.\d{3} ', kept), 'in order'
        lost = asked - kept.count(DONE)
        assert 0 <= lost <= r.status()['log']['rotations'], f'{lost} of {asked} answers lost'


# The firewall: fw4 (enabled in the router) renders the service's rules and
# the per-host limits into the ruleset that Debian's nft loads into this
# network namespace, where hosts on veth links meet them; a change of them
# reloads it, a stop takes them away.
FIREWALL = dict(client_address=['192.168.1.8/29'], host_connections=2, host_rate=12, host_burst=3)


def firewalled(**options):
    shutil.which('nft') or openwrt.skip('no nft here, nor in the root (apt-get install nftables)')
    r = Zord(start=False, **SHORT, **options)
    r.ok(f"echo '{netifd('10.0.0.1', None, '192.168.1.1')}' >/tmp/netifd.json")  # zone devices
    r.ok('/etc/init.d/firewall enable && /etc/init.d/firewall start')
    r.ok('/etc/init.d/zord enable && /etc/init.d/zord start')
    assert r.wait(lambda: 'ct count over' in r.ok('nft list ruleset')), 'not loaded'
    return r


# What each connection attempt from a host met.
TRY = r"""
import json, socket, sys
held, got = [], []  # every connection stays open till the end
for source in sys.argv[1:]:
    s = socket.socket()
    s.settimeout(1.5)
    s.bind((source, 0))
    try:
        s.connect(('192.168.1.1' if source.startswith('192') else '10.0.0.1', 6666))
        got.append('open')
        held.append(s)
    except ConnectionRefusedError:
        got.append('refused')
    except socket.timeout:
        got.append('dropped')
print(json.dumps(got))
"""


def test_the_firewall_renders_the_rules_holds_and_takes_them_away():
    hosts = {}

    def host(link, router, *addresses):  # a network namespace of its own, and its link
        p = subprocess.Popen(['unshare', '--net', 'sleep', str(10 * WAIT)])
        wait_until(lambda: os.readlink(f'/proc/{p.pid}/ns/net') != os.readlink('/proc/self/ns/net'))
        inside = ['nsenter', '-t', str(p.pid), '-n']
        ip = lambda words, prefix=[]: subprocess.run(prefix + ['ip'] + words.split(), check=True)
        ip(f'link add {link} type veth peer name eth0 netns {p.pid}')
        ip(f'addr add {router}/24 dev {link}')
        ip(f'link set {link} up')
        ip('link set eth0 up', inside)
        for address in addresses:
            ip(f'addr add {address}/24 dev eth0', inside)
        hosts[link] = (p, inside)

    def tries(link, *sources):  # what each try from the host met
        argv = hosts[link][1] + [sys.executable, '-c', TRY, *sources]
        return json.loads(subprocess.run(argv, check=True, capture_output=True).stdout)

    with firewalled(**FIREWALL) as r:
        printed = r.ok('fw4 print 2>/dev/null | tee /tmp/ruleset.nft')
        r.ok('nft -c -f /tmp/ruleset.nft')
        assert 'ubus:zord' in printed and 'include "/var/run/zord/firewall.nft"' in printed
        host('lan0', '192.168.1.1', '192.168.1.10', '192.168.1.12', '192.168.1.20')
        host('wan0', '10.0.0.1', '10.0.0.2')
        r.ok('/etc/init.d/firewall reload')  # the zones' devices are there now
        try:
            before = r.log().count('connection accepted from')
            eq(tries('lan0', '192.168.1.20'), ['refused'], 'an unlisted address')
            eq(tries('wan0', '10.0.0.2'), ['refused'], 'the WAN zone')
            eq(r.log().count('connection accepted from'), before, 'zord saw them')
            # Two held, the third over the cap; with it the burst is gone, and the rest are dropped.
            eq(tries('lan0', *['192.168.1.12'] * 5),
               ['open', 'open', 'refused', 'dropped', 'dropped'], 'the cap, then the rate')
            argv = [os.environ['ZT_ZORDCTL'], '--host', '192.168.1.1', '--source', '192.168.1.10']
            cell = subprocess.run(hosts['lan0'][1] + argv + ['cell'], capture_output=True,
                                  text=True, timeout=WAIT)
            eq((cell.returncode, cell.stdout), (0, EV.strip() + '\n'), 'a listed address')
            assert r.sh('zordctl check')[0] == 0, 'over loopback'
            r.ok('uci set zord.main.host_connections=3 && uci commit zord && reload_config')
            assert r.wait(lambda: 'ct count over 3' in r.ok('nft list ruleset')), 'not reloaded'
            r.ok('uci set zord.main.client_address=192.168.1.999 && uci commit && reload_config')
            opened = lambda: re.search(r'6666 .*accept .*ubus:zord', r.ok('nft list ruleset'))
            assert r.wait(lambda: not opened()), 'an address that does not validate opened the zone'
            r.ok('/etc/init.d/zord stop')
            assert r.wait(lambda: 'zord' not in r.ok('nft list ruleset')), 'left behind'
        finally:
            for p, _ in hosts.values():
                p.kill()


# What the feed's CI runs after installing each package.
def test_the_feeds_test_script_passes_on_the_router():
    with Zord(sim=False, start=False) as r:
        test = open(f'{openwrt.TOP}/packaging/openwrt/zord/test.sh').read()
        with open(r.path('/tmp/test.sh'), 'w') as f:
            f.write(test)
        version = re.search(r'^PKG_VERSION:=(\S+)',
                            open(f'{openwrt.TOP}/packaging/openwrt/zord/Makefile').read(),
                            re.M).group(1)
        for package in 'zord', 'zordctl':
            r.ok(f'sh /tmp/test.sh {package} {version}')
        eq(r.sh('sh /tmp/test.sh zordctl 9.9')[0], 1, 'another version')


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


if sys.argv[1] != 'test_each_install_component_puts_its_files_and_no_uci_in_a_bin':
    openwrt.enter_network_namespace(ROOT)
globals()[sys.argv[1]]()  # the case named on the command line
