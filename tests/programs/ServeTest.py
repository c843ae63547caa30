#!/usr/bin/env python3
"""postwire-serve before clients of all kinds: usual ones, old ones, slow ones, hostile ones."""
import contextlib
import ctypes
import json
import os
import pathlib
import random
import re
import resource
import signal
import string
import struct
import subprocess

import programs
from programs import multipart, receipt, request, sha256

LARGE = random.Random(1).randbytes(3_000_000)
NESTED = multipart('in', (['Content-ID: <deep>'], b'deep \0 --i\r'), (['X-Two: 2'], b''))
PARTS = multipart(
    'out', (['Content-Type: text/xml; charset=utf-8', 'Content-ID: <a@b>'], b'<a/>'),
    (['Content-Location: x/y.bin'], bytes(range(256)) + b'\r\n--ou\r\n--i\r\n'),
    (['Content-Type: multipart/mixed; boundary=in'], NESTED))
TYPE = 'Content-Type: multipart/related; boundary=out; type="text/xml"'
MIXED = 'Content-Type: multipart/mixed; boundary=b'
DATE = (r'\r\nDate: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d [A-Z][a-z]{2} 20\d\d '
        r'\d\d:\d\d:\d\d GMT\r\n')


class Receives(programs.TestCase):
    def test_receipt_lists_parts_and_escapes_what_they_say(self):
        with self.server('--contract').connect() as client:
            client.send(request(PARTS.replace(b'<a@b>', b'<&"\'\xe9\xc3\xa9\x01\xc2\x9b>'), TYPE,
                                target='/<&>"\'\\'))
            _, head, answer = client.answer()
            uri, message = receipt(answer)
        self.assertIn('\r\nConnection: close\r\n', head)  # its end is not safe to tell
        self.assertEqual(uri, '/<&>"\'\\')
        self.assertNotRegex(answer, rb'[^\n -~]')
        leaves = [p for p in message.iter('part') if p.get('size')]
        self.assertEqual([p.get('size') for p in leaves], ['4', '269', '11', '0'])
        self.assertEqual(leaves[0].get('content-id'), '<&"\'\xe9\xe9?\x9b>')
        self.assertEqual(leaves[0].get('sha256'), sha256(b'<a/>'))
        self.assertEqual([len(message), len(message[2])], [3, 2])


class Echoes(programs.TestCase):
    def test_body_comes_back_with_its_fields_but_not_those_of_the_connection(self):
        for options in (), ('--chunked', '7'):
            server = self.server('--contract', '--echo', *options)
            for body in b'', bytes(range(256)) * 4:
                with server.connect() as client:
                    client.send(request(body, 'X-Odd: a\rb', 'Content-Type: text/xml; charset="x"',
                                        'TE: x', 'Expect: x', 'X-Twice: 1', 'x-twice: 2',
                                        'bad name: x', 'Date: x', 'X-Long: ' + 'y' * 5000))
                    status, head, got = client.answer()
                self.assertEqual((status, got), (200, body))
                framing = 'Transfer-Encoding: chunked' if options else f'Content-Length: {len(body)}'
                self.assertRegex(head, DATE)
                self.assertEqual(re.sub(DATE, '\r\n', head).split('\r\n')[1:-2], [
                    'Connection: close', framing, 'X-Odd: a b', 'Content-Type: text/xml; charset="x"',
                    'X-Twice: 1', 'x-twice: 2', 'X-Long: ' + 'y' * 5000])

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
            self.assertEqual(echoed.lower(), TYPE.lower())
            self.assertIn(b'\r\nX-Two: 2\r\n', got)
            with receipts.connect() as client:
                client.send(request(PARTS, TYPE) + request(got, echoed))
                self.assertEqual(client.answer()[2], client.answer()[2])

    def test_boundary_that_occurs_in_a_part_is_not_used_again(self):
        for boundary in 'b', 'b:1':
            data = multipart(boundary, ([], b'x\r\n --%s\r\ny' % boundary.encode()))
            with self.server('--echo').connect() as client:
                client.send(request(data, f'Content-Type: multipart/mixed; boundary="{boundary}"'))
                _, head, got = client.answer()
            used = re.search(r'boundary=(\S+)', head).group(1)
            self.assertRegex(used, '^postwire-[0-9a-f]{32}$')
            self.assertEqual(got.count(b'--' + used.encode()), 2)

    def test_a_file_as_it_was_at_the_start_is_the_answer_in_one_send(self):
        for type_, sent, size in ('', 'text/xml; charset=utf-8', 0), (';a/b', 'a/b', 40_000), \
                (';text/x; charset=y', 'text/x; charset=y', 3_000_000):
            file, traces = self.file(LARGE[:size]), self.folder()
            server = self.server('--answer', f'{file}{type_}', '--trace', traces)
            file.unlink()
            with server.connect() as client:
                client.send(request(b'x') + request(PARTS, TYPE))
                for _ in range(2):
                    status, head, body = client.answer()
                    self.assertEqual((status, body), (200, LARGE[:size]))
                    self.assertIn(f'\r\nContent-Type: {sent}\r\n', head)
            server.stop()
            file, times = sorted(traces.iterdir())
            self.assertEqual((file.name, file.stat().st_mode & 0o777, times.name),
                             ('connection-000001.trace', 0o600, 'connection-000001.trace.times'))
            trace = file.read_bytes()
            self.assertTrue(trace.startswith(b'\n<read['))
            # One call each; what is larger than the buffer goes out in pieces of its own.
            calls = re.findall(rb'\n<write\[\d+\]>\nHTTP/1\.1 200 OK\r\n', trace)
            self.assertEqual(len(calls), 2)
            if size < 60_000:
                self.assertEqual(trace.count(b'\n<write['), 2)


