"""The service on a real nginx, PHP-FPM and PostgreSQL: what an upload is refused for, what is
stored and how, how run.sh starts, tidies, stops and starts again after a master or itself was
killed, and the service under load and failure: slow clients, heavy archives, uploads in
parallel, PHP-FPM workers killed in a storm, a full store, two collectors sharing one PostgreSQL
and one store, a processor killed, the database restarted and made read-only under them; and
the real host's files as nginx, PHP-FPM and systemd read them."""
import concurrent.futures
import hashlib
import io
import json
import os
import pathlib
import pwd
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import warnings
import zipfile
import zlib

from servicefixture import (FIELDS, HANG_SECONDS, INFO_INI, ROOT, RUN_SH, Postgres, Service, answer_on, archive, exchange,
                            many_entries, processes, query, random_port, request, status_of, upload_request)

BIN = os.environ.get('VELMORA_BIN', os.path.join(os.path.dirname(os.path.dirname(RUN_SH)), 'build/bin'))
MAX = 1 << 20
PLAIN = 'text/plain; charset=utf-8'
DUMP = b'VELMORA-CRASH 1\n' + bytes(range(256)) * 40
GOOD = archive(dump=DUMP)
# An entry's cap: 16 MiB for the dump; a log's is MAX in test_uploads; the archive's, their sum
# with info.ini's 64 KiB.
DUMP_CAP = 16 << 20
ARCHIVE_CAP = DUMP_CAP + (64 << 10) + MAX
# A PHP-FPM worker's resident memory after the heavy archives and the long field.
WORKER_MAX_MB = 64
# The oldest waiting report's age that /health/queue alarms at, in test_life.
QUEUE_ALARM = 1
# A processor that dies is started again after 1 s at first (run.sh's back-off).
RESTART_NOTE = 'starting it again in 1 s'


def with_comment(data):
    with zipfile.ZipFile(out := io.BytesIO(data), 'a') as z:
        z.comment = b'x'
    return out.getvalue()
# One bit changed in the middle of the dump's compressed bytes, as zipfile deflates them.
DEFLATED = (deflate := zlib.compressobj(wbits=-15)).compress(DUMP) + deflate.flush()
FLIPPED = GOOD.replace(DEFLATED, DEFLATED[:190] + bytes([DEFLATED[190] ^ 0x10]) + DEFLATED[191:])


warnings.filterwarnings('ignore', 'Duplicate name')  # the row that wants one
# The examples that tst_processor holds the C++ side to, as PHP sees them.
FACTS = ('$facts = json_decode(file_get_contents($argv[1]), true);'
         'echo json_encode(["report_ids" => array_map(fn ($r) => isReportId($r[1]), $facts["report_ids"]),'
         '"dump_heads" => array_map(fn ($r) => isCrashDump($r[1]), $facts["dump_heads"]),'
         '"database_urls" => array_map(function ($r) { try { return databaseUrl($r[1]); } catch (InvalidArgumentException) { return null; } },'
         '$facts["database_urls"])]);')

