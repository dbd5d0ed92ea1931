# The whole road through the built daemon: client, client thread, queue,
# dispatcher, command server, handlers, the modem, and back; and the road of a
# registration report to the subscribers.
from harness import *

Q, C, OK, ERROR = 'AT+CEVVMEV?\r\n', 'AT+CEVVMCMD?\r\n', 'OK\r\n', 'ERROR\r\n'
CEREG, COPS, CIMI = 'AT+CEREG?\n\r\n', 'AT+COPS=3,2\n\r\nAT+COPS?\n\r\n', 'AT+CIMI\n\r\n'
CELL_QUERY = CEREG + COPS + 'AT%PCONI\n\r\n'
# The simulator's cell, and the cell after "cell 00C1 0BEEF001".
CELL, NEW_CELL = '3104101A2B1A2D101', '31041000C1BEEF001'
EV, CMD = f'+CEVVMEV:{CELL},FDD\r\n', f'+CEVVMCMD:310410123456789,{CELL},FDD\r\nOK\r\n'
NEW_EV = EV.replace(CELL, NEW_CELL)
NO_OPERATOR = r'answer AT+COPS? \r\n+COPS: 0\r\n\r\nOK\r\n'
Row = collections.namedtuple('Row', 'controls line answer modem')


# Each row: the simulator's controls, a client's line, its answer, and what the modem received.
def test_each_query_gets_its_part_of_the_answer_and_the_modem_its_commands():
    rows = [
        Row([], Q, EV, CELL_QUERY),
        Row([], C, CMD, CIMI + CELL_QUERY),
        Row(['deregister 4'], Q, '+CEVVMEV:NULL,NULL\r\n', CEREG),
        Row([], C, '+CEVVMCMD:310410123456789,NULL,NULL\r\nOK\r\n', CIMI + CEREG),
        Row(['register roaming', NO_OPERATOR], Q, ERROR, CEREG + COPS),
        Row(['answer AT+COPS?', 'duplex none'], C, ERROR, CIMI + CELL_QUERY),
        # The dispatcher ends every line for the command server; LF alone stays.
        Row([], 'ATE0', OK, 'ATE0\r\n'),
        Row([], 'ATE0\r', OK, 'ATE0\r\n'),
        Row([], 'ATE0\n', OK, 'ATE0\n'),
        Row([], 'ate1\r\n', OK, 'ATe1\r\n'),
    ]
    with Run(zord=[], sim=True) as road:
        [client] = road.clients(1)
        for row in rows:
            road.modem(*row.controls)
            expect(client, row.line, row.answer, f'{row.line!r}: the answer')
            eq(road.modem_since(), row.modem, f'{row.line!r}: what the modem received')


# A new cell while registered is told at once, leaving service too; entering
# it again after a 7-second pause; out of service the modem reports nothing.
# The first address check that finds only an IPv4 address says "not
# changed"; a new IPv6 address later says "changed". zordctl watch prints
# each with its time. The other client hears nothing, and the daemon asks the
# modem nothing while nobody subscribes.
def test_subscribers_hear_of_registration_changes_and_nobody_else():
    rows = [
        (['wan4 10.20.30.40', 'cell 1A2B 01A2D101'], f'+CEVVMEV:{CELL},FDD,0\r\n'),
        (['wan6 2001:db8::1', 'report'], f'+CEVVMEV:{CELL},FDD,1\r\n'),
        (['deregister'], '+CEVVMEV:NULL,NULL,0\r\n'),
        (['cell 00C1 0BEEF001'], ''),
        (['register'], f'+CEVVMEV:{NEW_CELL},FDD,0\r\n'),
    ]
    with Run(zord=[], sim=True) as road:
        subscriber, other = road.clients(2)
        road.modem('cell 00C1 0BEEF001')
        assert road.wait_log('zorUnsol_ThreadMain: unsol disable\n'), 'the report was not seen'
        expect(subscriber, 'AT+CEVVMEV=1\r\n', OK, 'subscribing')
        watch = road.start([ZORDCTL, '--source', '127.0.0.9', 'watch'], **PIPES)
        watching = f'zordctl: watching 127.0.0.1:{road.port}\n'
        eq(read_until(watch.stderr, watching), watching, 'zordctl watch subscribed')
        for controls, event in rows:
            road.modem(*controls)
            expect(subscriber, None, event, controls)
        expect(other, Q, NEW_EV, 'the other client, who heard nothing')
        eq(road.log().count('--> send command'), 5, 'commands sent: one per event, and the query')
        out = read_until(watch.stdout, f'+CEVVMEV:{NEW_CELL},FDD,0\n')  # up to the last event
        watch.send_signal(signal.SIGINT)
        eq(watch.wait(WAIT), 0, 'zordctl watch: exit status on SIGINT')
        eq(re.sub(r'(?m)^[0-2]\d:[0-5]\d:[0-6]\d ', '', out + read_until(watch.stdout, None)),
           ''.join(event.replace('\r', '') for _, event in rows),
           'zordctl watch: each with its time')


globals()[sys.argv[1]]()  # the case named on the command line
