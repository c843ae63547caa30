#!/usr/bin/env python3
"""postwire-send: what it puts on the wire, what it makes of answers, and what it refuses to send.

usage: SendTest.py PROGRAM_FOLDER [TEST...]
"""
import hashlib
import http.server
import json
import os
import pathlib
import pty
import re
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

import programs

FOLDER = sys.argv[1]
PROGRAM = pathlib.Path(FOLDER) / 'postwire-send'
BINARY = bytes(range(256)) * 500 + b'\r\n--in-\r\n--\r\n\0'
OK = b'HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok'
MODES = ((), ('--chunked', '1'), ('--chunked', '100000'), ('--direct',), ('--nest',),
         ('--nest', '--chunked', '1000'))


class Listener:
    """Takes one connection, gives one answer, keeps what was sent."""

    def __init__(self, answer=OK, reads=True):
        self.socket = socket.create_server(('127.0.0.1', 0))
        self.url = 'http://127.0.0.1:%d/svc?a=b' % self.socket.getsockname()[1]
        self.received = b''
        self.thread = threading.Thread(target=self.serve, args=(answer, reads))
        self.thread.start()

    def serve(self, answer, reads):
        connection, _ = self.socket.accept()
        with connection:
            while reads and not self.complete():
                self.received += connection.recv(65536)
            if answer is not None:
                connection.sendall(answer)
                connection.shutdown(socket.SHUT_WR)
            while connection.recv(65536):  # until the other side has seen enough
                pass

    def complete(self):
        head, blank, body = self.received.partition(b'\r\n\r\n')
        length = re.search(rb'Content-Length: (\d+)', head)
        return blank and (len(body) == int(length.group(1)) if length
                          else body.endswith(b'\r\n0\r\n\r\n'))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.thread.join(programs.TIMEOUT)
        self.socket.close()

    def fields(self):
        head = self.received.split(b'\r\n\r\n', 1)[0].decode()
        return dict(line.split(': ', 1) for line in head.split('\r\n')[1:])


