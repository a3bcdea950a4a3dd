"""The upload endpoint and run.sh on a real nginx and PHP-FPM: what is refused, what is stored,
and how the service starts, tidies and stops."""
import datetime
import hashlib
import io
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest
import warnings
import zipfile

from servicefixture import (FIELDS, HANG_SECONDS, RUN_SH, Service, archive, descendants, free_port, multipart,
                            query, request, upload_request)

MAX_BYTES = 1 << 20
DUMP = b'VELMORA-CRASH 1\n' + bytes(range(256)) * 40


def flipped(data, entry='crash.dmp'):
    """The archive with one bit changed in the middle of an entry's compressed bytes."""
    info = zipfile.ZipFile(io.BytesIO(data)).getinfo(entry)
    at = info.header_offset
    start = at + 30 + int.from_bytes(data[at + 26:at + 28], 'little') + int.from_bytes(data[at + 28:at + 30], 'little')
    changed = bytearray(data)
    changed[start + info.compress_size // 2] ^= 0x10
    return bytes(changed)


def with_files(*files):
    return request('POST', '/upload', *multipart(FIELDS, files))


GOOD = archive(dump=DUMP)
with warnings.catch_warnings():
    warnings.simplefilter('ignore')  # zipfile warns of the duplicate name that the row wants
    TWICE = archive(extra=[('client.log', b'again')])

# Each row: a request, the status and the start of the one line that answers it. None for the
# status: the connection closes unanswered.
HOSTILE = [
    ('GET', request('GET', '/upload'), 405, 'Reports are sent here with POST.'),
    ('not multipart', request('POST', '/upload', b'a=b', 'application/x-www-form-urlencoded'), 415,
     'Report refused: the upload is not multipart/form-data.'),
    ('file under another name', with_files(('file', 'a.zip', GOOD)), 400, 'Report refused: no file in the field "dumpfile".'),
    ('file as an array', with_files(('dumpfile[]', 'a.zip', GOOD)), 400, 'Report refused: no file in the field "dumpfile".'),
    ('two dumpfile parts', with_files(('dumpfile', 'a.zip', GOOD), ('dumpfile', 'b.zip', GOOD)), 400,
     'Report refused: the upload holds more than one file.'),
    ('another file first', with_files(('other', 'a.zip', GOOD), ('dumpfile', 'b.zip', GOOD)), 400,
     'Report refused: the upload holds more than one file.'),
    ('not a zip', upload_request(b'MZ' + os.urandom(4000)), 422, 'Report refused: the file is not a readable zip archive.'),
    ('cut short', upload_request(GOOD[:len(GOOD) // 2]), 422, 'Report refused: the file is not a readable zip archive.'),
    ('one flipped bit', upload_request(flipped(GOOD)), 422, 'Report refused: entry 1 of the archive is damaged.'),
    ('no info.ini', upload_request(archive(info=None)), 422, 'Report refused: the archive holds no info.ini.'),
    ('an entry twice', upload_request(TWICE), 422, 'Report refused: the file is not a readable zip archive.'),
    ('too many entries', upload_request(archive(extra=[('e%d' % i, b'') for i in range(14)])), 422,
     'Report refused: the archive holds 17 entries, more than 16.'),
    ('zip bomb', upload_request(archive(extra=[('big', bytes(16 * MAX_BYTES + 1))])), 422,
     'Report refused: the archive unpacks to more than 16777216 bytes.'),
    ('info.ini too long', upload_request(archive(info='[General]\nversion=1\n' + ';' * 70000)), 422,
     'Report refused: info.ini is over 65536 bytes.'),
    ('too many fields', upload_request(GOOD, {'f%d' % i: 'x' for i in range(70)}), 400,
     'Report refused: the upload holds too many form fields.'),
    ('field too long', upload_request(GOOD, {'product': 'x' * 1025}), 400, 'Report refused: the form field "product" is over'),
    ('field not UTF-8', upload_request(GOOD, {'product': b'\xff\xfe'}), 400, 'Report refused: a form field is not UTF-8 text.'),
    ('field as an array', upload_request(GOOD, {'product[]': 'x'}), 400, 'Report refused: the form field "product" is not plain text.'),
    ('file over the limit', upload_request(os.urandom(MAX_BYTES + 1000)), 413,
     'Report refused: the file is over the limit of 1048576 bytes.'),
    # Sent without its body: the answer must come from the header alone.
    ('announced too large', request('POST', '/upload', b'', 'multipart/form-data; boundary=x', 300 << 20), 413,
     'Report refused: the upload is over the limit of 1048576 bytes.'),
    ('body shorter than announced', upload_request(GOOD)[:-100], None, ''),
    ('malformed request', b'GARBAGE\r\n\r\n', 400, 'Report refused: the request is malformed.'),
    ('a PHP file by its name', request('GET', '/lib/db.php'), 404, 'Not found.'),
]


class UploadTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix='velmora-upload.')
        cls.service = Service(cls.work, '--max-bytes', str(MAX_BYTES), '--body-timeout', '2', '--rate-limit', '0').start()

    @classmethod
    def tearDownClass(cls):
        cls.service.stop()
        shutil.rmtree(cls.work)

    def assertOneLine(self, status, content_type, line):
        self.assertEqual(content_type, 'text/plain; charset=utf-8')
        self.assertNotIn('\n', line)

    def test_hostile(self):
        for name, raw, status, line in HOSTILE:
            with self.subTest(name):
                rows, (archives, others) = self.service.rows(), self.service.stored()
                answer = self.service.send(raw)
                self.assertEqual(answer[0], status, answer)
                self.assertTrue(answer[2].startswith(line), answer)
                if status is not None:
                    self.assertOneLine(*answer)
                self.assertEqual(self.service.rows(), rows)
                self.assertEqual(self.service.stored(), (archives, others))

    def test_accepted(self):
        # Written by QSettings: quotes around a value with a comma, escaped quotes, UTF-16 units.
        escaped = '[General]\nversion=3.0.1\ndescription="Crash, then \\"\\x00e9t\\xe9\\" \\x263a"\n'
        table = [
            ('as the sender sends it', archive(escaped, DUMP), FIELDS, '3.0.1', 'Crash, then "été" ☺'),
            ('info.ini without [General]', archive('[Other]\nversion=9\n'), {}, '', ''),
            ('stored, not deflated', archive(dump=DUMP, extra=[('stored', b'')]), {'x': 'ü'}, '3.0.0', 'It crashed.'),
        ]
        for name, data, fields, version, description in table:
            with self.subTest(name):
                status, content_type, line = self.service.send(upload_request(data, fields))
                self.assertEqual(status, 200, line)
                self.assertOneLine(status, content_type, line)
                match = re.fullmatch(r'Report (\d{8}-[0-9a-f]{16}) received \((\d+) bytes\)\.', line)
                self.assertTrue(match, line)
                report = match[1]
                self.assertEqual(report[:8], datetime.datetime.now(datetime.timezone.utc).strftime('%Y%m%d'))
                row = self.service.rows()[report]
                expected = {'fields': fields, 'version': version, 'description': description, 'size': len(data),
                            'sha256': hashlib.sha256(data).hexdigest(), 'state': 'new', 'client_addr': '127.0.0.1'}
                row['fields'] = json.loads(row['fields'])
                self.assertEqual({key: row[key] for key in expected}, expected)
                self.assertEqual(int(match[2]), len(data))
                with open(self.service.stored()[0][report], 'rb') as stored:
                    self.assertEqual(stored.read(), data)


class LifeTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix='velmora-life.')

    def tearDown(self):
        shutil.rmtree(self.work)

    def test_refused_starts(self):
        first = Service(self.work).start()
        try:
            table = [
                ('port taken', ['--data', self.work + '/other'], 'port %d on 127.0.0.1 is taken' % first.port),
                ('data folder in use', ['--port', str(free_port())], 'another service is already running on ' + first.data),
                ('a bracket in the URL', ['--public-url', 'http://[::1]:8750/upload'], 'the sender takes a line with brackets'),
            ]
            for name, options, line in table:
                with self.subTest(name):
                    process = subprocess.run([RUN_SH, *first.options, *options],
                                             capture_output=True, text=True, timeout=HANG_SECONDS)
                    self.assertNotEqual(process.returncode, 0)
                    self.assertIn(line, process.stderr)
                    self.assertNotIn('Service on', process.stdout)
            self.assertEqual(first.send(request('GET', '/service-data/client-crashdump-postinfo.ini'))[0], 200)
        finally:
            first.stop()

    def test_tidies_and_stops(self):
        service = Service(self.work, '--keep-days', '30').start()
        report = re.search(r'Report (\S+) received', service.send(upload_request(GOOD))[2])[1]
        service.stop()
        # The report made old: its row and archive move to a day long past.
        old = '20200101-' + report[9:]
        os.makedirs(service.store + '/20200101')
        os.rename(service.stored()[0][report], service.store + '/20200101/%s.zip' % old)
        query(service.db, "UPDATE reports SET id = '%s'" % old)
        leftovers = {name: service.store + '/20200101/.%s.zip.tmp' % name for name in ('stale', 'fresh')}
        for name, path in leftovers.items():
            open(path, 'w').close()
        os.utime(leftovers['stale'], (time.time() - 7200,) * 2)

        service.start()
        try:
            pids = descendants(service.process.pid)
            self.assertGreaterEqual(len(pids), 3)  # nginx, its workers, PHP-FPM and its workers
            self.assertEqual(service.stored(), ({}, [leftovers['fresh']]))
            self.assertIsNotNone(service.rows()[old]['archive_removed_at'])
            info = service.send(request('GET', '/service-data/client-crashdump-postinfo.ini'))
            self.assertIn('url = http://127.0.0.1:%d/upload\n' % service.port, info[2])
        finally:
            service.stop()
        self.assertEqual([pid for pid in pids if os.path.exists('/proc/%d' % pid)], [])

    def test_rate_limit(self):
        service = Service(self.work, '--rate-limit', '2').start()
        try:
            statuses = [service.send(upload_request(GOOD))[:2] for _ in range(4)]
            self.assertEqual([s for s, _ in statuses], [200, 200, 429, 429])
            # The post-info file is never limited, however often it is asked for.
            info = [service.send(request('GET', '/service-data/client-crashdump-postinfo.ini'))[0] for _ in range(5)]
            self.assertEqual(info, [200] * 5)
            self.assertEqual(service.send(upload_request(GOOD))[2],
                             'Report refused: too many uploads from this address; please try again later.')
            self.assertEqual(len(service.rows()), 2)
        finally:
            service.stop()


if __name__ == '__main__':
    unittest.main()
