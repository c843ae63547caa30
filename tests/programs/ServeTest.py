#!/usr/bin/env python3
"""postwire-serve before clients of all kinds: usual ones, old ones, slow ones, hostile ones.

usage: ServeTest.py PROGRAM_FOLDER [TEST...]
"""
import contextlib
import hashlib
import http.client
import os
import pathlib
import random
import re
import resource
import subprocess
import sys
import tempfile
import threading
import unittest
import xml.etree.ElementTree

import programs
from programs import chunked, multipart, request

FOLDER = sys.argv[1]
LARGE = random.Random(1).randbytes(20_000_000)
NESTED = multipart('in', (['Content-ID: <deep>'], b'deep \0 --i\r'), (['X-Two: 2'], b''))
PARTS = multipart(
    'out', (['Content-Type: text/xml; charset=utf-8', 'Content-ID: <a@b>'], b'<a/>'),
    (['Content-Location: x/y.bin'], bytes(range(256)) + b'\r\n--ou\r\n--i\r\n'),
    (['Content-Type: multipart/mixed; boundary=in'], NESTED))
TYPE = 'Content-Type: multipart/related; boundary=out; type="text/xml"'


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def receipt(body):
    root = xml.etree.ElementTree.fromstring(body)
    return root.find('uri').text, root.find('message')


class Serve(unittest.TestCase):
    def server(self, *options, **environment):
        server = programs.Server(FOLDER, *options, **environment)
        self.addCleanup(server.__exit__, None)
        return server

    def receives(self, client, body, uri='/svc'):
        """The next answer is a receipt for this body."""
        status, head, answer = client.answer()
        self.assertEqual(status, 200, answer)
        got_uri, message = receipt(answer)
        self.assertEqual((got_uri, message.get('size'), message.get('sha256')),
                         (uri, str(len(body)), sha256(body)))
        return head


class Receives(Serve):
    def test_bodies_however_they_are_framed(self):
        server = self.server()
        for body in b'', b'x', b'a\0b\r\n\r\n', LARGE:
            for size in 0, 1000, 1 << 20:
                data = request(body) if size == 0 else request(
                    chunked(body, size), 'Transfer-Encoding: chunked', length=False)
                with self.subTest(body=len(body), size=size), server.connect() as client:
                    client.send(data)
                    self.receives(client, body)

    def test_http_client_with_20_mb_and_100_requests_on_one_connection(self):
        server = self.server()
        connection = http.client.HTTPConnection('127.0.0.1', server.port, timeout=programs.TIMEOUT)
        self.addCleanup(connection.close)
        for i in range(100):
            body = LARGE if i == 50 else b'%d' % i
            connection.request('POST', f'/{i}?a&b', body, encode_chunked=i % 2 == 1,
                               headers={'Transfer-Encoding': 'chunked'} if i % 2 else {})
            answer = connection.getresponse()
            uri, message = receipt(answer.read())
            self.assertEqual((answer.status, uri, message.get('sha256')),
                             (200, f'/{i}?a&b', sha256(body)))
        self.assertIsNotNone(connection.sock)

    def test_requests_sent_without_waiting_are_answered_in_order(self):
        bodies = [b'%d' % i * i for i in range(300)]
        with self.server().connect() as client:
            sender = threading.Thread(target=client.send,
                                      args=(b'\r\n\n'.join(map(request, bodies)),))
            sender.start()
            for body in bodies:
                self.receives(client, body)
            sender.join()

    def test_connection_goes_on_or_ends_as_version_and_field_say(self):
        server = self.server()
        for version, fields, goes_on, named in (
                ('1.1', (), True, None), ('1.1', ('Connection: close',), False, 'close'),
                ('1.1', ('Connection: x, CLOSE ',), False, 'close'),
                ('1.0', (), False, 'close'), ('1.0', ('Connection: close',), False, 'close'),
                ('1.0', ('Connection: keep-alive',), True, 'keep-alive'),
                ('1.0', ('Connection: Upgrade, Keep-Alive',), True, 'keep-alive')):
            with self.subTest(version=version, fields=fields), server.connect() as client:
                client.send(request(b'x', *fields, version=version))
                head = self.receives(client, b'x')
                found = re.search(r'^Connection: (.*)\r$', head, re.M)
                self.assertEqual(found and found.group(1), named)
                if goes_on:
                    client.send(request(b'y'))
                    self.receives(client, b'y')
                else:
                    self.assertTrue(client.at_end())

    def test_request_without_framing_has_no_body(self):
        with self.server().connect() as client:
            client.send(request(length=False) + request(b'next'))
            self.receives(client, b'')
            self.receives(client, b'next')

    def test_client_that_waits_for_100_is_told_to_go_on(self):
        server = self.server('--max-body', '100')
        for version, size, told in ('1.1', 4, 100), ('1.0', 4, None), ('1.1', 0, 200), \
                ('1.1', 101, 413):
            with self.subTest(version=version, size=size), server.connect() as client:
                head = request(bytes(size), 'Expect: 100-Continue', version=version)
                client.send(head[:len(head) - size])
                if told is None:
                    self.assertTrue(client.silent(0.2))
                else:
                    self.assertEqual(client.answer()[0], told)
                if told in (None, 100):
                    client.send(bytes(size))
                    self.receives(client, bytes(size))

    def test_half_closed_connection_is_answered_and_an_aborted_upload_is_forgotten(self):
        server = self.server()
        with server.connect() as client:
            client.send(request(b'last'))
            client.end()
            self.receives(client, b'last')
            self.assertTrue(client.at_end())
        for cut in 30, 70, 5000:
            with server.connect() as client:
                client.send(request(bytes(100_000))[:cut])
        with server.connect() as client:
            client.send(request(b'x'))
            self.receives(client, b'x')

    def test_receipt_lists_parts_and_escapes_what_they_say(self):
        with self.server().connect() as client:
            client.send(request(PARTS.replace(b'<a@b>', b'<&"\'\xe9\x01>'), TYPE, target='/<&>'))
            uri, message = receipt(client.answer()[2])
        self.assertEqual(uri, '/<&>')
        leaves = [p for p in message.iter('part') if p.get('size')]
        self.assertEqual([p.get('size') for p in leaves], ['4', '269', '11', '0'])
        self.assertEqual(leaves[0].get('content-id'), '<&"\'\xe9?>')
        self.assertEqual(leaves[0].get('sha256'), sha256(b'<a/>'))
        self.assertEqual([len(message), len(message[2])], [3, 2])


