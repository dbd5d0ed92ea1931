# zordctl as a user runs it, against a stand-in daemon: framing, refusals and
# silence; and beside the real daemon and the simulator as people use them
# on one host. More runs with the real daemon are in the end-to-end cases.
from harness import *  # from tests/e2e, on PYTHONPATH
import json, pty


def test_zordctl_reads_answers_line_by_line_and_maps_them_to_exit_statuses():
    rows = [(['cell'], ['OK\r\n', '\r\n+CEVVMEV:NU|LL,NULL\r\n'], 'AT+CEVVMEV?\r\n', 0, '+CEVVMEV:NULL,NULL\n', ''),
            (['identity'], ['\r\nOK\r\n', '\r\n+CEVVMCMD:1234,A,FDD\r\n|\r\nOK\r\n'], 'AT+CEVVMCMD?\r\n', 0,
             '+CEVVMCMD:1234,A,FDD\n', ''),
            (['send', 'ATI'], ['OK\n', '\r\nmodel 1\r\n\r\nOK\r\n'], 'ATI\r\n', 0, 'model 1\nOK\n', ''),
            # No final result: the information line is the whole answer.
            (['send', 'AT+CEVVMEV?'], ['OK\r\n', '+CEVVMEV:A,TDD\r\n'], 'AT+CEVVMEV?\r\n', 0, '+CEVVMEV:A,TDD\n', ''),
            (['send', 'ATE1'], ['OK\r\n', '+CME ERROR: 4\r\n'], 'ATE1\r\n', 4, '+CME ERROR: 4\n',
             'zordctl: the daemon answered +CME ERROR: 4 to ATE1\n'),
            (['cell'], ['ERROR\r\n'], '', 4, '', 'zordctl: the daemon answered ERROR to AT+CEVVMCMD=1\n'),
            (['watch'], ['OK\r\n', None], 'AT+CEVVMEV=1\r\n', 5, '',
             'zordctl: the daemon closed the connection; most likely another client connected from this one'),
            (['cell'], [None], '', 5, '', 'zordctl: the daemon closed the connection at once: it serves ten clients'),
            (['send', 'AT'], ['OK\r\n', 'ERROR\r\n'], 'AT\r\n', 4, 'ERROR\n', 'zordctl: the daemon answered ERROR to AT: '
             'the daemon takes only lines that begin with ATE, AT+CEVVMCMD or AT+CEVVMEV and closes the connection'),
            (['--timeout=300', 'identity'], [], '', 6, '', 'zordctl: no answer to AT+CEVVMCMD=1 within 300 ms\n')]
    with Run() as run:
        for args, answers, sent, status, out, err in rows:
            # A stand-in daemon: the n-th line it receives gets answers[n], each
            # piece (between bars) in a write of its own, or with None the
            # connection closes. After the last answer it waits for zordctl to
            # hang up.
            with socket.create_server(('127.0.0.1', 0)) as listener:
                p = run.start([ZORDCTL] + args, {'ZORD_PORT': str(listener.getsockname()[1])}, **PIPES)
                listener.settimeout(WAIT)
                with listener.accept()[0] as conn:
                    received = ''
                    for answer in answers:
                        received += read_until(conn, '\n')
                        for piece in (answer or '').split('|'):
                            conn.sendall(piece.encode())
                    received += read_until(conn, None) if None not in answers else ''
            got = [b.decode() for b in p.communicate(timeout=WAIT)]
            eq((received, p.returncode, got[0]), ('AT+CEVVMCMD=1\r\n' + sent, status, out),
               f'{args}: what the daemon received, exit status, standard output')
            assert err in got[1] and (err or not got[1]), f'{args}: standard error {got[1]!r}'



def test_tools_on_one_host_keep_each_other_and_speak_json():
    cell = {'cell': '26201ABCD0BEEF01', 'plmn': '26201', 'tac': 'ABCD', 'cell_id': '0BEEF01', 'duplex': 'TDD'}
    with Run(zord=[], sim=True) as road:
        watch = road.start([ZORDCTL, 'watch', '--json'], **PIPES)  # the first client: its address is the one that counts
        read_until(watch.stderr, 'watching')
        road.modem('plmn 26201', 'duplex TDD', 'cell ABCD 00BEEF01')  # a new cell: an event for the watcher
        for args, want in [(None, dict(cell, changed=0)), (['--json', 'cell'], cell),
                           (['identity', '--json'], dict(cell, imsi='310410123456789'))]:
            got = json.loads(run_program(road, [ZORDCTL] + args)[1] if args else read_until(watch.stdout, '}\n'))
            eq((got.pop('time')[:2], got), ('20', want), args or 'what the watcher heard')
        eq(watch.poll(), None, 'the watcher is still connected')
        # The simulator's control mode; a simulator started in the background of an interactive shell.
        eq([run_program(road, [SIM, 'ctl'] + c.split()) for c in ('cell 1A2B', 'quote on')],
           [(1, 'error: cell takes TAC CI\n', ''), (0, 'ok\n', '')], 'atsw-sim ctl')
    with Run() as shell:
        pid, tty = pty.fork()
        if pid == 0:
            os.execvpe('bash', ['bash', '--norc', '-i'], shell.env)
        os.write(tty, ' '.join(LAUNCHER + [SIM, '&\n']).encode())
        # Its first read of the terminal fails (it used to stop the process), and it says so.
        terminal = os.fdopen(tty, 'rb', 0)  # kept open: closing it would hang the shell up, and its jobs
        assert 'not reading the terminal' in read_until(terminal, 'not reading the terminal')
        states = [proc(p, 'stat').split(b') ')[1][:1] for p in shell.rooted() if SIM.encode() in proc(p, 'cmdline')]
        eq((len(states), b'T' in states), (1, False), f'atsw-sim in the background: {states}')


def test_zordctl_and_atsw_sim_print_the_project_version():
    with Run() as run:
        got = [run_program(run, [program, '--version']) for program in (ZORDCTL, SIM)]
    eq([(s, re.sub(r' \d+\.\d+( \(\S+\))?\n$', '', o), e) for s, o, e in got], [(0, 'zordctl', ''), (0, 'atsw-sim', '')])


globals()[sys.argv[1]]()  # the case named on the command line
