"""Starts the programs, and speaks to them over bare sockets."""
import contextlib
import hashlib
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import unittest
import xml.etree.ElementTree

FOLDER = pathlib.Path(sys.argv[1])  # of the programs
DATA = pathlib.Path(__file__).parents[1] / 'data'
TIMEOUT = 60  # for what happens at once on an idle machine
OK = b'HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok'


def main():
    """Runs the tests of a script: PROGRAM_FOLDER [TEST...]."""
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def needed(name):
    """Where a program of another maker is; a test without it fails."""
    found = shutil.which(name, path=os.environ['PATH'] + ':/usr/sbin:/usr/local/sbin')
    assert found, f'{name} is not installed'
    return found


def receipt(body):
    """What postwire-serve says of a request: its URI, and the element of its message."""
    root = xml.etree.ElementTree.fromstring(body)
    return root.find('uri').text, root.find('message')


def unescaped(text):
    """The bytes that a value in the tables of tests/data stands for."""
    text = re.sub(r'\{((?:[^\\{}]|\\.)*?)\*(\d+)\}', lambda m: m[1] * int(m[2]), text)
    named = dict(zip('rnts0', '\r\n\t \0'))
    return re.sub(r'\\(x(..)|.)', lambda m: chr(int(m[2], 16)) if m[2] else named.get(m[1], m[1]),
                  text).encode('latin-1')


def rows(name):
    """The rows of a table of tests/data, each its line's number and its values by column."""
    columns = []
    for number, line in enumerate((DATA / name).read_text().splitlines(), 1):
        if line.startswith('columns: '):
            columns = line[9:].split(' | ')
        elif columns and line and line[0] != '#':
            values = [value.strip() for value in re.split(r'(?<!\\)\|', line)]
            assert len(values) <= len(columns), f'{name}:{number}'
            yield number, dict(zip(columns, values))


def row_tests(name):
    """Makes a test of each row, which the class's method `check` is given."""
    def add(cls):
        for number, row in rows(name):
            setattr(cls, f'test_line_{number}', lambda self, row=row: self.check(**row))
        return cls
    return add


class TestCase(unittest.TestCase):
    def folder(self):
        return pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def file(self, content, name='file'):
        path = self.folder() / name
        path.write_bytes(content)
        return path

    def server(self, *options, **environment):
        """Stopped, and its exit code checked, after the test; what is saved goes first."""
        server = Server(*options, **environment)
        self.addCleanup(server.__exit__, None)
        return server

    def run_program(self, *command, **options):
        return subprocess.run([FOLDER / command[0], *command[1:]], timeout=TIMEOUT, **{
            'stdout': subprocess.PIPE, 'stderr': subprocess.PIPE, 'text': True,
            'errors': 'surrogateescape', **options})

    def is_receipt(self, answer, body, uri=None):
        got_uri, message = receipt(answer)
        self.assertEqual((got_uri if uri else None, message.get('size'), message.get('sha256')),
                         (uri, str(len(body)), sha256(body)))

    def receives(self, client, body):
        """The next answer is a receipt for this body; its head."""
        status, head, answer = client.answer()
        self.assertEqual(status, 200, answer)
        self.is_receipt(answer, body)
        return head


class Server:
    """postwire-serve on a port that the system chose; stopped, and its exit code checked, at the
    end of the block."""

    def __init__(self, *options, sanitizer='', before=(), **process):
        # What AddressSanitizer keeps of freed memory would pass for growth.
        sanitizer = f"{os.environ.get('ASAN_OPTIONS', '')}:quarantine_size_mb=1:{sanitizer}"
        self.process = subprocess.Popen([*before, FOLDER / 'postwire-serve', *options],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        env={**os.environ, 'ASAN_OPTIONS': sanitizer}, **process)
        line = self.process.stdout.readline()
        self.host, port = re.fullmatch(r'listening on (.+):(\d+)\n', line).groups()
        self.port = int(port)
        self.url = f'http://127.0.0.1:{self.port}'
        self.complaints = ''
        self.killed = False

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if self.killed:
            return
        code = self.stop()
        assert kind or code == 0, f'exit code {code}: {self.complaints}'

    def kill(self):
        """Ends it at once; that is what its exit code then says."""
        self.process.kill()
        self.hear()
        self.killed = True

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.hear()
        return self.process.returncode

    def hear(self):
        # AddressSanitizer says once of each program that switches stacks that it can be mistaken.
        self.complaints += re.sub(r".*WARNING: ASan doesn't fully support makecontext.*\n", '',
                                  self.process.communicate(timeout=TIMEOUT)[1])

    def connect(self):
        return Client(self.port)

    def descriptors(self):
        return len(list(pathlib.Path(f'/proc/{self.process.pid}/fd').iterdir()))

    def resident(self, which='VmRSS'):
        """KiB of memory in use; VmHWM: at most so far."""
        status = pathlib.Path(f'/proc/{self.process.pid}/status').read_text()
        return int(re.search(which + r':\s+(\d+)', status).group(1))


