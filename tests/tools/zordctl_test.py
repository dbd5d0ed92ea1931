# zordctl as a user runs it, against a stand-in daemon: framing, refusals and
# silence; and beside the real daemon and the simulator as people use them
# on one host. More runs with the real daemon are in the end-to-end cases.
from harness import *  # from tests/e2e, on PYTHONPATH
import json, pty

GONE, TWIN, LATE, OK, ER = 'gone', 'twin', 'late', 'OK\r\n', 'ERROR\r\n'
IMSI, CELL = '001019876543210', '3104101A2B1A2D101'
ID = f'+CEVVMCMD:{IMSI},'


# A stand-in daemon for one run of zordctl: the n-th line it receives gets answers[n], each piece
# (between bars) in a write of its own; None closes the connection instead, GONE the port and the
# connection, TWIN connects another client from zordctl's address and closes; LATE answers once
# zordctl has exited: the connection must stay open till then, and close after the answer. Else it
# waits for zordctl to hang up. What it received, and zordctl's exit status, output and errors.
def stand_in(run, args, answers):
    with socket.create_server(('127.0.0.1', 0)) as listener:
        p = run.start([ZORDCTL] + args, {'ZORD_PORT': str(listener.getsockname()[1])}, **PIPES)
        listener.settimeout(WAIT)
        conn, received, twin, got = listener.accept()[0], '', None, None
        with conn:
            for answer in answers:
                received += read_until(conn, '\n')
                if answer == TWIN:
                    twin = socket.create_connection(listener.getsockname(), WAIT,
                                                    (conn.getpeername()[0], 0))
                if answer == GONE:
                    listener.close()
                if answer == LATE:
                    got = p.communicate(timeout=WAIT)  # its reader holds no pipe
                    assert not select.select([conn], [], [], 0)[0], 'closed before the late answer'
                    conn.sendall(b'+CEVVMCMD:1,A,FDD\r\nOK\r\n')
                    conn.settimeout(WAIT)
                    eq(conn.recv(1), b'', 'closed without a reset once the late answer was read')
                if answer in (None, GONE, TWIN, LATE):
                    break
                [conn.sendall(piece.encode()) for piece in answer.split('|')]
            else:
                received += read_until(conn, None)
        got = [b.decode() for b in got or p.communicate(timeout=WAIT)]
        twin and twin.close()
        return received, p.returncode, got[0], got[1]


def test_zordctl_reads_answers_line_by_line_and_maps_them_to_exit_statuses():
    forms = 'the daemon takes only lines that begin with ATE, AT+CEVVMCMD or AT+CEVVMEV and closes'
    rows = [
        (['cell'], [OK, '\r\n+CEVVMEV:NU|LL,NULL\r\n'], 'AT+CEVVMEV?\r\n', 0,
         '+CEVVMEV:NULL,NULL\n', ''),
        (['identity'], ['\r\n' + OK, '\r\n+CEVVMCMD:1234,A,FDD\r\n|\r\n' + OK], 'AT+CEVVMCMD?\r\n',
         0, '+CEVVMCMD:1234,A,FDD\n', ''),
        (['send', 'ATI'], ['OK\n', '\r\nmodel 1\r\n\r\n' + OK], 'ATI\r\n', 0, 'model 1\nOK\n', ''),
        # No final result: the information line is the whole answer.
        (['send',
          'AT+CEVVMEV?'], [OK, '+CEVVMEV:A,TDD\r\n'], 'AT+CEVVMEV?\r\n', 0, '+CEVVMEV:A,TDD\n', ''),
        (['send', 'ATE1'], [OK, '+CME ERROR: 4\r\n'], 'ATE1\r\n', 4, '+CME ERROR: 4\n',
         'zordctl: the daemon answered +CME ERROR: 4 to ATE1\n'),
        (['cell'], [ER], '', 4, '', 'zordctl: the daemon answered ERROR to AT+CEVVMCMD=1\n'),
        (['cell'], [OK, OK], 'AT+CEVVMEV?\r\n', 9, '',
         'zordctl: the daemon answered AT+CEVVMEV? without a +CEVVMEV: line\n'),
        (['watch'], [OK, GONE], 'AT+CEVVMEV=1\r\n', 5, '',
         'zordctl: the daemon went away: it ended or was stopped, and nothing listens on port'),
        (['identity'], [OK, TWIN], 'AT+CEVVMCMD?\r\n', 5, '',
         "zordctl: the daemon closed the connection: another client connected from this one's"),
        (['cell'], [None], '', 8, '',
         'zordctl: the daemon closed the connection at once: it serves ten clients already\n'),
        (['send', 'AT'], [OK, ER], 'AT\r\n', 4, 'ERROR\n',
         'zordctl: the daemon answered ERROR to AT: ' + forms),
        (['--timeout=300', 'identity'], [OK, LATE], 'AT+CEVVMCMD?\r\n', 6, '',
         'zordctl: no answer to AT+CEVVMCMD? within 300 ms\n')
    ]
    with Run() as run:
        for args, answers, sent, status, out, err in rows:
            received, *got = stand_in(run, args, answers)
            eq((received, got[0], got[1]), ('AT+CEVVMCMD=1\r\n' + sent, status, out),
               f'{args}: what the daemon received, exit status, standard output')
            assert err in got[2] and (err or not got[2]), f'{args}: standard error {got[2]!r}'


