#!/usr/bin/env python3
"""What the message writers write, judged by readers of other makers and by the library's own.

usage: WriterInteropTest.py PROGRAM_FOLDER [SEED]

The program write_messages in that folder makes the calls that this script hands it and gives back
the bytes; a seed repeats the random trees of a run.
"""
import collections
import email
import email.policy
import http.client
import io
import itertools
import os
import pathlib
import random
import socket
import subprocess
import sys
import tempfile
import threading
import unittest
import unittest.mock
import zlib

PROGRAMS = pathlib.Path(sys.argv[1])
SEED = int(sys.argv[2]) if len(sys.argv) > 2 else random.SystemRandom().randrange(1 << 32)
HOST = socket.gethostname()

# chunk: 0, a size, or -1; boundary: of a node with parts, else None; blocks: the body's writes.
Node = collections.namedtuple('Node', 'chunk ident boundary parts blocks length')


def leaf(chunk, blocks, ident='l', length=None):
    """`length` makes a direct part say its length, for readers that need it."""
    return Node(chunk, ident, None, (), blocks, length)


def multi(chunk, boundary, parts, ident='m'):
    return Node(chunk, ident, boundary, parts, (), None)


# The calls that write a tree, as write_messages reads them.

def escaped(data):
    return ''.join(chr(b) if 32 < b < 127 and b not in b'\\{' else f'\\x{b:02x}' for b in data)


def body_calls(node):
    yield f'header: X-Id {node.ident}'
    if node.length is not None:
        yield f'header: Content-Length {node.length}'
    for part in node.parts:
        yield f'addmulti: {part.chunk} {part.boundary}' if part.boundary else f'add: {part.chunk}'
        yield from body_calls(part)
        yield 'end:'
    for block in node.blocks:
        yield 'write: ' + escaped(block)


def calls(root, start='request: 0 /svc'):
    yield f'multi: {root.chunk} {root.boundary}' if root.boundary else f'one: {root.chunk}'
    yield start
    yield from body_calls(root)
    yield 'finish:'


Written = collections.namedtuple('Written', 'tree bytes')


def write(*cases):
    """[Written] for each list of calls, all by one run of the program."""
    script = '\n\n'.join('\n'.join(case) for case in cases) + '\n'
    out = subprocess.run([PROGRAMS / 'write_messages'], input=script.encode(), check=True,
                         stdout=subprocess.PIPE).stdout
    written, at = [], 0
    while at < len(out):
        end = out.index(b'\n', at) + 1
        tree, length = map(int, out[at:end].split())
        at = end + tree + length
        written.append(Written(out[end:end + tree].decode(), out[end + tree:at]))
    assert len(written) == len(cases), (len(written), len(cases))
    return written


# The same bytes by a model of the framing: three body streams, each knowing only the next.

def headers_of(node, length):
    headers = {'Host': HOST, 'X-Id': node.ident}
    if node.boundary:
        headers['Content-Type'] = f'multipart/related; boundary={node.boundary}; type=text/xml'
    if node.chunk > 0:
        headers['Transfer-Encoding'] = 'chunked'
    if length is not None:
        headers['Content-Length'] = str(length)
    return sorted(headers.items(), key=lambda h: h[0].lower())


def block_of(node, length):
    lines = [f'{name}: {value}\r\n' for name, value in headers_of(node, length)]
    return ''.join(lines + ['\r\n']).encode()


def chunk_of(data):
    return b'%x\r\n' % len(data) + data + b'\r\n'


class Held:
    def __init__(self, node, up):
        self.node, self.up, self.held, self.begun = node, up, b'', False

    def write(self, data):
        self.held += data

    def finish(self):
        self.up.write(block_of(self.node, len(self.held)))
        if self.held:
            self.up.write(self.held)

    def begin(self):
        if not self.begun:
            self.up.write(block_of(self.node, self.node.length))
        self.begun = True


class Chunked(Held):
    def write(self, data):
        self.begin()
        self.held += data
        while len(self.held) >= self.node.chunk:
            self.up.write(chunk_of(self.held[:self.node.chunk]))
            self.held = self.held[self.node.chunk:]

    def flush(self):
        if self.held:
            self.up.write(chunk_of(self.held))
        self.held = b''

    def finish(self):
        self.begin()
        self.flush()
        self.up.write(b'0\r\n\r\n')