class Echoes(Serve):
    def test_body_comes_back_with_its_fields_but_not_those_of_the_connection(self):
        for options in (), ('--chunked', '7'):
            server = self.server('--contract', '--echo', *options)
            for body in b'', bytes(range(256)) * 4:
                with server.connect() as client:
                    client.send(request(body, 'X-Odd: a\rb', 'Content-Type: text/xml; charset="x"',
                                        'TE: x', 'Expect: x', 'X-Twice: 1', 'x-twice: 2',
                                        'bad name: x', 'Host: h', 'X-Long: ' + 'y' * 5000))
                    status, head, got = client.answer()
                self.assertEqual((status, got), (200, body))
                fields = dict(line.split(': ', 1) for line in head.split('\r\n')[1:-2])
                framing = {'Transfer-Encoding': 'chunked'} if options else \
                    {'Content-Length': str(len(body))}
                self.assertEqual(fields, {'x-odd': 'a b', 'content-type': 'text/xml; charset=x',
                                          'x-twice': '2', 'x-long': 'y' * 5000, **framing})

    def test_parts_come_back_in_their_order_and_nesting(self):
        receipts = self.server()
        for options, version in ((), '1.1'), (('--chunked', '50'), '1.1'), \
                (('--chunked', '50'), '1.0'):
            with self.server('--echo', *options).connect() as client:
                client.send(request(PARTS, TYPE, version=version))
                status, head, got = client.answer()
            self.assertEqual(status, 200)
            self.assertEqual('Transfer-Encoding' in head, bool(options) and version == '1.1')
            echoed = re.search(r'^Content-Type: .*(?=\r$)', head, re.M).group()
            self.assertEqual(echoed, 'Content-Type: multipart/related; boundary=out; type=text/xml')
            self.assertIn(b'\r\nx-two: 2\r\n', got)
            with receipts.connect() as client:
                client.send(request(PARTS, TYPE) + request(got, echoed))
                self.assertEqual(client.answer()[2], client.answer()[2])

    def test_boundary_that_occurs_in_a_part_is_not_used_again(self):
        for boundary in 'b', 'b:1':
            data = multipart(boundary, ([], b'x\r\n--%s\r\ny' % boundary.encode()))
            with self.server('--echo').connect() as client:
                client.send(request(data, f'Content-Type: multipart/mixed; boundary="{boundary}"'))
                _, head, got = client.answer()
            used = re.search(r'boundary=(\S+)', head).group(1)
            self.assertRegex(used, '^postwire-[0-9a-f]{32}$')
            self.assertEqual(got.count(b'--' + used.encode()), 2)


