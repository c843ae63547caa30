#!/usr/bin/env python3
"""Loads postwire::Server, postwire-serve and peers of theirs over loopback, and writes JSON.

usage: measure.py BUILD_FOLDER OUT.json [--rows NAME,NAME] [--rounds N] [--seconds S] [--add]

Rows: rates, latency, idle, slow, sleeping, compute, upload; those that are not measured stay in the
file as they were. With --add the rounds come to those that are in the file. In every round each server is started in turn, in an order drawn anew, and checked
for right answers, so that whatever else happens on the machine happens to all of them. With two or
more processors the server has the first and the load the second to itself.
"""
import argparse
import contextlib
import json
import os
import pathlib
import platform
import random
import re
import resource
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).parent
BODY = 1024  # of the request and of the answer
CONNECTIONS = 1, 8, 64, 256, 1000, 4000
LATENCY = 64, 256
IDLE = 10_000
SLOW = 1000
ACTIVE = 64
UPLOAD = 1 << 30
TICK = os.sysconf('SC_CLK_TCK')
CHECKED = 0.3  # seconds in which the answers are looked at
PAUSE = 0.1
PROGRAMS = {'postwire': 'echo_postwire', 'nginx': 'nginx', 'beast': 'echo_beast',
            'raw': 'echo_raw', 'poco': 'echo_poco', 'httplib': 'echo_httplib',
            'program': 'postwire-serve'}
MOST = {'poco': 8, 'httplib': 8}  # connections: their threads are 16


def free_port():
    with socket.create_server(('127.0.0.1', 0)) as taken:
        return taken.getsockname()[1]


def on_processor(number):
    return ['taskset', '-c', str(number)] if os.cpu_count() > 1 else []


def field(pid, name):
    return int(re.search(rf'{name}:\s+(\d+) kB',
                         pathlib.Path(f'/proc/{pid}/status').read_text()).group(1))


def processor_time(pid):
    fields = pathlib.Path(f'/proc/{pid}/stat').read_text().rpartition(')')[2].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def listens(port):
    with contextlib.suppress(ConnectionRefusedError):
        socket.create_connection(('127.0.0.1', port)).close()
        return True
    return False