# Each row: a request, the status and the start of the one line that answers it (None: the
# connection closes unanswered).
HOSTILE = [
    ('GET', request('GET', '/upload'), 405, 'Reports are sent here with POST.'),
    ('not multipart', request('POST', '/upload', b'a=b', 'application/x-www-form-urlencoded'), 415, 'Report refused: the upload is not multipart'),
    ('file under another name', upload_request(0, files=[('file', GOOD)]), 400, 'Report refused: no file in the field "dumpfile".'),
    ('file as an array', upload_request(0, files=[('dumpfile[]', GOOD)]), 400, 'Report refused: no file in the field "dumpfile".'),
    ('two dumpfile parts', upload_request(0, files=[('dumpfile', GOOD)] * 2), 400, 'Report refused: the upload holds more than one file.'),
    ('another file first', upload_request(0, files=[('x', GOOD), ('dumpfile', GOOD)]), 400, 'Report refused: the upload holds more than one file.'),
    # A part without a file name is no upload to PHP's max_file_uploads, but an entry in $_FILES.
    ('an empty file part first', upload_request(0, files=[('x', b'', ''), ('dumpfile', GOOD)]), 400,
     'Report refused: the upload holds more than one file.'),
    ('not a zip', upload_request(b'MZ' + os.urandom(4000)), 422, 'Report refused: the file is not a readable zip archive.'),
    ('an entry twice', upload_request(archive(extra=[('client.log', b'again')])), 422, 'Report refused: the file is not a readable zip archive.'),
    ('one flipped bit', upload_request(FLIPPED), 422, 'Report refused: entry 1 of the archive is damaged.'),
    ('no info.ini', upload_request(archive(info=None)), 422, 'Report refused: the archive holds no info.ini.'),
    ('too many entries', upload_request(archive(extra=[('e%d' % i, b'') for i in range(14)])), 422, 'Report refused: the archive holds 17 entries'),
    ('ZIP64 records', upload_request(many_entries(3)), 422, 'Report refused: the archive is in ZIP64 form'),
    ('a comment after the end', upload_request(with_comment(GOOD)), 422, 'Report refused: the file is not a readable zip archive.'),
    ('central directory over 64 KiB', upload_request(archive(extra=[('n%d' % i + 'x' * 5100, b'') for i in range(13)])), 422,
     "Report refused: the archive's central directory is over 65536 bytes."),
    ('dump over its cap', upload_request(archive(dump=b'VELMORA-CRASH 1\n' + bytes(DUMP_CAP))), 422,
     'Report refused: entry 1 of the archive unpacks to more than %d bytes.' % DUMP_CAP),
    ('log over its cap', upload_request(archive(extra=[('old.log', bytes(MAX + 1))])), 422,
     'Report refused: entry 2 of the archive, a log, unpacks to more than %d bytes.' % MAX),
    ('zip bomb', upload_request(archive(dump=b'VELMORA-CRASH 1\n' + bytes(DUMP_CAP - 16), extra=[('a.log', bytes(MAX)), ('b.log', bytes(MAX))])), 422,
     'Report refused: the archive unpacks to more than %d bytes.' % ARCHIVE_CAP),
    ('NUL in the description', upload_request(archive('[General]\nversion=3.0.0\ndescription=a\\0b\n')), 422,
     "Report refused: info.ini's version or description holds a NUL character."),
    ('info.ini too long', upload_request(archive(info=';' * 65537)), 422, 'Report refused: info.ini is over 65536 bytes.'),
    ('too many fields', upload_request(GOOD, {'f%d' % i: '' for i in range(65)}), 400, 'Report refused: the upload holds too many form fields.'),
    ('field too long', upload_request(GOOD, {'product': 'x' * 1025}), 400, 'Report refused: the form field "product" is over'),
    ('field not UTF-8', upload_request(GOOD, {'product': b'\xff'}), 400, 'Report refused: a form field is not UTF-8 text.'),
    ('field as an array', upload_request(GOOD, {'os[]': 'x'}), 400, 'Report refused: the form field "os" is not plain text.'),
    ('file over the limit', upload_request(os.urandom(MAX + 1)), 413, 'Report refused: the file is over the limit of 1048576 bytes.'),
    ('announced too large', request('POST', '/upload', b'', 'multipart/form-data', 300 << 20), 413, 'Report refused: the upload is over the limit'),
    ('body shorter than announced', upload_request(GOOD)[:-100], None, ''),
    ('malformed request', b'GARBAGE\r\n\r\n', 400, 'Report refused: the request is malformed.'),
    ('a PHP file by its name', request('GET', '/lib/db.php'), 404, 'Not found.'),
]


class ServiceTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix='velmora-service.')
        self.addCleanup(shutil.rmtree, self.work)
        self.sent = set()

    def start(self, *options, **where):
        service = Service(self.work, *options, **where).start()
        self.addCleanup(service.stop)
        return service

    def test_uploads(self):
        service = self.start('--max-bytes', str(MAX), '--max-log-bytes', str(MAX), '--body-timeout', '2', '--rate-limit', '0')
        for name, raw, status, line in HOSTILE:
            with self.subTest(name):
                before = service.rows(), service.stored()
                answer = exchange(service.port, raw)
                self.assertEqual((answer[0], answer[1], '\n' in answer[2]), (status, PLAIN if status else '', False), answer)
                self.assertTrue(answer[2].startswith(line), answer)
                self.assertEqual((service.rows(), service.stored()), before)
        with self.subTest('slow uploads from one address'):
            # Ten uploads whose last bytes never come: four are held until the body timeout, the
            # rest refused at once; another address's upload is answered meanwhile.
            slow = [socket.create_connection(('127.0.0.1', service.port), timeout=HANG_SECONDS) for _ in range(10)]
            for connection in slow:
                connection.sendall(upload_request(GOOD)[:-100])
            self.assertEqual(exchange(service.port, upload_request(GOOD), source='127.0.0.2')[0], 200)
            answers = [answer_on(connection)[0] for connection in slow]
            self.assertEqual((answers.count(None), answers.count(429)), (4, 6))
        # As QSettings writes it: quotes around a value with a comma, escaped quotes, UTF-16 units.
        escaped = '[General]\nversion=3.0.1\ndescription="Crash, then \\"\\x00e9t\\xe9\\" \\x263a"\n'
        for data, fields, version, description in [(archive(escaped), {'product': 'Velmora ü'}, '3.0.1', 'Crash, then "été" ☺'),
                                                   (archive('[Other]\nversion=9\n'), {}, '', ''),
                                                   (archive(extra=[('e%d' % i, b'') for i in range(13)]), FIELDS, '3.0.0', 'It crashed.')]:
            with self.subTest(description):
                status, content_type, line = exchange(service.port, upload_request(data, fields))
                self.assertEqual(content_type, PLAIN)
                report = re.fullmatch(r'Report (\d{8}-[0-9a-f]{16}) received \(%d bytes\)\.' % len(data), line)[1]
                row = service.rows()[report]
                # The id is named a moment before the row's time is taken, which may be past midnight.
                self.assertIn(report[:8], {time.strftime('%Y%m%d', time.gmtime(row['received_at'] - ago)) for ago in (0, 60)})
                self.assertEqual((json.loads(row['fields']), row['version'], row['description'], row['size'], row['sha256'],
                                  row['state'], row['client_addr']),
                                 (fields, version, description, len(data), hashlib.sha256(data).hexdigest(), 'new', '127.0.0.1'))
                with open(service.stored()[0][report], 'rb') as stored:
                    self.assertEqual(stored.read(), data)

    def test_facts(self):
        with open(os.path.join(ROOT, 'tests/data/facts.json')) as f:
            facts = json.load(f)
        del facts['about']
        libraries = ''.join('require "%s/service/web/lib/%s.php";' % (ROOT, name) for name in ('db', 'store', 'archive'))
        done = subprocess.run(['php', '-d', 'display_errors=stderr', '-r', libraries + FACTS, os.path.join(ROOT, 'tests/data/facts.json')],
                              check=True, capture_output=True, text=True, timeout=HANG_SECONDS)
        self.assertEqual(done.stderr, '')
        found = json.loads(done.stdout)
        # nginx's report locations capture the id with their own copy of its form.
        with open(os.path.join(ROOT, 'service/conf/locations/crashes.conf.in')) as f:
            locations = re.findall(r'\(\?<report_id>([^)]*)\)', f.read())
        self.assertEqual(len(locations), 2)
        for fact, rows in facts.items():
            for (name, example, expected), answer in zip(rows, found[fact]):
                with self.subTest(fact=fact, example=name):
                    self.assertEqual(answer, expected)
                    if fact == 'report_ids':
                        self.assertEqual([bool(re.fullmatch(form, example)) for form in locations], [expected] * 2)
        self.assertEqual({fact: len(rows) for fact, rows in found.items()}, {fact: len(rows) for fact, rows in facts.items()})

    def test_life(self):
        service = self.start('--keep-days', '30', '--rate-limit', '2', '--queue-alarm', str(QUEUE_ALARM))
        report, orphan = [re.search(r'Report (\S+) received', exchange(service.port, upload_request(GOOD))[2])[1] for _ in range(2)]
        service.stop()
        # One report is made a long past day's and the other loses its row: an upload cut off
        # between its archive and its row. Beside them, two leftovers of writes.
        old = '20200101-' + report[9:]
        os.makedirs(service.store + '/20200101')
        os.rename(service.stored()[0][report], service.store + '/20200101/%s.zip' % old)
        query(service.db, "UPDATE reports SET id = '%s' WHERE id = '%s'" % (old, report))
        query(service.db, "DELETE FROM reports WHERE id = '%s'" % orphan)
        stale, fresh = service.store + '/20200101/.stale.zip.tmp', service.store + '/20200101/.fresh.zip.tmp'
        open(stale, 'w').close(), open(fresh, 'w').close()
        for path in stale, service.stored()[0][orphan]:
            os.utime(path, (time.time() - 7200,) * 2)
        service.start()
        self.assertEqual(service.stored(), ({}, [fresh]))
        self.assertIsNotNone(service.rows()[old]['archive_removed_at'])
        for options, line in [(['--data', self.work + '/other'], 'port %d on 127.0.0.1 is taken' % service.port),
                              (['--port', str(random_port())], 'another service is already running on ' + service.data),
                              (['--public-url', 'http://[::1]:8750/upload'], 'the sender takes a line with brackets'),
                              *[(['--user', 'nosuchuser'], "the user 'nosuchuser', which does not exist")] * (os.geteuid() == 0)]:
            refused = subprocess.run([RUN_SH, *service.options, *options], capture_output=True, text=True, timeout=HANG_SECONDS)
            self.assertEqual((refused.returncode, refused.stdout.find('Service on')), (1, -1))
            self.assertIn(line, refused.stderr)
        # The post-info file is never limited, however often it is asked for; uploads are.
        info = [exchange(service.port, request('GET', '/service-data/client-crashdump-postinfo.ini')) for _ in range(5)]
        self.assertEqual({(status, 'url = http://127.0.0.1:%d/upload' % service.port in text) for status, _, text in info}, {(200, True)})
        # Two a minute: two at once, then one each 30 s, however slowly the uploads come.
        began, answers = time.monotonic(), []
        while len(answers) < 10 and (not answers or answers[-1][0] == 200):
            answers.append(exchange(service.port, upload_request(GOOD)))
        self.assertEqual(answers[-1][:3:2], (429, 'Report refused: too many uploads from this address; please try again later.'))
        self.assertTrue(2 <= len(answers) - 1 <= 2 + (time.monotonic() - began) // 30, len(answers))
        self.assertRegex(exchange(service.port, request('GET', '/health'))[2], r'^OK: schema \d+, %d reports waiting, the oldest for \d+ s' % len(answers))
        # No processor runs: the queue's alarm goes off once the oldest report waited past it.
        deadline = time.monotonic() + HANG_SECONDS
        while (queue := exchange(service.port, request('GET', '/health/queue')))[0] == 200 and time.monotonic() < deadline:
            time.sleep(0.1)
        self.assertEqual(queue[0], 503)
        self.assertRegex(queue[2], r'^Queue stalled: the oldest of %d waiting reports has waited \d+ s, past the alarm of %d s\.$' % (len(answers), QUEUE_ALARM))
        with self.subTest('started as root'):
            if os.geteuid() != 0:
                self.skipTest('only a service started as root runs its workers as the velmora user')
            velmora = pwd.getpwnam('velmora').pw_uid
            workers = processes(service, 'nginx')[1:] + processes(service, 'php-fpm')[1:]
            self.assertEqual({int(status_of(pid, 'Uid')[1]) for pid in workers}, {velmora})
            self.assertEqual((os.stat(service.data).st_uid, os.stat(service.data).st_mode & 0o777), (velmora, 0o700))
        # A master or run.sh killed leaves nothing behind that keeps the service from starting again.
        alive = lambda pid: (status_of(pid, 'State') or ['Z'])[0] != 'Z'
        for victim in ('nginx', 'php-fpm', 'run.sh'):
            with self.subTest('%s killed' % victim):
                masters = {name: processes(service, name) for name in ('nginx', 'php-fpm')}
                started = masters['nginx'] + masters['php-fpm']
                os.kill(masters[victim][0] if victim != 'run.sh' else service.process.pid, signal.SIGKILL)
                service.process.wait(timeout=HANG_SECONDS)
                service.start()
                self.assertEqual([pid for pid in started if alive(pid)], [])
                self.assertEqual(exchange(service.port, request('GET', '/health'))[0], 200)
        started = processes(service, 'nginx') + processes(service, 'php-fpm')
        service.stop()
        self.assertEqual([pid for pid in started if alive(pid)], [])

    def test_deploy(self):
        """The real host's files, made from the templates that run.sh uses, as nginx, PHP-FPM and
        systemd read them."""
        root = self.work
        subprocess.run(['openssl', 'req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-keyout', root + '/key.pem', '-out',
                        root + '/cert.pem', '-days', '1', '-subj', '/CN=localhost'], check=True, capture_output=True, timeout=HANG_SECONDS)
        user = 'velmora' if os.geteuid() == 0 else pwd.getpwuid(os.geteuid()).pw_name
        subprocess.run([RUN_SH, '--deploy', root + '/etc', '--install-root', os.path.dirname(os.path.dirname(RUN_SH)), '--user', user,
                        '--data', root + '/data', '--logs', root + '/log', '--cache', root + '/cache', '--cert', root + '/cert.pem',
                        '--cert-key', root + '/key.pem', '--processor', os.path.join(BIN, 'velmora-processor')],
                       check=True, capture_output=True, timeout=HANG_SECONDS)
        for folder in ('/log', '/cache'):
            os.mkdir(root + folder)
        # The site in a main file as Debian's: the main-context snippet and the events block's.
        pathlib.Path(root + '/nginx.conf').write_text(
            'pid {0}/nginx.pid;\nerror_log {0}/error.log;\ninclude {0}/etc/nginx-main.conf;\n'
            'events {{ include {0}/etc/nginx-events.conf; }}\nhttp {{ include {0}/etc/nginx-site.conf; }}\n'.format(root))
        pathlib.Path(root + '/php-fpm.conf').write_text(
            '[global]\npid = {0}/php-fpm.pid\nerror_log = {0}/php-fpm.log\ninclude = {0}/etc/php-fpm-pool.conf\n'.format(root))
        units = sorted(str(unit) for unit in pathlib.Path(root + '/etc/systemd').iterdir())
        for command in (['nginx', '-t', '-p', root, '-c', root + '/nginx.conf'], ['php-fpm8.2', '-t', '-y', root + '/php-fpm.conf'],
                        ['systemd-analyze', 'verify', *units] if shutil.which('systemd-analyze') else None):
            with self.subTest(command and command[0]):
                if command is None:
                    self.skipTest('systemd-analyze is not installed here')
                checked = subprocess.run(command, capture_output=True, text=True, timeout=HANG_SECONDS, env=dict(os.environ, PATH='/usr/sbin:/usr/bin:/sbin:/bin'))
                self.assertEqual(checked.returncode, 0, checked.stderr)

    def upload(self, services, count, threads, meanwhile=lambda: None):
        """Sends count distinct 400 KB archives (stored: the random dump does not deflate) spread
        over the services, calling meanwhile every 50 ms until all are answered; returns the answers."""
        dump = os.urandom(400 * 1024)
        sent = [archive(INFO_INI + '\n; %d' % n, dump, method=zipfile.ZIP_STORED) for n in range(count)]
        self.sent |= {hashlib.sha256(data).hexdigest() for data in sent}
        with concurrent.futures.ThreadPoolExecutor(threads) as pool:
            answers = [pool.submit(exchange, services[n % len(services)].port, upload_request(data)) for n, data in enumerate(sent)]
            while concurrent.futures.wait(answers, 0.05).not_done:
                meanwhile()
            return [answer.result() for answer in answers]

    def assertStoredOnce(self, service, answers, whole=True):
        """Each upload answered 200 has a row and an archive of its own; every archive in the store
        is one that was sent, complete; with whole, rows and archives match and nothing else is left."""
        ids = [m[1] for status, _, line in answers if status == 200 and (m := re.match(r'Report (\S+) received', line))]
        rows, (stored, others) = service.rows(), service.stored()
        self.assertEqual(len(set(ids)), len(ids))
        self.assertTrue(set(ids) <= set(rows) <= set(stored) and (set(rows) == set(stored) or not whole))
        digests = {report: hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest() for report, path in stored.items()}
        self.assertLessEqual(set(digests.values()), self.sent)
        self.assertEqual({report: digests[report] for report in rows}, {report: row['sha256'] for report, row in rows.items()})
        self.assertEqual([path for path in others if whole or not re.search(r'/\.[^/]+\.zip\.tmp$', path)], [])
        return ids

    def test_parallel_then_workers_killed(self):
        service = self.start('--rate-limit', '0', '--conn-limit', '0', '--workers', '4')
        # The heavy ones, each refused, and no worker keeps what they cost: a ZIP64 count that
        # libzip would take, a bomb, a form field as long as a whole request may be.
        bomb = archive(dump=b'VELMORA-CRASH 1\n' + bytes(64 << 20))
        for raw, status in ((upload_request(many_entries(400000)), 422), (upload_request(bomb), 422),
                            (upload_request(GOOD, {'product': 'x' * (48 << 20)}), 400)):
            self.assertEqual(exchange(service.port, raw)[0], status)
        self.assertLessEqual(max(int(status_of(pid, 'VmRSS')[0]) for pid in processes(service, 'php-fpm')[1:]) >> 10, WORKER_MAX_MB)
        answers = self.upload([service], 200, 200)
        self.assertEqual([status for status, _, _ in answers], [200] * 200)
        self.assertEqual(len(self.assertStoredOnce(service, answers)), 200)
        killed = []

        def kill_a_worker():
            workers = processes(service, 'php-fpm')[1:]
            if workers:  # none for a moment after the master lost them all
                killed.append(random.choice(workers))
                os.kill(killed[-1], signal.SIGKILL)
        answers += self.upload([service], 150, 16, kill_a_worker)
        service.stop()
        self.assertGreater(len(killed), 0)
        print('%d workers killed, %d uploads answered 502' % (len(killed), sum(a[0] == 502 for a in answers)))
        # A worker killed as it answers cuts the answer off: the sender sees none (None), or nginx
        # may end it as an empty 200.
        self.assertEqual({(status, line) for status, _, line in answers if status != 200 or not line.startswith('Report ')}
                         - {(502, 'Report not stored: the service is unavailable; please try again later.'), (None, ''), (200, '')}, set())
        self.assertStoredOnce(service, answers, whole=False)

    def test_full_store(self):
        if os.geteuid() != 0:
            self.skipTest('mounting a small tmpfs for the store needs root')
        store = os.path.join(self.work, 'small')
        os.mkdir(store)
        subprocess.run(['mount', '-t', 'tmpfs', '-o', 'size=1m', 'tmpfs', store], check=True)
        self.addCleanup(subprocess.run, ['umount', store], check=True)
        service = self.start('--max-bytes', '450000', store=store)
        answers = self.upload([service], 3, 1)
        self.assertEqual([status for status, _, _ in answers], [200, 200, 507])
        self.assertEqual(answers[2][2], 'Report not stored: the service has no room left; please try again later.')
        health = exchange(service.port, request('GET', '/health'))
        self.assertEqual(health[0], 507)
        self.assertTrue(health[2].startswith('Not ready: the store %s is full' % store), health)
        self.assertStoredOnce(service, answers)

    def test_two_collectors_on_postgresql(self):
        postgres = Postgres()
        self.addCleanup(postgres.stop)
        services = [self.start('--rate-limit', '0', '--conn-limit', '0', '--processors', str(n), '--processor',
                               os.path.join(BIN, 'velmora-processor'), db=postgres.url, store=self.work + '/shared') for n in (1, 0)]
        answers = self.upload(services, 500, 16)
        self.assertEqual([status for status, _, _ in answers], [200] * 500)
        self.assertEqual(len(self.assertStoredOnce(services[0], answers)), 500)
        # PostgreSQL cuts text at a NUL, where SQLite keeps it: refused on both.
        self.assertEqual(exchange(services[1].port, upload_request(archive('[General]\nversion=3.0.0\ndescription=a\\0b\n')))[0], 422)
        log = services[0].data + '/log/processor-1.log'

        def processor():
            """The running processor: run.sh lists every group it started, the dead ones too."""
            with open(services[0].data + '/run.groups') as f:
                return next(int(pid) for pid in reversed(f.read().split())
                            if os.path.realpath('/proc/%s/exe' % pid).endswith('/velmora-processor'))

        def processed():
            """Uploads one report, answered 200, and waits until a processor has done it."""
            status, _, line = exchange(services[1].port, upload_request(GOOD))
            self.assertEqual(status, 200, line)
            report, deadline = re.match(r'Report (\S+) received', line)[1], time.monotonic() + HANG_SECONDS
            while query(postgres.url, 'SELECT state FROM reports WHERE id = ?', report) != [{'state': 'done'}]:
                self.assertLess(time.monotonic(), deadline, 'report %s not processed' % report)
                time.sleep(0.1)
        with self.subTest('processor killed'):
            first = processor()
            if os.geteuid() == 0:
                self.assertEqual(int(status_of(first, 'Uid')[1]), pwd.getpwnam('velmora').pw_uid)
            os.kill(first, signal.SIGKILL)
            processed()
            self.assertNotEqual(processor(), first)
            self.assertIn(RESTART_NOTE, pathlib.Path(log).read_text())
        with self.subTest('database restarted'):
            postgres.stop(keep=True)
            # The processor's first try to connect again, while the database is away, fails.
            postgres.refuse_one()
            postgres.start()
            processed()
            self.assertEqual(len(re.findall('^Database: ', pathlib.Path(log).read_text(), re.M)), 2)
        with self.subTest('database read-only'):
            postgres.sql("ALTER DATABASE postgres SET default_transaction_read_only = on; SELECT pg_terminate_backend(pid) "
                         "FROM pg_stat_activity WHERE pid <> pg_backend_pid() AND backend_type = 'client backend'")
            self.assertEqual(exchange(services[1].port, upload_request(GOOD))[:3:2],
                             (503, 'Report not stored: the database is unavailable; please try again later.'))
            health = exchange(services[1].port, request('GET', '/health'))
            self.assertEqual(health[0], 503)
            self.assertTrue(health[2].startswith('Not ready: the database refuses writes: '), health)


if __name__ == '__main__':
    unittest.main()