class AnswersWithAFile(Serve):
    def test_as_it_was_at_the_start_in_one_send(self):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder, 'answer')
            for type_, sent, size in ('', 'text/xml; charset=utf-8', 0), (';a/b', 'a/b', 40_000), \
                    (';text/x; charset=y', 'text/x; charset=y', 3_000_000):
                file.write_bytes(LARGE[:size])
                server = self.server('--answer', f'{file}{type_}', '--trace', folder)
                file.unlink()
                with server.connect() as client:
                    client.send(request(b'x') + request(PARTS, TYPE))
                    for _ in range(2):
                        status, head, body = client.answer()
                        self.assertEqual((status, body), (200, LARGE[:size]))
                        self.assertIn(f'\r\nContent-Type: {sent}\r\n', head)
                server.stop()
                trace = next(pathlib.Path(folder).glob('*.trace'))
                # One call each; what is larger than the buffer goes out in pieces of its own.
                calls = re.findall(rb'\n<write\[\d+\]>\nHTTP/1\.1 200 OK\r\n', trace.read_bytes())
                self.assertEqual(len(calls), 2)
                if size < 60_000:
                    self.assertEqual(trace.read_bytes().count(b'\n<write['), 2)
                trace.unlink()


class Refuses(Serve):
    CASES = (
        (b'GET / HTTP/1.1\r\n\r\n', 405, 'method is not POST'),
        (b'POST / HTTP/2.0\r\n\r\n', 505, 'HTTP version must be 1.1'),
        (b'POST /\r\n\r\n', 400, 'bad 1st line of request'),
        (b'POST / HTTP/1.1\r\nContent-Length:\r\n\r\n', 400, 'malformed Content-Length header'),
        (b'POST / HTTP/1.1\r\nContent-Length: x\r\n\r\n', 400, 'bad content-length'),
        (b'POST / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n', 400, 'bad transfer-encoding'),
        (b'POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n', 400, None),
        (b'POST / HTTP/1.1\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n',
         400, 'QOR_ASSERT(!m_bChunking[m_idepth]);'),
        (b'POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n-1\r\n', 400, None),
        (b'POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n99999999\r\n', 400, None),
        (b'POST / HTTP/1.1\r\nContent-Type: multipart/x\r\n\r\n', 400,
         'multipart Content-Type header has no boundary attribute'),
        (b'POST / HTTP/1.1\r\nContent-Type: multipart/x; boundary=b\r\n\r\n--b\r\n\r\nx', 400,
         'a part has neither Content-Length nor chunked coding'),
        (b'POST / HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n', 413, None),
        (b'POST / HTTP/1.1\r\nContent-Length: 1000001\r\n\r\n', 413, None),
        (b'POST / HTTP/1.1\r\nX: ' + b'x' * 20_000 + b'\r\n\r\n', 400, None),
        (b'POST / HTTP/1.1\r\n' + b''.join(b'X%d: x\r\n' % i for i in range(101)) + b'\r\n', 431,
         'too many header fields'),
        (request(multipart('b', *[([], b'')] * 1001), 'Content-Type: multipart/x; boundary=b'),
         413, 'too many parts'),
        (request(multipart('b', ([], bytes(600_000)), ([], bytes(600_000))),
                 'Content-Type: multipart/x; boundary=b'), 413, None),
        (request(chunked(bytes(1_000_001), 100_000), 'Transfer-Encoding: chunked', length=False),
         413, None),
        (request(b'no part\r\n' * 200_000, 'Content-Type: multipart/x; boundary=b'), 413, None),
    )

    # What the policy makes of the same, and of what the contract takes.
    HARDENED = {
        4: (400, 'Content-Length is not a number'),
        5: (501, 'transfer coding other than chunked'),
        6: (400, 'Content-Length is not a number'),
        7: (400, 'both Content-Length and Transfer-Encoding'),
        8: (400, 'malformed chunk size'),
        9: (413, 'chunk size too large'),
        11: (200, None),  # no body: nothing of it is multipart
        12: (413, 'body too large'),
        13: (413, 'body too large'),
        14: (431, 'header line too long'),
        15: (431, 'too many header lines'),
        17: (413, 'body too large'),
        18: (413, 'body too large'),
        19: (413, 'body too large'),
    }
    MORE = (
        (b'POST /' + b'x' * 20_000 + b' HTTP/1.1\r\n\r\n', 414, 'start line too long'),
        (b'POST / HTTP/1.1\r\nA : 1\r\n\r\n', 400,
         'white space before the colon of a header line'),
        (b'POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab', 400,
         'Content-Length is repeated with another value'),
        (request(b'--b\r\n\r\na', 'Content-Type: multipart/x; boundary=b'), 400,
         'the input stream did not have an expected MIME boundary'),
        (request(b'--b--\r\n' + bytes(70_000), 'Content-Type: multipart/x; boundary=b'), 413,
         'too much behind the end of the body'),
    )

    def test_under_its_policy_with_the_answer_of_each_error(self):
        cases = [(data, *self.HARDENED.get(i, rest)) for i, (data, *rest) in enumerate(self.CASES)]
        self.refuses(self.server('--max-body', '1000000'), [*cases, *self.MORE])

    def test_by_the_contract_with_one_answer_and_then_the_end(self):
        self.refuses(self.server('--max-body', '1000000', '--contract'), self.CASES)

    def refuses(self, server, cases):
        for data, status, text in cases:
            with self.subTest(data=data[:60]), server.connect() as client:
                try:
                    client.send(data + request(b'never looked at'))
                except ConnectionError:
                    pass  # it was refused before all was sent
                got, head, body = client.answer()
                self.assertEqual(got, status)
                if status == 200:
                    continue
                self.assertIn('\r\nConnection: close\r\n', head)
                if text:
                    self.assertEqual(body.decode(), text + '\n')
                self.assertTrue(client.at_end())

    def test_nothing_at_the_limit(self):
        server = self.server('--max-body', '1000000')
        body = LARGE[:1_000_000]
        for data in request(body), request(chunked(body, 64), 'Transfer-Encoding: chunked',
                                           length=False):
            with server.connect() as client:
                client.send(data)
                self.receives(client, body)

    def test_input_cut_short(self):
        server = self.server()
        for data in b'POST', b'POST / HTTP/1.1\r\nX: y', request(b'12345')[:-1], \
                request(chunked(b'12345', 2)[:-2], 'Transfer-Encoding: chunked', length=False), \
                request(PARTS[:-4], TYPE):
            with self.subTest(data=data), server.connect() as client:
                client.send(data)
                client.end()
                self.assertEqual(client.answer()[0], 400)
                self.assertTrue(client.at_end())