class Bench:
    def __init__(self, build, folder, options):
        self.bin, self.folder, self.options = build / 'bin', folder, options
        self.request = build / 'bench' / 'peers' / 'corpus' / 'small.http'
        self.wire = self.request.read_bytes()

    def servers(self, *names):
        return [name for name in names or PROGRAMS
                if name == 'nginx' and shutil.which(name) or (self.bin / PROGRAMS[name]).exists()]

    def command(self, name, port):
        if name == 'nginx':
            text = (HERE / 'nginx.conf').read_text()
            conf = self.folder / 'nginx.conf'
            conf.write_text(text.replace('PORT', str(port)).replace('BODY', 'x' * BODY))
            return ['nginx', '-c', conf, '-p', self.folder]
        if name == 'program':
            answer = self.folder / 'answer'
            answer.write_text('x' * BODY)
            return [self.bin / PROGRAMS[name], '--port', str(port), '--answer', answer]
        # The raw server does not know what it reads, so it is told how much a request is.
        return [self.bin / PROGRAMS[name], str(port),
                str(len(self.wire) if name == 'raw' else BODY)]

    @contextlib.contextmanager
    def running(self, name, command=None, processors=0):
        """The port of a server, and its process."""
        port = free_port()
        command = command and [str(port) if word == 'PORT' else word for word in command]
        with subprocess.Popen([*on_processor(processors), *(command or self.command(name, port))],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
            try:
                while not listens(port):
                    if process.poll() is not None:
                        raise RuntimeError(f'{name} ended with {process.returncode}')
                    time.sleep(0.01)
                yield port, process
            finally:
                process.kill()

    def load(self, port, connections, seconds, check=False, uri=None):
        """What post.lua reports of one run of wrk."""
        request = self.request
        if uri:
            request = self.folder / 'request'
            request.write_bytes(re.sub(rb'(?<=POST )\S+', uri.encode(), self.wire, count=1))
        wrk = subprocess.Popen(
            [*on_processor(1), 'wrk', '-t1', f'-c{connections}', '-d60s', '-s', HERE / 'post.lua',
             f'http://127.0.0.1:{port}/'], stdout=subprocess.PIPE, text=True,
            env={**os.environ, 'REQUEST_FILE': str(request), **({'CHECK': '1'} if check else {})})
        time.sleep(seconds + connections / 10_000)
        wrk.send_signal(signal.SIGINT)  # it knows whole seconds only
        line = re.search('^RESULT (.*)$', wrk.communicate()[0], re.M).group(1)
        result = {key: int(value) for key, value in (word.split('=') for word in line.split())}
        if result['bad'] or result['errors']:
            raise RuntimeError(f'wrong answers: {line}')
        return result

    def rate(self, port, process, connections, uri=None):
        self.load(port, min(connections, 64), CHECKED, check=True, uri=uri)
        time.sleep(PAUSE)
        before = processor_time(process.pid)
        result = self.load(port, connections, self.options.seconds, uri=uri)
        used = processor_time(process.pid) - before
        time.sleep(PAUSE)
        return {'rate': result['req_per_s'], 'p50_us': result['p50_us'],
                'p99_us': result['p99_us'], 'cpu_us': round(used / max(result['requests'], 1) * 1e6, 2)}

    def offered(self, port, connections, rate, uri='/', seconds=None):
        """A running h2load that offers so many requests a second, and the file of its times."""
        log = tempfile.NamedTemporaryFile(mode='r', dir=self.folder)
        body = self.folder / 'request-body'
        body.write_bytes(self.wire[-BODY:])
        fields = self.wire.partition(b'\r\n\r\n')[0].decode().split('\r\n')[1:]
        heads = [word for line in fields
                 if not re.match('(?i)host|content-length|connection', line)
                 for word in ('-H', line)]
        return subprocess.Popen(
            [*on_processor(1), 'h2load', '--h1', f'-c{connections}', '-t1',
             f'--rps={rate / connections:.3f}', f'-D{seconds or self.options.seconds:.0f}',
             '--warm-up-time=1', '-d', body, *heads, f'--log-file={log.name}',
             f'http://127.0.0.1:{port}{uri}'], stdout=subprocess.DEVNULL), log

    def p99(self, load):
        """Milliseconds, of a load that has been offered; and how many a second were answered."""
        process, log = load
        process.wait()
        lines = [line.split() for line in log.read().splitlines()]
        if not lines or any(line[1] != '200' for line in lines):
            raise RuntimeError(f'{len(lines)} answers, not all of them 200')
        times = [int(line[2]) for line in lines]
        return statistics.quantiles(times, n=100)[98] / 1000

    # The rows. Each yields what it found of one server at a time.

    def rates(self):
        for _ in range(self.options.rounds):
            for name in random.sample(names := self.servers(), len(names)):
                for connections in CONNECTIONS:
                    if connections <= MOST.get(name, connections):
                        with self.running(name) as (port, process):
                            yield {'server': name, 'connections': connections,
                                   **self.rate(port, process, connections)}

    def latency(self):
        for connections in LATENCY:
            with self.running('nginx') as (port, process):
                half = self.rate(port, process, connections)['rate'] / 2
            for _ in range(self.options.rounds):
                names = self.servers('postwire', 'nginx', 'beast', 'program')
                for name in random.sample(names, len(names)):
                    with self.running(name) as (port, process):
                        yield {'server': name, 'connections': connections, 'offered': round(half),
                               'p99_ms': self.p99(self.offered(port, connections, half))}

    def idle(self):
        """Memory of a connection that waits, and what others lose by them."""
        programs = dict.fromkeys(self.servers('postwire', 'program'))
        if self.options.i386.exists():
            programs['postwire, 32 bit'] = [self.options.i386, 'PORT', str(BODY)]
        for name, command in programs.items():
            with self.running(name, command) as (port, process):
                before = field(process.pid, 'VmRSS'), field(process.pid, 'VmSize')
                clients = []
                for _ in range(IDLE):
                    clients.append(socket.create_connection(('127.0.0.1', port)))
                    # Each has been served once, so that its costs are those of a kept connection.
                    clients[-1].sendall(self.wire)
                    clients[-1].recv(4096)
                time.sleep(1)
                after = field(process.pid, 'VmRSS'), field(process.pid, 'VmSize')
                beside = [self.rate(port, process, ACTIVE)['rate'] for _ in range(3)]
                for client in clients:
                    client.close()
                time.sleep(1)
                alone = [self.rate(port, process, ACTIVE)['rate'] for _ in range(3)]
                yield {'server': name, 'resident_kib': round((after[0] - before[0]) / IDLE, 2),
                       'space_kib': round((after[1] - before[1]) / IDLE, 2),
                       'rate': statistics.median(beside), 'alone': statistics.median(alone)}

    def slow(self):
        names = self.servers('postwire', 'program')
        for name in names * self.options.rounds:
            with self.running(name) as (port, process):
                alone = self.rate(port, process, ACTIVE)['rate']
                with subprocess.Popen([*on_processor(1), sys.executable, HERE / 'slow_clients.py',
                                       str(port), str(SLOW), '60']) as clients:
                    try:
                        while len(os.listdir(f'/proc/{process.pid}/fd')) < SLOW:
                            time.sleep(0.1)
                        beside = self.rate(port, process, ACTIVE)['rate']
                    finally:
                        clients.kill()
                yield {'server': name, 'rate': beside, 'alone': alone}

    def sleeping(self):
        """3000 requests a second over 64 connections, a tenth of which sleep; the others' times."""
        for _ in range(self.options.rounds):
            with self.running('postwire') as (port, process):
                sleepers = self.offered(port, 7, 300, '/sleep', self.options.seconds + 1)
                quick = self.p99(self.offered(port, ACTIVE - 7, 2700))
                yield {'quick_p99_ms': quick, 'sleeping_p99_ms': self.p99(sleepers)}

    def compute(self):
        for _ in range(self.options.rounds):
            run = {}
            for key, processors in ('one', '0'), ('two', '0,1'):
                with self.running('postwire', processors=processors) as (port, process):
                    run[key] = self.rate(port, process, ACTIVE, '/compute')['rate']
            yield run

    def upload(self):
        source = self.folder / 'upload'
        with source.open('wb') as file:
            file.truncate(UPLOAD)
        kept = {'postwire': self.folder / 'uploads', 'nginx': self.folder / 'body'}
        servers = (('postwire', [self.bin / 'serve_uploads', 'PORT', kept['postwire']], '/'),
                   ('nginx', None, '/upload'))
        for _ in range(self.options.rounds):
            for name, command, uri in servers:
                kept[name].mkdir(exist_ok=True)
                with self.running(name, command) as (port, _):
                    begin = time.monotonic()
                    subprocess.run([*on_processor(1), 'curl', '-sSf', '-o', '/dev/null', '-X',
                                    'POST', '-H', 'Expect:', '-T', source,
                                    f'http://127.0.0.1:{port}{uri}'], check=True)
                    seconds = time.monotonic() - begin
                if [path.stat().st_size for path in kept[name].iterdir()] != [UPLOAD]:
                    raise RuntimeError(f'{name} has not kept the upload')
                shutil.rmtree(kept[name])
                yield {'server': name, 'seconds': round(seconds, 3)}


ROWS = 'rates', 'latency', 'idle', 'slow', 'sleeping', 'compute', 'upload'


def machine():
    model = re.search('model name\t: (.*)', pathlib.Path('/proc/cpuinfo').read_text())
    return {'processor': model.group(1) if model else platform.machine(),
            'processors': os.cpu_count(), 'kernel': platform.release()}


def busy():
    """The share of the processors that others use, in a second."""
    def times():
        fields = [int(n) for n in pathlib.Path('/proc/stat').read_text().split('\n')[0].split()[1:]]
        return sum(fields), fields[3] + fields[4]
    before = times()
    time.sleep(1)
    after = times()
    return round(1 - (after[1] - before[1]) / (after[0] - before[0]), 2)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('build', type=pathlib.Path)
    parser.add_argument('out', type=pathlib.Path)
    parser.add_argument('--i386', type=pathlib.Path, default=pathlib.Path('none'))
    parser.add_argument('--rows', default=','.join(ROWS))
    parser.add_argument('--rounds', type=int, default=5)
    parser.add_argument('--seconds', type=float, default=2)
    parser.add_argument('--add', action='store_true')
    options = parser.parse_args()
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    data = json.loads(options.out.read_text()) if options.out.exists() else {}
    data['machine'] = machine()
    rows = data.setdefault('rows', {})
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(options.build, pathlib.Path(folder), options)
        for name in options.rows.split(','):
            row = {'busy_before': busy(), 'seconds': options.seconds, 'runs': []}
            if options.add and name in rows:
                row['runs'] = rows[name]['runs']
                row['busy_before'] = max(row['busy_before'], rows[name]['busy_before'])
            for run in getattr(bench, name)():
                row['runs'].append(run)
                print(name, *(f'{key}={value}' for key, value in run.items()), flush=True)
            rows[name] = row
            text = json.dumps(data, indent=1)
            options.out.write_text(re.sub(r'\n {5,}| *\n {4}(?=})', ' ', text) + '\n')


if __name__ == '__main__':
    main()