class Direct(Held):
    def write(self, data):
        self.begin()
        self.up.flush()
        for piece in (b'%x\r\n' % len(data), data, b'\r\n'):
            self.up.up.write(piece)

    def finish(self):
        pass


def write_body(node, body):
    for part in node.parts:
        body.write(b'\r\n--%s\r\n' % node.boundary.encode())
        model(part, body)
    if node.boundary:
        body.write(b'\r\n--%s--\r\n' % node.boundary.encode())
    for data in node.blocks:
        body.write(data)


def model(node, up):
    body = (Chunked if node.chunk > 0 else Direct if node.chunk else Held)(node, up)
    write_body(node, body)
    body.finish()


class Wire:
    def __init__(self, begin=b''):
        self.bytes = begin

    def write(self, data):
        self.bytes += data


def modelled(root):
    wire = Wire(b'POST /svc HTTP/1.1\r\n')
    model(root, wire)
    return wire.bytes


def held_body(node):
    wire = Wire()
    write_body(node, wire)
    return wire.bytes


# Trees

SIZES = (0, 1, 7, 4096)


def tree_text(node, indent=''):
    """A tree as write_messages prints what the reader found, see support/TreeText.h."""
    length = node.length if node.chunk else len(held_body(node))
    lines = [f'{name.lower()}: {value}' for name, value in headers_of(node, length)]
    if not node.parts:
        data = b''.join(node.blocks)
        shown = ''.join(chr(b) if 32 <= b < 127 else f'\\x{b:02x}' for b in data[:16])
        lines.append(f'body {len(data)} {zlib.crc32(data):08x} {shown}')
    return ''.join([f'{indent}{line}\n' for line in lines] +
                   [f'{indent}part\n' + tree_text(part, indent + '  ') for part in node.parts])


def allowed(parent_chunk):
    return SIZES + ((-1,) if parent_chunk > 0 else ())


class RandomTrees:
    PIECES = (b'\r\n', b'--', b'\0', b'\r\n--b0\r\n', b'\r\n--b1--\r\n', b'--b2', b'\r', b'\n', b'x' * 61,
              b'0\r\n\r\n', bytes(range(256)))

    def __init__(self, seed):
        self.random, self.count = random.Random(seed), 0

    def blocks(self, chunk):
        count = self.random.choice((0, 1, 1, 2, 5))
        least = 1 if chunk < 0 else 0
        blocks = [b''.join(self.random.choices(self.PIECES, k=self.random.choice((0, 1, 3, 40))))
                  for _ in range(count)]
        return [b for b in blocks if len(b) >= least] or ([b'?'] if chunk < 0 else [])

    def node(self, parent_chunk, level):
        self.count += 1
        ident = str(self.count)
        chunk = self.random.choice(allowed(parent_chunk))
        if level < 2 and self.random.random() < (0.9, 0.4)[level]:
            parts = [self.node(chunk, level + 1) for _ in range(self.random.choice((0, 1, 2, 4)))]
            return multi(chunk, f'b{level}', parts, ident)
        blocks = self.blocks(chunk)
        return leaf(chunk, blocks, ident, sum(map(len, blocks)) if chunk < 0 else None)


class Server:
    """Answers one connection's requests, none with a body, with the given bytes."""

    def __init__(self, *answers):
        self.listener = socket.create_server(('127.0.0.1', 0))
        self.port = self.listener.getsockname()[1]
        self.answers = answers
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        self.listener.settimeout(30)
        connection, _ = self.listener.accept()
        with connection:
            connection.settimeout(30)
            for answer in self.answers:
                received = b''
                while not received.endswith(b'\r\n\r\n'):
                    received += connection.recv(65536)
                connection.sendall(answer)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.thread.join()
        self.listener.close()


BODY = bytes(range(256)) * 40 + b'\r\n0\r\n\r\n--b1--\r\n'
RESPONSE = 'response: 200 OK'


def response(chunk, *blocks):
    return list(calls(leaf(chunk, blocks), RESPONSE))


def same_node(first, second):
    """A second message of the node that wrote the first."""
    return first + second[1:]