class Ends(programs.TestCase):
    def test_requests_without_an_end_while_others_are_answered_and_memory_stays_flat(self):
        # AddressSanitizer's own stacks grow by 11 MB for each thread as it is used.
        servers = {limit: self.server('--request-timeout', '1', '--max-body', str(limit),
                                      sanitizer='detect_stack_use_after_return=0')
                   for limit in (1_000_000, 2_000_000_000)}
        resident = {}
        with contextlib.ExitStack() as stack:
            others = {limit: stack.enter_context(server.connect())
                      for limit, server in servers.items()}
            endless = []
            for line, row in programs.rows('endless_requests.txt'):
                client = stack.enter_context(servers[int(row['limit'])].connect())
                client.send(programs.unescaped(row['first']))
                endless.append((line, client, programs.unescaped(row['again']), int(row['status'])))
            while endless:
                for case in endless[:]:
                    line, client, again, status = case
                    if client.silent(0):
                        client.send(again)
                        continue
                    endless.remove(case)
                    with self.subTest(line=line):
                        self.assertEqual(client.answer()[0], status)
                        self.assertTrue(client.at_end())
                for limit, other in others.items():
                    other.send(request(b'x'))
                    self.receives(other, b'x')
                    now = servers[limit].resident()
                    self.assertLess(now, resident.setdefault(limit, now) + 16384)  # KiB

    def test_requests_that_a_signal_finds_unfinished_at_the_request_timeout(self):
        server = self.server('--request-timeout', '0.5')
        with server.connect() as client:
            client.send(b'POST')
            self.assertEqual(server.stop(), 0)


def created_in(folder):
    """Gives the names that files get in a folder from now on when they are created, not renamed."""
    libc = ctypes.CDLL(None)
    watch = libc.inotify_init1(os.O_NONBLOCK)
    libc.inotify_add_watch(watch, os.fsencode(folder), 0x100)  # IN_CREATE

    def names():
        events = os.read(watch, 1 << 16)
        os.close(watch)
        while events:
            size = struct.unpack_from('iIII', events)[3]
            yield events[16:16 + size].rstrip(b'\0').decode()
            events = events[16 + size:]
    return names


