#!/usr/bin/env python3
"""What the programs make of texts from outside: fields and addresses that are given to them, names
and lists that others send, and requests that follow each other however their bytes arrive.

usage: ToolTextsTest.py PROGRAM_FOLDER [TEST...]
"""
import hashlib
import itertools
import json
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

import programs
from programs import request

FOLDER = pathlib.Path(sys.argv[1])
OK = b'HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n'
EMPTY = tempfile.NamedTemporaryFile()


def send(*arguments):
    return subprocess.run([FOLDER / 'postwire-send', *arguments, '--body', EMPTY.name],
                          capture_output=True, timeout=programs.TIMEOUT)


class Peer:
    """Gives one answer to each of the connections it takes, and keeps the heads of the requests."""

    def __init__(self, answer=OK):
        self.socket = socket.create_server(('127.0.0.1', 0))
        self.authority = '127.0.0.1:%d' % self.socket.getsockname()[1]
        self.answer, self.heads = answer, []
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        while True:
            connection, _ = self.socket.accept()
            with connection, connection.makefile('rb') as stream:
                head = b''.join(itertools.takewhile(lambda line: line != b'\r\n', stream))
                if not head:
                    return
                stream.read(int(re.search(rb'Content-Length: (\d+)', head).group(1)))
                self.heads.append(head)
                connection.sendall(self.answer)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        host, port = self.authority.split(':')
        with socket.create_connection((host, int(port))) as last:
            last.send(b'\r\n')  # an empty head ends it
        self.thread.join(programs.TIMEOUT)
        self.socket.close()


class Given(unittest.TestCase):
    def test_fields_are_sent_or_refused(self):
        sent = {b'A: b': b'A: b', b'a-1!:': b'a-1!: ', b'A:\t b: c ': b'A: b: c',
                b'A: \xe9\tb': b'A: \xe9\tb'}
        with Peer() as peer:
            for field, line in sent.items():
                self.assertEqual(send(f'http://{peer.authority}/', '-H', field).returncode, 0)
                self.assertIn(b'\r\n%b\r\n' % line, peer.heads[-1])
            for field in b'', b'A', b': b', b'A : b', b' A: b', b'A\xe9: b', b'A: b\r\n', \
                    b'A: b\rc', b'A: b\n c', b'A: \x7f', b'"A": b':
                with self.subTest(field):
                    self.assertEqual(send(f'http://{peer.authority}/', '-H', field).returncode, 2)
            self.assertEqual(len(peer.heads), len(sent))

    def test_addresses_are_used_or_refused(self):
        with Peer() as peer:
            for url, target in ('http://%s', '/'), ('HTTP://%s/a/b?c#d', '/a/b?c'), \
                    ('http://%s?c', '/?c'), ('http://%s/#', '/'):
                self.assertEqual(send(url % peer.authority).returncode, 0)
                self.assertTrue(peer.heads[-1].startswith(f'POST {target} HTTP/1.1\r\n'.encode()))
                self.assertIn(f'\r\nHost: {peer.authority}\r\n'.encode(), peer.heads[-1])
        for url in '', 'http:/h', 'https://h', 'http://', 'http:///a', 'http://u@h/', \
                'http://h:/', 'http://h:0', 'http://h:65536', 'http://h:1x', 'http://h:+1', \
                'http://[::1]/', 'http://h/ a', 'http://h/\r\n', 'http://h/\xe9', 'http://a,b', \
                'http://a%41/':
            with self.subTest(url):
                self.assertEqual(send(url).returncode, 2)

    def test_boundaries_need_no_quotes(self):
        with Peer() as peer:
            for boundary, code in ('b', 0), ("'+_.-9aZ", 0), ('x' * 67, 0), ('x' * 68, 2), \
                    ('a b', 2), ('a;b', 2), ('a=b', 2), ('a"b', 2), ('a\r\nb', 2), ('a:b', 2):
                with self.subTest(boundary):
                    done = send(f'http://{peer.authority}/', '--boundary', boundary, '--attach',
                                EMPTY.name)
                    self.assertEqual(done.returncode, code)

    def test_boundary_is_found_wherever_it_lies(self):
        with Peer() as peer, tempfile.NamedTemporaryFile() as file:
            for at in 0, 1, 65526, 65527, 65535, 65536, 131071:
                for delimiter, code in (b'--in-a-row', 2), (b'--in-a-ro', 0):
                    data = b'-' * at + delimiter
                    pathlib.Path(file.name).write_bytes(data)
                    done = send(f'http://{peer.authority}/', '--boundary', 'in-a-row', '--attach',
                                file.name)
                    self.assertEqual(done.returncode, code, (at, delimiter))

    def test_answers_stand_in_json_and_on_the_terminal_as_plain_text(self):
        text = b'a<b>&\'\\"\x1b\x7f\xe9'
        with Peer(b'HTTP/1.1 200 %b\r\nContent-Length: 0\r\n\r\n' % text) as peer:
            done = send(f'http://{peer.authority}/', '--json')
            self.assertEqual(json.loads(done.stdout)['reason'], text.decode('latin-1'))
            self.assertNotRegex(done.stdout, rb'[^\n -~]')
            self.assertTrue(send(f'http://{peer.authority}/').stdout.startswith(
                b'200 a<b>&\'\\"??\xe9\n'))


