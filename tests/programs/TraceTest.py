#!/usr/bin/env python3
"""postwire-trace: what it prints and writes of a trace, and what it says of files that are none."""
import subprocess

import programs
from programs import multipart, request

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
        self.assertIn('    stopped here: HTTPException: method is not POST', shown.stdout)

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

    def test_bad_options_are_named_with_what_they_take(self):
        for text, *arguments in (
                ('a command is missing: show, stats or pcap',),
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
