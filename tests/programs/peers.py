"""Starts servers and proxies of other makers, on ports that are free at the moment."""
import contextlib
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import unittest

import programs

# Debian keeps servers where an ordinary user's PATH does not lead.
PATH = os.environ['PATH'] + ':/usr/sbin:/usr/local/sbin'
# What a user is told to run.
CONFIGURATIONS = pathlib.Path(__file__).parents[2] / 'docs' / 'scale-out'
FRONT, BACKS = '127.0.0.1:8100', ('127.0.0.1:8101', '127.0.0.1:8102')


def free_port():
    with socket.create_server(('127.0.0.1', 0)) as taken:
        return taken.getsockname()[1]


def listens(port, process):
    """Waits until a connection is taken; false where the process ended instead."""
    while process.poll() is None:
        with contextlib.suppress(ConnectionRefusedError):
            socket.create_connection(('127.0.0.1', port), programs.TIMEOUT).close()
            return process.poll() is None
    return False


@contextlib.contextmanager
def peer(name, configure, command, log=None, package=None):
    """The port of a server, and the folder it runs in. It is started again where its port was taken
    meanwhile. What it prints goes to a file, which stays where one is named."""
    program = shutil.which(name, path=PATH)
    if not program:
        raise unittest.SkipTest(f'Debian package {package or name}')
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)  # servers started by root go on as someone else
        file, log = pathlib.Path(folder, 'config'), log or pathlib.Path(folder, 'log')
        for _ in range(5):
            port = free_port()
            file.write_text(configure(port, folder))
            with open(log, 'wb') as out:
                process = subprocess.Popen(
                    [program, *(word.format(folder=folder, file=file) for word in command)],
                    stdout=out, stderr=out)
            if listens(port, process):
                break
        else:
            raise AssertionError(log.read_text())
        try:
            yield port, folder
        finally:
            process.terminate()
            process.wait(programs.TIMEOUT)


def documented(name, backs):
    """Gives the text of a configuration, with the ports of the servers behind it; all stand for
    one where there is one only."""
    def configure(port, _):
        text = (CONFIGURATIONS / name).read_text()
        for old, new in (FRONT, port), *zip(BACKS, backs * len(BACKS)):
            assert text.count(old) == 1, f'{old} in {name}'
            text = text.replace(old, f'127.0.0.1:{new}')
        return text
    return configure


def haproxy(*backs):
    return peer('haproxy', documented('haproxy.cfg', backs), ['-f', '{file}'])


def logging_haproxy(back, log):
    """Prints the server that each request went to, into a file."""
    def configure(*place):
        return documented('haproxy.cfg', [back])(*place).replace(
            'mode http\n', 'mode http\n    log stdout format raw daemon\n'
            '    log-format "passed to %s"\n')
    return peer('haproxy', configure, ['-f', '{file}'], log)


NGINX = ['-p', '{folder}', '-c', '{file}', '-e', 'stderr', '-g', 'daemon off;']


def nginx(*backs, configure=None):
    return peer('nginx', configure or documented('nginx.conf', backs), NGINX)


def logging_nginx(back, log):
    def configure(*place):
        return documented('nginx.conf', [back])(*place).replace(
            'access_log off;',
            f'log_format passed "passed to $upstream_addr"; access_log {log}.requests passed;')
    return peer('nginx', configure, NGINX, log)


def apache(configure):
    return peer('apache2', configure, ['-DFOREGROUND', '-f', '{file}'], package='apache2-bin')
