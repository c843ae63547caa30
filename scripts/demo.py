#!/usr/bin/env python3
"""A message with attachments on its way, over loopback: sent in three framings, shown as it
arrived, compared at both ends, dissected by another program; and what hostile messages are
answered.

usage: demo.py PROGRAM_FOLDER
"""
import hashlib
import json
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / 'tests/programs'))
import programs  # noqa: E402

FOLDER = pathlib.Path(sys.argv[1])
CAPTURED = ROOT / 'tests/data/captured/python-nested-chunked.http'
BOUNDARY = 'demo-line-7'
# Zero bytes, line ends, and lines that a hasty reader takes for the end of the part.
BINARY = random.Random(1).randbytes(200_000) + b'\0\0\r\n--demo-line--\r\n\r\n--demo-line\r\n\0'
FILES = {
    'envelope.xml': b'<soap:Envelope xmlns:soap="http://schemas.xmlsoap.org/soap/envelope/">'
                    b'<soap:Body><Store xmlns="urn:demo"/></soap:Body></soap:Envelope>\n',
    'order.xml': '<order xmlns="urn:demo"><name>J\u00fcrgen</name></order>\n'.encode(),
    'picture.bin': BINARY,
}
SHA = {name: hashlib.sha256(content).hexdigest() for name, content in FILES.items()}
MODES = {'length': [], 'direct': ['--direct'], 'nested': ['--nest']}
SMUGGLED = programs.request(b'', target='/smuggled')
HOSTILE = {
    'a length and chunks, and a request within the body': (
        'Content-Length: %d' % (5 + len(SMUGGLED)), 'Transfer-Encoding: chunked',
        b'0\r\n\r\n' + SMUGGLED),
    'a length below zero, to be read again': ('Content-Length: -40', '', SMUGGLED),
    'a chunk of 4 GiB': ('Transfer-Encoding: chunked', '', b'ffffffff\r\nfew'),
}


def check(holds, what):
    if not holds:
        sys.exit(f'demo: {what}')


def title(text):
    print(f'\n{text}\n{"=" * len(text)}')


def run(program, *arguments, code=0):
    """What the program prints; it must end with the code given."""
    done = subprocess.run([program, *arguments], capture_output=True, text=True, errors='replace',
                          timeout=programs.TIMEOUT)
    check(done.returncode == code, f'{program} ended with {done.returncode}: {done.stderr}')
    return done.stdout


def print_captured():
    title('A captured request, as a tree')
    print(run(FOLDER / 'print_request', CAPTURED), end='')


def print_parts(element, depth=1):
    """The parts of a receipt; gives the SHA-256 of each Content-ID."""
    found = {}
    for part in element.findall('part'):
        size = part.get('size')
        print(' ' * 2 * depth + part.get('type').split(';')[0], part.get('content-id', ''),
              f'{size} bytes, sha256 {part.get("sha256")[:16]}...' if size else '')
        if size:
            found[part.get('content-id')] = part.get('sha256')
        found.update(print_parts(part, depth + 1))
    return found


def traffic(trace):
    """(bytes, calls) sent, and received, as the trace counts them."""
    rows = {line.split()[0]: line.split() for line in
            run(FOLDER / 'postwire-trace', 'stats', trace).splitlines()[1:]}
    return [(int(rows[way][2]), int(rows[way][3])) for way in ('sent', 'received')]


