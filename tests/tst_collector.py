#!/usr/bin/env python3
"""The reference collector: what it stores and what it refuses. (What it serves, the headless demo uses.)"""

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
# As QSettings writes it: quotes for the comma, \" and \\ escaped, non-ASCII as \xHHHH.
INFO_INI = ('[General]\r\nversion=3.0.0-beta\r\n'
            'description="Gr\\xf6\\xdf\\x65r Hafen, \\"Absturz\\" \\\\ \\x20ac"\r\n').encode()
DUMP = (b'VELMORA-CRASH 1\nsignal: 11 SIGSEGV\naddress: 0x0000000000000010\nframe 0: 0x0000555555555505\n'
        b'frame 1: 0x00007f0000001234\nmaps:\n555555554000-555555556000 r-xp 00001000 fe:00 7  /opt/v3/client\n')


def report_zip(info_ini=INFO_INI, dump=DUMP):
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, 'w', zipfile.ZIP_DEFLATED) as z:
        z.writestr('client.log', 'renderer: device lost\n')
        z.writestr('crash.dmp', dump)
        if info_ini is not None:
            z.writestr('info.ini', info_ini)
    return buffer.getvalue()


class CollectorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.tmp.cleanup)
        cls.reports = os.path.join(cls.tmp.name, 'reports')
        with socket.socket() as s:
            s.bind(('127.0.0.1', 0))
            port = s.getsockname()[1]
        cls.base = f'http://127.0.0.1:{port}'
        cls.server = subprocess.Popen([COLLECTOR, '--port', str(port), '--reports', cls.reports,
                                       '--max-bytes', str(MAX_BYTES)], stderr=subprocess.DEVNULL)
        cls.addClassCleanup(cls.server.wait)
        cls.addClassCleanup(cls.server.terminate)
        # Waits only for a server that never comes up, so a broken start fails instead of hanging.
        for _ in range(300):
            try:
                urllib.request.urlopen(cls.base + '/').close()
                return
            except OSError:
                if cls.server.poll() is not None:
                    break
                time.sleep(0.1)
        raise RuntimeError('the collector did not start')

    def post(self, archive, field='dumpfile'):
        body = b'--B\r\nContent-Disposition: form-data; name="product"\r\n\r\nVelmora 3\r\n'
        body += b'--B\r\nContent-Disposition: form-data; name="os"\r\n\r\nlinux\r\n'
        if archive is not None:
            body += (b'--B\r\nContent-Disposition: form-data; name="%s"; filename="../cv3dump_1700000000000.zip"\r\n'
                     b'Content-Type: application/zip\r\n\r\n%s\r\n' % (field.encode(), archive))
        request = urllib.request.Request(self.base + '/upload', body + b'--B--\r\n',
                                         {'Content-Type': 'multipart/form-data; boundary=B'})
        try:
            with urllib.request.urlopen(request) as reply:
                return reply.status, reply.read().decode()
        except urllib.error.HTTPError as error:
            return error.code, error.read().decode()

    def test_good_upload_is_stored_with_its_receipt(self):
        archive = report_zip()
        status, text = self.post(archive)
        self.assertEqual(status, 200, text)
        report = text.split()[1]
        # The crash handler's dump is read: its signal ends the line that the window shows.
        self.assertEqual(text, f'Report {report} received ({len(archive)} bytes): SIGSEGV at 0x0000000000000010.')
        folder = os.path.join(self.reports, report)
        self.assertEqual(sorted(os.listdir(folder)), ['cv3dump_1700000000000.zip', 'receipt.json'])
        with open(os.path.join(folder, 'cv3dump_1700000000000.zip'), 'rb') as f:
            self.assertEqual(f.read(), archive)
        with open(os.path.join(folder, 'receipt.json'), encoding='utf-8') as f:
            receipt = json.load(f)
        self.assertRegex(receipt.pop('time'), r'^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$')
        self.assertLessEqual({
            'report': report, 'fields': {'product': 'Velmora 3', 'os': 'linux'}, 'file': 'cv3dump_1700000000000.zip',
            'size': len(archive), 'sha256': hashlib.sha256(archive).hexdigest(), 'version': '3.0.0-beta',
            'description': 'Größer Hafen, "Absturz" \\ €', 'entries': ['client.log', 'crash.dmp', 'info.ini'],
            'crash': {'dump': 'crash.dmp', 'signal': 11, 'signal_name': 'SIGSEGV', 'address': '0x0000000000000010',
                      'frames': ['0x0000555555555505 /opt/v3/client+0x2505', '0x00007f0000001234']}}.items(),
            receipt.items())

    def test_bad_uploads_are_refused_and_leave_nothing(self):
        good = report_zip()
        before = os.listdir(self.reports)
        for name, archive, field, expected in [
                ('no file', None, 'dumpfile', 400),
                ('wrong field', good, 'file', 400),
                ('not a zip', b'PK\x03\x04 but no archive' * 50, 'dumpfile', 422),
                ('no info.ini', report_zip(info_ini=None), 'dumpfile', 422),
                ('file over the limit', good + b'\0' * MAX_BYTES, 'dumpfile', 413),
                ('request far over the limit', good + b'\0' * 2 * MAX_BYTES, 'dumpfile', 413)]:
            with self.subTest(name):
                status, text = self.post(archive, field)
                self.assertEqual(status, expected, text)
                self.assertRegex(text, r'^Report refused: [^\n]+\.$')
        self.assertEqual(os.listdir(self.reports), before)
        with self.assertRaises(urllib.error.HTTPError) as caught:
            urllib.request.urlopen(self.base + '/upload')
        self.assertEqual(caught.exception.code, 405)


if __name__ == '__main__':
    unittest.main()