class Ends(Serve):
    # The server's --max-body, what a client sends first, what again and again, how it is cut off.
    CHUNKED = 'Transfer-Encoding: chunked'
    ENDLESS = (
        (1_000_000, b'POST / HTTP/1.1\r\n', b'X', 408),
        (1_000_000, b'POST / HTTP/1.1\r\n', b'X: y\r\n' * 20, 431),
        (1_000_000, b'POST / HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n', b'x', 408),
        (1_000_000, b'POST / HTTP/1.1\r\nContent-Length: 2000000000\r\n\r\n', b'x', 413),
        (2_000_000_000, b'POST / HTTP/1.1\r\nContent-Length: 2000000000\r\n\r\n', b'x', 408),
        (2_000_000_000, request(b'', CHUNKED, length=False), b'1\r\nx\r\n', 408),
        (1_000_000, request(b'', CHUNKED, length=False), b'4000\r\n%b\r\n' % bytes(0x4000), 413),
        (1_000_000, request(b'', CHUNKED, length=False) + b'1', b';' * 1000, 400),
        (2_000_000_000, request(b'', CHUNKED, TYPE, length=False),
         b'4000\r\n%b\r\n' % bytes(0x4000), 408),  # in front of the first part
    )

    def test_requests_without_an_end_while_others_are_answered_and_memory_stays_flat(self):
        # AddressSanitizer's own stacks grow by 11 MB for each thread as it is used.
        servers = {limit: self.server('--request-timeout', '1', '--max-body', str(limit),
                                      sanitizer='detect_stack_use_after_return=0')
                   for limit in (1_000_000, 2_000_000_000)}
        resident = {}
        with contextlib.ExitStack() as stack:
            others = {limit: stack.enter_context(server.connect())
                      for limit, server in servers.items()}
            endless = [(stack.enter_context(servers[limit].connect()), *case)
                       for limit, *case in self.ENDLESS]
            for client, first, _, _ in endless:
                client.send(first)
            while endless:
                for case in endless[:]:
                    client, first, again, status = case
                    if client.silent(0):
                        client.send(again)
                        continue
                    endless.remove(case)
                    with self.subTest(first=first, again=again[:9]):
                        self.assertEqual(client.answer()[0], status)
                        self.assertTrue(client.at_end())
                for limit, other in others.items():
                    other.send(request(b'x'))
                    self.receives(other, b'x')
                    now = servers[limit].resident()
                    self.assertLess(now, resident.setdefault(limit, now) + 16384)  # KiB

    def test_idle_connections_and_clients_that_do_not_read(self):
        server = self.server('--echo', '--workers', '1', '--idle-timeout', '0.5',
                             '--request-timeout', '0.5')
        with server.connect() as idle, server.connect() as deaf:
            self.assertTrue(idle.at_end())
            self.assertRaises(OSError, deaf.send, request(LARGE[:8_000_000]) * 20)
            with server.connect() as client:
                client.send(request(b'x'))
                self.assertEqual(client.answer()[2], b'x')

    def test_connections_stay_that_arrive_while_workers_are_started(self):
        for _ in range(4):
            server = self.server('--workers', '16')
            with contextlib.ExitStack() as stack:
                clients = [stack.enter_context(server.connect()) for _ in range(16)]
                for _ in range(2):
                    for client in clients:
                        client.send(request(b'x'))
                    for client in clients:
                        self.receives(client, b'x')

    def test_idle_connections_when_others_wait(self):
        server = self.server('--workers', '1')
        with server.connect() as first, server.connect() as second:
            for client in first, second:
                client.send(request(b'x'))
            # Told so where the second was accepted before the first answer, else once it is.
            self.receives(first, b'x')
            self.assertTrue(first.at_end())
            self.receives(second, b'x')
            with server.connect() as third:
                third.send(request(b'x'))
                self.receives(third, b'x')
            self.assertTrue(second.at_end())

    def test_everything_by_a_signal_once_requests_under_way_are_finished(self):
        server = self.server()
        data = request(b'12345')
        with server.connect() as idle, server.connect() as busy, server.connect() as served:
            served.send(data)
            self.receives(served, b'12345')
            busy.send(data[:-1])
            served.send(data[:10])
            server.process.terminate()
            self.assertTrue(idle.at_end())
            served.send(data[10:])
            busy.send(data[-1:])
            for client in served, busy:
                self.assertIn('Connection: close', self.receives(client, b'12345'))
                self.assertTrue(client.at_end())
        self.assertEqual(server.stop(), 0)

    def test_requests_that_a_signal_finds_unfinished_at_the_request_timeout(self):
        server = self.server('--request-timeout', '0.5')
        with server.connect() as client:
            client.send(b'POST')
            self.assertEqual(server.stop(), 0)


