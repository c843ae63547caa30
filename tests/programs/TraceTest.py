#!/usr/bin/env python3
"""postwire-trace: what it prints and writes of a trace, and what it says of files that are none."""
import html.parser
import pathlib
import re
import subprocess

import programs
from programs import in_chunks, multipart, request


def typed(body):
    return request(body, 'Content-Type: multipart/related; boundary=B')


REQUEST = request(
    multipart('B', (['Content-Type: text/xml'], b'<a/>'),
              (['Content-ID: <x@y>'], b'\0\r\n--B-x\r\n\n<read[3]>\nzzz')),
    'Content-Type: multipart/related; boundary=B; type="text/xml"')
RESPONSE = b'HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n' + programs.chunked(b'hello', 2)
CONTINUE = b'HTTP/1.1 100 Continue\r\n\r\n'


def trace(*blocks):
    return b''.join(b'\n<%s[%d]>\n' % (name.encode(), len(data)) + data for name, data in blocks)


# Two exchanges as a server sees them; the second request came in two pieces, with an interim answer
# between, and the client then ended.
EXCHANGE = trace(('read', REQUEST), ('write', RESPONSE), ('read', REQUEST[:50]),
                 ('write', CONTINUE), ('read', REQUEST[50:]), ('write', RESPONSE), ('read', b''))


def demonstration():
    """Two requests, the second with a picture, a fault behind a third."""
    picture = bytes.fromhex(
        '89504e470d0a1a0a0000000d4948445200000010000000100103000000253d6d2200000006504c54451f'
        '5fae1b7a436a66f26a000000134944415478da63e0ffc000471ff811088738007ebf0ff1f73a2a020000'
        '000049454e44ae426082')
    envelope = b'<s:Envelope xmlns:s="urn:s"><s:Body><name>Zo\xc3\xab</name></s:Body></s:Envelope>'
    second = typed(multipart('B', (['Content-Type: text/xml'], envelope),
                             (['Content-Type: image/png', 'Content-ID: <picture@example>'], picture),
                             (['Content-Type: application/octet-stream'], bytes(range(256)) * 99)))
    return trace(('read', REQUEST), ('write', RESPONSE), ('read', second), ('write', RESPONSE),
                 ('read', request(envelope, 'Content-Type: text/xml') + b'\0 bytes'))


def hostile():
    """Traces with a text of a peer wherever a page shows something of one."""
    for number, row in programs.rows('page_hostile.txt'):
        text = programs.unescaped(row['text'])
        field = text.replace(b'\0', b'')
        body = multipart('B', ([], text), (['Content-Type: FIELD', 'Content-ID: FIELD'], text))
        sent = request(body.replace(b'FIELD', field), 'FIELD: FIELD',
                       'Content-Type: multipart/related; boundary=B', target='/FIELD').replace(b'FIELD', field)
        yield number, trace(('read', sent), ('write', RESPONSE))


class Tags(html.parser.HTMLParser):
    def __init__(self, page):
        super().__init__()
        self.seen, self.text, self.size = set(), '', len(page)
        self.feed(page)

    def handle_starttag(self, tag, attrs):
        self.seen |= {(tag, name) for name, _ in attrs} | {tag}

    def handle_data(self, data):
        self.text += data