class Saves(programs.TestCase):
    def test_parts_into_files_of_their_own_within_the_folder_once_they_are_whole(self):
        top = self.folder()
        folder = top / 'in'
        folder.mkdir()
        (folder / '000001-linked').symlink_to(top / 'outside')
        server, created = self.server('--save', folder), created_in(folder)
        names = [{key: programs.unescaped(value).decode('latin-1') for key, value in row.items()}
                 for _, row in programs.rows('saved_names.txt')]
        body = multipart('b', *((['Content-ID: ' + row['id']], row['file'].encode())
                                for row in names))
        with server.connect() as client:
            client.send(request(body, MIXED) +
                        request(b'alone', 'Content-Location: http://h/p/q.xml?'))
            self.assertEqual([client.answer()[0] for _ in range(2)], [200, 200])
        self.assertEqual([path.name for path in top.iterdir()], ['in'])
        expected = [row['file'] for row in names]
        self.assertEqual({path.name: path.read_text() for path in folder.iterdir()
                          if not path.is_symlink()},
                         {f'000001-{name}': name for name in expected} | {'000002-q.xml_': 'alone'})
        self.assertEqual([name.startswith('.postwire-') for name in created()],
                         [True] * (len(expected) + 1))

    def test_many_parts_of_one_name_at_the_cost_of_many_names(self):
        server = self.server('--save', self.folder())

        def nanoseconds():
            return sum(int((task / 'schedstat').read_text().split()[0])
                       for task in pathlib.Path(f'/proc/{server.process.pid}/task').iterdir())
        cost = []
        for count, name in (9, '<{}>'), (1000, '<{}>'), (1000, '<same>'):  # the first makes room
            body = multipart('b', *((['Content-ID: ' + name.format(i)], b'') for i in range(count)))
            before = nanoseconds()
            with server.connect() as client:
                client.send(request(body, MIXED))
                self.assertEqual(client.answer()[0], 200)
            cost.append(nanoseconds() - before)
        self.assertLess(cost[2], 4 * cost[1])

    def test_nothing_when_the_disk_is_full_but_tells_the_client(self):
        folder, traces = self.folder(), self.folder()
        server = self.server('--save', folder, '--trace', traces)
        resource.prlimit(server.process.pid, resource.RLIMIT_FSIZE, (1000, 1000))
        with server.connect() as client:
            client.send(request(multipart('b', ([], b'x'), ([], bytes(1001))), MIXED))
            self.assertEqual(client.answer()[0], 500)
        folder.rmdir()  # which is empty
        with server.connect() as client:
            client.send(request(b'x'))
            self.assertEqual(client.answer()[0], 500)
        folder.mkdir()
        server.stop()
        self.assertEqual(server.complaints.count(str(folder)), 2)
        self.assertEqual(server.complaints.count(f'a trace in {traces} could not be written'), 1)


