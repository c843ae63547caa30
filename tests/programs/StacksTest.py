#!/usr/bin/env python3
"""The server among MIME and SOAP libraries of other makers, each as writer and as reader.

usage: StacksTest.py PROGRAM_FOLDER [TEST...]

What a library writes must come out of the server's receipt; what the server's writer makes of it,
as an echo, must come out of the library's reader. Libraries that are missing are skipped.
"""
import email.generator
import email.message
import email.mime.application
import email.mime.multipart
import email.mime.text
import email.parser
import email.policy
import hashlib
import http.client
import io
import pathlib
import random
import sys
import tempfile
import unittest
import xml.etree.ElementTree

import programs

try:
    import requests_toolbelt
    from requests_toolbelt.multipart import decoder
except ImportError:
    requests_toolbelt = None
try:
    import zeep
    from zeep.wsdl.attachments import MessagePack
except ImportError:
    zeep = None

FOLDER = sys.argv[1]
ENVELOPE = b'<Envelope>\r\n</Envelope>\r\n'
# What comes close to a delimiter, and what is longer than any read-ahead.
BODIES = (ENVELOPE, b'', b'\r\n\r\n--\r\n--X\r\n\0\r', random.Random(1).randbytes(100_000))

WSDL = '''<definitions xmlns="http://schemas.xmlsoap.org/wsdl/" xmlns:t="urn:t" targetNamespace="urn:t"
    xmlns:soap="http://schemas.xmlsoap.org/wsdl/soap/" xmlns:xsd="http://www.w3.org/2001/XMLSchema">
  <types><xsd:schema targetNamespace="urn:t" elementFormDefault="qualified">
    <xsd:element name="ask"><xsd:complexType><xsd:sequence>
      <xsd:element name="text" type="xsd:string"/></xsd:sequence></xsd:complexType></xsd:element>
    <xsd:element name="told"><xsd:complexType><xsd:sequence>
      <xsd:element name="text" type="xsd:string"/></xsd:sequence></xsd:complexType></xsd:element>
  </xsd:schema></types>
  <message name="in"><part name="p" element="t:ask"/></message>
  <message name="out"><part name="p" element="t:told"/></message>
  <portType name="port"><operation name="ask">
    <input message="t:in"/><output message="t:out"/></operation></portType>
  <binding name="binding" type="t:port">
    <soap:binding style="document" transport="http://schemas.xmlsoap.org/soap/http"/>
    <operation name="ask"><soap:operation soapAction="urn:t#ask"/>
      <input><soap:body use="literal"/></input><output><soap:body use="literal"/></output>
    </operation></binding>
  <service name="service"><port name="port" binding="t:binding">
    <soap:address location="{url}"/></port></service>
</definitions>
'''
TOLD = ('<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body>'
        '<told xmlns="urn:t"><text>hello</text></told></s:Body></s:Envelope>').encode()


class Stacks(unittest.TestCase):
    def server(self, *options):
        server = programs.Server(*options)
        self.addCleanup(server.__exit__, None)
        return server

    def post(self, server, body, content_type, chunks=False):
        """The answer's content type and body."""
        connection = http.client.HTTPConnection('127.0.0.1', server.port, timeout=programs.TIMEOUT)
        sent = [body[i:i + 4093] for i in range(0, len(body), 4093)] if chunks else body
        connection.request('POST', '/', sent, {'Content-Type': content_type},
                           encode_chunked=chunks)
        answer = connection.getresponse()
        read = answer.read()
        self.assertEqual(answer.status, 200, read)
        connection.close()
        return answer.headers['Content-Type'], read

    def arrives(self, body, content_type, bodies=BODIES):
        """In the receipt, with a length and in chunks; gives the echo of it."""
        receipts, echoes = self.server(), self.server('--echo')
        for chunks in False, True:
            told = xml.etree.ElementTree.fromstring(
                self.post(receipts, body, content_type, chunks)[1])
            seen = [(p.get('size'), p.get('sha256')) for p in told.iter('part') if p.get('size')]
            self.assertEqual(seen, [(str(len(b)), hashlib.sha256(b).hexdigest()) for b in bodies])
        return self.post(echoes, body, content_type)


class PythonsEmail(Stacks):
    def read(self, content_type, body):
        head = f'Content-Type: {content_type}\r\n\r\n'.encode()
        return email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(head + body)

    def write(self, message):
        """Its content type, and its bytes without the head."""
        out = io.BytesIO()
        email.generator.BytesGenerator(out, policy=email.policy.HTTP.clone(max_line_length=0)).flatten(message)
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


@unittest.skipUnless(requests_toolbelt, 'Debian package python3-requests-toolbelt')
class RequestsToolbelt(Stacks):
    def test_form_data(self):
        fields = [(f'part{i}', (f'{i}.bin', b, 'application/octet-stream'))
                  for i, b in enumerate(BODIES)]
        encoder = requests_toolbelt.MultipartEncoder(fields)
        content_type, echo = self.arrives(encoder.to_string(), encoder.content_type)
        parts = decoder.MultipartDecoder(echo, content_type).parts
        self.assertEqual([p.content for p in parts], list(BODIES))
        self.assertIn(b'filename=0.bin', parts[0].headers[b'content-disposition'])


@unittest.skipUnless(zeep, 'Debian package python3-zeep')
class Zeep(Stacks):
    def test_asks_and_reads_plain_and_multipart_answers(self):
        related = b'\r\n'.join((b'--uuid-1', b'Content-Type: text/xml', b'Content-ID: <root>', b'',
                                TOLD, b'--uuid-1', b'Content-ID: <a>', b'', b'attached', b'--uuid-1--'))
        for body, content_type, attached in (
                (TOLD, 'text/xml; charset=utf-8', []),
                (related, 'multipart/related; type=text/xml; boundary=uuid-1', [b'attached'])):
            with tempfile.TemporaryDirectory() as folder:
                answer, wsdl = pathlib.Path(folder, 'answer'), pathlib.Path(folder, 'wsdl')
                answer.write_bytes(body)
                server = self.server('--answer', f'{answer};{content_type}', '--save', folder)
                wsdl.write_text(WSDL.format(url=server.url))
                told = zeep.Client(str(wsdl)).service.ask('a & b')
                if isinstance(told, MessagePack):
                    self.assertEqual([a.content for a in told.attachments], attached)
                    told = told.root
                else:
                    self.assertEqual(attached, [])
                self.assertEqual(told, 'hello')
                saved = [f.read_bytes() for f in pathlib.Path(folder).glob('000001-*')]
                self.assertEqual(len(saved), 1)
                self.assertIn(b'<ns0:text>a &amp; b</ns0:text>', saved[0])


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
