#!/usr/bin/env python3
"""Two servers behind a proxy, under load, one of them killed and started again: what was
acknowledged is intact. The proxies' configurations are those that docs/scale-out.md shows."""
import collections
import concurrent.futures
import contextlib
import http.client
import random
import re
import socket
import sys
import threading

import peers
import programs
from programs import multipart, sha256

CLIENTS = 8
# How many exchanges are to be acknowledged before something happens.
SOME = 300


class Load:
    """Clients that post until they are told to stop, each over a connection of its own, and try
    again what was not acknowledged."""

    def __init__(self, port):
        self.port = port
        self.changed = threading.Condition()
        self.served_by = collections.Counter()
        self.acknowledged = []  # digests of parts as sent
        self.failures = 0
        self.wrong = []
        self.stopping = False
        self.clients = [threading.Thread(target=self.work, args=(seed,)) for seed in range(CLIENTS)]

    def __enter__(self):
        for client in self.clients:
            client.start()
        return self

    def __exit__(self, *_):
        self.stopping = True
        for client in self.clients:
            client.join()

    def work(self, seed):
        rng = random.Random(seed)
        connection = http.client.HTTPConnection('127.0.0.1', self.port, timeout=programs.TIMEOUT)
        while not self.stopping:
            parts = [rng.randbytes(rng.randrange(1, 40_000)) for _ in range(rng.randrange(1, 4))]
            while not self.exchange(connection, parts, rng.random() < 0.3) and not self.stopping:
                connection.close()
        connection.close()

    def exchange(self, connection, parts, in_chunks):
        body = multipart('postwire-load', *(([], part) for part in parts))
        fields = {'Content-Type': 'multipart/mixed; boundary=postwire-load'}
        try:
            connection.request('POST', '/load', iter([body[:9999], body[9999:]]) if in_chunks
                               else body, fields, encode_chunked=in_chunks)
            answer = connection.getresponse()
            text = answer.read()
        except (OSError, http.client.HTTPException):
            answer = None
        with self.changed:
            if not answer or answer.status != 200:
                self.failures += 1
                return False
            digests = [sha256(part) for part in parts]
            self.acknowledged += digests
            self.served_by[answer.headers['X-Served-By']] += 1
            if [part.get('sha256') for part in programs.receipt(text)[1]] != digests:
                self.wrong.append(text)
            self.changed.notify_all()
            return True

    def until(self, enough):
        """Waits until the servers have, since now, acknowledged enough."""
        with self.changed:
            before = collections.Counter(self.served_by)
            if not self.changed.wait_for(lambda: enough(self.served_by - before), programs.TIMEOUT):
                raise AssertionError(f'{self.served_by - before}, {self.failures} failures')


class ScaleOut(programs.TestCase):
    def run_behind(self, proxy):
        saved = self.folder()

        def start(name, port=0):
            return stack.enter_context(programs.Server(
                '--port', str(port), '--idle-timeout', '90', '--save', saved / name))
        with contextlib.ExitStack() as stack:
            first, second = start('first'), start('second')
            port, _ = stack.enter_context(proxy(first.port, second.port))
            with Load(port) as load:
                load.until(lambda served: len(served) == 2 and served.total() >= SOME)
                first.kill()
                load.until(lambda served: served.total() >= SOME)
                again = start('again', first.port)
                load.until(lambda served: len(served) == 2 and served.total() >= SOME)
            self.assertEqual(load.wrong, [])
            # Each of the clients had at most a few exchanges under way.
            self.assertLess(load.failures, 20 * CLIENTS)
            self.assertEqual((second.stop(), again.stop()), (0, 0))
            self.assertEqual(second.complaints + again.complaints, '')
        kept = {sha256(file.read_bytes()) for file in saved.glob('*/*')}
        self.assertEqual([digest for digest in load.acknowledged if digest not in kept], [])

    def test_haproxy(self):
        self.run_behind(peers.haproxy)

    def test_nginx(self):
        self.run_behind(peers.nginx)


# Has a program listen on a socket that is there already, as systemd does.
HAND_OVER = ('import os, sys; os.dup2(int(sys.argv[1]), 3); '
             'os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="1"); '
             'os.execv(sys.argv[2], sys.argv[2:])')


class Restart(programs.TestCase):
    def test_ten_times_under_load_loses_no_request_and_answers_none_twice(self):
        listener = self.enterContext(socket.create_server(('127.0.0.1', 0), backlog=4096))
        log, answered, stopping = self.folder() / 'log', [], threading.Event()

        def start():
            return programs.Server('--access-log', log, pass_fds=[listener.fileno()], before=(
                sys.executable, '-c', HAND_OVER, str(listener.fileno())))

        def ask(name):
            client, number = programs.Client(port), 0
            while not stopping.is_set():
                uri, number = f'/{name}/{number}', number + 1
                client.send(programs.request(b'x', target=uri))
                status, head, body = client.answer()
                answered.append((uri, status, programs.receipt(body)[0]))
                if '\r\nConnection: close\r\n' in head:
                    client.socket.close()
                    client = programs.Client(port)
            client.socket.close()
        server, (host, port) = start(), listener.getsockname()
        self.assertEqual((server.host, server.port), (host, port))
        with concurrent.futures.ThreadPoolExecutor(64) as threads:
            clients = [threads.submit(ask, name) for name in range(64)]
            for _ in range(10):
                before, asked = server, len(answered)
                server = start()
                self.assertEqual((before.stop(), before.complaints), (0, ''))
                while len(answered) < asked + 200 and not any(c.done() for c in clients):
                    pass
            stopping.set()
            for client in clients:
                client.result()
        self.assertEqual(server.stop(), 0)
        self.assertGreater(len(answered), 2000)
        self.assertEqual([a for a in answered if a != (a[0], 200, a[0])], [])
        served = re.findall(r'"POST (\S+) ', log.read_text())
        self.assertEqual(sorted(served), sorted(uri for uri, _, _ in answered))


if __name__ == '__main__':
    programs.main()
