# The whole road through the built daemon: client, client thread, queue,
# dispatcher, command server, handlers, the modem, and back; and the road of a
# registration report to the subscribers.
from harness import *

CELL_QUERY = 'AT+CEREG?\n\r\nAT+COPS=3,2\n\r\nAT+COPS?\n\r\nAT%PCONI\n\r\n'
IMSI_QUERY = 'AT+CIMI\n\r\n'
# The simulator's cell, and the cell after "cell 00C1 0BEEF001".
CELL, NEW_CELL = '3104101A2B1A2D101', '31041000C1BEEF001'
EV, CMD = f'+CEVVMEV:{CELL},FDD\r\n', f'+CEVVMCMD:310410123456789,{CELL},FDD\r\nOK\r\n'
NEW_EV, NEW_CMD = EV.replace(CELL, NEW_CELL), CMD.replace(CELL, NEW_CELL)


def test_each_query_gets_its_part_of_the_answer_and_the_modem_its_commands():
    # A row's line is what a client sends, or the arguments of zordctl.
    rows = [
        ([], 'AT+CEVVMEV?\r\n', EV, CELL_QUERY),
        ([], 'AT+CEVVMCMD?\r\n', CMD, IMSI_QUERY + CELL_QUERY),
        ([], ['check'], (0, f'serving: registered on {CELL}, FDD\n'), IMSI_QUERY + CELL_QUERY),
        (['deregister 4'], 'AT+CEVVMEV?\r\n', '+CEVVMEV:NULL,NULL\r\n', 'AT+CEREG?\n\r\n'),
        ([], 'AT+CEVVMCMD?\r\n', '+CEVVMCMD:310410123456789,NULL,NULL\r\nOK\r\n',
         IMSI_QUERY + 'AT+CEREG?\n\r\n'),
        (['register roaming',
          r'answer AT+COPS? \r\n+COPS: 0\r\n\r\nOK\r\n'], 'AT+CEVVMEV?\r\n', 'ERROR\r\n',
         CELL_QUERY.replace('AT%PCONI\n\r\n', '')),
        (['answer AT+COPS?',
          'duplex none'], 'AT+CEVVMCMD?\r\n', 'ERROR\r\n', IMSI_QUERY + CELL_QUERY),
        # The dispatcher ends every line for the command server; LF alone stays.
        (['duplex FDD'], 'ATE0', 'OK\r\n', 'ATE0\r\n'),
        ([], 'ATE0\r', 'OK\r\n', 'ATE0\r\n'),
        ([], 'ATE0\n', 'OK\r\n', 'ATE0\n'),
        ([], 'ate1\r\n', 'OK\r\n', 'ATe1\r\n'),
        # The cell identity keeps what it finds of the modem's quotes.
        (['quote on'], ['cell'], (0, '+CEVVMEV:310410"1A201A2D10,FDD\n'), CELL_QUERY),
        ([], ['identity'], (0, '+CEVVMCMD:310410123456789,310410"1A201A2D10,FDD\n'),
         IMSI_QUERY + CELL_QUERY),
        ([], ['send', 'ATE0'], (0, 'OK\n'), 'ATE0\r\n'),
        ([], ['send', 'XYZ'], (4, 'ERROR\n'), '')
    ]
    with Run(zord=[], sim=True) as road:
        [c] = road.clients(1)
        for controls, line, answer, modem in rows:
            road.modem(*controls)
            if isinstance(line, list):
                got = run_program(road, [ZORDCTL] + line)
                eq(got[:2], answer, f'zordctl {line}: {got[2]}')
            else:
                expect(c, line, answer, f'{line!r}: the answer')
            eq(road.modem_since(), modem, f'{line!r}: what the modem received')


def test_queued_queries_are_answered_in_order_each_to_its_own_client_even_when_one_leaves():
    with Run(zord=[], sim=True) as road:
        clients = road.clients(10)
        # Two back to back while the modem is slow: the second waits in the queue.
        road.modem('delay 300')
        clients[0].sendall(b'AT+CEVVMCMD?\r\n')
        assert road.wait_log('--> send command 14 AT+CEVVMCMD?'), 'the first was not sent'
        expect(clients[1], 'AT+CEVVMEV?\r\n', EV, 'the second')
        expect(clients[0], None, CMD, 'the first')
        assert 'while another command is in progress' in road.log(), 'the second did not wait'
        eq(road.modem_since(), IMSI_QUERY + CELL_QUERY + CELL_QUERY, 'what the modem received')
        # Ten at once, every other one asking the other query.
        road.modem('delay 0')
        for i, c in enumerate(clients):
            c.sendall(b'AT+CEVVMEV?\r\n' if i % 2 else b'AT+CEVVMCMD?\r\n')
        for i, c in enumerate(clients):
            expect(c, None, EV if i % 2 else CMD, f'client {i}')
        # A client that leaves while the modem holds its answer back holds up
        # nobody. No new client can get its descriptor and the stale answer.
        road.modem('delay 2000')
        clients[0].sendall(b'ATE0\r\n')
        assert road.wait_log('--> send command 6 ATE0\r\n'), 'ATE0 was not sent'
        clients[0].close()
        assert road.wait_log(' closed\n'), 'the client thread did not see the end'
        road.modem('delay 0')
        expect(clients[1], 'AT+CEVVMEV?\r\n', EV, 'the staying client')
        eq(road.end_by_signal(signal.SIGTERM), 0, 'exit status on SIGTERM (not before)')


