#!/usr/bin/env python3
"""Envelopes with attachments, exchanged with SOAP stacks and MIME libraries of other makers.

The example's server reads what they write, decodes it, and sends it back in SOAP 1.1, 1.2 or MTOM;
postwire-send asks servers of theirs. Both with a length and in chunks.
"""
import email.generator
import email.message
import email.parser
import email.policy
import http.client
import io
import json
import random
import subprocess
import unittest

import zeep

import programs
from programs import sha256

JARS = '/usr/share/java/'
API = ':'.join(JARS + name + '.jar' for name in ('javax.activation', 'javax.mail'))
STACKS = {  # the jars of each, and the versions of SOAP that it knows
    'saaj': (('javax.xml.soap-api', 'saaj-impl', 'stax-ex', 'mimepull'), ('1.1', '1.2')),
    'axis': (('axis-saaj', 'axis', 'axis-jaxrpc', 'commons-logging', 'commons-discovery', 'wsdl4j'),
             ('1.1',))}
ENVELOPES = {
    '1.1': b'<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body>'
           b'<ask xmlns="urn:t"/></s:Body></s:Envelope>',
    '1.2': b'<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope"><s:Body>'
           b'<ask xmlns="urn:t"/></s:Body></s:Envelope>'}
BODIES = b'\r\n--\r\n\0\xff', b'', random.Random(1).randbytes(100_000)
TOLD = (b'<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body>'
        b'<told xmlns="urn:t"><text>hello</text></told></s:Body></s:Envelope>')


def bare(name):
    """Without a path, and without what Python takes off at times at both ends."""
    return name.replace('\\', '/').rpartition('/')[2].strip(' "')


class Attachments(programs.TestCase):
    def start(self, *command):
        """Its first line; it ends with the test."""
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.__exit__, None, None, None)
        self.addCleanup(process.kill)
        return int(process.stdout.readline())

    def echo(self):
        return self.start(programs.FOLDER / 'attachments_server', '0')

    def post(self, port, content_type, body, chunks=False, action=''):
        connection = http.client.HTTPConnection('127.0.0.1', port, timeout=programs.TIMEOUT)
        self.addCleanup(connection.close)
        sent = [body[i:i + 997] for i in range(0, len(body), 997)] if chunks else body
        connection.request('POST', '/', sent, {'Content-Type': content_type, 'SOAPAction': action},
                           encode_chunked=chunks)
        answer = connection.getresponse()
        data = answer.read()
        self.assertEqual(answer.status, 200, data)
        return answer.headers['Content-Type'], data


class Java(Attachments):
    def stacks(self):
        for name, (jars, versions) in STACKS.items():
            path = ':'.join([API, *(JARS + jar + '.jar' for jar in jars)])
            folder = self.folder()
            subprocess.run([programs.needed('javac'), '-nowarn', '-cp', path, '-d', folder,
                            programs.DATA.parent / 'programs/Soap.java'], check=True,
                           stderr=subprocess.DEVNULL)
            for version in versions:
                for framing in 'length', 'chunked':
                    yield ['java', '-cp', f'{folder}:{path}', 'Soap'], version, framing

    def test_what_they_write_is_read_and_what_is_written_they_read(self):
        port, files, seen = self.echo(), [self.file(body) for body in BODIES], 0
        digests = [int(sha256(body), 16) for body in BODIES]
        for java, version, framing in self.stacks():
            said = subprocess.run([*java, 'client', f'http://127.0.0.1:{port}/', version, framing,
                                   *files], stdout=subprocess.PIPE, text=True, check=True).stdout
            self.assertEqual(said.splitlines(), ['200 ask', *(
                f'part{i}@java {digest}' for i, digest in enumerate(digests, 4))])
            seen += 1
        self.assertEqual(seen, 6)

    def test_their_servers_are_asked(self):
        seen = 0
        for java, version, framing in self.stacks():
            url = f'http://127.0.0.1:{self.start(*java, "server", version, framing)}/'
            for options in ([], ['--chunked', '1000'], ['--encoding', 'base64']):
                attached = [word for i, body in enumerate(BODIES) for word in
                            ('--attach', f'{self.file(body, f"a;b{i}")};;id{i}@here')]
                done = self.run_program('postwire-send', url, '--json', '--soap', version, *attached,
                                        '--body', self.file(ENVELOPES[version]), *options)
                self.assertEqual((done.returncode, done.stderr), (0, ''))
                parts = json.loads(done.stdout)['answer']['parts'][1:]
                self.assertEqual([p['sha256'] for p in parts], [sha256(b) for b in BODIES])
                self.assertEqual([p['contentId'] for p in parts],
                                 [f'<id{i}@here>' for i in range(len(BODIES))])
                seen += 1
        self.assertEqual(seen, 18)


