# zordctl as a user runs it, against a stand-in daemon: framing, refusals and
# silence. Its command line and its runs with the real daemon are in the
# end-to-end cases.
from harness import *  # from tests/e2e, on PYTHONPATH


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
            (['watch'], ['OK\r\n', None], 'AT+CEVVMEV=1\r\n', 5, '', 'zordctl: the daemon closed the connection'),
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



def test_zordctl_and_atsw_sim_print_the_project_version():
    with Run() as run:
        got = [run_program(run, [program, '--version']) for program in (ZORDCTL, SIM)]
    eq([(s, re.sub(r' \d+\.\d+( \(\S+\))?\n$', '', o), e) for s, o, e in got], [(0, 'zordctl', ''), (0, 'atsw-sim', '')])


globals()[sys.argv[1]]()  # the case named on the command line