def exchange(server, folder, mode):
    """Sends, shows what arrived, compares both ends; the row of the table."""
    print(f'\n{mode}: what arrived, by the receipt')
    files = [str(folder / name) for name in FILES]
    report = json.loads(run(
        FOLDER / 'postwire-send', f'{server.url}/store', '--body', files[0],
        '--attach', f'{files[1]};application/xml;order', '--attach', f'{files[2]};;picture',
        '--boundary', BOUNDARY, *MODES[mode], '--trace', folder / f'{mode}.trace',
        '--save', folder / f'{mode}-answer', '--json'))
    receipt, = (folder / f'{mode}-answer').iterdir()
    arrived = print_parts(xml.etree.ElementTree.fromstring(receipt.read_bytes()).find('message'))
    check(arrived == {'<envelope@postwire>': SHA['envelope.xml'], '<order>': SHA['order.xml'],
                      '<picture>': SHA['picture.bin']}, f'{mode}: not what was sent: {arrived}')
    check([file['sha256'] for file in report['sent']] == list(SHA.values()),
          f'{mode}: the client read other files')
    (sent, sends), (received, _) = traffic(folder / f'{mode}.trace')
    check(sent == report['bytesSent'], f'{mode}: the trace holds {sent} bytes')
    return mode, sent, received, sends, report['milliseconds']


def print_refusal(server, name, first, second, body):
    fields = [field for field in (first, second) if field]
    with server.connect() as client:
        client.send(programs.request(body, *fields, target='/hostile', length=False))
        status, head, text = client.answer()
        print(f'{name}\n    {"; ".join(fields)}; body {body[:20]!r}...\n'
              f'    -> {head.splitlines()[0]}: {text.decode().strip()}')
        check(400 <= status < 500, f'{name}: answered with {status}')
        check(client.at_end(), f'{name}: the connection was kept')


def check_saved(folder):
    """Whole files, and none that a hostile message brought."""
    saved = sorted(folder.iterdir())
    check([hashlib.sha256(path.read_bytes()).hexdigest() for path in saved] ==
          [SHA[name] for name in FILES] * len(MODES), f'saved are {[path.name for path in saved]}')
    print(f'\nsaved by the server, and equal to what was sent: {len(saved)} files')


def print_dissection(folder):
    for mode in MODES:
        capture = folder / f'{mode}.pcap'
        run(FOLDER / 'postwire-trace', 'pcap', folder / f'{mode}.trace', capture)
        if not shutil.which('tshark'):
            continue
        lines = run('tshark', '-r', capture, '-Y', 'http.request', '-O', 'mime_multipart')
        parts = re.findall(r'^( *)(Encapsulated multipart part: .*|Content-ID: .*?|Data \(.*?\))'
                           r'(?:\\r\\n)*$', lines, re.M)
        print(f'\n{mode}:', *(indent + text for indent, text in parts), sep='\n')
        check([text for _, text in parts if text.startswith('Content-ID')] ==
              [f'Content-ID: <{name}>' for name in ('envelope@postwire', 'order', 'picture')] and
              f'Data ({len(BINARY)} bytes)' in lines, f'{mode}: tshark sees other parts')
    if not shutil.which('tshark'):
        print('captures were made; their dissection: skipped (Debian package tshark)')


def print_table(rows):
    title('In figures')
    print(f'{"mode":8}{"bytes sent":>12}{"received":>10}{"sends":>7}{"milliseconds":>14}')
    for mode, sent, received, sends, milliseconds in rows:
        print(f'{mode:8}{sent:12}{received:10}{sends:7}{milliseconds:14.1f}')


def main(folder):
    for name, content in FILES.items():
        (folder / name).write_bytes(content)
    print_captured()
    with programs.Server('--save', folder / 'saved') as server:
        title('A message with two attachments, sent three times')
        rows = [exchange(server, folder, mode) for mode in MODES]
        run(FOLDER / 'postwire-send', server.url, '--body', folder / 'envelope.xml', '--attach',
            folder / 'picture.bin', '--boundary', 'demo-line', code=2)
        print('\na boundary that occurs in an attachment: refused before anything was sent')
        check_saved(folder / 'saved')
        title('Three hostile messages, and what the server answered')
        for name, message in HOSTILE.items():
            print_refusal(server, name, *message)
        check_saved(folder / 'saved')
    title('The same exchanges as captures, dissected by tshark')
    print_dissection(folder)
    print_table(rows)


if __name__ == '__main__':
    with tempfile.TemporaryDirectory() as temporary:
        main(pathlib.Path(temporary))
