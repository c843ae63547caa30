"""Starts servers and proxies of other makers, on ports that are free at the moment."""
import contextlib
import os
import pathlib
import socket
import subprocess
import tempfile

import programs

# What a user is told to run.
CONFIGURATIONS = programs.DATA.parents[1] / 'docs' / 'scale-out'
FRONT, BACKS = '127.0.0.1:8100', ('127.0.0.1:8101', '127.0.0.1:8102')
NGINX = ['nginx', '-p', '{folder}', '-c', '{file}', '-e', 'stderr', '-g', 'daemon off;']
HAPROXY = ['haproxy', '-f', '{file}']
APACHE = ['apache2', '-DFOREGROUND', '-f', '{file}']


def listens(port, process):
    """Waits until a connection is taken; false where the process ended instead."""
    while process.poll() is None:
        with contextlib.suppress(ConnectionRefusedError):
            programs.Client(port).socket.close()
            return process.poll() is None
    return False


@contextlib.contextmanager
def peer(command, configuration, log=None):
    """The port of a server, and the folder it runs in. It is started again where its port was taken
    meanwhile. What it prints goes to a file, which stays where one is named."""
    program = programs.needed(command[0])
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)  # servers started by root go on as someone else
        file, log = pathlib.Path(folder, 'config'), log or pathlib.Path(folder, 'log')
        for _ in range(5):
            with socket.create_server(('127.0.0.1', 0)) as taken:
                port = taken.getsockname()[1]
            file.write_text(configuration.replace('{port}', str(port)).replace('{folder}', folder))
            with open(log, 'wb') as out:
                process = subprocess.Popen(
                    [program, *(word.format(folder=folder, file=file) for word in command[1:])],
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
    """The text of a configuration, with the ports of the servers behind it; all stand for one where
    there is one only."""
    text = (CONFIGURATIONS / name).read_text()
    for old, new in (FRONT, '{port}'), *zip(BACKS, backs * len(BACKS)):
        assert text.count(old) == 1, f'{old} in {name}'
        text = text.replace(old, f'127.0.0.1:{new}')
    return text


def haproxy(*backs, log=None):
    """Prints into the log, where there is one, a line for each request passed on; so does nginx."""
    text = documented('haproxy.cfg', backs)
    if log:
        text = text.replace('mode http\n', 'mode http\n    log stdout format raw daemon\n'
                            '    log-format "passed to %s"\n')
    return peer(HAPROXY, text, log)


def nginx(*backs, log=None):
    text = documented('nginx.conf', backs)
    if log:
        # A connection that it refuses would else stay for 5 seconds.
        text = text.replace('access_log off;', 'lingering_timeout 100ms; log_format passed '
                            f'"passed to $upstream_addr"; access_log {log}.requests passed;')
    return peer(NGINX, text, log)
