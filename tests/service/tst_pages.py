"""The crash-stats pages on the real service: the login, what each page shows of a known set of
reports (SQLite and PostgreSQL), hostile content and parameters, the archive download, and a
real browser on a real crash of the demo client."""
import base64
import contextlib
import glob
import html.parser
import http.client
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest
import urllib.parse

from servicefixture import HANG_SECONDS, ROOT, Postgres, Service, archive, exchange, query, upload_request

BIN = os.environ.get('VELMORA_BIN', os.path.join(ROOT, 'build/bin'))
SHOTS = os.environ.get('PAGES_SCREENSHOTS', tempfile.gettempdir())
# The periods are UTC days, and the rows and the pages must see the same day: the service, and
# all that writes its reports, run on a clock that reads noon today when the test starts.
NOW = time.time() // 86400 * 86400 + 43200
CLOCK = {'LD_PRELOAD': glob.glob('/usr/lib/*/faketime/libfaketime.so.1')[0], 'FAKETIME': '%+d' % (NOW - time.time()),
         'FAKETIME_DONT_FAKE_MONOTONIC': '1',
         # PHP-FPM clears its workers' environment, where the offset would otherwise be read again.
         'FAKETIME_CACHE_DURATION': str(10 ** 9)}


def forget_dead_clocks():
    """libfaketime keeps a semaphore and a counter in /dev/shm named by the pid of the process that
    made them, and a process killed leaves them behind. Started as root, the service runs as two
    users, and a process given a dead one's pid then cannot open the other user's files and exits."""
    for name in os.listdir('/dev/shm'):
        made_by = re.fullmatch(r'(?:sem\.)?faketime_(?:sem|shm)_(\d+)', name)
        if made_by and not os.path.exists('/proc/' + made_by.group(1)):
            with contextlib.suppress(OSError):
                os.unlink('/dev/shm/' + name)


MAP, RENDER, EVIL = 'Map::load | memcpy', 'Render::draw', '<img src=x onerror=alert(1)>'
EVIL_VERSION = "' OR 1=1 --"
SCRIPT = "<script>document.title='owned'</script>"
BREAKOUT = '"><img src=x onerror=alert(2)>'
FRAMES = [
    {'frame': 0, 'address': '0x000055d0c1a024ef', 'module': 'velmora3', 'offset': '0x24ef', 'build_id': None,
     'function': 'Map::load', 'file': '/src/map.cpp', 'line': 39, 'inlined': True},
    {'frame': 0, 'address': '0x000055d0c1a024ef', 'module': 'velmora3', 'offset': '0x24ef', 'build_id': None,
     'function': 'Map::show', 'file': '/src/map.cpp', 'line': 121, 'inlined': False},
    {'frame': 1, 'address': '0x00007f7e0a42724a', 'module': 'libc.so.6', 'offset': '0x2724a', 'build_id': None,
     'function': None, 'file': None, 'line': None, 'inlined': False}]
# A minicore's report: every thread, a message, and the core itself (its header is all the
# download looks at).
CORE = '\x7fELF\x02\x01\x01' + '\0' * 9 + '\x04\x00\x3e\x00' + '\0' * 44
WAITING = [dict(FRAMES[2], frame=0, function='__futex_wait', symbol_table=True),
           dict(FRAMES[2], frame=1, function='worker_wait', build_id='ab' * 20)]
THREADS = [{'id': 101, 'name': 'main', 'crashed': True, 'frames': FRAMES, 'left_out': 0, 'from_process': 1},
           {'id': 102, 'name': SCRIPT, 'crashed': False, 'frames': WAITING, 'left_out': 5, 'from_process': 0}]


def day(ago):
    return time.strftime('%Y-%m-%d', time.gmtime(NOW - ago * 86400))


def report(n, ago, signature=MAP, version='3.2.0', **more):
    return {'id': '%s-%016x' % (day(ago).replace('-', ''), 0xfeed0000 + n), 'received_at': int(NOW - ago * 86400),
            'signature': signature, 'version': version, **more}


