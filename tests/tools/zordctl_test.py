# zordctl as a user runs it, against a stand-in daemon: framing, refusals and
# silence; and beside the real daemon and the simulator as people use them
# on one host. More runs with the real daemon are in the end-to-end cases.
from harness import *  # from tests/e2e, on PYTHONPATH
import ctypes, json

GONE, LATE, OK, ER = 'gone', 'late', 'OK\r\n', 'ERROR\r\n'
ON, Q, C = 'AT+CEVVMCMD=1\r\n', 'AT+CEVVMEV?\r\n', 'AT+CEVVMCMD?\r\n'
IMSI, CELL, CME = '001019876543210', '3104101A2B1A2D101', '+CME ERROR: 4'
ANSWER, ID = '+CEVVMCMD:1,A,FDD', f'+CEVVMCMD:{IMSI},'
NO_ANSWER = ('no answer to AT+CEVVMCMD? within 300 ms'
             ' (zord is wedged or its modem silent: restart zord)\n')


# A stand-in daemon for one run of zordctl: the n-th line it receives gets answers[n], each piece
# (between bars) in a write of its own; None closes the connection instead (as when another client
# comes from zordctl's address, or ten are served), GONE the port and the connection; LATE answers
# once zordctl has exited: the connection must stay open till then, and close after the answer.
# Else it waits for zordctl to hang up. What it received, and zordctl's status, output and errors.
# The process holding the port goes by `name`, which check looks up.
def stand_in(run, args, answers, name=b'zord'):
    ctypes.CDLL(None).prctl(15, name)  # PR_SET_NAME
    with socket.create_server(('127.0.0.1', 0)) as listener:
        p = run.start([ZORDCTL] + args, {'ZORD_PORT': str(listener.getsockname()[1])}, **PIPES)
        listener.settimeout(WAIT)
        conn, received = listener.accept()[0], ''
        with conn:
            for answer in answers:
                received += read_until(conn, '\n')
                if answer == GONE:
                    listener.close()
                if answer == LATE:
                    p.wait(WAIT)
                    assert not select.select([conn], [], [], 0)[0], 'closed before the late answer'
                    conn.sendall((ANSWER + '\r\n' + OK).encode())
                    eq(read_until(conn, None), '', 'closed, without a reset, after the answer')
                if answer in (None, GONE, LATE):
                    break
                for piece in answer.split('|'):
                    conn.sendall(piece.encode())
            else:
                received += read_until(conn, None)
        out, err = p.communicate(timeout=WAIT)
        return received, p.returncode, out.decode(), err.decode()


# Each answer line by line on standard output; what went wrong, as far as it can tell, on
# standard error (its start), with its exit status.
def test_zordctl_reads_answers_line_by_line_and_maps_them_to_exit_statuses():
    Row = collections.namedtuple('Row', 'args answers sent status out err')
    rows = [
        Row(['cell'], [OK, '\r\n+CEVVMEV:NU|LL,NULL\r\n'], Q, 0, '+CEVVMEV:NULL,NULL\n', ''),
        Row(['identity'], ['\r\n' + OK, f'\r\n{ANSWER}\r\n|\r\n{OK}'], C, 0, ANSWER + '\n', ''),
        Row(['send', 'ATI'], ['OK\n', '\r\nM1\r\n\r\n' + OK], 'ATI\r\n', 0, 'M1\nOK\n', ''),
        # No final result: the information line is the whole answer.
        Row(['send', 'AT+CEVVMEV?'], [OK, '+CEVVMEV:A,TDD\r\n'], Q, 0, '+CEVVMEV:A,TDD\n', ''),
        Row(['send', 'ATE1'], [OK, CME + '\r\n'], 'ATE1\r\n', 4, CME + '\n',
            f'modem answered {CME} to ATE1\n'),
        Row(['send', 'AT'], [OK, ER], 'AT\r\n', 4, 'ERROR\n', 'ERROR to AT: the daemon takes only'),
        Row(['cell'], [ER], '', 4, '', 'the daemon answered ERROR to AT+CEVVMCMD=1\n'),
        Row(['cell'], [OK, OK], Q, 9, '', 'answered AT+CEVVMEV? without a +CEVVMEV: line\n'),
        Row(['watch'], [OK, GONE], 'AT+CEVVMEV=1\r\n', 5, '', 'went away: it ended or was stopped'),
        Row(['identity'], [OK, None], C, 5, '', "another client connected from this one's"),
        Row(['cell'], [None], '', 8, '', 'closed the connection at once: it serves ten clients'),
        Row(['--timeout=300', 'identity'], [OK, LATE], C, 6, '', NO_ANSWER),
    ]
    with Run() as run:
        for row in rows:
            received, status, out, err = stand_in(run, row.args, row.answers)
            eq((received, status, out), (ON + row.sent, row.status, row.out), row.args)
            assert row.err in err and bool(err) == bool(row.err), f'{row.args}: {err!r}'