class PythonsEmail(Attachments):
    def parsed(self, content_type, body):
        head = f'Content-Type: {content_type}\r\n\r\n'.encode()
        return email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(head + body)

    def seen(self, message):
        """What Python reads: decoded bodies, Content-IDs and file names."""
        return [(part.get_payload(decode=True), str(part['Content-ID'] or '').strip('<>'),
                 part.get_filename() or '') for part in message.get_payload()]

    def random_message(self, dice):
        message = email.message.EmailMessage(policy=email.policy.SMTP)
        message['Content-Type'] = 'multipart/related; type="text/xml"'
        for i in range(dice.randrange(1, 6)):
            part = email.message.EmailMessage(policy=message.policy)
            coding = dice.choice(('base64', 'quoted-printable', '7bit', '8bit', 'binary'))
            size = dice.choice((0, 1, 2, 3, 56, 57, 58, 75, 76, 77, dice.randrange(3000)))
            body = dice.randbytes(size)
            if coding in ('7bit', '8bit', 'quoted-printable') or i == 0:
                body = bytes(dice.choices(b'abc =.-\t', k=size)).strip()
                coding = '7bit' if coding == '8bit' and i == 0 else coding
            part.set_content(body, *(('text', 'xml') if i == 0 else ('application', 'x-random')),
                             cte=coding, cid=f'<{i}.{dice.randrange(9)}@x>',
                             filename=''.join(dice.choices('ab;"\\ %\u00e4\u20ac', k=dice.randrange(9))
                                              ) or None)
            message.attach(part)
        out = io.BytesIO()
        email.generator.BytesGenerator(out, policy=message.policy).flatten(message)
        return message['Content-Type'], out.getvalue().partition(b'\r\n\r\n')[2]

    def test_a_thousand_random_messages_are_read_alike(self):
        port, dice, attached = self.echo(), random.Random(17), 0
        for number in range(1000):
            content_type, body = self.random_message(dice)
            answer = self.post(port, content_type, body, chunks=dice.random() < .5)
            sent, back = self.seen(self.parsed(content_type, body)), [(self.parsed(
                *answer).get_payload(decode=True), '', '')]
            if answer[0].startswith('multipart/'):
                back = self.seen(self.parsed(*answer))
            ids = [part[1] for part in sent]
            with self.subTest(number=number):
                self.assertEqual(len(set(ids)), len(ids))
                self.assertEqual(sent[0][0], back[0][0])
                self.assertEqual(*([(b, i, bare(name)) for b, i, name in parts[1:]]
                                   for parts in (sent, back)))
            attached += len(sent) - 1
        self.assertLess(1000, attached)


class Receipts(Attachments):
    def test_root_action_and_decoded_sizes_are_told(self):
        options = ['--soap', '1.2', '--mtom', '--action', 'urn:a;b', '--start', 'r', '--encoding',
                   'base64', '--attach', f'{self.file(BODIES[2], "a;b")};a/b;c']
        server, echo = self.server(), self.server('--echo')
        done = [self.run_program('postwire-send', url, '--body', self.file(ENVELOPES['1.2']),
                                 *options, '--save', folder).stdout
                for url in (server.url, echo.url) for folder in [self.folder()]]
        self.assertIn('<soap version="1.2 MTOM" action="urn:a;b" root="r" size="112">', done[0])
        self.assertIn('<attachment id="c" name="a;b" size="100000"/>', done[0])
        self.assertIn('SOAP 1.2 MTOM, root r, 112 bytes, action urn:a;b\n'
                      '  c  a;b  100000 bytes decoded\n', done[1])


class Examples(Attachments):
    def test_the_client_lists_what_the_server_sends_back(self):
        done = self.run_program('attachments_client', f'http://127.0.0.1:{self.echo()}/',
                                self.file(b'<e/>'), self.file(b'12345', 'a;b'))
        self.assertEqual((done.returncode, done.stdout), (0, '200 <e/>\na;b: 5 bytes\n'))

    def test_mtom_is_read_whole(self):
        body = b'<e><data><xop:Include href="cid:a%40b" xmlns:xop="urn:x"/></data></e>'
        wire = programs.multipart('B', (['Content-Type: application/xop+xml'], body),
                                  (['Content-ID: <a@b>', 'Content-Type: a/b'], b'12345'))
        done = self.run_program('read_mtom', self.file(programs.request(
            wire, 'Content-Type: multipart/related; boundary=B')))
        self.assertEqual((done.stdout, done.stderr), ('data: 5 bytes of a/b\n', ''))


class Zeep(Attachments):
    def test_reads_mtom(self):
        inner = b'\r\n'.join((
            b'--B', b'Content-Type: application/xop+xml; charset=utf-8; type="text/xml"', b'', TOLD,
            b'--B', b'Content-ID: <a>', b'', b'attached', b'--B--', b''))
        content_type, body = self.post(self.echo(), 'multipart/related; type="application/xop+xml"; '
                                       'start-info="text/xml"; boundary=B', inner)
        self.assertIn('type="application/xop+xml"', content_type)
        server = self.server('--answer', f'{self.file(body)};{content_type}')
        wsdl = (programs.DATA / 'ask.wsdl').read_text().replace('$url', server.url)
        told = zeep.Client(str(self.file(wsdl.encode()))).service.ask('a & b')
        self.assertEqual((told.root, [a.content for a in told.attachments]),
                         ('hello', [b'attached']))


if __name__ == '__main__':
    programs.main()
