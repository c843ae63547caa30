#!/usr/bin/env python3
"""The programs among clients, proxies and servers of other makers."""
import concurrent.futures
import contextlib
import pathlib
import random
import re
import socket
import struct

import requests

import peers
import programs
from programs import in_chunks, request, sha256

LARGE = random.Random(2).randbytes(8_000_000)
BODIES = b'', b'short', LARGE

NGINX = '''
pid pid; error_log stderr;
events {}
http {
    access_log off; client_body_temp_path t1; proxy_temp_path t2; fastcgi_temp_path t3;
    uwsgi_temp_path t4; scgi_temp_path t5; client_max_body_size 0;
    server { listen 127.0.0.1:{port}; location / { return 200 "from nginx"; } }
}
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


class Sending(programs.TestCase):
    def send(self, url, *options):
        """What postwire-send prints."""
        done = self.run_program('postwire-send', url, '--body', __file__, *options)
        self.assertEqual((done.returncode, done.stderr), (0, ''))
        return done.stdout


class Direct(Sending):
    """What a server must be able to do, whatever stands before it."""

    def front(self, port):
        """The port that clients of the server use."""
        return port

    def setUp(self):
        self.saved = self.folder()
        self.back = self.server('--save', self.saved)
        self.port = self.front(self.back.port)
        self.url = f'http://127.0.0.1:{self.port}'

    def curl(self, *arguments, body=None):
        done = self.run_program(programs.needed('curl'), '-sS', '--noproxy', '*', *arguments,
                                input=body, text=None, errors=None)
        self.assertEqual((done.returncode, done.stderr), (0, b''))
        return done.stdout

    def test_curl(self):
        for options in (), ('-0',), ('-H', 'Transfer-Encoding: chunked'), ('-H', 'Expect:'):
            for body in BODIES:
                with self.subTest(options=options, body=len(body)):
                    self.is_receipt(self.curl(*options, '--data-binary', '@-', self.url, body=body),
                                    body)
        for options, status in ((), b'405'), (('-X', 'POST'), b'200'):
            self.assertEqual(self.curl(*options, '-w', '%{http_code}', '-o', '/dev/null',
                                       self.url), status)
        self.assertEqual(self.curl('-d', 'x', '-w', '%{num_connects}', '-o', '/dev/null',
                                   f'{self.url}/[1-100]'), b'1' + b'0' * 99)

    def test_requests(self):
        with requests.Session() as session:
            session.trust_env = False
            for i in range(100):
                body = LARGE if i in (50, 51) else b'%d' % i
                # An empty piece would go out as the last chunk.
                data = filter(None, [body[:5], body[5:]]) if i % 2 else body
                answer = session.post(f'{self.url}/{i}', data=data, timeout=programs.TIMEOUT)
                self.is_receipt(answer.content, body)

    def test_postwire_send(self):
        for mode in (), ('--chunked', '9999'), ('--direct',):
            self.assertIn(sha256(LARGE),
                          self.send(self.url, '--attach', self.file(LARGE), *mode))

    def test_half_closed_connection_is_answered(self):
        for body in BODIES:
            for data in request(body), in_chunks(body, 9999):
                with programs.Client(self.port) as client:
                    client.send(data)
                    client.end()
                    status, _, answer = client.answer()
                    self.assertEqual(status, 200)
                    self.is_receipt(answer, body)
                    self.assertTrue(client.at_end())

    def test_aborted_upload_leaves_nothing_behind(self):
        body = LARGE[:1_000_000]
        for data in request(body), in_chunks(body, 9999):
            for cut in 10, len(data) - len(body) + 50_000, len(data) - 1:
                for linger in (0, 0), (1, 0):  # an end, then a reset
                    with programs.Client(self.port) as client:
                        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                                 struct.pack('ii', *linger))
                        client.send(data[:cut])
        with programs.Client(self.port) as client:
            client.send(request(b'whole'))
            self.assertEqual(client.answer()[0], 200)
        self.assertEqual((self.back.stop(), self.back.complaints), (0, ''))
        # Proxies ask for its health with empty messages.
        saved = [file.read_bytes() for file in self.saved.iterdir()]
        self.assertEqual([body for body in saved if body], [b'whole'])


class Nginx(Direct):
    def front(self, port):
        return self.enterContext(peers.nginx(port))[0]


class Haproxy(Direct):
    def front(self, port):
        return self.enterContext(peers.haproxy(port))[0]


def hostile_messages():
    """What each row of the table of hostile requests stands for, with a Host field."""
    start = b'POST / HTTP/1.1\r\nHost: h\r\n'
    for _, row in programs.rows('policy_hostile.txt'):
        row = {name: programs.unescaped(value) for name, value in row.items()}
        if 'request' in row:
            yield row['request'].replace(b'\r\n', b'\r\nHost: h\r\n', 1)
        elif 'message' in row:
            yield start + row['message']
        elif 'chunks' in row:
            yield start + b'Transfer-Encoding: chunked\r\n\r\n' + row['chunks']
        elif 'body' in row:
            yield request(row['body'], Fronted.TYPE)
            yield in_chunks(row['body'], 1000, Fronted.TYPE)


class Fronted(programs.TestCase):
    """For each request that a proxy passes on, the server behind it sees one: more would be
    requests that the proxy took for a part of another, and did not check."""

    TYPE = 'Content-Type: multipart/x; boundary=B'
    # Behind each message; and within one, where its length says that it is a part of it.
    NEXT = request(b'')
    EPILOGUE = request(b'--B--\r\n' + NEXT, TYPE)

    def counts(self, proxy, messages, *options):
        """How many requests the proxy passed on, and how many the server answered."""
        def say(message):
            with programs.Client(port) as client, contextlib.suppress(OSError, EOFError):
                client.send(message + self.NEXT)
                if message == self.EPILOGUE:  # HAProxy may see an end before a request
                    client.answer()
                    client.answer()
                client.end()
                client.until(lambda _: False)
        logs, traces = self.folder(), self.folder()
        with programs.Server('--trace', traces, *options) as server, \
                proxy(server.port, log=logs / 'log') as (port, _), \
                concurrent.futures.ThreadPoolExecutor(8) as threads:
            list(threads.map(say, messages))
        passed = sum(len(re.findall(r'^passed to (?!<|-)', file.read_text(), re.M))
                     for file in logs.iterdir())
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
        passed, answered = self.counts(proxy, [self.EPILOGUE], '--contract')
        self.assertLessEqual(answered, passed)

    def test_haproxy(self):
        self.sees_what_is_passed_on(peers.haproxy)

    def test_nginx(self):
        self.sees_what_is_passed_on(peers.nginx)


class Servers(Sending):
    def test_nginx_and_apache_answer(self):
        for command, configuration in (peers.NGINX, NGINX), (peers.APACHE, APACHE):
            with peers.peer(command, configuration) as (port, folder):
                pathlib.Path(folder, 'own').write_bytes(b'0123456789')  # what Apache answers
                for mode in (), ('--chunked', '10'), ('--attach', __file__), \
                        ('--attach', __file__, '--direct'):
                    with self.subTest(command=command[0], mode=mode):
                        self.assertRegex(self.send(f'http://127.0.0.1:{port}/own', *mode),
                                         r'^200 OK\n.* 10 bytes  sha256 ')


if __name__ == '__main__':
    programs.main()
