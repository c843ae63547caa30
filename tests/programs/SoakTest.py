#!/usr/bin/env python3
"""Exchanges of all kinds, after which the server's memory and descriptors are where they were.

usage: SoakTest.py PROGRAM_FOLDER [EXCHANGES]

Prints memory and descriptors after each tenth. The first tenths fill what is kept for good, such as
the buffers of the memory allocator; from then on nothing may grow.
"""
import pathlib
import random
import socket
import struct
import sys
import threading
import time

import programs
from programs import chunked, multipart, request

FOLDER = sys.argv[1]
EXCHANGES = int(sys.argv[2]) if len(sys.argv) > 2 else 2000
CLIENTS = 4
PHASES, WARM = 10, 3
# KiB. Over 70000 exchanges that is less than a header field left behind by each.
GROWTH = 4096
LIMITS = '--workers', '64', '--max-body', '20000000'
SERVERS = LIMITS, (*LIMITS, '--echo', '--chunked', '3000')
TYPE = 'Content-Type: multipart/related; boundary=out'


def body(rng):
    """Small ones in general, sometimes a large one."""
    large = rng.random() < rng.share_of_large
    return rng.randbytes(5_000_000 if large else int(rng.paretovariate(0.7)) % 50_000)


def parts(rng):
    nested = multipart('in', ([], body(rng)), (['X-A: b; c=d'], body(rng)))
    return multipart('out', (['Content-ID: <a>'], body(rng)), ([], body(rng)),
                     (['Content-Type: multipart/mixed; boundary=in'], nested))


def any_request(rng):
    kind = rng.randrange(4)
    fields = [f'X-{i}: {"v" * rng.randrange(200)}' for i in range(rng.randrange(20))]
    if kind == 0:
        return request(parts(rng), TYPE, *fields)
    if kind == 1:
        return request(chunked(body(rng), rng.choice((100, 1000, 100_000))), *fields,
                       'Transfer-Encoding: chunked', length=False)
    return request(body(rng), *fields)


def expect(client, *statuses):
    for status in statuses:
        got = client.answer()[0]
        assert got == status, f'{got} instead of {status}'


# Each gives the number of exchanges that it was.

def in_turn(client, rng):
    for _ in range(20):
        client.send(any_request(rng))
        expect(client, 200)
    return 20


def without_waiting(client, rng):
    data = b''.join(request(body(rng)[:1000]) for _ in range(10))
    client.send(data)
    expect(client, *[200] * 10)
    return 10


def old(client, rng):
    client.send(request(body(rng), version='1.0'))
    expect(client, 200)
    assert client.at_end()
    return 1


def half_closed(client, rng):
    client.send(any_request(rng))
    client.end()
    expect(client, 200)
    assert client.at_end()
    return 1


def refused(client, rng):
    data, status = rng.choice((
        (b'GET / HTTP/1.1\r\n\r\n', 405), (b'POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n', 400),
        (request(parts(rng)[:-4], TYPE), 400),
        (request(b'zz\r\n', 'Transfer-Encoding: chunked', length=False), 400),
        (b'POST / HTTP/1.1\r\nHost:\r\nContent-Length: 20000001\r\n\r\n', 413),
        (b'POST / HTTP/1.1\r\n' + b''.join(b'X%d: x\r\n' % i for i in range(101)) + b'\r\n', 431)))
    client.send(data)
    expect(client, status)
    return 1


def aborted(client, rng):
    data = any_request(rng)
    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                             struct.pack('ii', rng.randrange(2), 0))
    client.send(data[:rng.randrange(len(data))])
    return 1


def answer_not_taken(client, rng):
    client.send(any_request(rng) + request(b'x'))
    return 2


KINDS = (in_turn,) * 8 + (without_waiting,) * 2 + (old, half_closed, refused, refused, aborted,
                                                   aborted, answer_not_taken)


class Phase:
    """Clients that go on until their exchanges together are enough."""

    def __init__(self, servers, exchanges, number):
        self.servers, self.left, self.done, self.error = servers, exchanges, 0, None
        self.lock = threading.Lock()
        # A short run, too, sees enough of them before it begins to compare.
        share = max(0.002, min(0.05, 50 / exchanges)) if number <= WARM else 0.002
        clients = [threading.Thread(target=self.work, args=(f'{number} {i}', share))
                   for i in range(CLIENTS)]
        for client in clients:
            client.start()
        for client in clients:
            client.join()
        if self.error:
            raise self.error

    def work(self, seed, share_of_large):
        rng = random.Random(seed)
        rng.share_of_large = share_of_large
        try:
            while self.done < self.left and not self.error:
                kind = rng.choice(KINDS)
                try:
                    with rng.choice(self.servers).connect() as client:
                        exchanges = kind(client, rng)
                except (ConnectionError, EOFError):
                    # A server that refuses a client may do so while that still sends.
                    if kind not in (refused, answer_not_taken):
                        raise
                    exchanges = 1
                with self.lock:
                    self.done += exchanges
        except Exception as error:
            self.error = error


def settled(server, descriptors):
    """Waits until what clients left behind is gone."""
    end = time.monotonic() + programs.TIMEOUT
    while server.descriptors() != descriptors and time.monotonic() < end:
        time.sleep(0.01)
    return server.descriptors()


def keeps_freed_memory():
    """Whether this is a build with AddressSanitizer, which looks for leaks itself at the end."""
    return b'__asan_init' in pathlib.Path(FOLDER, 'postwire-serve').read_bytes()


def main():
    exchanges, grown = 0, []
    with programs.Server(*SERVERS[0]) as receipts, \
            programs.Server(*SERVERS[1]) as echoes:
        servers = receipts, echoes
        before = [server.descriptors() for server in servers]
        memory = []
        print('           ' + ''.join(f'{name:>26}' for name in ('receipts', 'echoes')))
        print(' exchanges ' + '   memory KiB  descriptors' * 2)
        for phase in range(PHASES + 1):
            if phase > 0:
                exchanges += Phase(servers, EXCHANGES // PHASES, phase).done
            descriptors = [settled(server, n) for server, n in zip(servers, before)]
            memory.append([server.resident() for server in servers])
            print(f'{exchanges:10} ' + ''.join(f'{m:13}{d:13}' for m, d in
                                               zip(memory[-1], descriptors)), flush=True)
            if descriptors != before:
                grown.append('descriptors')
        highest = [max(values) for values in zip(*memory[1:WARM + 1])]
        if any(now > most + GROWTH for now, most in zip(memory[-1], highest)) and \
                not keeps_freed_memory():
            grown.append('memory')
    if grown:
        sys.exit(f'grown: {", ".join(sorted(set(grown)))}')


if __name__ == '__main__':
    main()