# Days ago are chosen at the periods' edges: 6 days ago is in the last 7, 7 and 13 in the 7 days
# before them, 14 in neither; 40 days ago is in the 28 before the last 28. A real crash of
# today, 'crash' in version 3.0.0, joins them (below).
REPORTS = [
    report(1, 0, description=SCRIPT, frames=FRAMES, signal='SIGSEGV', address='0x0000000000000010',
           log='started\n<b>not bold</b>\n', fields={'product': 'Velmora 3', '<i>name</i>': '<i>value</i>'}),
    report(2, 0, description=BREAKOUT),
    report(3, 0, version='3.1.0'),
    report(4, 6),
    report(5, 13, version='3.1.0'),
    report(6, 20, version='3.0.1'),
    report(7, 40, version='3.0.0'),
    report(8, 0, RENDER), report(9, 0, RENDER),
    report(10, 7, RENDER), report(11, 8, RENDER, received_at=int(NOW - 8 * 86400) + 60), report(12, 8, RENDER),
    report(13, 2, EVIL, EVIL_VERSION, fields={'"><b>': '</dd><script>x</script>'}),
    report(14, 0, state='failed', failure='the dump is truncated', attempts=3, log='x' * 99999 + '\n'),
    report(15, 0, state='new'),
    report(16, 100, 'Old::crash', archive='removed'),
    report(17, 2, EVIL, EVIL_VERSION), report(18, 2, EVIL, EVIL_VERSION), report(19, 14), report(21, 20, RENDER),
    report(22, 60, 'Old::crash', frames=FRAMES, threads=THREADS, message='Assertion `n > 0\' failed.\n' + SCRIPT, capture='ptrace', dump=CORE),
]
ID = {int(r['id'][9:], 16) - 0xfeed0000: r['id'] for r in REPORTS}
REAL = 'crash'

# The top list for a query: per row signature, count, % of all, change, first seen, versions.
TOP = [
    ('?days=7', [(MAP, '4', '40.00', '+15.0', day(40), '3.2.0, 3.1.0'), (EVIL, '3', '30.00', 'new', day(2), EVIL_VERSION),
                 (RENDER, '2', '20.00', '−55.0', day(20), '3.2.0'), (REAL, '1', '10.00', 'new', day(0), '3.0.0')]),
    ('?days=1', [(MAP, '3', '50.00', 'new', day(40), '3.2.0, 3.1.0'), (RENDER, '2', '33.33', 'new', day(20), '3.2.0'),
                 (REAL, '1', '16.67', 'new', day(0), '3.0.0')]),
    ('?days=28', [(MAP, '7', '41.18', '−58.8', day(40), '3.2.0, 3.1.0, 3.0.1'), (RENDER, '6', '35.29', 'new', day(20), '3.2.0'),
                  (EVIL, '3', '17.65', 'new', day(2), EVIL_VERSION), (REAL, '1', '5.88', 'new', day(0), '3.0.0')]),
    ('?days=7&version=3.1.0', [(MAP, '1', '100.00', '0.0', day(40), '3.1.0')]),
    ('?days=7&version=' + urllib.parse.quote(EVIL_VERSION), [(EVIL, '3', '100.00', 'new', day(2), EVIL_VERSION)]),
    ('?days=28&version=9.9', []),
]

# A request, whether it logs in, and the status and a text of the answer. Those whose answer
# comes from the database are asked of PostgreSQL as well.
ACCESS = [
    ('/crashes/', None, 401, ''),
    ('/crashes/report/%s/archive' % ID[1], None, 401, ''),
    ('/crashes/', 'wrong', 401, ''),
    ('/service-data/client-crashdump-postinfo.ini', None, 200, 'filefield = dumpfile'),
    ('/crashes/?days=2', 'admin', 400, 'The period is 1, 7 or 28 days'),
    ('/crashes/?days[]=7', 'admin', 400, 'given more than once'),
    ('/crashes/signature?s=%s&s=zzz' % urllib.parse.quote(MAP), 'admin', 400, 'given more than once'),
    # Text that is not UTF-8 matches nothing, on SQLite and on PostgreSQL alike.
    ('/crashes/signature?s=%ff', 'admin', 404, 'not UTF-8'),
    ('/crashes/?version=%ff', 'admin', 404, 'not UTF-8'),
    ('/crashes/signature?s=' + 'x' * 1100, 'admin', 400, 'at most 255 characters'),
    ('/crashes/signature?s=Map%3A%3Aload', 'admin', 404, 'No report has the signature', True),
    ('/crashes/report?id=' + urllib.parse.quote('Report %s received (123 bytes).' % ID[2].upper()), 'admin', 303, '', True),
    ('/crashes/report?id=nonsense', 'admin', 400, 'holds none'),
    ('/crashes/report?id=20200101-0000000000000000', 'admin', 404, 'There is no report 20200101-0000000000000000', True),
    ('/crashes/report/..%2F..%2Freports.sqlite', 'admin', 404, ''),
    ('/crashes/report/%s/archive' % ID[16], 'admin', 410, 'removed from the store', True),
    ('/crashes/top.php', 'admin', 404, ''),
    ('/.store/%s/%s.zip' % (ID[1][:8], ID[1]), None, 404, ''),
    ('/crashes/report/%s/minicore' % ID[1], 'admin', 404, 'has no minicore'),
]

