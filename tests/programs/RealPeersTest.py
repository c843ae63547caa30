#!/usr/bin/env python3
"""The programs among clients, proxies and servers of other makers, as far as they are installed.

usage: RealPeersTest.py PROGRAM_FOLDER [TEST...]
"""
import contextlib
import hashlib
import http.client
import http.server
import os
import pathlib
import random
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import unittest
import xml.etree.ElementTree

import peers
import programs
from programs import chunked, request

try:
    import requests
except ImportError:
    requests = None

FOLDER = sys.argv[1]
LARGE = random.Random(2).randbytes(20_000_000)
BODIES = b'', b'short', LARGE

NGINX = '''
pid pid; error_log stderr;
events {{}}
http {{
    access_log off; client_body_temp_path t1; proxy_temp_path t2; fastcgi_temp_path t3;
    uwsgi_temp_path t4; scgi_temp_path t5; client_max_body_size 0;
    server {{ listen 127.0.0.1:{port}; location / {{ return 200 "from nginx"; }} }}
}}
'''
APACHE = '''
LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
ServerRoot {folder}
ServerName localhost
PidFile {folder}/pid
ErrorLog /dev/stderr
DocumentRoot {folder}
Listen 127.0.0.1:{port}
'''


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def send(url, *options):
    """What postwire-send prints."""
    done = subprocess.run([pathlib.Path(FOLDER, 'postwire-send'), url, '--body', __file__,
                           *options], capture_output=True, text=True, timeout=programs.TIMEOUT)
    assert (done.returncode, done.stderr) == (0, ''), done
    return done.stdout


class Exchanges:
    """What a server must be able to do, whatever stands before it."""

    def front(self, port):
        """The port that clients of the server use."""
        raise NotImplementedError

    def setUp(self):
        self.saved = self.enterContext(tempfile.TemporaryDirectory())
        self.server = self.enterContext(programs.Server('--save', self.saved))
        self.port = self.front(self.server.port)
        self.url = f'http://127.0.0.1:{self.port}'

    def receives(self, body, answer):
        message = xml.etree.ElementTree.fromstring(answer).find('message')
        self.assertEqual((message.get('size'), message.get('sha256')),
                         (str(len(body)), sha256(body)))

    def curl(self, *arguments, body=b''):
        if not shutil.which('curl'):
            self.skipTest('Debian package curl')
        done = subprocess.run(['curl', '-sS', '--noproxy', '*', '-m', str(programs.TIMEOUT),
                               *arguments], input=body, capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (0, b''))
        return done.stdout

    def test_curl(self):
        for options in (), ('-0',), ('-H', 'Transfer-Encoding: chunked'), ('-H', 'Expect:'):
            for body in BODIES:
                with self.subTest(options=options, body=len(body)):
                    self.receives(body, self.curl(*options, '--data-binary', '@-', self.url,
                                                  body=body))
        for options, status in ((), b'405'), (('-X', 'POST'), b'200'):
            self.assertEqual(self.curl(*options, '-w', '%{http_code}', '-o', '/dev/null',
                                       self.url), status)

    def test_curl_100_requests_on_one_connection(self):
        out = self.curl('-d', 'x', '-w', '%{num_connects}', '-o', '/dev/null',
                        f'{self.url}/[1-100]')
        self.assertEqual(out, b'1' + b'0' * 99)

    def test_http_client_100_requests_on_one_connection(self):
        connection = http.client.HTTPConnection('127.0.0.1', self.port, timeout=programs.TIMEOUT)
        self.addCleanup(connection.close)
        connection.connect()
        only = connection.sock
        for i in range(100):
            body = LARGE if i in (50, 51) else b'%d' % i
            connection.request('POST', '/x', body, encode_chunked=i % 2 == 1,
                               headers={'Transfer-Encoding': 'chunked'} if i % 2 else {})
            answer = connection.getresponse()
            self.assertEqual(answer.status, 200)
            self.receives(body, answer.read())
            self.assertIs(connection.sock, only)

    @unittest.skipUnless(requests, 'Debian package python3-requests')
    def test_requests(self):
        with requests.Session() as session:
            session.trust_env = False
            for i in range(100):
                body = LARGE if i in (50, 51) else b'%d' % i
                data = filter(None, [body[:5], body[5:]]) if i % 2 else body
                answer = session.post(f'{self.url}/{i}', data=data, timeout=programs.TIMEOUT)
                self.receives(body, answer.content)

    def test_postwire_send(self):
        with tempfile.NamedTemporaryFile() as file:
            file.write(LARGE)
            file.flush()
            for mode in (), ('--chunked', '9999'), ('--direct',):
                self.assertIn(sha256(LARGE), send(self.url, '--attach', file.name, *mode))

    def test_half_closed_connection_is_answered(self):
        for body in BODIES:
            for data in request(body), request(
                    chunked(body, 9999), 'Transfer-Encoding: chunked', length=False):
                with programs.Client(self.port) as client:
                    client.send(data)
                    client.end()
                    status, _, answer = client.answer()
                    self.assertEqual(status, 200)
                    self.receives(body, answer)
                    self.assertTrue(client.at_end())

    def test_aborted_upload_leaves_nothing_behind(self):
        body = LARGE[:1_000_000]
        for data in request(body), request(
                chunked(body, 9999), 'Transfer-Encoding: chunked', length=False):
            for cut in 10, len(data) - len(body) + 50_000, len(data) - 1:
                for linger in (0, 0), (1, 0):  # an end, then a reset
                    with programs.Client(self.port) as client:
                        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                                 struct.pack('ii', *linger))
                        client.send(data[:cut])
        with programs.Client(self.port) as client:
            client.send(request(b'whole'))
            self.assertEqual(client.answer()[0], 200)
        self.assertEqual((self.server.stop(), self.server.complaints), (0, ''))
        # Proxies ask for its health with empty messages.
        saved = [file.read_bytes() for file in pathlib.Path(self.saved).iterdir()]
        self.assertEqual([body for body in saved if body], [b'whole'])