class Send(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.body = self.file('envelope.xml', b'<soap/>')
        self.binary = self.file('data.bin', BINARY)
        self.empty = self.file('empty', b'')

    def file(self, name, content):
        path = pathlib.Path(self.folder, name)
        path.write_bytes(content)
        return str(path)

    def run_program(self, url, *options, body=None):
        return subprocess.run([PROGRAM, url, '--body', body or self.body, *options],
                              capture_output=True, timeout=programs.TIMEOUT, text=True,
                              errors='surrogateescape')


class OnTheWire(Send):
    def test_every_framing_arrives_whole(self):
        server = self.enterContext(programs.Server(FOLDER, '--echo'))
        for mode in MODES:
            with self.subTest(mode=mode):
                done = self.run_program(server.url, '--json', *mode, '--attach', self.binary,
                                        '--attach', f'{self.empty};text/plain; charset=utf-8;e',
                                        '--attach', f'{self.binary};image/png')
                self.assertEqual((done.returncode, done.stderr), (0, ''))
                report = json.loads(done.stdout)
                parts = report['answer']['parts']
                leaves = parts[:1] + parts[1]['parts'] if '--nest' in mode else parts
                self.assertEqual([part['sha256'] for part in leaves],
                                 [file['sha256'] for file in report['sent']])
                self.assertEqual([(part['type'], part['contentId'], part['size'])
                                  for part in leaves],
                                 [('text/xml; charset=utf-8', '<envelope@postwire>', 7),
                                  ('application/octet-stream', '<data.bin@postwire>', len(BINARY)),
                                  ('text/plain; charset=utf-8', '<e>', 0),
                                  ('image/png', '<data.bin-2@postwire>', len(BINARY))])
                self.assertEqual(leaves[1]['sha256'], hashlib.sha256(BINARY).hexdigest())

    def test_one_body_with_its_fields(self):
        for options, body in ((), b'<soap/>'), \
                (('--chunked', '4'), programs.chunked(b'<soap/>', 4)):
            with Listener() as listener:
                done = self.run_program(listener.url, *options, '-H', 'SOAPAction: "urn:a;b"',
                                        '--header', 'X-Odd:  a; b; c="d" ', '-H', 'User-Agent:')
                self.assertEqual((done.returncode, done.stdout.split('\n')[0]), (0, '200 OK'))
            self.assertTrue(listener.received.startswith(b'POST /svc?a=b HTTP/1.1\r\n'))
            self.assertTrue(listener.received.endswith(b'\r\n\r\n' + body))
            framing = {'Transfer-Encoding': 'chunked'} if options else {'Content-Length': '7'}
            self.assertEqual(listener.fields(), {
                'Connection': 'close', 'Content-Type': 'text/xml; charset=utf-8',
                'Host': listener.url.split('/')[2], 'SOAPAction': '"urn:a;b"', 'User-Agent': '',
                'X-Odd': 'a; b; c="d"', **framing})

    def test_parts_with_their_fields(self):
        with Listener() as listener:
            self.run_program(listener.url, '--direct', '--boundary', 'b1', '--type',
                             'application/soap+xml; action=x', '--attach', self.binary)
        self.assertEqual(listener.fields()['Content-Type'],
                         'multipart/related; boundary="b1"; type="application/soap+xml"; '
                         'start="<envelope@postwire>"')
        head = ('\r\n--b1\r\nContent-ID: <data.bin@postwire>\r\n'
                f'Content-Length: {len(BINARY)}\r\nContent-Transfer-Encoding: binary\r\n'
                'Content-Type: application/octet-stream\r\n\r\n').encode()
        chunks = programs.chunked(BINARY, 65536).removesuffix(b'0\r\n\r\n')
        self.assertIn(head + b'\r\n' + chunks, listener.received)

    def test_large_file_goes_out_without_being_held(self):
        large = self.file('large', b'')
        os.truncate(large, 300_000_000)
        for options, body in (('--direct', '--attach', large), None), \
                (('--chunked', '65536'), large):
            with Listener() as listener:
                listener.complete = lambda: listener.received[-7:] == b'\r\n0\r\n\r\n' or \
                    setattr(listener, 'received', listener.received[-100:])
                child = os.spawnv(os.P_NOWAIT, PROGRAM, [PROGRAM, listener.url, *options, '--quiet',
                                                         '--body', body or self.body])
                _, status, usage = os.wait4(child, 0)
                self.assertEqual(status, 0)
                self.assertLess(usage.ru_maxrss, 150_000)


class Answers(Send):
    def test_exit_code_tells_them_apart(self):
        for answer, code, text in (
                (OK, 0, '200 OK'), (b'HTTP/1.1 204 No Content\r\n\r\n', 0, '204 No Content'),
                (b'HTTP/1.1 100 Continue\r\n\r\n' + OK, 0, '200 OK'),
                (b'HTTP/1.1 200 \r\nContent-Length: 37\r\nContent-Type: multipart/related; '
                 b'boundary="=_b"\r\n\r\n--=_b\r\n\r\n<a/>\r\n--=_b\r\n\r\n1\r\n2\r\n--=_b--',
                 0, '  2 parts\n  (no type)  4 bytes'),
                (b'HTTP/1.0 500 Oh dear\r\nContent-Length: 0\r\n\r\n', 1, '500 Oh dear'),
                (b'SMTP\r\n', 5, 'HTTP version must be 1.1'), (b'\r\n', 5, 'end of input stream'),
                (OK[:-1], 5, ''), (None, 4, 'time limit')):
            with self.subTest(answer=answer), Listener(answer) as listener:
                done = self.run_program(listener.url, '--timeout', '50' if answer else '0.5')
                self.assertEqual(done.returncode, code)
                self.assertIn(text, done.stdout if code < 2 else done.stderr)

    def test_output_that_cannot_be_written(self):
        for option, code in ('--json', 3), ('--quiet', 0):
            with Listener() as listener, open('/dev/full', 'wb') as full:
                self.assertEqual(subprocess.call([PROGRAM, listener.url, '--body', self.body, option],
                                                 stdout=full, timeout=programs.TIMEOUT), code)

    def test_refusal_before_all_was_sent(self):
        upload = self.file('upload', bytes(30_000_000))
        with programs.Server(FOLDER, '--max-body', '1000') as server:
            for options, body in ((), upload), (('--direct', '--attach', upload), None):
                done = self.run_program(server.url, *options, body=body)
                self.assertEqual((done.returncode, done.stdout.split('\n')[0]),
                                 (1, '413 Content Too Large'))

    def test_tree_and_text_cannot_steer_the_terminal(self):
        text = b'a\x1b[31mb\r\nc'
        with Listener(b'HTTP/1.1 200 O\x1bK\r\nContent-Type: text/\x07x\r\n'
                      b'Content-Length: %d\r\n\r\n%b' % (len(text), text)) as listener:
            done = self.run_program(listener.url)
        self.assertEqual(done.stdout, '200 O?K\ntext/?x  10 bytes  sha256 %s\n\na?[31mb\nc\n'
                         % hashlib.sha256(text).hexdigest())

    def test_parts_are_saved_and_the_connection_traced(self):
        trace, saved = pathlib.Path(self.folder, 'trace'), pathlib.Path(self.folder, 'saved')
        with programs.Server(FOLDER, '--echo') as server:
            done = self.run_program(server.url, '--attach', self.binary, '--save', saved,
                                    '--trace', trace)
        self.assertEqual(done.returncode, 0)
        self.assertEqual({path.name: path.read_bytes() for path in saved.iterdir()},
                         {'envelope@postwire': b'<soap/>', 'data.bin@postwire': BINARY})
        self.assertRegex(trace.read_bytes(), rb'^\n<write\[\d+\]>\nPOST / HTTP/1\.1\r\n')
        self.assertEqual(trace.stat().st_mode & 0o777, 0o600)

    def test_upload_shows_its_progress_on_a_terminal_alone(self):
        upload = self.file('upload', bytes(3_000_000))
        with programs.Server(FOLDER) as server:
            for options, shown in ((), True), (('--quiet',), False):
                ours, its = pty.openpty()
                with os.fdopen(ours, 'rb', 0) as terminal:
                    process = subprocess.Popen(
                        [PROGRAM, server.url, '--body', upload, *options], stderr=its,
                        stdout=subprocess.DEVNULL)
                    self.assertEqual(process.wait(programs.TIMEOUT), 0)
                    os.write(its, b'end')
                    os.close(its)
                    said = terminal.read(65536)
                self.assertEqual(said.startswith(b'\r['), shown)
                self.assertEqual(b'100 %' in said and b'MB/s  0:00 left' in said, shown)

    def test_progress_of_an_upload_that_is_cut_off(self):
        def reset():
            connection, _ = server.accept()
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b'\1\0\0\0\0\0\0\0')
            connection.close()

        upload = self.file('upload', bytes(30_000_000))
        with socket.create_server(('127.0.0.1', 0)) as server:
            for _ in range(8):  # most often before the first byte
                thread = threading.Thread(target=reset)
                thread.start()
                ours, its = pty.openpty()
                with os.fdopen(ours, 'rb', 0) as terminal:
                    subprocess.run([PROGRAM, 'http://127.0.0.1:%d/' % server.getsockname()[1],
                                    '--body', upload], stderr=its, timeout=programs.TIMEOUT)
                    os.close(its)
                    self.assertRegex(terminal.read(4096), rb' \d+:\d\d left ')
                thread.join()

    def test_a_server_of_another_maker(self):
        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = self.rfile.read(int(self.headers['Content-Length']))
                self.send_response(200)
                self.end_headers()
                self.wfile.write(hashlib.sha256(body).hexdigest().encode())

            def log_message(self, *_):
                pass

        with http.server.HTTPServer(('127.0.0.1', 0), Handler) as server:
            thread = threading.Thread(target=server.handle_request)
            thread.start()
            done = self.run_program(f'http://localhost:{server.server_port}/', '--save',
                                    os.path.join(self.folder, 'saved'))
            thread.join()
        self.assertEqual(done.returncode, 0)
        self.assertEqual(pathlib.Path(self.folder, 'saved', 'part-1').read_text(),
                         hashlib.sha256(b'<soap/>').hexdigest())