# The processors' debuginfod, which the report page's recipe names; never asked here.
DEBUGINFOD = 'http://127.0.0.1:8002'
# A page and texts it shows, in this order.
PAGES = [
    ('report/' + ID[1], ['<i>name</i> = <i>value</i>', 'Signature ' + MAP, 'SIGSEGV at 0x0000000000000010',
                         ID[1] + '.zip', SCRIPT, 'Map::load inlined /src/map.cpp:39 velmora3+0x24ef',
                         'Map::show /src/map.cpp:121', '1 ? libc.so.6+0x2724a', 'Log: client.log', '<b>not bold</b>']),
    ('report/' + ID[13], [EVIL_VERSION, '"><b> = </dd><script>x</script>', EVIL]),
    ('report/' + ID[14], ['failed: the dump is truncated (3 attempts)', 'the first 65,536 of 100,000 bytes']),
    ('report/' + ID[15], ['waiting to be processed', 'none given']),
    ('report/' + ID[16], ['removed from the store on']),
    # The message first; the crashing thread, then the others under their names; the recipes.
    ('report/' + ID[22], ["Assertion `n > 0' failed. " + SCRIPT, 'Threads 2 threads, captured with ptrace', 'Crashing thread',
                          'Map::load inlined', 'The last 1 frames are the return addresses', 'Other threads',
                          'Thread 102 ' + SCRIPT, '__futex_wait symbol table', 'worker_wait ', '5 frames between',
                          ID[22] + '.core', "DEBUGINFOD_URLS='%s'" % DEBUGINFOD, 'eu-stack --core=' + ID[22] + '.core',
                          'debuginfod-find executable ' + 'ab' * 20 + ')" modules/libc.so.6', "file modules/libc.so.6"]),
    ('signature?s=' + urllib.parse.quote(RENDER), ['last 90 days: 6', '3.2.0 6 %s %s' % (day(20), day(0)),
                                                   ID[9], ID[8], ID[10], ID[11], ID[12], ID[21]]),
]


class Cells(html.parser.HTMLParser):
    """The text of each table cell, row by row, and all text, as a browser would show it."""
    def __init__(self, page):
        super().__init__()
        self.rows, self.text, self.cell = [], '', None
        self.feed(page)

    def handle_starttag(self, tag, attrs):
        if tag == 'tr':
            self.rows.append([])
        elif tag in ('td', 'th'):
            self.cell = ''

    def handle_endtag(self, tag):
        if tag in ('td', 'th'):
            self.rows[-1].append(self.cell.strip())
            self.cell = None
        self.text += ' '

    def handle_data(self, data):
        self.text += data
        if self.cell is not None:
            self.cell += data


def real_crash(service, work):
    """A real crash of the demo client, uploaded and processed as in the field: the demo client's
    debug file filed by its build ID, libc's from Debian's libc6-dbg. Returns the report's id."""
    subprocess.run([os.path.join(BIN, 'velmora-democlient'), '--crash=segv', '--dump-folder', work, '--log',
                    os.path.join(work, 'client.log'), '--sender', '/bin/true'], timeout=HANG_SECONDS)
    with open(next(os.path.join(work, f) for f in os.listdir(work) if f.startswith('crash-')), 'rb') as dump:
        upload = archive('[General]\ndescription=The real crash\nversion=3.0.0\n', dump.read())
    answer = exchange(service.port, upload_request(upload))[2]
    symbols = os.path.join(work, 'symbols')
    for command in ([os.path.join(ROOT, 'scripts/file-debug-info.sh'), symbols, os.path.join(BIN, 'velmora-democlient')],
                    [os.path.join(BIN, 'velmora-processor'), '--db', service.db, '--store', service.store, '--drain',
                     '--symbols', symbols, '--symbols', '/usr/lib/debug']):
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, timeout=HANG_SECONDS, env=dict(os.environ, **CLOCK))
    return re.match(r'Report (\S+) received', answer).group(1)