class Direct(Exchanges, unittest.TestCase):
    def front(self, port):
        return port


class Nginx(Exchanges, unittest.TestCase):
    def front(self, port):
        return self.enterContext(peers.nginx(port))[0]


class Haproxy(Exchanges, unittest.TestCase):
    def front(self, port):
        return self.enterContext(peers.haproxy(port))[0]


def unescaped(text):
    """The bytes that a value in the tables of tests/data stands for."""
    text = re.sub(r'\{((?:[^\\{}]|\\.)*?)\*(\d+)\}', lambda m: m[1] * int(m[2]), text)
    named = dict(zip('rnts0', '\r\n\t \0'))
    return re.sub(r'\\(x(..)|.)', lambda m: chr(int(m[2], 16)) if m[2] else named.get(m[1], m[1]),
                  text).encode('latin-1')


def hostile_messages():
    """What each row of the table of hostile requests stands for, with a Host field."""
    start = b'POST / HTTP/1.1\r\nHost: h\r\n'
    table = pathlib.Path(__file__).parents[1] / 'data' / 'policy_hostile.txt'
    columns = []
    for line in table.read_text().splitlines():
        if line.startswith('columns: '):
            columns = line[9:].split(' | ')
        elif columns and line and line[0] != '#':
            values = (value.strip() for value in re.split(r'(?<!\\)\|', line))
            row = {name: unescaped(value) for name, value in zip(columns, values)}
            if 'request' in row:
                yield row['request'].replace(b'\r\n', b'\r\nHost: h\r\n', 1)
            elif 'message' in row:
                yield start + row['message']
            elif 'chunks' in row:
                yield start + b'Transfer-Encoding: chunked\r\n\r\n' + row['chunks']
            elif 'body' in row:
                kind = 'Content-Type: multipart/x; boundary=B'
                yield request(row['body'], kind)
                yield request(chunked(row['body'], 1000), kind,
                              'Transfer-Encoding: chunked', length=False)