class Model(unittest.TestCase):
    def check(self, trees):
        for tree, written in zip(trees, write(*map(calls, trees))):
            self.assertEqual(modelled(tree), written.bytes, tree)
            yield tree, written

    def test_every_combination_of_chunk_sizes_at_two_nested_levels(self):
        trees = [multi(root, 'b0', [
            multi(outer, 'b1', [
                multi(inner, 'b2', [leaf(c, blocks) for c in allowed(inner)]),
                leaf(0, blocks)]),
            leaf(root, blocks)])
            for root in SIZES for outer in allowed(root) for inner in allowed(outer)
            for blocks in ([], [b'hello\r\n', b'--b2 and more'])]
        self.assertEqual(len(trees), sum(1 for _ in self.check(trees)))

    def test_random_trees_are_read_back(self):
        trees = RandomTrees(SEED)
        trees = [trees.node(0, 0) for _ in range(400)]
        for tree, written in self.check(trees):
            self.assertEqual(tree_text(tree), written.tree, modelled(tree))


class Curl(unittest.TestCase):
    def fetch(self, *answers):
        with tempfile.TemporaryDirectory() as folder, Server(*answers) as server:
            files = [os.path.join(folder, str(i)) for i in range(len(answers))]
            words = [w for f in files for w in ('-o', f, f'http://127.0.0.1:{server.port}/')]
            out = subprocess.run(['curl', '-sS', '--max-time', '20', '--noproxy', '*', '-w',
                                  '%{http_code} %{num_connects}\n'] + words, check=True,
                                 capture_output=True, text=True).stdout
            return out.split('\n')[:-1], [pathlib.Path(f).read_bytes() for f in files]

    def test_reads_bodies_with_a_length_and_in_chunks_on_one_connection(self):
        cases = [response(chunk, BODY[:100], BODY[100:]) for chunk in SIZES] + [
            response(0), response(7), response(0, b'x')]
        codes, bodies = self.fetch(*(w.bytes for w in write(*cases)))
        self.assertEqual(['200 1'] + ['200 0'] * 6, codes)
        self.assertEqual([BODY] * 4 + [b'', b'', b'x'], bodies)

    def test_reads_the_messages_of_one_node(self):
        for chunk in (0, 7):
            first = response(chunk, b'one')
            split = len(write(first)[0].bytes)
            both = write(same_node(first, response(chunk, b'two')))[0].bytes
            codes, bodies = self.fetch(both[:split], both[split:])
            self.assertEqual((['200 1', '200 0'], [b'one', b'two']), (codes, bodies))


class Python(unittest.TestCase):
    def fetch(self, *answers):
        with Server(*answers) as server:
            connection = http.client.HTTPConnection('127.0.0.1', server.port, timeout=20)
            for _ in answers:
                connection.request('GET', '/')
                answer = connection.getresponse()
                yield answer, answer.read()
            connection.close()

    def test_http_client_reads_responses(self):
        cases = [response(c, *blocks) for c in SIZES for blocks in ([BODY], [b'a', b'', b'b'], [])]
        bodies = [body for _, body in self.fetch(*(w.bytes for w in write(*cases)))]
        self.assertEqual([BODY, b'ab', b''] * 4, bodies)

    def test_email_reads_multipart_bodies(self):
        xml, image = b'<a>\r\n</a>', bytes(range(256)) + b'\r\n--b\r\n-'
        trees = [multi(chunk, 'b1', [leaf(0, [xml], 'x'),
                                     leaf(-1 if chunk else 0, [image[:99], image[99:]], 'i'),
                                     leaf(0, [], 'e'),
                                     multi(nested, 'b2', [leaf(0, [xml], 'y')])])
                 for chunk in SIZES for nested in (0, -1) if chunk or not nested]
        for answer, body in self.fetch(*(w.bytes for w in write(
                *(calls(tree, RESPONSE) for tree in trees)))):
            self.assertEqual('multipart/related; boundary=b1', answer.headers['Content-Type'])
            message = email.message_from_bytes(
                b'Content-Type: ' + answer.headers['Content-Type'].encode() + b'\r\n\r\n' + body,
                policy=email.policy.HTTP)
            leaves = [(p['X-Id'], p.get_payload(decode=True)) for p in message.walk()
                      if not p.is_multipart()]
            self.assertEqual([('x', xml), ('i', image), ('e', b''), ('y', xml)], leaves)
            self.assertEqual([], [d for p in message.walk() for d in p.defects])


    def test_no_message_that_lost_a_write_is_taken_for_a_whole_one(self):
        cut = 0
        for chunk, part, nested in itertools.product(SIZES[1:], (0, 3, -1), (0, 3, -1)):
            message = list(calls(multi(chunk, 'b1', [
                leaf(part, [b'hello', b'more']), multi(nested, 'b2', [leaf(0, [b'inner'])])]), RESPONSE))
            whole, *failed = write(message, *([f'fail: {n}', *message] for n in range(1, 40)))
            for wire in {w.bytes for w in (whole, *failed)}:
                answer = http.client.HTTPResponse(unittest.mock.Mock(makefile=lambda _: io.BytesIO(wire)))
                try:
                    answer.begin()
                    message = email.message_from_bytes(bytes(answer.headers) + answer.read())
                    # To http.client a status line alone is an empty answer.
                    taken = message.is_multipart() and not message.defects
                except http.client.HTTPException:
                    taken = False
                self.assertEqual(wire == whole.bytes, taken, wire)
                cut += not taken
        self.assertLess(300, cut)