class Saves(Serve):
    def test_parts_into_files_of_their_own_within_the_folder(self):
        with tempfile.TemporaryDirectory() as top:
            folder = pathlib.Path(top, 'in')
            folder.mkdir()
            (folder / '000001-linked').symlink_to(pathlib.Path(top, 'outside'))
            server = self.server('--save', folder)
            names = ['<a@b.c>', '../../up', '<a@b.c>', '/etc/passwd', '.', '..', '-rf',
                     'a\x01b c;d', 'linked', 'x' * 300 + '.xml', '']
            body = multipart('b', *((['Content-ID: ' + name], name.encode()) for name in names))
            with server.connect() as client:
                client.send(request(body, 'Content-Type: multipart/mixed; boundary=b'))
                self.assertEqual(client.answer()[0], 200)
                client.send(request(b'alone', 'Content-Location: http://h/p/q.xml?'))
                self.assertEqual(client.answer()[0], 200)
            self.assertEqual(server.stop(), 0)
            saved = {path.name: path.read_bytes() for path in folder.iterdir()
                     if not path.is_symlink()}
            self.assertEqual(sorted(os.listdir(top)), ['in'])
            self.assertEqual(saved, {f'000001-{name}': body.encode() for name, body in (
                ('a@b.c', '<a@b.c>'), ('up', '../../up'), ('a@b-2.c', '<a@b.c>'),
                ('passwd', '/etc/passwd'), ('part-5', '.'), ('part-6', '..'), ('_rf', '-rf'),
                ('a_b_c', 'a\x01b c;d'), ('linked-2', 'linked'), ('x' * 100, names[9]),
                ('part-11', ''))} | {'000002-q.xml_': b'alone'})

    def test_nothing_when_the_disk_is_full_but_tells_the_client(self):
        with tempfile.TemporaryDirectory() as folder:
            server = self.server('--save', folder)
            resource.prlimit(server.process.pid, resource.RLIMIT_FSIZE, (1000, 1000))
            for body in bytes(1001), b'x':
                with server.connect() as client:
                    client.send(request(body))
                    self.assertEqual(client.answer()[0], 500)
                if body != b'x':
                    os.rmdir(folder)  # which is empty
            os.mkdir(folder)
            server.stop()
            self.assertEqual(server.complaints.count(folder), 2)

    def test_a_trace_of_each_connection(self):
        with tempfile.TemporaryDirectory() as folder:
            server = self.server('--trace', folder)
            for body in b'one', b'two':
                with server.connect() as client:
                    client.send(request(body))
                    self.receives(client, body)
            self.assertEqual(server.stop(), 0)
            for name, body in ('connection-000001.trace', b'one'), ('connection-000002.trace',
                                                                    b'two'):
                path = pathlib.Path(folder, name)
                data = request(body)
                self.assertTrue(path.read_bytes().startswith(b'\n<read[%d]>\n%b\n<write[' %
                                                             (len(data), data)))
                self.assertEqual(path.stat().st_mode & 0o777, 0o600)


