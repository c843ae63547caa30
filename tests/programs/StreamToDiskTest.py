#!/usr/bin/env python3
"""The example stream_to_disk: a large upload passes through the memory of one block.

usage: StreamToDiskTest.py PROGRAM_FOLDER [MEBIBYTES]
"""
import array
import fcntl
import hashlib
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import termios

import programs

SIZE = int(sys.argv[2] if len(sys.argv) > 2 else 256) << 20
HEAD = programs.request(b'', 'Content-Type: multipart/related; boundary=B',
                        'Transfer-Encoding: chunked', length=False)
ENVELOPE = b'\r\n--B\r\nContent-Type: text/xml\r\nContent-Length: 7\r\n\r\n<soap/>'
ATTACHMENT = b'\r\n--B\r\nTransfer-Encoding: chunked\r\n\r\n'
LIMIT = 4096  # KiB above the idle process


def chunk(data):
    return b'%x\r\n%b\r\n' % (len(data), data)


def peak(process):
    """KiB of memory used at most, once the program has read all that was written to it."""
    unread = array.array('i', [1])
    while unread[0] > 0 and process.poll() is None:
        fcntl.ioctl(process.stdin, termios.FIONREAD, unread)
        os.sched_yield()
    status = pathlib.Path(f'/proc/{process.pid}/status').read_text()
    return int(re.search(r'VmHWM:\s+(\d+)', status).group(1))


def main(folder):
    rng = random.Random(3)
    data, left, sent = rng.randbytes(1 << 20), SIZE, hashlib.sha256()
    with subprocess.Popen([programs.FOLDER / 'stream_to_disk', folder], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as process:
        def write(data):
            process.stdin.write(data)
            process.stdin.flush()

        write(HEAD)
        idle = peak(process)
        write(chunk(ENVELOPE) + chunk(ATTACHMENT))
        while left > 0:  # blocks of all sizes
            block = data[:min(left, rng.randint(1, len(data)))]
            left -= len(block)
            sent.update(block)
            write(chunk(chunk(block)))  # the part's own chunks, within those of the message
        write(chunk(b'0\r\n\r\n\r\n--B--\r\n'))
        used = peak(process)
        printed = process.communicate(b'0\r\n\r\n', timeout=programs.TIMEOUT)[0].decode()
    assert process.returncode == 0, process.returncode
    assert printed == f'body-1: 7 bytes\nbody-2: {SIZE} bytes\n', printed
    assert (folder / 'body-1').read_bytes() == b'<soap/>'
    with open(folder / 'body-2', 'rb') as file:
        assert hashlib.file_digest(file, 'sha256').digest() == sent.digest()
    print(f'{SIZE} bytes: at most {used} KiB, {used - idle} above the {idle} before the upload')
    assert used - idle < LIMIT


if __name__ == '__main__':
    with tempfile.TemporaryDirectory() as temporary:
        main(pathlib.Path(temporary))
