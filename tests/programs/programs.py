"""Starts the programs, and speaks to them over bare sockets."""
import os
import pathlib
import re
import select
import signal
import socket
import subprocess

TIMEOUT = 60  # for what happens at once on an idle machine


class Server:
    """postwire-serve on a port that the system chose; stopped, and its exit code checked, at the
    end of the block."""

    def __init__(self, folder, *options, sanitizer=''):
        # What AddressSanitizer keeps of freed memory would pass for growth.
        sanitizer = f"{os.environ.get('ASAN_OPTIONS', '')}:quarantine_size_mb=1:{sanitizer}"
        self.process = subprocess.Popen([pathlib.Path(folder) / 'postwire-serve', *options],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        env={**os.environ, 'ASAN_OPTIONS': sanitizer})
        line = self.process.stdout.readline()
        self.port = int(re.fullmatch(r'listening on 0\.0\.0\.0:(\d+)\n', line).group(1))
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
        self.complaints += self.process.communicate(timeout=TIMEOUT)[1]
        self.killed = True

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.complaints += self.process.communicate(timeout=TIMEOUT)[1]
        return self.process.returncode

    def connect(self):
        return Client(self.port)

    def descriptors(self):
        return len(list(pathlib.Path(f'/proc/{self.process.pid}/fd').iterdir()))

    def resident(self):
        """KiB of memory in use."""
        status = pathlib.Path(f'/proc/{self.process.pid}/status').read_text()
        return int(re.search(r'VmRSS:\s+(\d+)', status).group(1))


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
    fields = [*fields, f'Content-Length: {len(body)}'] if length else fields
    lines = [f'POST {target} HTTP/{version}', *fields]
    return ''.join(line + '\r\n' for line in lines).encode() + b'\r\n' + body


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
