#!/usr/bin/env python3
"""postwire-send: what it puts on the wire, what it makes of answers, what it refuses to send."""
import json
import os
import pty
import shlex
import socket
import string
import struct
import threading

import programs
from programs import OK, Listener, sha256

PROGRAM = programs.FOLDER / 'postwire-send'
BINARY = bytes(range(256)) * 500 + b'\r\n--in-\r\n--\r\n\0'
MODES = ((), ('--chunked', '1'), ('--chunked', '100000'), ('--direct',), ('--nest',),
         ('--nest', '--chunked', '1000'))


class Forgetful(Listener):
    def complete(self):
        self.received = self.received[-100:]
        return self.received.endswith(b'\r\n0\r\n\r\n')


class Send(programs.TestCase):
    def setUp(self):
        self.body = self.file(b'<soap/>', 'envelope.xml')
        self.binary = self.file(BINARY, 'data.bin')
        self.large = self.file(b'', 'large')
        os.truncate(self.large, 30_000_000)

    def send(self, url, *options, body=None, **kinds):
        return self.run_program('postwire-send', url, '--body', body or self.body, *options,
                                **kinds)

    def answered(self, answer, *options, **kinds):
        with Listener(answer) as listener:
            return self.send(listener.url, *options, **kinds)


@programs.row_tests('send_options.txt')
class Options(Send):
    @classmethod
    def setUpClass(cls):
        cls.listener = cls.enterClassContext(Listener())
        cls.mute = cls.enterClassContext(socket.create_server(('127.0.0.1', 0)))
        with socket.create_server(('127.0.0.1', 0)) as gone:
            cls.gone = 'http://127.0.0.1:%d/' % gone.getsockname()[1]

    def check(self, code, says, options):
        names = dict(url=self.listener.url, port=self.listener.authority.split(':')[1],
                     gone=self.gone, mute='//127.0.0.1:%d/' % self.mute.getsockname()[1],
                     body=self.body, binary=self.binary, large=self.large, empty=self.file(b''),
                     tricky=self.file(b'x' * 65530 + b'\r\n--taken--'), folder=self.folder(),
                     inner=self.file(b'--in-taken'))
        said, options = (string.Template(programs.unescaped(text).decode()).substitute(names)
                         for text in (says, options))
        words = shlex.split(options)
        words += [] if '--body' in words else ['--body', self.body]
        self.listener.received = b''
        done = self.run_program('postwire-send', *words)
        self.assertEqual(done.returncode, int(code), done.stderr)
        head = self.listener.head().decode()
        self.assertIn(said.lower(), (done.stderr if int(code) else head).lower())
        if code == '2':
            self.assertEqual((done.stdout, self.listener.received), ('', b''))


@programs.row_tests('send_answers.txt')
class ExitCodes(Send):
    def check(self, code, says, answer):
        done = self.answered(programs.unescaped(answer))
        self.assertEqual(done.returncode, int(code))
        self.assertIn(programs.unescaped(says).decode(), done.stdout if code < '2' else done.stderr)


class OnTheWire(Send):
    def test_every_framing_arrives_whole(self):
        server, empty = self.server('--echo'), self.file(b'')
        for mode in MODES:
            with self.subTest(mode=mode):
                done = self.send(server.url, '--json', *mode, '--attach', self.binary,
                                 '--attach', f'{empty};text/plain; charset=utf-8;e',
                                 '--attach', f'{self.binary};image/png')
                self.assertEqual((done.returncode, done.stderr), (0, ''))
                report = json.loads(done.stdout)
                parts = report['answer']['parts']
                leaves = parts[:1] + parts[1]['parts'] if '--nest' in mode else parts
                self.assertEqual([part['sha256'] for part in leaves],
                                 [file['sha256'] for file in report['sent']])
                self.assertEqual([(part['type'], part['contentId'], part['size'])
                                  for part in leaves],
                                 [('text/xml; charset=utf-8', '<envelope@postwire>', 7),
                                  ('application/octet-stream', '<data.bin@postwire>', len(BINARY)),
                                  ('text/plain; charset=utf-8', '<e>', 0),
                                  ('image/png', '<data.bin-2@postwire>', len(BINARY))])
                self.assertEqual(leaves[1]['sha256'], sha256(BINARY))

    def test_one_body_with_its_fields(self):
        for options, body in ((), b'<soap/>'), \
                (('--chunked', '4'), programs.chunked(b'<soap/>', 4)):
            with Listener() as listener:
                done = self.send(listener.url, *options, '--header', 'X-Odd:  a; b; c="d" ')
            self.assertEqual((done.returncode, done.stdout.split('\n')[0]), (0, '200 OK'))
            self.assertTrue(listener.received.startswith(b'POST /svc?a=b HTTP/1.1\r\n'))
            self.assertTrue(listener.received.endswith(b'\r\n\r\n' + body))
            framing = {'Transfer-Encoding': 'chunked'} if options else {'Content-Length': '7'}
            fields = listener.fields()
            self.assertRegex(fields.pop('User-Agent'), '^postwire-send/')
            self.assertEqual(fields, {
                'Connection': 'close', 'Content-Type': 'text/xml; charset=utf-8',
                'Host': listener.authority, 'SOAPAction': '""', 'X-Odd': 'a; b; c="d"', **framing})

    def test_parts_with_their_fields(self):
        with Listener() as listener:
            self.send(listener.url, '--boundary', 'b1', '--attach', self.binary)
        head = ('\r\n--b1\r\nContent-Type: application/octet-stream\r\n'
                'Content-Transfer-Encoding: binary\r\nContent-ID: <data.bin@postwire>\r\n'
                'Content-Disposition: attachment; filename=data.bin\r\n'
                f'Content-Length: {len(BINARY)}\r\n\r\n').encode()
        self.assertIn(head + BINARY + b'\r\n--b1--\r\n', listener.received)

    def test_boundary_is_found_wherever_it_lies(self):
        with Listener() as listener:
            for at in 0, 65526, 65527, 65535, 65536, 131071:
                for delimiter, code in (b'--in-a-row', 2), (b'--in-a-ro', 0):
                    file = self.file(b'-' * at + delimiter)
                    done = self.send(listener.url, '--boundary', 'in-a-row', '--attach', file)
                    self.assertEqual(done.returncode, code, (at, delimiter))

    def test_large_file_goes_out_without_being_held(self):
        os.truncate(self.large, 200_000_000)
        for options in (self.body, '--direct', '--attach', self.large), \
                (self.large, '--chunked', '65536'):
            with Forgetful() as listener:
                words = [PROGRAM, listener.url, '--quiet', '--body', *options]
                _, status, usage = os.wait4(os.spawnv(os.P_NOWAIT, PROGRAM, words), 0)
            self.assertEqual(status, 0)
            self.assertLess(usage.ru_maxrss, 150_000)