class Sent(unittest.TestCase):
    # Requests on one connection; the target and body of each that is answered with a receipt, or
    # the status that ends the connection. An asterisk: the connection is to be closed afterwards.
    IN_A_ROW = (
        (request(b'hi', target='/a'), ('/a', b'hi')),
        (b'POST /a HTTP/1.1\r\nContent-Length: 1\r\n\r\nx'
         b'POST\t/c  HTTP/1.1 x\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhi\r\n0\r\n\r\n\r\n\r\n'
         b'POST /d HTTP/1.0\r\nConnection: a, Keep-Alive\r\nContent-Length: 0\r\n\r\n'
         b'POST /e HTTP/1.1\r\nconnection: Close\r\n\r\n',
         ('/a', b'x'), ('/c', b'hi'), ('/d', b''), ('/e*', b'')),
        (b'POST /b HTTP/1.0\r\nContent-Length: 1\r\n\r\ny', ('/b*', b'y')),
        # A body that looks like the request line of another version.
        (b'POST /a HTTP/1.1\nContent-Length: 18\n\nPOST /x HTTP/1.0\r\nPOST /b HTTP/1.1\n\n',
         ('/a', b'POST /x HTTP/1.0\r\n'), ('/b', b'')),
        (b'\r\n\n\r\n',),
        (b'POST /a HTTP/1.1', 400),
        (request(b'x' * 100, target='/a') + request(b'x' * 101), ('/a', b'x' * 100), 413),
        (b'POST /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n64\r\n%b\r\n0\r\n\r\n'
         b'POST /b HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n32\r\n%b\r\n33\r\n%b\r\n0\r\n\r\n'
         % (b'x' * 100, b'x' * 50, b'x' * 51), ('/a', b'x' * 100), 413),
        # The limit is for all parts together.
        (request(programs.multipart('b', ([], b'x' * 50), ([], b'x' * 51)),
                 'Content-Type: multipart/x; boundary=b'), 413),
        (b'POST /a HTTP/1.1\r\nContent-Type: multipart/x; boundary=b\r\n\r\n'
         b'--b\r\nX: y\r\n\r\nbody', 400),
        (b'POST /a HTTP/1.1\r\nContent-Type: multipart/x; boundary=b\r\n'
         b'Transfer-Encoding: chunked\r\n\r\n18\r\n--b\r\nX: y\r\n\r\nbody--b--\r\n\r\n0\r\n\r\n',
         400),
        # Lengths and codings that are none would hide a body.
        (b'POST /a HTTP/1.1\r\nContent-Length: x\r\n\r\nPOST /b HTTP/1.1\r\n\r\n', 400),
        (b'POST /a HTTP/1.1\r\nTransfer-Encoding: chunked, gzip\r\n\r\n', 400),
        (b'POST /a HTTP/1.1\r\nX: ' + b'x' * 16382 + b'\r\n\r\n', 400),
        (b'POST /a HTTP/1.1\r\n' + b'same: x\r\n' * 200 + b'a: x\r\n\r\n', ('/a', b'')))

    def answers(self, client):
        """What arrives up to the end of the connection, as in the table."""
        while True:
            try:
                client.until(bool)
            except (EOFError, ConnectionResetError):
                return
            status, head, body = client.answer()
            closes = '*' if '\r\nConnection: close\r\n' in head else ''
            if status != 200:
                yield status
            else:
                uri, sha256 = re.search(rb'<uri>(.*)</uri>.* sha256="(\w+)"', body, re.S).groups()
                yield uri.decode() + closes, sha256.decode()

    def test_requests_are_told_apart_however_they_arrive(self):
        server = self.enterContext(programs.Server(FOLDER, '--contract', '--max-body', '100'))
        for data, *expected in self.IN_A_ROW:
            expected = [item if item == 400 or item == 413 else
                        (item[0], hashlib.sha256(item[1]).hexdigest()) for item in expected]
            for step in (1, 3, len(data)) if len(data) < 1000 else (len(data),):
                with self.subTest(data[:60], step=step), server.connect() as client:
                    client.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                    try:
                        for at in range(0, len(data), step):
                            client.send(data[at:at + step])
                        client.end()
                    except OSError:
                        pass  # it was refused before all was sent
                    self.assertEqual(list(self.answers(client)), expected)

    def test_lists_hold_close_as_a_word_of_its_own(self):
        server = self.enterContext(programs.Server(FOLDER))
        for value in 'close', 'CLOSE', 'a,close', 'a, close ,b', ',close':
            self.assertTrue(self.closes(server, value), value)
        for value in '', ',', 'closed', 'a close', 'clos':
            self.assertFalse(self.closes(server, value), value)

    def closes(self, server, value):
        with server.connect() as client:
            client.send(request(b'', 'Connection: ' + value))
            return '\r\nConnection: close\r\n' in client.answer()[1]

    def test_names_of_files_stay_in_the_folder_and_are_no_option(self):
        for text, name in (
                ('<a.b@c>', 'a.b@c'), ('.', 'part-1'), ('..', 'part-1'), ('<..>', 'part-1'),
                ('../..', 'part-1'), ('a/', 'part-1'), ('/etc/passwd', 'passwd'),
                ('..\\..\\x.y', 'x.y'), ('.hidden', '_hidden'), ('-rf', '_rf'),
                ("a b\t'$`|&*?", 'a_b________'), ('\xe9', '_'), ('a%2Fb', 'a_2Fb'),
                ('http://h/p?q=/r', 'r'), ('< . >', 'part-1'), ('x' * 5000, 'x' * 100)):
            with self.subTest(text), tempfile.TemporaryDirectory() as folder:
                with programs.Server(FOLDER, '--save', folder) as server, \
                        server.connect() as client:
                    client.send(request(b'x', 'X: y').replace(
                        b'X: y', b'Content-ID: ' + text.encode('latin-1')))
                    self.assertEqual(client.answer()[0], 200)
                self.assertEqual([path.name for path in pathlib.Path(folder).iterdir()],
                                 ['000001-' + name])

    def test_what_others_say_stands_in_receipts_as_plain_text(self):
        with programs.Server(FOLDER, '--contract') as server, server.connect() as client:
            client.send(b'POST /a<b>&"\'\\\x1b\x7f\xe9 HTTP/1.1\r\n\r\n')
            self.assertIn(b'<uri>/a&lt;b&gt;&amp;&quot;\'\\??&#233;</uri>', client.answer()[2])


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