class Fronted(unittest.TestCase):
    """For each request that a proxy passes on, the server behind it sees one: more would be
    requests that the proxy took for a part of another, and did not check."""

    # Behind each message; and within one, where its length says that it is a part of it.
    NEXT = request(b'')
    EPILOGUE = request(b'--B--\r\n' + NEXT, 'Content-Type: multipart/x; boundary=B')

    def counts(self, proxy, messages, *options):
        """How many requests the proxy passed on, and how many the server answered."""
        with tempfile.TemporaryDirectory() as folder:
            log, traces = pathlib.Path(folder, 'log'), pathlib.Path(folder, 'traces')
            with programs.Server('--trace', traces, *options) as server, \
                    proxy(server.port, log) as (port, _):
                for message in messages:
                    with programs.Client(port) as client, \
                            contextlib.suppress(OSError, EOFError):
                        client.send(message + self.NEXT)
                        client.end()
                        client.until(lambda _: False)
            passed = sum(len(re.findall(r'^passed to (?!<|-)', file.read_text(), re.M))
                         for file in pathlib.Path(folder).glob('log*'))
            # Proxies ask for its health, over connections of their own.
            answered = sum(len(re.findall(rb'\n<write\[\d+\]>\nHTTP/1\.1 (?!100)', trace))
                           for trace in map(pathlib.Path.read_bytes, traces.iterdir())
                           if b'POST /health' not in trace)
        return passed, answered

    def sees_what_is_passed_on(self, proxy):
        messages = list(hostile_messages())
        self.assertGreater(len(messages), 200)
        passed, answered = self.counts(proxy, [*messages, self.EPILOGUE])
        self.assertGreater(answered, 50)
        self.assertLessEqual(answered, passed)
        # The epilogue is passed over; by the contract it ends with the connection.
        self.assertEqual(self.counts(proxy, [self.EPILOGUE]), (2, 2))
        self.assertEqual(self.counts(proxy, [self.EPILOGUE], '--contract'), (2, 2))

    def test_haproxy(self):
        self.sees_what_is_passed_on(peers.logging_haproxy)

    def test_nginx(self):
        self.sees_what_is_passed_on(peers.logging_nginx)


class Digest(http.server.BaseHTTPRequestHandler):
    """Answers the digest of the body; chunks are taken apart here, by rules of its own."""

    def do_POST(self):
        digest = hashlib.sha256()
        if self.headers['Transfer-Encoding'] == 'chunked':
            while size := int(self.rfile.readline(), 16):
                digest.update(self.rfile.read(size))
                self.rfile.readline()
            self.rfile.readline()
        else:
            digest.update(self.rfile.read(int(self.headers['Content-Length'])))
        answer = digest.hexdigest().encode()
        self.send_response(200)
        self.send_header('Content-Length', str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, *_):
        pass


class Servers(unittest.TestCase):
    MODES = (), ('--chunked', '10'), ('--attach', __file__), ('--attach', __file__, '--direct')

    def exchange(self, url):
        for mode in self.MODES:
            with self.subTest(mode=mode):
                self.assertRegex(send(url, *mode), r'^200 OK\n.* 10 bytes  sha256 ')

    def test_nginx(self):
        with peers.nginx(configure=lambda port, _: NGINX.format(port=port)) as (port, _):
            self.exchange(f'http://127.0.0.1:{port}/own')

    def test_apache(self):
        with peers.apache(lambda port, folder: APACHE.format(port=port, folder=folder)) as (
                port, folder):
            pathlib.Path(folder, 'own').write_bytes(b'0123456789')
            self.exchange(f'http://127.0.0.1:{port}/own')

    def test_http_server(self):
        with http.server.ThreadingHTTPServer(('127.0.0.1', 0), Digest) as server, \
                tempfile.TemporaryDirectory() as folder:
            thread = threading.Thread(target=server.serve_forever)
            thread.start()
            try:
                url = f'http://127.0.0.1:{server.server_port}'
                own = sha256(pathlib.Path(__file__).read_bytes())
                for i, mode in enumerate(self.MODES):
                    answer = pathlib.Path(folder, str(i))
                    self.assertRegex(send(url, *mode, '--save', answer), r'^200 OK\n.* 64 bytes ')
                    digest = next(answer.iterdir()).read_text()
                    # Of a body with parts only the parts' bytes are known here.
                    self.assertEqual(digest == own, '--attach' not in mode)
            finally:
                server.shutdown()
                thread.join()


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
