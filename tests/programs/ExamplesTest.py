#!/usr/bin/env python3
"""The examples that the documents show do what is said there."""
import email
import socket
import struct
import subprocess

import programs
from programs import in_chunks, multipart, request

PARTS = multipart('B', (['Content-Type: text/xml'], b'<soap/>'), ([], b'\0\r\n--A'))
BARE = b'--B\r\n\r\n<soap/>\r\n--B\r\n\r\n\0\r\n--A\r\n--B--'  # as most SOAP stacks write it
TYPE = 'Content-Type: multipart/related; boundary=B; type="text/xml"'


class Examples(programs.TestCase):
    def start(self, *command, pipe):
        process = subprocess.Popen([programs.FOLDER / command[0], *command[1:]],
                                   **{pipe: subprocess.PIPE})
        self.addCleanup(process.__exit__, None, None, None)
        self.addCleanup(process.kill)
        return process, getattr(process, pipe)

    def test_soap_server_answers_with_an_attachment(self):
        _, errors = self.start('soap_server', pipe='stderr')
        port = int(errors.readline().split(b':')[2].rstrip(b'/\n'))
        self.enterContext(programs.Client(port))  # says nothing, and holds up nobody
        with programs.Client(port) as client:
            for wire in request(PARTS, TYPE), request(BARE, TYPE), in_chunks(PARTS, 9, TYPE):
                client.send(wire)
                status, head, body = client.answer()
                answer = email.message_from_bytes(head.partition('\r\n')[2].encode() + body)
                self.assertEqual((status, [(part.get_content_type(), part.get_payload())
                                           for part in answer.get_payload()]),
                                 (200, [('text/xml', '<parts>2</parts>'), ('text/plain', '/svc')]))
            client.send(b'GET / HTTP/1.1\r\n\r\n')
            self.assertEqual(client.answer()[0], 405)
            self.assertTrue(client.at_end())

    def test_catch_ladder_tells_errors_apart(self):
        cases = (
            (request(b'x'), '200 /svc'), (b'', '0 end of input stream'),
            (b'POST / HTTP/1.1\r\nX', '0 end of input stream'),
            (b'GET / HTTP/1.1\r\n\r\n', '405 method is not POST'),
            (request(b'x', 'Transfer-Encoding: chunked'), '400 both'),
            (request(b'', 'Content-Length: 9', length=False), '400 '),
            (request(PARTS[:-9], TYPE), '400 '),
            (request(b'x', 'Transfer-Encoding: chunked', length=False), '400 '))
        lines = self.run_program('catch_ladder', *(self.file(wire) for wire, _ in cases))
        for line, (wire, expected) in zip(lines.stdout.splitlines(), cases, strict=True):
            self.assertTrue(line.startswith(expected), (wire, line))

    def test_client_and_server_of_the_writing_page(self):
        _, output = self.start('answer_request', '0', '3', pipe='stdout')
        port = output.readline().decode().strip()
        for said in b'no HTTP\r\n', b'':  # neither one ends the server
            with programs.Client(int(port)) as client:
                client.send(said)
                client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                         struct.pack('ii', not said, 0))
        self.assertEqual(self.run_program('post_with_attachments', '127.0.0.1', port, __file__,
                                          self.file(b'')).stdout,
                         '200 OK\n0 bytes and 3 parts for /\n')

    def test_a_failed_connection_is_reported(self):
        with socket.create_server(('127.0.0.1', 0)) as taken:
            port = str(taken.getsockname()[1])
            busy = self.run_program('answer_request', port)
        gone = self.run_program('post_with_attachments', '127.0.0.1', port, __file__)
        self.assertEqual((busy.returncode, gone.returncode), (1, 1))


if __name__ == '__main__':
    programs.main()