class Listener:
    """Takes one connection after the other, gives each one answer, keeps what was sent last."""

    def __init__(self, answer=OK):
        self.socket = socket.create_server(('127.0.0.1', 0))
        self.authority = '127.0.0.1:%d' % self.socket.getsockname()[1]
        self.url = f'http://{self.authority}/svc?a=b'
        self.answer, self.received = answer, b''
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        while True:
            connection, _ = self.socket.accept()
            with connection, contextlib.suppress(OSError):  # who has seen enough may reset it
                if connection.recv(1, socket.MSG_PEEK) == b'\n':  # no request: the last one
                    return
                self.received = b''
                while not self.complete() and (block := connection.recv(65536)):
                    self.received += block
                if self.answer is not None:
                    connection.sendall(self.answer)
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
        with Client(int(self.authority.split(':')[1])) as last:
            last.send(b'\n')
        self.thread.join(TIMEOUT)
        self.socket.close()

    def head(self):
        return self.received.split(b'\r\n\r\n', 1)[0] + b'\r\n'

    def fields(self):
        return dict(line.split(': ', 1) for line in self.head().decode().split('\r\n')[1:-1])


class Client:
    """A connection that says what it is told, and takes answers apart by their length."""

    def __init__(self, port):
        self.socket = socket.create_connection(('127.0.0.1', port), TIMEOUT)
        self.received = b''

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def end(self):
        """Nothing more will be sent."""
        self.socket.shutdown(socket.SHUT_WR)

    def silent(self, seconds):
        """Whether nothing, not even an end, arrives in this time."""
        return not self.received and not select.select([self.socket], [], [], seconds)[0]

    def until(self, enough):
        """Receives until the test on all received so far gives something."""
        while not (found := enough(self.received)):
            block = self.socket.recv(65536)
            if not block:
                raise EOFError(self.received)
            self.received += block
        return found

    def answer(self):
        """Status, head and body of the next answer; the body chunked or with a length."""
        end = self.until(lambda data: data.find(b'\r\n\r\n') + 1) + 3
        head = self.received[:end].decode()
        self.received = self.received[end:]
        status = int(re.match(r'HTTP/1\.1 (\d{3}) ', head).group(1))
        if status == 100:
            return status, head, b''
        if length := re.search(r'(?i)^content-length: (\d+)\r$', head, re.M):
            return status, head, self.take(int(length.group(1)))
        return status, head, b''.join(self.chunks())

    def take(self, n):
        self.until(lambda data: len(data) >= n)
        taken, self.received = self.received[:n], self.received[n:]
        return taken

    def chunks(self):
        while True:
            end = self.until(lambda data: data.find(b'\r\n') + 1) + 1
            chunk = self.take(int(self.take(end), 16) + 2)[:-2]
            if not chunk:
                return
            yield chunk

    def at_end(self):
        """Whether the server closes without another byte."""
        try:
            return not self.received and not self.socket.recv(1)
        except ConnectionResetError:
            return True


def request(body=b'', *fields, target='/svc', version='1.1', length=True):
    """The bytes of a request."""
    fields = ['Host: h', *fields, *([f'Content-Length: {len(body)}'] if length else [])]
    lines = [f'POST {target} HTTP/{version}', *fields]
    return ''.join(line + '\r\n' for line in lines).encode() + b'\r\n' + body


def in_chunks(body, size, *fields):
    """The bytes of a request in chunked coding."""
    return request(chunked(body, size), *fields, 'Transfer-Encoding: chunked', length=False)


def chunked(body, size):
    pieces = [body[i:i + size] for i in range(0, len(body), size)] + [b'']
    return b''.join(b'%x\r\n%b\r\n' % (len(piece), piece) for piece in pieces)


def multipart(boundary, *parts):
    """A body of (fields, body) parts, each with a length."""
    lines = b''
    for fields, body in parts:
        head = ''.join(f'{field}\r\n' for field in [*fields, f'Content-Length: {len(body)}'])
        lines += b'\r\n--%b\r\n%b\r\n%b' % (boundary.encode(), head.encode(), body)
    return lines + b'\r\n--%b--\r\n' % boundary.encode()