class Logs(programs.TestCase):
    def exchange(self, server, uri, *fields):
        with server.connect() as client:
            client.send(request(b'x', *fields, target=uri).replace(b'\xc3\xa9', b'\xe9'))
            client.answer()

    def test_each_exchange_in_either_format_into_a_file_that_may_be_renamed(self):
        for format_ in 'combined', 'json':
            log = self.folder() / 'log'
            server = self.server('--access-log', log, '--access-log-format', format_)
            self.exchange(server, '/a', 'User-Agent: "\\\xe9"', 'Referer: r')
            old = log.rename(log.parent / 'old')
            server.process.send_signal(signal.SIGHUP)
            while not log.exists():
                pass
            with server.connect() as client:
                client.send(b'GET / HTTP/1.1\r\n\r\n')
                client.answer()
            server.stop()
            first, second = sorted((old.read_text() + log.read_text()).splitlines(),
                                   key=lambda line: '405' in line)
            if format_ == 'json':
                first, second = json.loads(first), json.loads(second)
                self.assertEqual([first[key] for key in ('peer', 'uri', 'status', 'userAgent')],
                                 ['127.0.0.1', '/a', 200, '"\\\ufffd"'])
                self.assertEqual((second['status'], second['error']), (405, 'method is not POST'))
            else:
                self.assertRegex(first, r'^127\.0\.0\.1 - - \[\d\d/\w{3}/\d{4}:\d\d:\d\d:\d\d \+0000\] '
                                 r'"POST /a HTTP/1\.1" 200 \d{3} "r" "\\x22\\x5C\\xE9\\x22" (\d+ ?){4}$')
                self.assertIn('] "-" 405 ', second)

    def test_a_full_disk_or_a_pipe_that_nobody_reads_holds_up_no_answer(self):
        pipe, end = os.pipe()
        self.addCleanup(os.close, pipe)
        uri = '/' + 'x' * 15_000
        for log, process in ('/dev/full', {}), (f'/proc/self/fd/{end}', {'pass_fds': [end]}):
            server = self.server('--access-log', log, **process)
            with server.connect() as client:
                for _ in range(6):  # more lines than are held
                    client.send(request(b'x', target=uri) * 70)
                    self.assertEqual({client.answer()[0] for _ in range(70)}, {200})
            self.assertEqual(server.stop(), 0)
            self.assertEqual(server.complaints.count("can't write the access log"), 1)
        os.close(end)

    def test_counters_at_a_signal(self):
        server = self.server()
        with server.connect() as idle:
            idle.send(request(b'x'))
            idle.answer()
            self.exchange(server, '/')
            counts = {}
            while [counts.get(name) for name in ('requests_200', 'connections')] != ['2', '1']:
                server.process.send_signal(signal.SIGUSR1)
                lines = iter(server.process.stderr.readline, '')
                counts = dict(line.split() for line in iter(lambda: next(lines), '\n'))
        self.assertEqual((counts['connections_idle'], counts['memory']), ('1', '0'))
        self.assertGreaterEqual(int(counts['p99_microseconds']), int(counts['p50_microseconds']))


class Memory(programs.TestCase):
    def test_echoes_of_many_long_heads_hold_little_more_than_they_are_and_give_it_back(self):
        attributes = '; '.join(f'a{i}={i:05}' for i in range(1000))
        data = request(multipart('b', *[(['Content-Type: x/y; ' + attributes], b'')] * 1000), MIXED)
        server = self.server('--echo', '--memory', str(1 << 30))
        before, clients = server.resident(), []
        for _ in range(16):
            clients.append(self.enterContext(server.connect()))
            clients[-1].send(data)
        for client in clients:
            self.assertEqual(client.answer()[0], 200)
        self.assertLess(server.resident('VmHWM') - before, 2 * 16 * len(data) // 1024)
        for client in clients:
            client.socket.close()
        # AddressSanitizer has an allocator of its own, which can't be asked to give memory back.
        is_asked = b'__asan_init' not in (programs.FOLDER / 'postwire-serve').read_bytes()
        while is_asked and server.resident() > before + 32 * 1024:
            pass


@programs.row_tests('serve_options.txt')
class Options(programs.TestCase):
    def check(self, code, options):
        words = string.Template(options).substitute(file=self.file(b''), port=self.server().port)
        self.assertEqual(self.run_program('postwire-serve', *words.split()).returncode, int(code))


class Program(programs.TestCase):
    def test_says_nothing_of_listening_where_its_workers_cannot_run(self):
        # Of the size that a thread's stack is to have there is none.
        bits = 32 if (programs.FOLDER / 'postwire-serve').read_bytes()[4] == 1 else 64
        size = 3 << 30 if bits == 32 else 1 << 46
        done = self.run_program('postwire-serve', preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_STACK, (size, resource.getrlimit(resource.RLIMIT_STACK)[1])))
        self.assertEqual((done.returncode, done.stdout), (1, ''))

    def test_sends_no_client_what_it_prints_when_its_streams_are_closed(self):
        command = 'sh', '-c', 'exec "$0" <&- 2>&-', programs.FOLDER / 'postwire-serve'
        with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
            process.stdout.readline()
            self.assertEqual({os.readlink(f'/proc/{process.pid}/fd/{n}') for n in (0, 2)},
                             {'/dev/null'})
            process.terminate()


if __name__ == '__main__':
    programs.main()
