#!/usr/bin/env python3
"""The reference collector: what it serves, what it stores, and what it refuses."""

import hashlib
import io
import json
import os
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.error
import urllib.request
import zipfile

COLLECTOR = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'tools', 'collector', 'collector.sh')
MAX_BYTES = 65536


def free_port():
    with socket.socket() as s:
        s.bind(('127.0.0.1', 0))
        return s.getsockname()[1]


def multipart(fields, files):
    boundary = 'collector-test-boundary'
    body = io.BytesIO()
    for name, value in fields.items():
        body.write(f'--{boundary}\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n'.encode())
        body.write(value.encode() + b'\r\n')
    for name, (filename, content) in files.items():
        body.write(f'--{boundary}\r\nContent-Disposition: form-data; name="{name}"; filename="{filename}"\r\n'
                   'Content-Type: application/zip\r\n\r\n'.encode())
        body.write(content + b'\r\n')
    body.write(f'--{boundary}--\r\n'.encode())
    return body.getvalue(), f'multipart/form-data; boundary={boundary}'


def report_zip(info_ini, dump=None):
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, 'w', zipfile.ZIP_DEFLATED) as z:
        z.writestr('client.log', 'renderer: device lost\n')
        z.writestr('crash.dmp', dump or os.urandom(4096))
        if info_ini is not None:
            z.writestr('info.ini', info_ini)
    return buffer.getvalue()


# As QSettings writes it: quotes for the comma, \" and \\ escaped, non-ASCII as \xHHHH.
INFO_INI = ('[General]\r\nversion=3.0.0-beta\r\n'
            'description="Gr\\xf6\\xdf\\x65r Hafen, \\"Absturz\\" \\\\ \\x20ac"\r\n').encode()


class CollectorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.reports = os.path.join(cls.tmp.name, 'reports')
        cls.base = f'http://127.0.0.1:{free_port()}'
        cls.log = open(os.path.join(cls.tmp.name, 'collector.log'), 'w+')
        cls.server = subprocess.Popen([COLLECTOR, '--port', cls.base.rsplit(':', 1)[1], '--reports', cls.reports,
                                       '--max-bytes', str(MAX_BYTES)], stderr=cls.log)
        # Waits only for a server that never comes up, so a broken start fails instead of hanging.
        for _ in range(300):
            try:
                urllib.request.urlopen(cls.base + '/').close()
                return
            except OSError:
                if cls.server.poll() is not None:
                    break
                time.sleep(0.1)
        cls.tearDownClass()
        raise RuntimeError('the collector did not start')

    @classmethod
    def tearDownClass(cls):
        cls.server.terminate()
        cls.server.wait()
        cls.log.close()
        cls.tmp.cleanup()

    def post(self, fields, files, path=None):
        body, content_type = multipart(fields, files)
        request = urllib.request.Request(path or self.base + '/upload', body, {'Content-Type': content_type})
        try:
            with urllib.request.urlopen(request) as reply:
                return reply.status, reply.read().decode()
        except urllib.error.HTTPError as error:
            return error.code, error.read().decode()

    def stored(self):
        return sorted(os.listdir(self.reports))

    def test_post_info_points_back_at_the_collector(self):
        with urllib.request.urlopen(self.base + '/service-data/client-crashdump-postinfo.ini') as reply:
            text = reply.read().decode()
        lines = [line.strip() for line in text.splitlines()]
        self.assertEqual(lines[:4], ['[meta]', f'url = {self.base}/upload', 'filefield = dumpfile',
                                     'mime = application/zip'])
        self.assertIn('[postdata]', lines)

    def test_good_upload_is_stored_with_its_receipt(self):
        archive = report_zip(INFO_INI)
        before = self.stored()
        status, text = self.post({'product': 'Velmora 3', 'os': 'linux'},
                                 {'dumpfile': ('../cv3dump_1700000000000.zip', archive)})
        self.assertEqual(status, 200, text)
        new = sorted(set(self.stored()) - set(before))
        self.assertEqual(len(new), 1)
        self.assertEqual(text, f'Report {new[0]} received ({len(archive)} bytes).')
        folder = os.path.join(self.reports, new[0])
        self.assertEqual(sorted(os.listdir(folder)), ['cv3dump_1700000000000.zip', 'receipt.json'])
        with open(os.path.join(folder, 'cv3dump_1700000000000.zip'), 'rb') as f:
            self.assertEqual(f.read(), archive)
        with open(os.path.join(folder, 'receipt.json'), encoding='utf-8') as f:
            receipt = json.load(f)
        self.assertRegex(receipt.pop('time'), r'^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$')
        self.assertLessEqual({'report': new[0], 'fields': {'product': 'Velmora 3', 'os': 'linux'},
                              'file': 'cv3dump_1700000000000.zip', 'size': len(archive),
                              'sha256': hashlib.sha256(archive).hexdigest(), 'version': '3.0.0-beta',
                              'description': 'Größer Hafen, "Absturz" \\ €',
                              'entries': ['client.log', 'crash.dmp', 'info.ini'], 'crash': None}.items(),
                             receipt.items())

    def test_crash_handler_dump_is_summed_up_in_the_receipt(self):
        dump = (b'VELMORA-CRASH 1\nsignal: 11 SIGSEGV\naddress: 0x0000000000000010\nframe 0: 0x0000555555555505\n'
                b'frame 1: 0x00007f0000001234\nmaps:\n555555554000-555555556000 r-xp 00001000 fe:00 7  /opt/v3/client\n')
        status, text = self.post({}, {'dumpfile': ('a.zip', report_zip(INFO_INI, dump))})
        self.assertEqual(status, 200, text)
        self.assertTrue(text.endswith(' bytes): SIGSEGV at 0x0000000000000010.'), text)
        with open(os.path.join(self.reports, text.split()[1], 'receipt.json'), encoding='utf-8') as f:
            self.assertEqual(json.load(f)['crash'], {
                'dump': 'crash.dmp', 'signal': 11, 'signal_name': 'SIGSEGV', 'address': '0x0000000000000010',
                'frames': ['0x0000555555555505 /opt/v3/client+0x2505', '0x00007f0000001234']})

    def test_bad_uploads_are_refused_and_leave_nothing(self):
        good = report_zip(INFO_INI)
        cases = {
            'no file': ({'product': 'Velmora 3'}, {}, 400),
            'wrong field': ({}, {'file': ('a.zip', good)}, 400),
            'not a zip': ({}, {'dumpfile': ('a.zip', b'PK\x03\x04 but no archive' * 50)}, 422),
            'no info.ini': ({}, {'dumpfile': ('a.zip', report_zip(None))}, 422),
            'file over the limit': ({}, {'dumpfile': ('a.zip', good + b'\0' * MAX_BYTES)}, 413),
            'request far over the limit': ({}, {'dumpfile': ('a.zip', good + b'\0' * 2 * MAX_BYTES)}, 413),
        }
        before = self.stored()
        for name, (fields, files, expected) in cases.items():
            with self.subTest(name):
                status, text = self.post(fields, files)
                self.assertEqual(status, expected, text)
                self.assertRegex(text, r'^Report refused: [^\n]+\.$')
        self.assertEqual(self.stored(), before)
        with self.subTest('wrong method'):
            with self.assertRaises(urllib.error.HTTPError) as caught:
                urllib.request.urlopen(self.base + '/upload')
            self.assertEqual(caught.exception.code, 405)


if __name__ == '__main__':
    unittest.main()
