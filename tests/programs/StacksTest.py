#!/usr/bin/env python3
"""The server among MIME and SOAP libraries of other makers, each as writer and as reader.

What a library writes must come out of the server's receipt; what the server's writer makes of it,
as an echo, must come out of the library's reader.
"""
import email.generator
import email.message
import email.mime.application
import email.mime.multipart
import email.mime.text
import email.parser
import email.policy
import http.client
import io
import random

import requests_toolbelt
import zeep
from requests_toolbelt.multipart import decoder

import programs
from programs import sha256

ENVELOPE = b'<Envelope>\r\n</Envelope>\r\n'
# What comes close to a delimiter, and what is longer than any read-ahead.
BODIES = (ENVELOPE, b'', b'\r\n\r\n--\r\n--X\r\n\0\r', random.Random(1).randbytes(100_000))
TOLD = ('<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body>'
        '<told xmlns="urn:t"><text>hello</text></told></s:Body></s:Envelope>').encode()
RELATED = b'\r\n'.join((b'--uuid-1', b'Content-Type: text/xml', b'Content-ID: <root>', b'', TOLD,
                        b'--uuid-1', b'Content-ID: <a>', b'', b'attached', b'--uuid-1--'))


class Stacks(programs.TestCase):
    def post(self, server, body, content_type, chunks=False):
        """The answer's content type and body."""
        connection = http.client.HTTPConnection('127.0.0.1', server.port, timeout=programs.TIMEOUT)
        self.addCleanup(connection.close)
        sent = [body[i:i + 4093] for i in range(0, len(body), 4093)] if chunks else body
        connection.request('POST', '/', sent, {'Content-Type': content_type},
                           encode_chunked=chunks)
        answer = connection.getresponse()
        self.assertEqual(answer.status, 200)
        return answer.headers['Content-Type'], answer.read()

    def arrives(self, body, content_type, bodies=BODIES):
        """In the receipt, with a length and in chunks; gives the echo of it."""
        server = self.server()
        for chunks in False, True:
            _, message = programs.receipt(self.post(server, body, content_type, chunks)[1])
            seen = [(p.get('size'), p.get('sha256')) for p in message.iter('part') if p.get('size')]
            self.assertEqual(seen, [(str(len(b)), sha256(b)) for b in bodies])
        return self.post(self.server('--echo'), body, content_type)


class PythonsEmail(Stacks):
    def read(self, content_type, body):
        head = f'Content-Type: {content_type}\r\n\r\n'.encode()
        return email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(head + body)

    def write(self, message):
        """Its bytes without the head, and its content type."""
        out, policy = io.BytesIO(), email.policy.HTTP.clone(max_line_length=0)
        email.generator.BytesGenerator(out, policy=policy).flatten(message)
        return out.getvalue().partition(b'\r\n\r\n')[2], message['Content-Type']

    def test_related(self):
        message = email.mime.multipart.MIMEMultipart('related', type='text/xml')
        message.attach(email.mime.text.MIMEText(ENVELOPE.decode(), 'xml', 'us-ascii'))
        for body in BODIES[1:]:
            part = email.mime.application.MIMEApplication(body)
            part['Content-ID'] = '<a@b>'
            message.attach(part)
        wire = [part.get_payload().replace('\r\n', '\n').replace('\n', '\r\n').encode()
                for part in message.get_payload()]
        content_type, echo = self.arrives(*self.write(message), wire)
        parts = self.read(content_type, echo).get_payload()
        self.assertEqual([p.get_content() for p in parts[1:]], list(BODIES[1:]))
        self.assertEqual([p['Content-ID'] for p in parts[1:]], ['<a@b>'] * 3)

    def test_nested(self):
        inner = email.mime.multipart.MIMEMultipart('mixed', boundary='inner')
        inner.attach(email.mime.text.MIMEText('a', policy=email.policy.HTTP))
        outer = email.mime.multipart.MIMEMultipart('related', boundary='uuid:outer')
        outer.preamble, outer.epilogue = 'a preamble', 'an epilogue'
        for part in inner, email.mime.text.MIMEText('b'):
            outer.attach(part)
        content_type, echo = self.arrives(*self.write(outer), (b'a', b'b'))
        read = self.read(content_type, echo).get_payload()
        self.assertEqual([read[0].get_payload(0).get_payload(), read[1].get_payload()], ['a', 'b'])


class RequestsToolbelt(Stacks):
    def test_form_data(self):
        fields = [(f'part{i}', (f'{i}.bin', b, 'application/octet-stream'))
                  for i, b in enumerate(BODIES)]
        encoder = requests_toolbelt.MultipartEncoder(fields)
        content_type, echo = self.arrives(encoder.to_string(), encoder.content_type)
        parts = decoder.MultipartDecoder(echo, content_type).parts
        self.assertEqual([p.content for p in parts], list(BODIES))
        self.assertIn(b'filename="0.bin"', parts[0].headers[b'content-disposition'])


class Zeep(Stacks):
    def ask(self, body, content_type):
        """What its service gives where this is the answer; the question arrives."""
        saved = self.folder()
        server = self.server('--answer', f'{self.file(body)};{content_type}', '--save', saved)
        wsdl = (programs.DATA / 'ask.wsdl').read_text().replace('$url', server.url)
        told = zeep.Client(str(self.file(wsdl.encode()))).service.ask('a & b')
        question, = saved.iterdir()
        self.assertIn('<ns0:text>a &amp; b</ns0:text>', question.read_text())
        return told

    def test_asks_and_reads_plain_and_multipart_answers(self):
        self.assertEqual(self.ask(TOLD, 'text/xml; charset=utf-8'), 'hello')
        told = self.ask(RELATED, 'multipart/related; type=text/xml; boundary=uuid-1')
        self.assertEqual((told.root, [a.content for a in told.attachments]),
                         ('hello', [b'attached']))


if __name__ == '__main__':
    programs.main()