def load(service, reports):
    subprocess.run(['php', os.path.join(ROOT, 'scripts/load-reports.php'), '--db', service.db, '--store', service.store, '-'],
                   input=json.dumps(reports), text=True, check=True, timeout=HANG_SECONDS)


class Pages(unittest.TestCase):
    database = 'sqlite'

    @classmethod
    def setUpClass(cls):
        # Class cleanups run even when the set-up fails half-way, so nothing started stays behind.
        cls.work = tempfile.mkdtemp(prefix='velmora-pages.')
        cls.addClassCleanup(shutil.rmtree, cls.work)
        cls.postgres = Postgres() if cls.database == 'postgresql' else None
        if cls.postgres:
            cls.addClassCleanup(cls.postgres.stop)
        forget_dead_clocks()
        cls.service = Service(cls.work, db=cls.postgres and cls.postgres.url, env=dict(CLOCK, DEBUGINFOD_URLS=DEBUGINFOD)).start()
        cls.addClassCleanup(cls.service.stop)
        cls.password = open(os.path.join(cls.service.data, 'admin-password')).read().strip()
        # Processed before the others are loaded, which hold a report that must stay waiting.
        cls.real = real_crash(cls.service, cls.work)
        load(cls.service, REPORTS)

    def get(self, path, user='admin', headers={}):
        connection = http.client.HTTPConnection('127.0.0.1', self.service.port, timeout=HANG_SECONDS)
        login = '%s:%s' % (user, self.password if user == 'admin' else 'not-the-password')
        connection.request('GET', path, headers=dict(headers, **({'Authorization': 'Basic ' + base64.b64encode(login.encode()).decode()}
                                                               if user else {})))
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read()

    def test_access(self):
        for path, user, status, text, *database in ACCESS:
            if self.database != 'sqlite' and not database:
                continue
            with self.subTest(path=path[:80], user=user):
                got, headers, body = self.get(path, user)
                self.assertEqual(got, status, body[:300])
                self.assertIn(text, Cells(body.decode()).text)
                if status == 303:
                    self.assertEqual(headers['Location'], '/crashes/report/' + ID[2])

    def test_read_only(self):
        """The pages' connection refuses to write, whatever a page might ask of it."""
        script = ("require $argv[1]; try { pagesDatabase()->exec('CREATE TABLE written (x INTEGER)'); echo 'written'; }"
                  "catch (PDOException $e) { echo $e->getMessage(); }")
        done = subprocess.run(['php', '-r', script, os.path.join(ROOT, 'service/web/lib/html.php')], capture_output=True, text=True,
                              env=dict(os.environ, VELMORA_CONFIG=os.path.join(self.service.data, 'run/config.php')),
                              timeout=HANG_SECONDS)
        self.assertRegex(done.stdout, 'readonly database|read-only transaction')

    def test_top(self):
        for query, expected in TOP:
            with self.subTest(query=query):
                status, headers, body = self.get('/crashes/' + query)
                self.assertEqual(status, 200)
                self.assertNotIn(b'<img', body)
                rows = [row for row in Cells(body.decode()).rows[1:]]
                self.assertEqual(rows, [[str(rank + 1), *row] for rank, row in enumerate(expected)])
                self.assertIn("default-src 'none'", headers['Content-Security-Policy'])

    def test_top_many(self):
        """Hostile reports that each make a row of daily counts: the page still lists its 50 rows,
        4 versions each, and the 50 versions most reported, in a page of bounded size."""
        query(self.service.db, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) INSERT INTO"
              " signature_days (signature, day, version, count) SELECT 'many ' || (i % 100), ?, 'v' || i, 1 FROM n", day(0))
        self.addCleanup(query, self.service.db, "DELETE FROM signature_days WHERE signature LIKE 'many %'")
        status, _, body = self.get('/crashes/?days=1&version=')
        self.assertEqual(status, 200)
        rows = Cells(body.decode()).rows[1:]
        self.assertEqual([(row[1][:5], row[2], row[6].count(', ')) for row in rows], [('many ', '200', 4)] * 50)
        self.assertEqual((body.count(b'<option'), len(body) < 64 << 10), (3 + 1 + 50, True))

    def test_pages(self):
        for path, texts in PAGES:
            with self.subTest(path=path):
                status, _, body = self.get('/crashes/' + path)
                self.assertEqual(status, 200)
                self.assertNotRegex(body, rb'<(?:script|img|b|i)\b')
                page, at = re.sub(r'\s+', ' ', Cells(body.decode()).text), 0
                for text in texts:
                    at = page.find(text, at)
                    self.assertGreaterEqual(at, 0, text)

    def test_download(self):
        status, headers, body = self.get('/crashes/report/%s/archive' % ID[1])
        self.assertEqual((status, headers['Content-Type']), (200, 'application/zip'))
        self.assertEqual(headers['Content-Disposition'], 'attachment; filename="%s.zip"' % ID[1])
        with open(os.path.join(self.service.store, ID[1][:8], ID[1] + '.zip'), 'rb') as f:
            self.assertEqual(body, f.read())
        status, headers, body = self.get('/crashes/report/%s/minicore' % ID[22])
        self.assertEqual((status, headers['Content-Disposition'], body), (200, 'attachment; filename="%s.core"' % ID[22], CORE.encode('latin-1')))

    def test_browser(self):
        if self.database != 'sqlite':
            self.skipTest('the browser runs once, on SQLite')
        from selenium import webdriver
        from selenium.webdriver.common.by import By
        options = webdriver.ChromeOptions()
        for argument in ('--headless=new', '--no-sandbox', '--disable-gpu', '--window-size=1200,1000'):
            options.add_argument(argument)
        os.makedirs(SHOTS, exist_ok=True)
        browser = webdriver.Chrome(options=options)
        try:
            browser.get('http://admin:%s@127.0.0.1:%d/crashes/' % (self.password, self.service.port))
            browser.save_screenshot(os.path.join(SHOTS, 'pages-top.png'))
            browser.find_element(By.LINK_TEXT, REAL).click()
            browser.save_screenshot(os.path.join(SHOTS, 'pages-signature.png'))
            self.assertEqual(browser.find_element(By.TAG_NAME, 'h1').text, REAL)
            self.assertEqual(len(browser.find_elements(By.CSS_SELECTOR, 'svg rect.bar')), 1)
            browser.find_element(By.LINK_TEXT, self.real).click()
            browser.save_screenshot(os.path.join(SHOTS, 'pages-report.png'))
            first = browser.find_element(By.CSS_SELECTOR, 'table.frames tbody tr')
            self.assertEqual(first.find_elements(By.TAG_NAME, 'td')[1].text, 'crash inlined')
            # Hostile text stays text in a browser too.
            browser.get('http://127.0.0.1:%d/crashes/report/%s' % (self.service.port, ID[1]))
            self.assertEqual((browser.find_elements(By.CSS_SELECTOR, 'script, img'), browser.title != 'owned'), ([], True))
        finally:
            browser.quit()


