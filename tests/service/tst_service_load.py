"""The service under load and failure: uploads in parallel, PHP-FPM workers killed in a storm,
a full store, and two collectors sharing one PostgreSQL and one store."""
import concurrent.futures
import hashlib
import os
import random
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest
import zipfile

from servicefixture import INFO_INI, Postgres, Service, archive, descendants, upload_request

ACCEPTED = re.compile(r'Report (\d{8}-[0-9a-f]{16}) received \(\d+ bytes\)\.')


def archives(count):
    """Distinct 400 KB archives; the dump is random, so it is stored rather than deflated."""
    dump = os.urandom(400 * 1024)
    return [archive(INFO_INI.replace('It crashed.', 'Upload %d' % n), dump, method=zipfile.ZIP_STORED)
            for n in range(count)]


def command(pid):
    with open('/proc/%d/cmdline' % pid) as f:
        return f.read()


def send_all(services, sent, threads):
    with concurrent.futures.ThreadPoolExecutor(threads) as pool:
        return list(pool.map(lambda n: services[n % len(services)].send(upload_request(sent[n])), range(len(sent))))


class LoadTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix='velmora-load.')
        self.services = []

    def tearDown(self):
        for service in self.services:
            service.stop()
        shutil.rmtree(self.work)

    def start(self, *options, **where):
        self.services.append(Service(self.work, '--rate-limit', '0', *options, **where).start())
        return self.services[-1]

    def assertStoredOnce(self, service, answers, sent, complete=True):
        """Every upload answered 200 has its row and its archive, as sent; every archive in the
        store is whole; with complete, rows and archives are the same set."""
        hashes = {hashlib.sha256(data).hexdigest() for data in sent}
        ids = [ACCEPTED.fullmatch(line)[1] for status, _, line in answers if status == 200]
        self.assertEqual(len(set(ids)), len(ids))
        rows = service.rows()
        archives, others = service.stored()
        self.assertLessEqual(set(ids), set(rows))
        self.assertLessEqual(set(rows), set(archives))
        if complete:
            self.assertEqual(set(rows), set(archives))
            self.assertEqual(others, [])
        for report, path in archives.items():
            with open(path, 'rb') as f:
                digest = hashlib.sha256(f.read()).hexdigest()
            self.assertIn(digest, hashes)
            if report in rows:
                self.assertEqual(rows[report]['sha256'], digest)
        self.assertEqual([name for name in others if not re.search(r'/\.[^/]+\.zip\.tmp$', name)], [])
        return ids

    def test_parallel(self):
        service = self.start()
        sent = archives(200)
        answers = send_all([service], sent, 200)
        self.assertEqual([a[0] for a in answers], [200] * 200, answers)
        self.assertEqual(len(self.assertStoredOnce(service, answers, sent)), 200)

    def test_workers_killed(self):
        service = self.start('--workers', '4')
        master = [pid for pid in descendants(service.process.pid) if command(pid).startswith('php-fpm: master')][0]
        kills = []
        done = threading.Event()

        def kill_workers():
            while not done.wait(0.05):
                workers = descendants(master)
                if workers:
                    try:
                        os.kill(random.choice(workers), signal.SIGKILL)
                        kills.append(1)
                    except ProcessLookupError:
                        pass
        killer = threading.Thread(target=kill_workers)
        killer.start()
        sent = archives(150)
        try:
            answers = send_all([service], sent, 16)
        finally:
            done.set()
            killer.join()
        self.assertGreater(len(kills), 0)
        print('%d workers killed, %d uploads answered 502' % (len(kills), sum(a[0] == 502 for a in answers)))
        for status, _, line in answers:
            if status != 200:
                self.assertEqual((status, line), (502, 'Report not stored: the service is unavailable; please try again later.'))
        self.assertStoredOnce(service, answers, sent, complete=False)

    def test_full_store(self):
        if os.geteuid() != 0:
            self.skipTest('mounting the small tmpfs for the store needs root')
        store = os.path.join(self.work, 'small')
        os.mkdir(store)
        subprocess.run(['mount', '-t', 'tmpfs', '-o', 'size=1m', 'tmpfs', store], check=True)
        try:
            service = self.start(store=store)
            sent = archives(3)
            answers = send_all([service], sent, 1)
            self.assertEqual([a[0] for a in answers], [200, 200, 507])
            self.assertEqual(answers[2][2], 'Report not stored: the service has no room left; please try again later.')
            self.assertEqual(len(self.assertStoredOnce(service, answers, sent)), 2)
            service.stop()
        finally:
            subprocess.run(['umount', store], check=True)

    def test_two_collectors_on_postgresql(self):
        postgres = Postgres()
        try:
            store = os.path.join(self.work, 'shared-store')
            services = [self.start(db=postgres.url, store=store) for _ in range(2)]
            sent = archives(500)
            answers = send_all(services, sent, 16)
            self.assertEqual([a[0] for a in answers], [200] * 500)
            self.assertEqual(len(self.assertStoredOnce(services[0], answers, sent)), 500)
            for service in services:
                service.stop()
        finally:
            postgres.stop()


if __name__ == '__main__':
    unittest.main()