# zordctl check against the stand-in: the lines of the probe in order, the exit status and the
# one line it prints (its start; a dict: the JSON object, less the time).
def test_zordctl_check_names_what_it_found_in_one_line_and_its_exit_status():
    probe = ['AT+CEVVMCMD=1\r\n', 'AT+CEVVMCMD?\r\n', 'AT+CEVVMEV?\r\n']
    parts = {'cell': CELL, 'plmn': '310410', 'tac': '1A2B', 'cell_id': '1A2D101', 'duplex': 'FDD'}
    junk = 'x"\\\x01\x7f'
    rows = [([], [OK, ID + CELL + ',FDD\r\n|' + OK], 0, f'serving: registered on {CELL}, FDD\n'),
            ([], [OK, ID + 'NULL,NULL\r\n' + OK], 0, 'serving: not registered\n'),
            ([], [OK, ER, '+CEVVMEV:NULL,NULL\r\n'], 7, 'no-modem: the daemon reaches no AT'),
            ([], [OK, ER, ER], 4, 'modem-error: the modem answers but gives no IMSI, operator'),
            ([], [OK, ER, '+CEVVMEV:NULL\r\n'], 9, 'wrong-answer: the daemon answered +CEVVMEV:'),
            ([], [OK, OK], 9, 'wrong-answer: the daemon answered OK to AT+CEVVMCMD?\n'),
            ([], [OK, ID + 'NULL\r\n' + OK], 9, "wrong-answer: the daemon's answer to AT+CEVVMCMD"),
            (['--timeout=300'], [OK, LATE], 6, 'no-answer: no answer to AT+CEVVMCMD? within 300'),
            (['--json'], [OK, ID + CELL + ',FDD\r\n' + OK], 0,
             dict(parts, result='serving', status=0, registered=True)),
            (['--json'], [OK, junk + '\r\n' + OK], 9, {
                'result': 'wrong-answer', 'status': 9,
                'message': f'the daemon answered {junk} to AT+CEVVMCMD?'
            })]
    with Run() as run:
        for args, answers, status, want in rows:
            received, *got = stand_in(run, args + ['check'], answers)
            line = json.loads(got[1]) if isinstance(want, dict) else got[1][:len(want)]
            isinstance(want, dict) and line.pop('time')
            eq((received, got[0], line, got[1].count('\n'), got[2]),
               (''.join(probe[:len(answers)]), status, want, 1, ''), f'check {answers}')
            assert IMSI not in got[1], 'check shows no IMSI'


def test_tools_on_one_host_keep_each_other_and_speak_json():
    cell = {
        'cell': '26201ABCD0BEEF01', 'plmn': '26201', 'tac': 'ABCD', 'cell_id': '0BEEF01',
        'duplex': 'TDD'
    }
    with Run(zord=[], sim=True) as road:
        watch = road.start([ZORDCTL, 'watch', '--json'],
                           **PIPES)  # the first client: its address is the one that counts
        read_until(watch.stderr, 'watching')
        road.modem('plmn 26201', 'duplex TDD',
                   'cell ABCD 00BEEF01')  # a new cell: an event for the watcher
        for args, want in [(None, dict(cell, changed=0)), (['--json', 'cell'], cell),
                           (['identity', '--json'], dict(cell, imsi='310410123456789'))]:
            got = json.loads(
                run_program(road, [ZORDCTL] + args)[1] if args else read_until(watch.stdout, '}\n'))
            eq((got.pop('time')[:2], got), ('20', want), args or 'what the watcher heard')
        eq(watch.poll(), None, 'the watcher is still connected')
        # The simulator's control mode; a simulator started in the background of a shell.
        eq([run_program(road, [SIM, 'ctl'] + c.split()) for c in ('cell 1A2B', 'quote on')],
           [(1, 'error: cell takes TAC CI\n', ''), (0, 'ok\n', '')], 'atsw-sim ctl')
    with Run() as shell:
        pid, tty = pty.fork()
        if pid == 0:
            os.execvpe('bash', ['bash', '--norc', '-i'], shell.env)
        os.write(tty, ' '.join(LAUNCHER + [SIM, '&\n']).encode())
        # Its first read of the terminal fails (it used to stop the process), and it says so.
        terminal = os.fdopen(tty, 'rb',
                             0)  # kept open: closing it would hang the shell up, and its jobs
        assert 'not reading the terminal' in read_until(terminal, 'not reading the terminal')
        states = [
            proc(p, 'stat').split(b') ')[1][:1] for p in shell.rooted()
            if SIM.encode() in proc(p, 'cmdline')
        ]
        eq((len(states), b'T' in states), (1, False), f'atsw-sim in the background: {states}')


globals()[sys.argv[1]]()  # the case named on the command line