class Answers(Send):
    def test_a_server_that_does_not_answer_in_time(self):
        done = self.answered(None, '--timeout', '0.5')
        self.assertEqual(done.returncode, 4)
        self.assertIn('time limit', done.stderr)

    def test_output_that_cannot_be_written(self):
        with open('/dev/full', 'wb') as full:
            for option, code in ('--json', 3), ('--quiet', 0):
                self.assertEqual(self.answered(OK, option, stdout=full).returncode, code)

    def test_refusal_before_all_was_sent(self):
        server = self.server('--max-body', '1000')
        for options, body in ((), self.large), (('--direct', '--attach', self.large), None):
            done = self.send(server.url, *options, body=body)
            self.assertEqual((done.returncode, done.stdout.split('\n')[0]),
                             (1, '413 Content Too Large'))

    def test_nothing_of_an_answer_can_steer_the_terminal(self):
        head = b'\xc2\x9b31m\x9b\xe9\xc3\xa9'
        text = (head + b'\r\n\x1b[31m\t\0\x7f\xed\xa0\x80\xf4\x90\x80\x80\xc1\x81\xe2\x82'
                b'\xf0\x9f\x90\x98\xf0\x9f')
        answer = (b'HTTP/1.1 200 %b\r\nContent-Type: text/%b\r\nContent-Length: %d\r\n\r\n%b'
                  % (head, head, len(text), text))
        shown = '?31m??\xe9'
        self.assertEqual(self.answered(answer).stdout, f'200 {shown}\ntext/{shown}  {len(text)} '
                         f'bytes  sha256 {sha256(text)}\n\n{shown}\n'
                         f'?[31m???{11 * "?"}\U0001f418??\n')
        self.assertEqual(json.loads(self.answered(answer, '--json').stdout)['reason'],
                         '\x9b31m\x9b\xe9\xe9')

    def test_names_of_files_in_json_are_utf_8(self):
        for name, read in ('\xe4\u20ac.xml', '\xe4\u20ac.xml'), ('\udcff"\\\x1b', '\xff"\\\x1b'):
            done = self.answered(OK, '--json', body=self.file(b'', name))
            sent = json.loads(done.stdout.encode())['sent']
            self.assertEqual(sent[0]['file'].split('/')[-1], read)

    def test_parts_are_saved_and_the_connection_traced(self):
        trace, saved = self.folder() / 'trace', self.folder() / 'saved'
        done = self.send(self.server('--echo').url, '--attach', self.binary, '--save', saved,
                         '--trace', trace)
        self.assertEqual(done.returncode, 0)
        self.assertEqual({path.name: path.read_bytes() for path in saved.iterdir()},
                         {'envelope@postwire': b'<soap/>', 'data.bin@postwire': BINARY})
        self.assertRegex(trace.read_bytes(), rb'^\n<write\[\d+\]>\nPOST / HTTP/1\.1\r\n')
        self.assertEqual(trace.stat().st_mode & 0o777, 0o600)

    def said_on_a_terminal(self, url, *options):
        ours, its = pty.openpty()
        with os.fdopen(ours, 'rb', 0) as terminal:
            code = self.send(url, *options, body=self.large, stderr=its).returncode
            os.write(its, b'end')
            os.close(its)
            return code, terminal.read(65536)

    def test_upload_shows_its_progress_on_a_terminal_alone(self):
        url = self.server().url
        self.assertRegex(self.said_on_a_terminal(url)[1],
                         rb'^\r\[.*100 %.*MB/s  0:00 left  waiting for the answer \r?\n')
        self.assertEqual(self.said_on_a_terminal(url, '--quiet'), (0, b'end'))

    def test_progress_of_an_upload_that_is_cut_off(self):
        def reset():
            connection, _ = server.accept()
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack('ii', 1, 0))
            connection.close()

        with socket.create_server(('127.0.0.1', 0)) as server:
            url = 'http://127.0.0.1:%d/' % server.getsockname()[1]
            for _ in range(8):  # most often before the first byte
                thread = threading.Thread(target=reset)
                thread.start()
                code, said = self.said_on_a_terminal(url)
                self.assertEqual(code, 4)
                self.assertRegex(said, rb' \d+:\d\d left ')
                thread.join()


if __name__ == '__main__':
    programs.main()