class Refusals(Send):
    def test_what_must_not_be_sent(self):
        # Nothing listens here: a request that was tried would end in 4.
        with socket.create_server(('127.0.0.1', 0)) as taken:
            url = 'http://127.0.0.1:%d/' % taken.getsockname()[1]
        mute = self.enterContext(socket.create_server(('127.0.0.1', 0)))  # never reads
        upload = self.file('upload', bytes(30_000_000))
        tricky = self.file('tricky', b'x' * 65530 + b'\r\n--taken--')
        inner = self.file('inner', b'--in-taken')
        attach = ('--attach', self.binary)
        for code, text, arguments in (
                (4, 'connection failed', (url,)),
                (4, 'time limit', ('http://127.0.0.1:%d/' % mute.getsockname()[1], '--timeout',
                                   '0.1', '--body', upload)),
                (2, 'line end', (url, '-H', 'X: a\r\nY: b')),
                (2, 'line end', (url, '-H', 'X: a\nb')),
                (2, 'no header field name', (url, '-H', 'X Y: a')),
                (2, 'no header field name', (url, '-H', ': a')),
                (2, "'Name: value'", (url, '-H', 'X')),
                (2, 'follows from', (url, '-H', 'content-length: 1')),
                (2, 'follows from', (url, '-H', 'Transfer-Encoding: chunked')),
                (2, 'follows from', (url, '-H', 'Content-Type: x/y', *attach)),
                (2, 'occurs in', (url, '--boundary', 'taken', '--attach', tricky)),
                (2, 'occurs in', (url, '--boundary', 'taken', '--attach', inner)),
                (2, 'occurs in', (url, '--boundary', 'taken', *attach, '--body', tricky)),
                (2, 'a boundary is', (url, '--boundary', 'a b', *attach)),
                (2, 'a boundary is', (url, '--boundary', 'x' * 68, *attach)),
                (2, 'Content-ID', (url, '--attach', self.binary + ';;a b')),
                (2, 'Content-ID', (url, *attach, '--attach', self.empty + ';;envelope@postwire')),
                (2, 'content type', (url, '--attach', self.binary + ';text')),
                (2, 'content type', (url, '--attach', self.binary + ';text/x; a="b"')),
                (2, 'an attachment is', (url, '--attach', self.binary + ';a/b;c;d')),
                (2, 'content type', (url, '--type', 'text/xml\r\nX: y')),
                (2, 'http://', ('https://127.0.0.1/',)), (2, 'host', ('http://',)),
                (2, 'host', ('http://[::1]/',)), (2, 'port', ('http://h:0/',)),
                (2, 'port', ('http://h:65536/',)), (2, 'blanks', ('http://h/a b',)),
                (2, 'blanks', ('http://h/\r\nX: y',)),
                (2, 'excludes', (url, '--direct', '--nest', *attach)),
                (2, 'requires', (url, '--direct')), (2, '', (url, '--chunked', '0')),
                (2, 'seconds', (url, '--timeout', 'nan')),
                (3, 'No such file', (url, '--attach', os.path.join(self.folder, 'none'))),
                (3, 'no regular file', (url, '--attach', self.folder)),
                (3, 'No such file', (url, '--trace', os.path.join(self.folder, 'none', 'x'))),
                (4, 'resolved', ('http://no-such-host.invalid/',))):
            with self.subTest(arguments=arguments):
                body = () if '--body' in arguments else ('--body', self.body)
                done = subprocess.run([PROGRAM, *arguments, *body], capture_output=True, text=True,
                                      timeout=programs.TIMEOUT)
                self.assertEqual((done.returncode, done.stdout), (code, ''), done.stderr)
                self.assertIn(text.lower(), done.stderr.lower())


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
