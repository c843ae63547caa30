#!/usr/bin/env python3
"""postwire-trace: what it prints and writes of a trace, and what it says of files that are none."""
import html.parser
import os
import pathlib
import re
import resource
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


class OnTraces(programs.TestCase):
    def run_on(self, content, command, *arguments, **options):
        return self.run_program('postwire-trace', command, self.file(content), *arguments,
                                **options)


@programs.row_tests('trace_shown.txt')
class Shown(OnTraces):
    def check(self, shown, received='', sent='', file=''):
        content = programs.unescaped(file) or trace(
            *((kind, programs.unescaped(text)) for kind, text in (('read', received),
                                                                 ('write', sent)) if text))
        done = self.run_on(content, 'show', *(['--role', 'server'] if received else []))
        self.assertEqual(done.returncode, 3 if file else 0)
        self.assertIn(programs.unescaped(shown).decode('latin-1'),
                      done.stderr if file else done.stdout)


@programs.row_tests('trace_options.txt')
class Options(programs.TestCase):
    COMPLETION = pathlib.Path(__file__).parents[2] / 'tools' / 'completion.bash'

    def check(self, says='', options='', completed=None, words=''):
        if completed is None:
            bad = self.run_program('postwire-trace', *options.split())
            self.assertEqual((2, '', f'postwire-trace: {says} (see postwire-trace --help)\n'),
                             (bad.returncode, bad.stdout, bad.stderr))
            return
        done = self.run_program(
            '/bin/bash', '-c', '. "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _postwire "$1"; '
            'echo "${COMPREPLY[*]}"', self.COMPLETION, programs.FOLDER / 'postwire-trace',
            *words.split(), *([''] if words.endswith('--from') else []))
        self.assertEqual((completed, ''), (done.stdout.strip(), done.stderr))


class Trace(OnTraces):
    def test_show_prints_the_messages_in_their_order_and_stats_counts_them(self):
        shown = self.run_on(EXCHANGE, 'show')
        self.assertEqual((0, ''), (shown.returncode, shown.stderr))
        self.assertEqual([
            f'<- message 1: request, {len(REQUEST)} bytes in 1 receive',
            f'-> message 2: response, {len(RESPONSE)} bytes in 1 send',
            f'<- message 3: request, {len(REQUEST)} bytes in 2 receives',
            f'-> message 4: response, {len(CONTINUE)} bytes in 1 send',
            f'-> message 5: response, {len(RESPONSE)} bytes in 1 send'],
            re.findall('.* message .*', shown.stdout))
        for line in ('POST /svc HTTP/1.1', 'part 1: text/xml', '  4 bytes: <a/>',
                     '5 bytes: hello', 'HTTP/1.1 100 Continue'):
            self.assertIn(f'\n    {line}\n', shown.stdout)
        self.assertEqual([
            ['received', '2', str(2 * len(REQUEST)), '3', '1.50'],
            ['sent', '3', str(2 * len(RESPONSE) + len(CONTINUE)), '3', '1.00']],
            [line.split() for line in self.run_on(EXCHANGE, 'stats').stdout.splitlines()[1:]])

    def test_what_cannot_be_opened_or_written_is_named_and_ends_with_3(self):
        folder, readable = self.folder(), self.file(b'')
        for path in folder, folder / 'none':
            missing = self.run_program('postwire-trace', 'show', path)
            self.assertEqual((3, ''), (missing.returncode, missing.stdout))
            self.assertIn(str(path), missing.stderr)
        for job in 'pcap', 'html':
            for content, out in (EXCHANGE, '/none/out'), (EXCHANGE, '/dev/full'), \
                    (EXCHANGE * 99, '/dev/full'), (EXCHANGE, readable):
                failed = self.run_on(content, job, out)
                self.assertEqual(3, failed.returncode)
                self.assertIn(str(out), failed.stderr)
        self.assertEqual(readable.read_bytes(), b'')
        with open('/dev/full', 'wb') as full:
            for command in 'show', 'stats':
                self.assertEqual(3, self.run_on(EXCHANGE, command, stdout=full).returncode)

    def test_times_beside_a_trace_are_told(self):
        path = self.file(EXCHANGE)
        times = path.with_name(path.name + '.times')
        records = [(kind.decode(), size.decode())
                   for kind, size in re.findall(rb'\n<(.)\w+\[(\d+)\]>\n', EXCHANGE)]
        lines = ['%s %s %d.%06d\n' % (kind.replace('w', 's'), size, 1700000000 + number // 2,
                                      250000 * (number % 2))
                 for number, (kind, size) in enumerate(r for r in records if r != ('r', '3'))]

        def told(*job, lines=lines):
            times.write_text('# postwire times 1\n' + ''.join(lines))
            return self.run_program('postwire-trace', job[0], path, *job[1:], text=False,
                                    errors=None)

        self.assertIn(b'in 2 receives; at 1.000000 s, 0.750000 s after what was before, in '
                      b'1.000000 s, longest gap 1.000000 s\n', told('show').stdout)
        self.assertIn(b'duration   2.250000 s, longest gap 1.000000 s (message 3)\nanswered   in '
                      b'0.250000 s on average, 0.250000 s at least, 0.250000 s at most\n',
                      told('stats').stdout)
        page = Tags(told('html', '-', lines=['# clear text of TLS\n', *lines]).stdout.decode()).text
        for text in (' in 2.250000 s, clear text of TLS', '1.000000 s+0.750000 s3: POST',
                     ' 2 receives in 1.000000 s, longest gap 1.000000 s'):
            self.assertIn(text, page)
        packets = subprocess.run(
            [programs.needed('tshark'), '-r', '-', '-Y', 'tcp.len > 0', '-T', 'fields', '-e',
             'frame.time_epoch'], capture_output=True, check=True, input=told('pcap', '-').stdout)
        self.assertEqual([b'1700000000.000000000', b'1700000000.250000000'],
                         packets.stdout.split()[:2])
        self.assertIn(b'does not belong', told('stats', lines=['r 1 1.000000\n']).stderr)
        told('stats')
        for size in 30, 19, 9, 0:  # as on a full disk: the first line may be cut itself
            os.truncate(times, size)
            self.assertEqual(b'', self.run_program('postwire-trace', 'stats', path, text=False,
                                                   errors=None).stderr)

    def test_a_full_disk_ends_a_trace_and_nothing_else(self):
        body, folder = self.file(bytes(5000)), self.folder()
        for limit in 30, 500, 4000:  # bytes of a file
            limits = {'preexec_fn': lambda limit=limit: resource.setrlimit(
                resource.RLIMIT_FSIZE, (limit, limit))}
            path = folder / str(limit)
            with programs.Listener() as listener:
                sent = self.run_program('postwire-send', listener.url, '--body', body, '--trace',
                                        path, **limits)
            self.assertEqual((3, '200 OK'), (sent.returncode, sent.stdout.split('\n')[0]))
            self.assertIn(f'{path} could not be written', sent.stderr)
            server = self.server('--trace', folder, **limits)
            with server.connect() as client:
                client.send(request(bytes(5000)) * 2)
                for _ in range(2):
                    self.receives(client, bytes(5000))
            server.stop()
            self.assertEqual(1, server.complaints.count(f'a trace in {folder} could not be written'))
        cut = [path for path in folder.iterdir() if path.suffix != '.times']
        self.assertEqual(6, len(cut))
        for path in cut:
            used = self.run_program('postwire-trace', 'show', path)
            self.assertEqual(0, used.returncode)
            self.assertRegex(used.stderr, '^.*: (the last block lacks .* bytes|ends inside .*)\n$')

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


if __name__ == '__main__':
    programs.main()
