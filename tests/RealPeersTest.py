#!/usr/bin/env python3
"""The programs among clients, proxies and servers of other makers, as far as they are installed.

usage: RealPeersTest.py PROGRAM_FOLDER [TEST...]
"""
import contextlib
import hashlib
import http.client
import os
import pathlib
import random
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

import programs

try:
    import requests
except ImportError:
    requests = None

FOLDER = sys.argv[1]
LARGE = random.Random(2).randbytes(20_000_000)
SHA = hashlib.sha256(LARGE).hexdigest()
# Debian keeps servers where an ordinary user's PATH does not lead.
PATH = os.environ['PATH'] + ':/usr/sbin:/usr/local/sbin'

NGINX = '''
daemon off; pid {folder}/pid; error_log stderr; {user}
events {{}}
http {{
    access_log off; client_max_body_size 0; client_body_temp_path {folder}/t1;
    proxy_temp_path {folder}/t2; fastcgi_temp_path {folder}/t3; uwsgi_temp_path {folder}/t4;
    scgi_temp_path {folder}/t5;
    upstream back {{ server 127.0.0.1:{back}; keepalive 4; }}
    server {{
        listen 127.0.0.1:{port};
        location /own {{ return 200 "from nginx"; }}
        location / {{
            proxy_pass http://back; proxy_http_version 1.1; proxy_set_header Connection "";
            proxy_request_buffering off;
        }}
    }}
}}
'''
HAPROXY = '''
defaults
    mode http
    timeout connect 30s
    timeout client 30s
    timeout server 30s
frontend front
    bind 127.0.0.1:{port}
    default_backend back
backend back
    http-reuse always
    server serve 127.0.0.1:{back}
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


def free_port():
    with socket.create_server(('127.0.0.1', 0)) as taken:
        return taken.getsockname()[1]


@contextlib.contextmanager
def peer(name, config, command, back=1):
    """A server of another maker on a port that was free just before; tried again where it was
    taken since."""
    program = shutil.which(name, path=PATH)
    if not program:
        raise unittest.SkipTest(f'{name} is not installed')
    with tempfile.TemporaryDirectory() as folder:
        user = 'user root;' if os.getuid() == 0 else ''
        for _ in range(5):
            port = free_port()
            file = pathlib.Path(folder, 'config')
            file.write_text(config.format(folder=folder, port=port, back=back, user=user))
            with open(pathlib.Path(folder, 'log'), 'wb') as log:
                process = subprocess.Popen([program, *command, file], stdout=log, stderr=log)
            while process.poll() is None:
                with contextlib.suppress(ConnectionRefusedError):
                    socket.create_connection(('127.0.0.1', port)).close()
                    break
            if process.poll() is None:
                break
        else:
            raise AssertionError(pathlib.Path(folder, 'log').read_text())
        try:
            yield port, folder
        finally:
            process.terminate()
            process.wait(programs.TIMEOUT)


def nginx(back=1):
    return peer('nginx', NGINX, ['-c'], back)


def haproxy(back=1):
    return peer('haproxy', HAPROXY, ['-f'], back)


def receipt(body):
    return xml.etree.ElementTree.fromstring(body).find('message').attrib


class Clients(unittest.TestCase):
    def setUp(self):
        self.server = self.enterContext(programs.Server(FOLDER))

    def curl(self, *arguments, body=b''):
        if not shutil.which('curl'):
            self.skipTest('curl is not installed')
        done = subprocess.run(['curl', '-sS', '--noproxy', '*', '-m', str(programs.TIMEOUT),
                               *arguments], input=body, capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (0, b''))
        return done.stdout

    def test_curl(self):
        post = ['--data-binary', '@-', self.server.url]
        for options in (), ('-0',), ('-H', 'Transfer-Encoding: chunked'), ('-H', 'Expect:'):
            for body in b'', b'short', LARGE:
                with self.subTest(options=options, body=len(body)):
                    got = receipt(self.curl(*options, *post, body=body))
                    self.assertEqual((got['size'], got['sha256']),
                                     (str(len(body)), hashlib.sha256(body).hexdigest()))
        for options, status in ((), b'400'), (('-X', 'POST'), b'200'):
            self.assertEqual(self.curl(*options, '-w', '%{http_code}', '-o', '/dev/null',
                                       self.server.url), status)

    def test_curl_100_requests_on_one_connection(self):
        out = self.curl('-d', 'x', '-w', '%{num_connects}', '-o', '/dev/null',
                        f'{self.server.url}/[1-100]')
        self.assertEqual(out, b'1' + b'0' * 99)

    @unittest.skipUnless(requests, 'requests is not installed')
    def test_requests(self):
        with requests.Session() as session:
            session.trust_env = False
            for i in range(100):
                body = LARGE if i == 50 else b'%d' % i
                data = iter([body[:5], body[5:]]) if i % 2 else body
                answer = session.post(f'{self.server.url}/{i}', data=data, timeout=programs.TIMEOUT)
                self.assertEqual(receipt(answer.content)['sha256'],
                                 hashlib.sha256(body).hexdigest())


class Fronts(unittest.TestCase):
    def through(self, front):
        with programs.Server(FOLDER) as server, front(server.port) as (port, _):
            connection = http.client.HTTPConnection('127.0.0.1', port, timeout=programs.TIMEOUT)
            self.addCleanup(connection.close)
            for i in range(100):
                body = LARGE if i == 50 else b'%d' % i
                connection.request('POST', '/x', body, encode_chunked=i % 2 == 1,
                                   headers={'Transfer-Encoding': 'chunked'} if i % 2 else {})
                answer = connection.getresponse()
                self.assertEqual(answer.status, 200)
                self.assertEqual(receipt(answer.read())['sha256'],
                                 hashlib.sha256(body).hexdigest())
            with tempfile.NamedTemporaryFile() as file:
                file.write(LARGE)
                file.flush()
                for mode in (), ('--chunked', '9999'), ('--direct',):
                    done = subprocess.run(
                        [pathlib.Path(FOLDER, 'postwire-send'), f'http://127.0.0.1:{port}/y',
                         '--body', __file__, '--attach', file.name, *mode], capture_output=True,
                        text=True, timeout=programs.TIMEOUT)
                    self.assertEqual(done.returncode, 0, done.stderr)
                    self.assertIn(SHA, done.stdout)

    def test_nginx(self):
        self.through(nginx)

    def test_haproxy(self):
        self.through(haproxy)


class Servers(unittest.TestCase):
    def exchange(self, url):
        for mode in (), ('--chunked', '10'), ('--attach', __file__), \
                ('--attach', __file__, '--direct'):
            done = subprocess.run([pathlib.Path(FOLDER, 'postwire-send'), url, '--body', __file__,
                                   *mode], capture_output=True, text=True, timeout=programs.TIMEOUT)
            self.assertEqual((done.returncode, done.stderr), (0, ''))
            self.assertRegex(done.stdout, r'^200 OK\n.* 10 bytes  sha256 ')

    def test_nginx(self):
        with nginx() as (port, _):
            self.exchange(f'http://127.0.0.1:{port}/own')

    def test_apache(self):
        with peer('apache2', APACHE, ['-DFOREGROUND', '-f']) as (port, folder):
            pathlib.Path(folder, 'own').write_bytes(b'0123456789')
            os.chmod(folder, 0o755)
            self.exchange(f'http://127.0.0.1:{port}/own')


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