class PagesOnPostgres(Pages):
    database = 'postgresql'


class OwnService(unittest.TestCase):
    """Rows that restart the service or change its reports, each on a service of its own."""
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix='velmora-pages.')
        self.addCleanup(shutil.rmtree, self.work)
        forget_dead_clocks()
        self.service = Service(self.work, env=CLOCK).start()
        self.addCleanup(self.service.stop)

    def get(self, path, headers=()):
        return Pages.get(self, path, headers=dict(headers))

    @property
    def password(self):
        with open(os.path.join(self.service.data, 'admin-password')) as f:
            return f.read().strip()

    def test_login_kept(self):
        """The login made at the first start is its owner's alone and outlives a restart."""
        self.assertEqual(os.stat(os.path.join(self.service.data, 'admin-password')).st_mode & 0o777, 0o600)
        with open(os.path.join(self.service.data, 'htpasswd')) as f:
            self.assertRegex(f.read(), r'^admin:\$6\$[^\n]+\n$')
        self.service.stop()
        self.service.start()
        self.assertEqual(self.get('/crashes/')[0], 200)

    def test_top_cached(self):
        """The top list is served from a cache between the reports' arrivals; a reload asks afresh."""
        load(self.service, [report(1, 0, 'first')])
        self.assertEqual(self.get('/crashes/?days=1')[0], 200)
        load(self.service, [report(2, 0, 'second')])
        for headers, signatures in [((), ['first']), ((('Cache-Control', 'no-cache'),), ['first', 'second']),
                                    ((), ['first', 'second'])]:
            with self.subTest(headers=headers):
                status, _, body = self.get('/crashes/?days=1', headers)
                self.assertEqual(sorted(row[1] for row in Cells(body.decode()).rows[1:]), signatures)


if __name__ == '__main__':
    unittest.main()