class Program(unittest.TestCase):
    def test_exit_codes(self):
        program = pathlib.Path(FOLDER) / 'postwire-serve'
        with programs.Server(FOLDER) as server, tempfile.NamedTemporaryFile() as file:
            for options, code in ((['--help'], 0), (['--version'], 0), (['--port', '65536'], 2),
                                  (['--idle-timeout', 'nan'], 2), (['--request-timeout', 'nan'], 2),
                                  (['--chunked', '10'], 2), (['--nonsense'], 2), (['x'], 2),
                                  (['--save', file.name], 3), (['--answer', '/none'], 3),
                                  (['--answer', file.name + ';"x"'], 2),
                                  (['--answer', file.name, '--echo'], 2), (['--trace', file.name], 3),
                                  (['--port', str(server.port + 0), '--workers', '1'], 4)):
                with self.subTest(options=options):
                    self.assertEqual(subprocess.run([program, *options], timeout=programs.TIMEOUT,
                                                    capture_output=True).returncode, code)

    def test_sends_no_client_what_it_prints_when_its_streams_are_closed(self):
        with subprocess.Popen(['sh', '-c', 'exec "$0" <&- 2>&-', f'{FOLDER}/postwire-serve'],
                              stdout=subprocess.PIPE) as process:
            process.stdout.readline()
            self.assertEqual({os.readlink(f'/proc/{process.pid}/fd/{n}') for n in (0, 2)},
                             {'/dev/null'})
            process.terminate()

    def test_runs_on_without_growing(self):
        with programs.Server(FOLDER, '--workers', '4') as server:
            def exchange(n):
                for _ in range(n):
                    with server.connect() as client:
                        client.send(request(b'x') + request(PARTS, TYPE) + b'GET /\r\n')
                        self.assertEqual([client.answer()[0] for _ in range(3)], [200, 200, 405])
                        self.assertTrue(client.at_end())
            exchange(200)
            descriptors, resident = server.descriptors(), server.resident()
            exchange(300)
            # Each worker may still have to close the last connection it served.
            self.assertLessEqual(server.descriptors(), descriptors + 4)
            self.assertLess(server.resident(), resident + 4096)


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
