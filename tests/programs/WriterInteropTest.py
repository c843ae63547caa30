#!/usr/bin/env python3
"""What the message writers write, judged by readers of other makers and by the library's own.

usage: WriterInteropTest.py PROGRAM_FOLDER

The program write_messages in that folder makes the calls that this script hands it and gives back
the bytes.
"""
import collections
import email
import email.policy
import http.client
import io
import pathlib
import re
import socket
import subprocess
import sys
import unittest
import unittest.mock
import zlib

PROGRAMS = pathlib.Path(sys.argv[1])
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


# What the reader finds of a tree, see support/TreeText.h.

def headers_of(node):
    headers = {'Host': HOST, 'X-Id': node.ident}
    if node.boundary:
        headers['Content-Type'] = f'multipart/related; boundary={node.boundary}; type=text/xml'
    if node.chunk > 0:
        headers['Transfer-Encoding'] = 'chunked'
    elif not node.boundary:
        headers['Content-Length'] = str(sum(map(len, node.blocks)))
    return sorted(headers.items(), key=lambda h: h[0].lower())


SIZES = (0, 1, 7, 4096)


def tree_text(node, indent=''):
    lines = [f'{name.lower()}: {value}' for name, value in headers_of(node)]
    if not node.parts:
        data = b''.join(node.blocks)
        shown = ''.join(chr(b) if 32 <= b < 127 else f'\\x{b:02x}' for b in data[:16])
        lines.append(f'body {len(data)} {zlib.crc32(data):08x} {shown}')
    return ''.join([f'{indent}{line}\n' for line in lines] +
                   [f'{indent}part\n' + tree_text(part, indent + '  ') for part in node.parts])


def allowed(parent_chunk):
    return SIZES + ((-1,) if parent_chunk > 0 else ())


BODY = bytes(range(256)) * 40 + b'\r\n0\r\n\r\n--b1--\r\n'
RESPONSE = 'response: 200 OK'


class OwnReader(unittest.TestCase):
    def check(self, trees):
        for tree, written in zip(trees, write(*map(calls, trees)), strict=True):
            # The length of a body with parts is the reader's to check.
            text = re.sub(r'(?m)^( *)content-length: .*\n(?=(\1.*\n)*\1content-type: multi)', '',
                          written.tree)
            self.assertEqual(tree_text(tree), text, written.bytes)

    def test_every_combination_of_chunk_sizes(self):
        self.check([multi(root, 'b0', [
            multi(outer, 'b1', [leaf(c, blocks, length=len(b''.join(blocks)) if c < 0 else None)
                                for c in allowed(outer) if c >= 0 or blocks]),
            leaf(root, blocks)])
            for root in SIZES for outer in allowed(root)
            for blocks in ([], [b'hello\r\n', b'--b1 and more'], [BODY, b'\0', BODY])])


def answer_of(wire):
    """What Python's http.client reads of a response."""
    answer = http.client.HTTPResponse(unittest.mock.Mock(makefile=lambda _: io.BytesIO(wire)))
    answer.begin()
    return answer, answer.read()


class Python(unittest.TestCase):
    def test_http_client_reads_responses(self):
        shapes = [BODY], [b'a', b'', b'b'], []
        cases = [list(calls(leaf(c, blocks), RESPONSE)) for c in SIZES for blocks in shapes]
        self.assertEqual([BODY, b'ab', b''] * 4, [answer_of(w.bytes)[1] for w in write(*cases)])

    def test_email_reads_multipart_bodies(self):
        xml, image = b'<a>\r\n</a>', bytes(range(256)) + b'\r\n--b\r\n-'
        trees = [multi(chunk, 'b1', [leaf(0, [xml], 'x'),
                                     leaf(-1 if chunk else 0, [image[:99], image[99:]], 'i'),
                                     leaf(0, [], 'e'),
                                     multi(nested, 'b2', [leaf(0, [xml], 'y')])])
                 for chunk in SIZES for nested in (0, -1) if chunk or not nested]
        for written in write(*(calls(tree, RESPONSE) for tree in trees)):
            answer, body = answer_of(written.bytes)
            self.assertEqual('multipart/related; boundary=b1', answer.headers['Content-Type'])
            message = email.message_from_bytes(
                b'Content-Type: ' + answer.headers['Content-Type'].encode() + b'\r\n\r\n' + body,
                policy=email.policy.HTTP)
            leaves = [(p['X-Id'], p.get_payload(decode=True)) for p in message.walk()
                      if not p.is_multipart()]
            self.assertEqual([('x', xml), ('i', image), ('e', b''), ('y', xml)], leaves)
            self.assertEqual([], [d for p in message.walk() for d in p.defects])


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1], verbosity=2)
