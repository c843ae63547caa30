#!/usr/bin/env python3
"""Loads postwire-serve and its peers over loopback and writes what it measured as JSON.

usage: measure.py BUILD_FOLDER OUT.json [--rounds N] [--seconds S] [--servers NAME,NAME] [--realtime]

In every round each server is started in turn, in an order drawn anew, checked for right answers and
loaded with wrk over 1 and then 8 connections that are kept open; so whatever else happens on the
machine happens to all of them. With two or more processors the server has the first and wrk the
second to itself. Where strace may be used, the system calls of an exchange are counted as well.

--realtime (root) is for a machine that has other work to do: server and wrk go before it, in runs
that end before the system would interrupt them in its favour, which it does after 0.95 s.
"""
import argparse
import collections
import contextlib
import json
import os
import pathlib
import platform
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

HERE = pathlib.Path(__file__).parent
BODY = 1024  # of the request and of the answer
CONNECTIONS = 1, 8
TICK = os.sysconf('SC_CLK_TCK')
TRACED = 200
CHECKED = 0.5  # seconds in which the answers are looked at
PAUSE = 0.2
NAMES = {'postwire': 'postwire-serve', 'beast': 'echo_beast', 'poco': 'echo_poco',
         'httplib': 'echo_httplib', 'raw': 'echo_raw'}


def free_port():
    with socket.create_server(('127.0.0.1', 0)) as taken:
        return taken.getsockname()[1]


def pinned(processor):
    return ['taskset', '-c', str(processor)] if os.cpu_count() > 1 else []


class Bench:
    def __init__(self, build, folder):
        self.bin = build / 'bin'
        self.request = build / 'bench' / 'peers' / 'corpus' / 'small.http'
        self.answer = pathlib.Path(folder, 'answer')
        self.answer.write_bytes(b'x' * BODY)
        self.environment = {**os.environ, 'REQUEST_FILE': str(self.request)}

    def command(self, name, port):
        program = self.bin / NAMES[name]
        if name == 'postwire':
            return [program, '--port', str(port), '--answer', self.answer]
        # The raw server does not know what it reads, so it is told how much a request is.
        return [program, str(port), str(self.request.stat().st_size if name == 'raw' else BODY)]

    @contextlib.contextmanager
    def running(self, name, *before):
        """The port of a server, and its process."""
        port = free_port()
        with subprocess.Popen([*pinned(0), *before, *self.command(name, port)],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
            try:
                while True:
                    if process.poll() is not None:
                        raise RuntimeError(f'{name} ended with {process.returncode}')
                    with contextlib.suppress(ConnectionRefusedError):
                        socket.create_connection(('127.0.0.1', port)).close()
                        break
                    time.sleep(0.01)
                yield port, process
            finally:
                process.terminate()

    def load(self, port, connections, seconds, check=False):
        """What post.lua reports of one run of wrk."""
        wrk = subprocess.Popen(
            [*pinned(1), 'wrk', '-t1', f'-c{connections}', '-d60s', '-s', HERE / 'post.lua',
             f'http://127.0.0.1:{port}/'], stdout=subprocess.PIPE, text=True,
            env={**self.environment, **({'CHECK': '1'} if check else {})})
        time.sleep(seconds)
        wrk.send_signal(signal.SIGINT)  # it knows whole seconds only
        line = re.search('^RESULT (.*)$', wrk.communicate()[0], re.M).group(1)
        result = {key: int(value) for key, value in (word.split('=') for word in line.split())}
        if result['bad'] or result['errors'] or not result['requests']:
            raise RuntimeError(f'wrong answers: {line}')
        return result

    def measure(self, name, connections, seconds):
        with self.running(name) as (port, process):
            self.load(port, connections, CHECKED, check=True)
            time.sleep(PAUSE)
            before = processor_time(process.pid)
            result = self.load(port, connections, seconds)
            used = processor_time(process.pid) - before
        time.sleep(PAUSE)
        return {'server': name, 'connections': connections, 'rate': result['req_per_s'],
                'p50_us': result['p50_us'], 'p99_us': result['p99_us'],
                'cpu_us': round(used / result['requests'] * 1e6, 2)}

    def system_calls(self, name):
        """How often each call is made for an exchange: of two traced runs, one longer than the
        other, the difference, in which start and end cancel out."""
        short, long = (self.traced(name, n) for n in (TRACED, 2 * TRACED))
        per_exchange = {call: round((long[call] - short[call]) / TRACED, 2) for call in long}
        return {call: n for call, n in sorted(per_exchange.items()) if n >= 0.1}

    def traced(self, name, exchanges):
        with tempfile.NamedTemporaryFile(mode='r') as log:
            with self.running(name, 'strace', '-f', '-qq', '-o', log.name) as (port, process):
                exchange(port, self.request.read_bytes(), exchanges)
                for child in children(process.pid):
                    os.kill(child, 15)
            # A call that another thread's interrupts stands in two lines.
            return collections.Counter(re.findall(r'^\d+ +(\w+)\(', log.read(), re.M))


def children(pid):
    return [int(child) for child in
            pathlib.Path(f'/proc/{pid}/task/{pid}/children').read_text().split()]


def processor_time(pid):
    fields = pathlib.Path(f'/proc/{pid}/stat').read_text().rpartition(')')[2].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def exchange(port, request, times):
    with socket.create_connection(('127.0.0.1', port)) as client:
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for _ in range(times):
            client.sendall(request)
            data = b''
            while (end := data.find(b'\r\n\r\n')) == -1 or len(data) < end + 4 + BODY:
                block = client.recv(65536)
                if not block:
                    raise EOFError(data)
                data += block


def machine():
    model = re.search('model name\t: (.*)', pathlib.Path('/proc/cpuinfo').read_text())
    return {'processor': model.group(1) if model else platform.machine(),
            'processors': os.cpu_count(), 'kernel': platform.release(),
            'load_before': round(os.getloadavg()[0], 2)}


def can_trace():
    return shutil.which('strace') and subprocess.run(
        ['strace', '-qq', '-o', '/dev/null', 'true'], capture_output=True).returncode == 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('build', type=pathlib.Path)
    parser.add_argument('out', type=pathlib.Path)
    parser.add_argument('--rounds', type=int, default=9)
    parser.add_argument('--seconds', type=float, default=3)
    parser.add_argument('--realtime', action='store_true')
    parser.add_argument('--servers', default=','.join(NAMES))
    options = parser.parse_args()
    if options.realtime:
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
        options.seconds = min(options.seconds, 0.8)
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(options.build, folder)
        servers = [name for name in options.servers.split(',')
                   if (bench.bin / NAMES[name]).exists()]
        facts = {'machine': machine(), 'seconds': options.seconds, 'realtime': options.realtime}
        facts['calls'] = {name: bench.system_calls(name) for name in servers} if can_trace() else {}
        runs = []
        for number in range(options.rounds):
            for name in random.sample(servers, len(servers)):
                for connections in CONNECTIONS:
                    run = {'round': number + 1, **bench.measure(name, connections,
                                                                options.seconds)}
                    runs.append(run)
                    print(*(f'{key}={value}' for key, value in run.items()), flush=True)
    lines = ',\n'.join('    ' + json.dumps(run) for run in runs)
    head = json.dumps(facts, indent=2).removesuffix('\n}')
    options.out.write_text(f'{head},\n  "runs": [\n{lines}\n  ]\n}}\n')


if __name__ == '__main__':
    main()