class Trace(programs.TestCase):
    def run_on(self, content, command, *arguments, **options):
        return self.run_program('postwire-trace', command, self.file(content), *arguments,
                                **options)

    def test_show_prints_the_messages_in_their_order(self):
        shown = self.run_on(EXCHANGE, 'show')
        self.assertEqual((0, ''), (shown.returncode, shown.stderr))
        heads = [line for line in shown.stdout.splitlines() if ' message ' in line]
        self.assertEqual([
            f'<- message 1: request, {len(REQUEST)} bytes in 1 receive',
            f'-> message 2: response, {len(RESPONSE)} bytes in 1 send',
            f'<- message 3: request, {len(REQUEST)} bytes in 2 receives',
            f'-> message 4: response, {len(CONTINUE)} bytes in 1 send',
            f'-> message 5: response, {len(RESPONSE)} bytes in 1 send'], heads)
        for line in ('    POST /svc HTTP/1.1', '    part 1: text/xml', '      4 bytes: <a/>',
                     '    5 bytes: hello', '    HTTP/1.1 100 Continue'):
            self.assertIn(line, shown.stdout.splitlines())

    def test_heads_end_where_the_parser_sees_their_end(self):
        heads = (b'POST /a HTTP/1.1\r\nContent-Length: 0\n\n',
                 b'\r\n \nPOST /a HTTP/1.1\nContent-Length: 0\n \r\n') * 500
        shown = self.run_on(trace(('read', b''.join(heads))), 'show').stdout.splitlines()
        self.assertEqual(shown, [
            line for number, head in enumerate(heads, 1)
            for line in (f'<- message {number}: request, {len(head)} bytes in 1 receive',
                         '    POST /a HTTP/1.1', '    Content-Length: 0')])
        responses = b'HTTP/1.1 100 x\n\nHTTP/1.1 204 y\nA: b\n\r\n'
        shown = self.run_on(trace(('write', responses)), 'show')
        self.assertEqual(shown.stdout, '-> message 1: response, 16 bytes in 1 send\n'
                         '    HTTP/1.1 100 x\n-> message 2: response, 22 bytes in 1 send\n'
                         '    HTTP/1.1 204 y\n    A: b\n')

    def test_nothing_of_a_peer_can_steer_the_terminal(self):
        odd = b'\xc2\x9b\x1b\x9b\xc3\xa4'
        data = (b'POST /%b HTTP/1.1\r\nContent-Type: %b\r\nContent-Length: 6\r\n\r\n%b'
                % (odd, odd, odd))
        shown = self.run_on(trace(('read', data)), 'show').stdout
        self.assertEqual(shown.splitlines()[1:], [
            '    POST /???\xe4 HTTP/1.1', '    Content-Type: ???\xe4', '    Content-Length: 6',
            '    6 bytes: ???\xe4'])

    def test_stats_counts_each_direction(self):
        lines = self.run_on(EXCHANGE, 'stats').stdout.splitlines()
        self.assertEqual(['received', '2', str(2 * len(REQUEST)), '3', '1.50'], lines[1].split())
        self.assertEqual(['sent', '3', str(2 * len(RESPONSE) + len(CONTINUE)), '3', '1.00'],
                         lines[2].split())

    def test_parts_without_a_length_end_at_their_delimiters(self):
        body = b'--B\r\n\r\n<a/>\r\n--B\r\n\r\n1\r\n2\r\n--B--\r\n'
        shown = self.run_on(trace(('read', request(
            body, 'Content-Type: multipart/related; boundary=B') + REQUEST)), 'show')
        self.assertIn('      4 bytes: <a/>\n    part 2: \n      4 bytes: 1??2\n<- message 2: ',
                      shown.stdout)

    def test_a_message_that_cannot_be_read_is_shown_as_far_as_it_goes(self):
        shown = self.run_on(trace(('read', b'GET / HTTP/1.1\r\n\r\n')), 'show', '--role', 'server')
        self.assertEqual(0, shown.returncode)
        self.assertIn('    stopped here: this can\'t be read (HTTPException: method is not POST)', shown.stdout)

    def test_files_that_are_no_trace_end_with_3(self):
        for content in (b'x', b'POST / HTTP/1.1\r\n\r\n', b'\n<read[x]>\n', b'\n<read[-1]>\n',
                        b'\n<read[1]>\nabc', b'\n<write[99999999999999999999999]>\n',
                        b'\n<read[18446744073709551615]>\nabc'):
            with self.subTest(content):
                failed = self.run_on(content, 'show')
                self.assertEqual(3, failed.returncode)
                self.assertRegex(failed.stderr, 'not a socket trace|damaged at byte 12')
        folder = self.folder()
        for path in folder, folder / 'none':
            missing = self.run_program('postwire-trace', 'show', path)
            self.assertEqual((3, ''), (missing.returncode, missing.stdout))
            self.assertIn(str(path), missing.stderr)

    def test_faults_are_told_where_they_happen(self):
        part = b'--B\r\nContent-Length: %b\r\n\r\n<a/>%b--B--\r\n'
        for body, words in (
                (request(b'abc')[:-1], 'the length says 3 bytes, of which 2 bytes came before the end'),
                (request(b'abc') + b'def', 'bytes behind the end of message 1 begin no message'),
                (request(b'abc') + b'\n', 'the end came in the middle of the message'),
                (in_chunks(b'abc', 2)[:-9], 'the end came before that of the body, behind 2 bytes'),
                (typed(part % (b'3', b'\r\n')), 'part 1: the delimiter is missing behind the 3 bytes'),
                (typed(part % (b'90', b'\r\n')), 'part 1: the length says 90 bytes, ')):
            with self.subTest(words):
                shown = self.run_on(trace(('read', body)), 'show').stdout
                self.assertIn('    stopped here: ' + words, shown)

    def test_times_beside_a_trace_are_told(self):
        path = self.file(EXCHANGE)
        records = re.findall(rb'\n<(.)\w+\[(\d+)\]>\n', EXCHANGE)
        records = [(kind.replace(b'w', b's').decode(), int(size)) for kind, size in records
                   if size != b'3' or kind == b's']
        times = path.with_name(path.name + '.times')
        lines = ['%s %d %d.%06d' % (*record, 1700000000 + number // 2, 250000 * (number % 2))
                 for number, record in enumerate(records)]
        times.write_text('\n'.join(['# postwire times 1', *lines, '']))
        shown = self.run_program('postwire-trace', 'show', path)
        self.assertIn('in 2 receives; at 1.000000 s, 0.750000 s after what was before, in '
                      '1.000000 s, longest gap 1.000000 s\n', shown.stdout)
        counted = self.run_program('postwire-trace', 'stats', path).stdout
        self.assertIn('duration   2.250000 s, longest gap 1.000000 s (message 3)\nanswered   in '
                      '0.250000 s on average, 0.250000 s at least, 0.250000 s at most\n', counted)
        packets = subprocess.run(
            [programs.needed('tshark'), '-r', '-', '-Y', 'tcp.len > 0', '-T', 'fields', '-e',
             'frame.time_epoch'], capture_output=True, check=True, input=self.run_program(
                 'postwire-trace', 'pcap', path, '-', text=False, errors=None).stdout)
        self.assertEqual([b'1700000000.000000000', b'1700000000.250000000'],
                         packets.stdout.split()[:2])
        times.write_text('# postwire times 1\nr 1 1.000000\n')
        self.assertIn('does not belong', self.run_program('postwire-trace', 'stats', path).stderr)

    def test_a_trace_that_grows_is_followed_to_its_end(self):
        path = self.file(b'')
        with open(path, 'wb', buffering=0) as growing, subprocess.Popen(
                [programs.FOLDER / 'postwire-trace', 'show', '--follow', path],
                stdout=subprocess.PIPE) as shown:
            for number in range(1, 4):
                growing.write(trace(('read', REQUEST[:9])))
                growing.write(trace(('read', REQUEST[9:])))
                while b'message %d' % number not in shown.stdout.readline():
                    pass
            growing.write(trace(('write', RESPONSE)))
            growing.close()
            self.assertIn(b'-> message 4: response', shown.communicate(timeout=60)[0])

    def test_a_body_is_printed_as_it_is(self):
        nested = typed(multipart('B', ([], b'one'), (['Content-Type: multipart/mixed; boundary=C'],
                                                     multipart('C', ([], b'\0two')))))
        content = trace(('read', request(b'first') + nested))
        for place, body in (('1',), b'first'), (('2', '1'), b'one'), (('2', '2.1'), b'\0two'):
            printed = self.run_program('postwire-trace', 'body', self.file(content), *place,
                                       text=False, errors=None)
            self.assertEqual((0, body), (printed.returncode, printed.stdout))
        self.assertEqual(3, self.run_on(content, 'body', '3').returncode)

    def page(self, content, *arguments):
        """What a page consists of: its elements with their attributes, its text and its size."""
        out = self.folder() / 'out.html'
        made = self.run_on(content, 'html', out, *arguments)
        self.assertEqual((0, 0o600), (made.returncode, out.stat().st_mode & 0o777), made.stderr)
        return Tags(out.read_text())

    def test_a_page_shows_messages_parts_bodies_and_faults(self):
        text = self.page(demonstration()).text
        for shown in ('6 messages', 'part 2: image/png, <picture@example>',
                      '<s:Envelope xmlns:s="urn:s">\n  <s:Body>\n    <name>Zo\xeb</name>\n  </s:Body>',
                      '0010  10 11 12', 'The first 512 bytes of 25,344 bytes; all: postwire-trace body',
                      'bytes behind the end of message 5 begin no message'):
            self.assertIn(shown, text)

    def test_a_page_has_room_for_a_trace_of_any_size(self):
        big = request(b'"' * 300000, *(f'X-{n}: {"&" * 2000}' for n in range(20)))
        page = self.page(trace(*[('read', big)] * 300), '--count', '300')
        self.assertIn('The page has no room for more', page.text)
        self.assertTrue(1 << 20 < page.size <= 2000000, page.size)
        text = self.page(EXCHANGE * 30).text
        self.assertIn('110 messages are not shown', text)
        for message in '1: POST', '20: HTTP/1.1 200', '131: POST', '150: HTTP/1.1 200':
            self.assertIn(message, text)
        self.assertIn('99 messages are not shown', self.page(EXCHANGE * 30, '--from', '100').text)

    def test_nothing_of_a_peer_becomes_markup(self):
        known = self.page(demonstration()).seen
        self.assertIn(('meta', 'content'), known)
        for number, content in hostile():
            with self.subTest(number):
                page = self.page(content)
                self.assertLessEqual(page.seen, known)
                self.assertIn('2: HTTP/1.1 200 OK', page.text)
        self.assertGreaterEqual(number, 20)

    def test_bad_options_are_named_with_what_they_take(self):
        for text, *arguments in (
                ('a command is missing: show, stats, html, pcap or body',),
                ('TRACE is required', 'show'), ('no such option or argument: --x', 'show', '--x', 't'),
                ("--role: 'x' is not client, server or guess", 'show', '--role', 'x', 't'),
                ("--client-port: '0' is no number from 1 to 65535", 'pcap', 't', 'o',
                 '--client-port', '0'),
                ('--client-port: PORT is missing', 'pcap', 't', 'o', '--client-port'),
                ("--server-address: '1.2.3' is no IPv4 address", 'pcap', 't', 'o',
                 '--server-address', '1.2.3')):
            bad = self.run_program('postwire-trace', *arguments)
            self.assertEqual((2, '', f'postwire-trace: {text} (see postwire-trace --help)\n'),
                             (bad.returncode, bad.stdout, bad.stderr))

    def test_bash_completes_commands_options_and_roles(self):
        script = pathlib.Path(__file__).parents[2] / 'tools' / 'completion.bash'
        for line, words in (('s', 'show stats'), ('show --f', '--follow --from'),
                            ('pcap --role g', 'guess'), ('show --from ', '')):
            done = subprocess.run(
                ['bash', '-c', '. "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _postwire "$1"; '
                 'echo "${COMPREPLY[*]}"', script, programs.FOLDER / 'postwire-trace',
                 *line.split(' ')], capture_output=True, text=True, check=True)
            self.assertEqual((words, ''), (done.stdout.strip(), done.stderr))

    def test_a_trace_cut_at_any_byte_is_used_as_far_as_it_goes(self):
        content = trace(('read', REQUEST), ('write', RESPONSE))
        for cut in list(range(3, 40)) + list(range(40, len(content), 7)):
            done = self.run_on(content[:cut], 'stats')
            with self.subTest(cut):
                self.assertEqual(0, done.returncode, done.stderr)
                whole = cut == len(trace(('read', REQUEST)))
                self.assertRegex(done.stderr, '^$' if whole else 'lacks|ends inside')

    def test_tshark_dissects_the_capture_down_to_the_parts(self):
        capture = self.folder() / 'out.pcap'
        big = request(multipart('B', ([], bytes(100000)), ([], b'')),
                      'Content-Type: multipart/related; boundary=B')
        made = self.run_on(EXCHANGE + trace(('read', big), ('write', RESPONSE)), 'pcap', capture,
                           '--client-address', '127.0.0.2', '--server-port', '8080')
        self.assertEqual((0, ''), (made.returncode, made.stderr))
        self.assertEqual(capture.stat().st_mode & 0o777, 0o600)
        fields = ['tcp.dstport', 'http.request.method', 'http.response.code',
                  'mime_multipart.header.content-type']
        rows = subprocess.run(
            [programs.needed('tshark'), '-r', capture, '-d', 'tcp.port==8080,http', '-o',
             'tcp.check_checksum:TRUE',
             '-Y', 'http or _ws.malformed or tcp.analysis.flags or tcp.checksum.status == 0',
             '-T', 'fields', '-E', 'separator=;', *(f for n in fields for f in ('-e', n))],
            capture_output=True, text=True, check=True).stdout.splitlines()
        whole, response = '8080;POST;;text/xml', '49152;;200;'
        self.assertEqual([whole, response, '49152;;100;', whole, response, '8080;POST;;', response],
                         rows)

    def test_output_that_cannot_be_written_ends_with_3(self):
        readable = self.file(b'')
        for content, out in (EXCHANGE, '/none/out'), (EXCHANGE, '/dev/full'), \
                (EXCHANGE * 99, '/dev/full'), (EXCHANGE, readable):
            self.assertEqual(3, self.run_on(content, 'pcap', out).returncode)
        self.assertEqual(readable.read_bytes(), b'')
        with open('/dev/full', 'wb') as full:
            for command in 'show', 'stats':
                self.assertEqual(3, self.run_on(EXCHANGE, command, stdout=full).returncode)


if __name__ == '__main__':
    programs.main()
