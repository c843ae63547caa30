#!/usr/bin/env python3
"""Exchanges of all kinds, after which the server's memory and descriptors are where they were.

usage: SoakTest.py PROGRAM_FOLDER [EXCHANGES]

Prints memory and descriptors after each tenth. The first tenths fill what is kept for good, such as
the buffers of the memory allocator; from then on nothing may grow.
"""
import concurrent.futures
import os
import random
import socket
import struct
import sys
import time

import programs
from programs import in_chunks, multipart, request

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
        return in_chunks(body(rng), rng.choice((100, 1000, 100_000)), *fields)
    return request(body(rng), *fields)


def expect(client, *statuses, ends=False):
    for status in statuses:
        got = client.answer()[0]
        assert got == status, f'{got} instead of {status}'
    assert not ends or client.at_end()
    return len(statuses)


# Each gives the number of exchanges that it was.

def in_turn(client, rng):
    for _ in range(20):
        client.send(any_request(rng))
        expect(client, 200)
    return 20


def without_waiting(client, rng):
    client.send(b''.join(request(body(rng)[:1000]) for _ in range(10)))
    return expect(client, *[200] * 10)


def old(client, rng):
    client.send(request(body(rng), version='1.0'))
    return expect(client, 200, ends=True)


def half_closed(client, rng):
    client.send(any_request(rng))
    client.end()
    return expect(client, 200, ends=True)


def refused(client, rng):
    data, status = rng.choice((
        (b'GET / HTTP/1.1\r\nHost: h\r\n\r\n', 405),
        (request(b'', 'Content-Length: -1', length=False), 400),
        (request(parts(rng)[:-4], TYPE), 400),
        (request(b'zz\r\n', 'Transfer-Encoding: chunked', length=False), 400),
        (request(b'', 'Content-Length: 20000001', length=False), 413),
        (request(b'', *(f'X{i}: x' for i in range(101))), 431)))
    client.send(data)
    return expect(client, status)


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


def work(servers, seed, share_of_large, enough):
    """One client's exchanges; their number, and that of their connections."""
    rng, done, connections = random.Random(seed), 0, 0
    rng.share_of_large = share_of_large
    while done < enough:
        kind = rng.choice(KINDS)
        connections += 1
        try:
            with rng.choice(servers).connect() as client:
                done += kind(client, rng)
        except (ConnectionError, EOFError):
            # A server that refuses a client may do so while that still sends.
            if kind not in (refused, answer_not_taken):
                raise
            done += 1
    return done, connections


def settled(server, descriptors):
    """Waits until what clients left behind is gone."""
    end = time.monotonic() + programs.TIMEOUT
    while server.descriptors() != descriptors and time.monotonic() < end:
        time.sleep(0.01)
    return server.descriptors()


def main():
    done, grown, memory = [0, 0], set(), []
    # Small blocks that threads keep for themselves fill up over days, to 15 MB for 64 threads.
    os.environ['GLIBC_TUNABLES'] = 'glibc.malloc.tcache_count=0'
    with programs.Server(*SERVERS[0]) as receipts, programs.Server(*SERVERS[1]) as echoes, \
            concurrent.futures.ThreadPoolExecutor(CLIENTS) as clients:
        servers = receipts, echoes
        before = [server.descriptors() for server in servers]
        print(' ' * 23 + ''.join(f'{name:>26}' for name in ('receipts', 'echoes')))
        print(' exchanges connections ' + '   memory KiB  descriptors' * 2)
        for phase in range(1, PHASES + 1):
            # A short run, too, sees enough large ones before it begins to compare.
            share = max(0.002, min(0.05, 50 * PHASES / EXCHANGES)) if phase <= WARM else 0.002
            done = [sum(n) for n in zip(done, *clients.map(lambda i: work(
                servers, f'{phase} {i}', share, EXCHANGES / PHASES / CLIENTS), range(CLIENTS)))]
            descriptors = [settled(server, n) for server, n in zip(servers, before)]
            memory.append([server.resident() for server in servers])
            print(f'{done[0]:10} {done[1]:11} ' + ''.join(f'{m:13}{d:13}' for m, d in
                                               zip(memory[-1], descriptors)), flush=True)
            if descriptors != before:
                grown.add('descriptors')
        highest = [max(values) for values in zip(*memory[:WARM])]
        # AddressSanitizer keeps what was freed, and looks for leaks itself at the end.
        keeps = b'__asan_init' in (programs.FOLDER / 'postwire-serve').read_bytes()
        if any(now > most + GROWTH for now, most in zip(memory[-1], highest)) and not keeps:
            grown.add('memory')
    if grown:
        sys.exit(f'grown: {", ".join(sorted(grown))}')


if __name__ == '__main__':
    main()