class Wireshark(unittest.TestCase):
    """Exchanges made into a capture, each on a connection of its own."""

    def dissect(self, folder, request, answer):
        def packets(direction, data):
            for at in range(0, len(data), 1400):
                yield direction
                for line in range(at, min(at + 1400, len(data)), 16):
                    row = data[line:min(line + 16, at + 1400)]
                    yield f'{line - at:06x} ' + ' '.join(f'{b:02x}' for b in row)
                yield ''

        dump = os.path.join(folder, 'dump')
        capture = os.path.join(folder, 'capture')
        lines = [*packets('O', request), *packets('I', answer)]
        pathlib.Path(dump).write_text('\n'.join(lines) + '\n')
        subprocess.run(['text2pcap', '-q', '-D', '-T', '80,40000', dump, capture], check=True,
                       capture_output=True)

        def tshark(*words):
            return subprocess.run(['tshark', '-n', '-r', capture, *words], check=True,
                                  capture_output=True, text=True).stdout
        self.assertEqual('', tshark('-Y', '_ws.malformed || _ws.expert.severity == error'))
        return tshark('-V')

    def test_dissects_exchanges_down_to_the_parts(self):
        parts = [leaf(0, [b'<a/>']), leaf(0, [BODY]), leaf(0, [])]
        for chunk in (0, 4096):
            request, answer = write(
                calls(multi(chunk, 'outer', parts + [leaf(-1, [BODY, BODY])] * (chunk > 0))),
                calls(multi(chunk, 'outer', parts), RESPONSE))
            with tempfile.TemporaryDirectory() as folder:
                text = self.dissect(folder, request.bytes, answer.bytes)
            self.assertIn('POST /svc HTTP/1.1\\r\\n', text)
            self.assertIn('HTTP/1.1 200 OK\\r\\n', text)
            self.assertEqual(6 + (chunk > 0), text.count('Encapsulated multipart part'), text)


class Examples(unittest.TestCase):
    def serve(self, connections):
        server = subprocess.Popen([PROGRAMS / 'answer_request', '0', str(connections)],
                                  stdout=subprocess.PIPE, text=True)
        self.addCleanup(server.stdout.close)
        self.addCleanup(lambda: self.assertEqual(0, server.wait(20)))
        return int(server.stdout.readline())

    def test_answer_request_answers_curl(self):
        url = f'http://127.0.0.1:{self.serve(1)}/svc'
        out = subprocess.run(['curl', '-sS', '--max-time', '20', '--noproxy', '*', '-d', 'hello', url,
                              '--next', '-sS', '-d', 'x', '-H', 'Transfer-Encoding: chunked', url],
                             check=True, capture_output=True).stdout
        self.assertEqual(b'5 bytes and 0 parts for /svc\n1 bytes and 0 parts for /svc\n', out)

    def test_post_with_attachments_reaches_answer_request(self):
        port = self.serve(1)
        with tempfile.TemporaryDirectory() as folder:
            files = [os.path.join(folder, str(size)) for size in (0, 1, 200000)]
            for name in files:
                pathlib.Path(name).write_bytes(b'\0\r\n--' * (int(os.path.basename(name)) // 5 + 1)
                                               if not name.endswith('/0') else b'')
            out = subprocess.run([PROGRAMS / 'post_with_attachments', '127.0.0.1', str(port), *files],
                                 check=True, capture_output=True).stdout
        self.assertEqual(b'200 OK\n0 bytes and 4 parts for /\n', out)


if __name__ == '__main__':
    print(f'seed {SEED}', file=sys.stderr)
    unittest.main(argv=sys.argv[:1], verbosity=2)