def test_subscribers_hear_of_registration_changes_and_nobody_else():
    # A new cell while registered is told at once, leaving service too;
    # entering it again after a 7-second pause; out of service the modem
    # reports nothing. The first address check that finds only an IPv4
    # address says "not changed"; a new IPv6 address later says "changed".
    rows = [(['wan4 10.20.30.40', 'cell 1A2B 01A2D101'], f'+CEVVMEV:{CELL},FDD,0\r\n'),
            (['wan6 2001:db8::1', 'report'], f'+CEVVMEV:{CELL},FDD,1\r\n'),
            (['deregister'], '+CEVVMEV:NULL,NULL,0\r\n'), (['cell 00C1 0BEEF001'], ''),
            (['register'], f'+CEVVMEV:{NEW_CELL},FDD,0\r\n')]
    with Run(zord=[], sim=True) as road:
        subscriber, other = road.clients(2)
        road.modem('cell 00C1 0BEEF001')  # with no subscriber, the daemon asks the modem nothing
        assert road.wait_log('zorUnsol_ThreadMain: unsol disable\n'), 'the report was not seen'
        expect(subscriber, 'AT+CEVVMEV=1\r\n', 'OK\r\n', 'subscribing')
        watch = road.start([ZORDCTL, '--source', '127.0.0.9', 'watch'], **PIPES)
        watching = f'zordctl: watching 127.0.0.1:{road.port}\n'
        eq(read_until(watch.stderr, watching), watching, 'zordctl watch subscribed')
        for controls, event in rows:
            road.modem(*controls)
            expect(subscriber, None, event, controls)
        expect(other, 'AT+CEVVMEV?\r\n', NEW_EV, 'the other client, who heard nothing')
        eq(road.log().count('--> send command'), 5, 'commands sent: one per event, and the query')
        out = read_until(watch.stdout, rows[-1][1].replace('\r', ''))  # up to the last event
        watch.send_signal(signal.SIGINT)
        eq(watch.wait(WAIT), 0, 'zordctl watch: exit status on SIGINT')
        eq(re.sub(r'(?m)^[0-2]\d:[0-5]\d:[0-6]\d ', '', out + read_until(watch.stdout, None)),
           ''.join(event.replace('\r', '') for _, event in rows),
           'zordctl watch: each event with its time')


def test_an_event_while_commands_wait_goes_to_their_clients_after_their_answers():
    # The event reaches the clients of the queued commands after their answers,
    # without its last character; the subscriber itself hears nothing of it.
    with Run(zord=[], sim=True) as road:
        subscriber, slow, b, c = road.clients(4)
        expect(subscriber, 'AT+CEVVMEV=1\r\n', 'OK\r\n', 'subscribing')
        road.modem('delay 4000')
        slow.sendall(b'ATE0\r\n')
        assert road.wait_log('--> send command 6 ATE0\r\n'), 'ATE0 was not sent'
        road.modem('cell 00C1 0BEEF001')  # the daemon's own command queues behind ATE0
        assert road.wait_log('special handle of CEVVMEV unsol - send'), 'no command of its own'
        b.sendall(b'AT+CEVVMEV?\r\n')
        c.sendall(b'AT+CEVVMCMD?\r\n')
        assert wait_until(
            lambda: road.log().count('=== AT CMD read') == 3), 'b and c were not queued'
        road.modem('delay 0')
        late = f'+CEVVMEV:{NEW_CELL},FDD,0\r'
        for client, answer in (slow, 'OK\r\n'), (b, NEW_EV + late), (c, NEW_CMD + late):
            expect(client, None, answer, answer)
        expect(subscriber, 'AT+CEVVMEV?\r\n', NEW_EV, 'the subscriber')


globals()[sys.argv[1]]()  # the case named on the command line