# zordctl check against the stand-in: the lines of the probe in order, the exit status and the
# one line it prints (its start; a dict: the JSON object, less the time), never the IMSI.
def test_zordctl_check_names_what_it_found_in_one_line_and_its_exit_status():
    Row = collections.namedtuple('Row', 'args answers status line name', defaults=[b'zord'])
    parts = {'cell': CELL, 'plmn': '310410', 'tac': '1A2B', 'cell_id': '1A2D101', 'duplex': 'FDD'}
    junk = 'x"\\\x01\x7f'
    said = f'the daemon answered {junk} to AT+CEVVMEV?'
    serving = dict(parts, result='serving', status=0, registered=True)
    wrong = dict(result='wrong-answer', status=9, message=said)
    cell, nulls = f'+CEVVMEV:{CELL},FDD\r\n', '+CEVVMEV:NULL,NULL\r\n'
    rows = [
        Row([], [OK, cell], 0, f'serving: registered on {CELL}, FDD\n'),
        Row([], [OK, nulls, ID + 'NULL,NULL\r\n' + OK], 0, 'serving: not registered\n'),
        Row([], [OK, nulls, ER], 7, 'no-modem: the daemon reaches no AT'),
        Row([], [OK, ER, ER], 4, 'modem-error: the modem answers but gives no IMSI, operator'),
        Row([], [OK, '+CEVVMEV:NULL\r\n'], 9, 'wrong-answer: the daemon answered +CEVVMEV:'),
        Row([], [OK, ER, OK], 9, 'wrong-answer: the daemon answered OK to AT+CEVVMCMD?\n'),
        Row([], [OK, nulls, ID + 'NULL\r\n' + OK], 9, "wrong-answer: the daemon's answer to"),
        Row(['--timeout=300'], [OK, LATE], 6, 'no-answer: ' + NO_ANSWER.replace('CMD', 'EV')),
        Row(['--json'], [OK, cell], 0, serving),
        Row(['--json'], [OK, junk + '\r\n' + OK], 9, wrong),
        Row([], ['HTTP/1.1 400 Bad Request\r\n'], 10, 'foreign: 127.0.0.1:', b'httpd'),
    ]
    with Run() as run:
        for row in rows:
            received, status, out, err = stand_in(run, row.args + ['check'], row.answers, row.name)
            line = out[:len(row.line)]
            if isinstance(row.line, dict):
                line = json.loads(out)
                del line['time']
            eq((received, status, line, out.count('\n'), err),
               (''.join([ON, Q, C][:len(row.answers)]), row.status, row.line, 1, ''), row.answers)
            assert row.status != 10 or f'held by {row.name.decode()} (process ' in out, out
            assert IMSI not in out, 'check shows no IMSI'


# A bad command line: status 2, and the reason with the usage on standard error.
def test_zordctl_refuses_a_bad_command_line_with_its_usage():
    rows = [
        ([], {}, 'no command given'),
        (['status'], {}, 'unknown command: status'),
        (['cell'], {'ZORD_PORT': '66x'}, 'ZORD_PORT must be a port number from 1 to 65535: 66x'),
        (['--timeout', '-5', 'cell'], {}, '--timeout must be a number of milliseconds from 1 to'),
        (['--host', 'localhost', 'cell'], {}, '--host must be an IPv4 address: localhost'),
        (['send', 'AT' + 'E' * 125], {}, 'the LINE to send is longer than 126 characters'),
    ]
    with Run() as run:
        for args, env, reason in rows:
            status, out, err = run_program(run, [ZORDCTL] + args, env)
            usage = re.fullmatch(f'zordctl: {re.escape(reason)}.*\nusage: zordctl .*', err, re.S)
            assert (status, out) == (2, '') and usage, f'{args}: {status} {out} {err}'


# Beside the real daemon: a watcher (the first client, whose address is the one that counts)
# stays connected while other runs ask, and each speaks JSON.
def test_zordctl_runs_beside_a_watcher_and_speaks_json():
    cell = dict(cell='26201ABCD0BEEF01', plmn='26201', tac='ABCD', cell_id='0BEEF01', duplex='TDD')
    with Run(zord=[], sim=True) as road:
        watch = road.start([ZORDCTL, 'watch', '--json'], **PIPES)
        read_until(watch.stderr, 'watching')
        road.modem('plmn 26201', 'duplex TDD', 'cell ABCD 00BEEF01')  # an event for the watcher
        heard = json.loads(read_until(watch.stdout, '}\n'))
        cell_json = json.loads(run_program(road, [ZORDCTL, '--json', 'cell'])[1])
        identity = json.loads(run_program(road, [ZORDCTL, 'identity', '--json'])[1])
        for got in heard, cell_json, identity:
            eq(got.pop('time')[:2], '20', 'the year')
        eq((heard, cell_json, identity),
           (dict(cell, changed=0), cell, dict(cell, imsi='310410123456789')), 'JSON')
        eq(watch.poll(), None, 'the watcher is still connected')


globals()[sys.argv[1]]()  # the case named on the command line
