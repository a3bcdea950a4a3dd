"""velmora-processor end to end: the demo clients crash for real (stripped copies, their debug
files filed in a symbols folder or served by debuginfod), the crash handler's minicores (and
format 2 text dumps made of them, as older clients still send) go into a store and a database
made by migrate.php, the processor runs, and --show and the tables tell the result."""
import collections
import glob
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import zipfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), 'service'))
import servicefixture  # noqa: E402
from servicefixture import HANG_SECONDS, ROOT, Postgres, query, start_on_a_port  # noqa: E402

PROCESSOR = os.environ['PROCESSOR']
DEMOCLIENT = os.environ['DEMOCLIENT']
DEMOCLIENT_QT = os.environ['DEMOCLIENT_QT']
PLUGIN = os.path.join(os.path.dirname(DEMOCLIENT), 'libvelmora-demoplugin.so')
STUB_SENDER = os.path.join(ROOT, 'tests/data/stub_sender.sh')
RECEIVED, DAY = 1795000000, '2026-11-18'
with open(os.path.join(ROOT, 'service/signature/skip.txt')) as f:
    RULES = int(re.search(r'(?m)^version: (\d+)$', f.read()).group(1))
HANDLER_FUNCTIONS = {'handle_crash', 'write_dump', '__restore_rt', 'crashhandler_install'}
SOURCES = {'late_stage': 'tests/demoplugin.c', 'qt': 'tests/democlient_qt.cpp', 'c': 'crashhandler/democlient.c'}
# Each crash of the demo clients: its signature, signal, and the function and statement that it
# faults in (the assembler of "unwind" has no line), and functions that some thread shows in a row.
CRASHES = {
    'segv': ('crash', 'SIGSEGV', 'crash', '*null_pointer = 1;', ()),
    'abort': ('abort | crash', 'SIGABRT', 'crash', 'abort();', ()),
    'fpe': ('divide_by_zero', 'SIGFPE', 'divide_by_zero', 'zero = dividend / zero;', ()),
    'stack': ('recurse', 'SIGSEGV', 'recurse', 'frame[0] = (char)depth;', ()),
    'nullcall': ('(no module) | crash', 'SIGSEGV', 'crash', 'null_function();', ()),
    'trap': ('crash', 'SIGTRAP', 'crash', 'int3', ()),
    'thread': ('worker', 'SIGSEGV', 'worker', '*null_pointer = 1;', ()),
    'unwind': ('broken_unwind', 'SIGSEGV', 'broken_unwind', None, ()),
    'holder': ('crashing_worker', 'SIGSEGV', 'crashing_worker', '*null_pointer = 1;', ('holder_busy', 'holder')),
    'thread-stack': ('recurse', 'SIGSEGV', 'recurse', 'frame[0] = (char)depth;', ('crashing_worker',)),
    'assert': ('assert | crash', 'SIGABRT', 'crash', 'assert(null_pointer', ()),
    'plugin': ('late_stage', 'SIGSEGV', 'late_stage', '*null_pointer = step;', ('late_stage', 'plugin2_run')),
    'deep': ('descend', 'SIGSEGV', 'descend', '*null_pointer = 1;', ('descend', 'deep_entry')),
    # Under strace the handler's helper cannot attach: the crashing thread alone, captured by itself.
    'strace': ('crashing_worker', 'SIGSEGV', 'crashing_worker', '*null_pointer = 1;', ()),
    'exception': ('terminate | main', 'SIGABRT', 'main', 'throw velmora::DeviceLost', ()),
    'noexcept': ('noexcept | present', 'SIGABRT', 'present', 'fail();', ()),
    'qfatal': ('fatal | main', 'SIGABRT', 'main', 'qFatal(', ()),
    'qthread-stack': ('recurse', 'SIGSEGV', 'recurse', 'frame[0] = char(depth);', ()),
}
QT_MODES = {'exception', 'noexcept', 'qfatal', 'qthread-stack'}
MESSAGES = {
    'assert': re.escape('democlient.c:%d: crash: Assertion `null_pointer && "the renderer\'s device is still there"\' failed.'),
    'exception': 'velmora::DeviceLost', 'noexcept': 'std::logic_error', 'qfatal': '^renderer: device lost after 7 frames$',
}


def run(*args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, timeout=HANG_SECONDS, **kwargs)


def source_of(mode, function):
    return os.path.join(ROOT, SOURCES.get(function) or SOURCES['qt' if mode in QT_MODES else 'c'])


def source_line(mode, function, text):
    with open(source_of(mode, function)) as f:
        lines = f.read().split('\n')
    start = next(n for n, line in enumerate(lines) if re.match(r'[^\s/#].*\b%s\(' % function, line))
    return next(n for n, line in enumerate(lines[start:], start + 1) if text in line)


def text_dump(core):
    """The format 2 text dump that an older handler would have written of the same crash: the
    core's own note."""
    kind, _, at, _, _, size, _, _ = struct.unpack_from('<IIQQQQQQ', core, struct.unpack_from('<Q', core, 32)[0])
    assert kind == 4, 'the notes come first'
    end = at + size
    while at + 12 <= end:
        namesz, descsz, kind = struct.unpack_from('<III', core, at)
        desc = at + 12 + (namesz + 3) // 4 * 4
        if core[at + 12:at + 11 + namesz] == b'VELMORA' and kind == 1:
            return core[desc:desc + descsz].decode().replace('VELMORA-CRASH 3', 'VELMORA-CRASH 2', 1)
        at = desc + (descsz + 3) // 4 * 4


class Service:
    """A database made by migrate.php and a store, as the upload endpoint leaves them."""
    def __init__(self, folder, url=None):
        self.store = os.path.join(folder, 'raw')
        os.makedirs(self.store)
        self.url = url or 'sqlite:' + os.path.join(folder, 'reports.sqlite')
        run('php', os.path.join(ROOT, 'service/schema/migrate.php'), self.url).check_returncode()
        self.count = 0

    def sql(self, sql, *params):
        return query(self.url, sql, *params)

    def add(self, dump=None, archive=None, received_at=RECEIVED, version='3.0.0'):
        self.count += 1
        report = time.strftime('%Y%m%d', time.gmtime(received_at)) + '-%016x' % self.count
        path = os.path.join(self.store, report[:8], report + '.zip')
        os.makedirs(os.path.dirname(path), exist_ok=True)
        if archive is None:
            with zipfile.ZipFile(path, 'w', zipfile.ZIP_DEFLATED) as z:
                z.writestr('client.log', 'renderer: device lost\n')
                if dump is not None:
                    z.writestr('crash-1-2.core' if dump[:4] == b'\x7fELF' else 'crash-1-2.dmp', dump)
                z.writestr('info.ini', '[General]\nversion=%s\n' % version)
        else:
            with open(path, 'wb') as f:
                f.write(archive)
        self.sql("INSERT INTO reports (id, received_at, client_addr, fields, version, description, size, sha256) "
                 "VALUES (?, ?, '127.0.0.1', '{}', ?, '', 0, '')", report, received_at, version)
        return report

    def processor(self, *args, env=None):
        return [PROCESSOR, '--db', self.url, '--store', self.store, *args], dict(os.environ, **(env or {}))

    def drain(self, *args, env=None):
        command, environment = self.processor('--drain', *args, env=env)
        done = run(*command, env=environment)
        if done.returncode != 0:
            raise AssertionError(done.stderr)
        return done

    def show(self, report):
        return json.loads(run(PROCESSOR, '--db', self.url, '--show', report).stdout)

    def counts(self):
        return {(r['signature'], r['day']): int(r['count']) for r in self.sql('SELECT * FROM signature_days')}


class HungServer:
    """A debuginfod that takes the connection and never answers."""
    def __enter__(self):
        self.socket = socket.create_server(('127.0.0.1', 0))
        self.url = 'http://127.0.0.1:%d' % self.socket.getsockname()[1]
        self.held = []
        threading.Thread(target=lambda: self.held.append(self.socket.accept()), daemon=True).start()
        return self

    def __exit__(self, *exc):
        self.socket.close()

    def env(self, folder):
        return {'DEBUGINFOD_URLS': self.url, 'DEBUGINFOD_CACHE_PATH': tempfile.mkdtemp(dir=folder)}

    def wait_for_request(self, test):
        deadline = time.monotonic() + HANG_SECONDS
        while not self.held:
            test.assertLess(time.monotonic(), deadline, 'no debug file asked for')
            time.sleep(0.05)


class Processing(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix='tst_processing.')
        os.chmod(cls.tmp, 0o755)
        # The clients as a vendor ships them: stripped, their debug files kept apart by build ID.
        # Built without PIE, and with clang and lld (address ranges for the crash handler's unit
        # only), the C client crashes once more.
        variants = [os.path.join(os.environ['VARIANTS'], 'velmora-democlient-' + v) for v in ('nopie', 'lld-mixed')]
        cls.symbols = os.path.join(cls.tmp, 'symbols')
        filed = run(os.path.join(ROOT, 'scripts/file-debug-info.sh'), cls.symbols, DEMOCLIENT, DEMOCLIENT_QT, PLUGIN, *variants)
        filed.check_returncode()
        cls.build_ids = {os.path.basename(line.split()[1]): line.split()[0] for line in filed.stdout.splitlines()}
        cls.build_id = cls.build_ids['velmora-democlient']
        cls.clang = {os.path.basename(c): 'clang' in run('readelf', '-p', '.comment', c).stdout for c in [DEMOCLIENT] + variants}
        os.mkdir(os.path.join(cls.tmp, 'bin'))
        stripped = {}
        for source in [DEMOCLIENT, DEMOCLIENT_QT, PLUGIN] + variants:
            stripped[source] = os.path.join(cls.tmp, 'bin', os.path.basename(source))
            run('strip', '-o', stripped[source], source).check_returncode()
        cls.cores = {}
        for mode in list(CRASHES) + variants:
            folder = tempfile.mkdtemp(dir=cls.tmp)
            client = stripped[DEMOCLIENT_QT if mode in QT_MODES else mode if mode in variants else DEMOCLIENT]
            kind = 'segv' if mode in variants else 'holder' if mode == 'strace' else mode
            run(*(['strace', '-f', '-o', '/dev/null'] if mode == 'strace' else []), client, '--crash=' + kind,
                *(['--plugin', stripped[PLUGIN]] if mode == 'plugin' else []),
                '--dump-folder', folder, '--log', folder + '/client.log', '--sender', STUB_SENDER)
            with open(glob.glob(folder + '/crash-*.core')[0], 'rb') as f:
                cls.cores[os.path.basename(mode)] = f.read()
        # A handler of format 2 listed the plugin twice, at each of its mappings at offset 0.
        plugin = text_dump(cls.cores['plugin'])
        line = re.search(r'^module: \S+ (\S+ (.*/libvelmora-demoplugin.so))$', plugin, re.M)
        higher = re.findall(r'^([0-9a-f]+)-\S+ \S+ 00000000 .* %s$' % re.escape(line.group(2)), plugin, re.M)[1]
        cls.dumps = {'segv': text_dump(cls.cores['segv']),
                     'plugin': plugin.replace(line.group(0), '%s\nmodule: 0x%016x %s' % (line.group(0), int(higher, 16), line.group(1)))}
        # The system libraries' executables by build ID, beside Debian's debug files: unwinding needs them.
        cls.system = os.path.join(cls.tmp, 'system')
        for library in set(re.findall(r'=> (\S+)', run('ldd', DEMOCLIENT, DEMOCLIENT_QT).stdout)):
            build_id = re.search(r'Build ID: (\w+)', run('readelf', '-n', library).stdout).group(1)
            os.makedirs(os.path.join(cls.system, '.build-id', build_id[:2]), exist_ok=True)
            os.symlink(library, os.path.join(cls.system, '.build-id', build_id[:2], build_id[2:]))
        cls.libc_symbols = ['--symbols', '/usr/lib/debug', '--symbols', cls.system]

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def service(self, url=None):
        return Service(tempfile.mkdtemp(dir=self.tmp), url)

    def expected(self, mode):
        """The signature, signal, function and source line of a crash: a mode or a variant's name."""
        client = mode if mode.startswith('velmora-') else 'velmora-democlient-qt' if mode in QT_MODES else 'velmora-democlient'
        signature, signal_name, function, text, _ = CRASHES.get(mode, CRASHES['segv'])
        line = source_line(mode, function, text) if text else None
        if self.clang.get(client) or function == 'late_stage':
            # clang's line tables put some faulting statements on line 0 or on the next line.
            line = line and 'any'
        return client, signature, signal_name, function, line

    def check_crash(self, mode, result):
        client, signature, signal_name, function, line = self.expected(mode)
        frames = result['frames']
        self.assertEqual((result['state'], result['signature'], result['signal']), ('done', signature, signal_name))
        if line:
            self.assertIn({'function': function, 'file': source_of(mode, function), 'line': line},
                          [{'function': f['function'], 'file': f['file'], 'line': 'any' if line == 'any' else f['line']}
                           for f in frames])
        self.assertFalse(HANDLER_FUNCTIONS & {f['function'] for f in frames})
        if mode not in ('stack', 'unwind', 'deep', 'thread-stack', 'qthread-stack'):  # recursions; an unwinder stopped at once
            libc = [f['function'] for f in frames if f['module'] == 'libc.so.6']
            self.assertTrue(libc and all(libc), libc)
        self.assertIn(self.build_ids[client], {f['build_id'] for f in frames})

    def check_threads(self, mode, core, result):
        """A minicore's report: every thread with its top frames named, the message, how the threads
        were captured; and the file opens in eu-stack with every thread."""
        threads = result['threads']
        self.assertEqual((threads[0]['crashed'], threads[0]['frames']), (True, result['frames']))
        for thread in threads:
            top = [f['function'] for f in thread['frames'] if f['module']][:3]
            self.assertTrue(len(top) == (1 if mode == 'unwind' else 3) and all(top), (thread['id'], top))
        in_a_row = CRASHES.get(mode, CRASHES['segv'])[4]
        if in_a_row:
            self.assertTrue(any(in_a_row == tuple(f['function'] for f in t['frames'][n:n + len(in_a_row)])
                                for t in threads for n in range(len(t['frames']))), in_a_row)
        if mode == 'deep':
            self.assertGreater(threads[0]['left_out'], 0)
        strace = mode == 'strace'
        in_process = int(re.search(r'^threads: (\d+)$', text_dump(core), re.M).group(1))
        self.assertEqual((result['capture'], len(threads)), ('self', 1) if strace else ('ptrace', in_process))
        message = MESSAGES.get(mode, '^$') % ((self.expected(mode)[4],) if mode == 'assert' else ())
        self.assertRegex(result['message'] or '', message)
        path = os.path.join(self.tmp, 'crash.core')
        with open(path, 'wb') as f:
            f.write(core)
        shown = run('eu-stack', '--core=' + path).stdout
        self.assertEqual(shown.count('\nTID '), len(threads), shown)

    def test_crashes(self):
        service = self.service()
        reports = {mode: service.add(core) for mode, core in self.cores.items()}
        dumps = {mode: service.add(dump) for mode, dump in self.dumps.items()}
        service.drain('--symbols', self.symbols, *self.libc_symbols)
        signatures = [self.expected(mode)[1] for mode in list(reports) + list(dumps)]
        for mode, report in reports.items():
            with self.subTest(mode=mode):
                result = service.show(report)
                self.check_crash(mode, result)
                self.assertEqual(service.counts()[(result['signature'], DAY)], signatures.count(result['signature']))
                self.check_threads(mode, self.cores[mode], result)
        for mode, report in dumps.items():
            with self.subTest(text_dump=mode):
                self.check_crash(mode, service.show(report))
        # Without the C library's executable its frames come from the handler's own list.
        service = self.service()
        report = service.add(self.cores['abort'])
        service.drain('--symbols', self.symbols, '--symbols', '/usr/lib/debug')
        result = service.show(report)
        self.assertEqual((result['signature'], result['threads'][0]['from_process'] > 0), ('abort | crash', True))

    def test_debuginfod_hangs(self):
        # Every module's build ID unknown here, each asked of a debuginfod that never answers.
        core = re.sub(rb'(?<=module: 0x[0-9a-f]{16} )[0-9a-f]+', lambda m: os.urandom(len(m.group(0)) // 2).hex().encode(),
                      self.cores['segv'])
        lease = 4
        service = self.service()
        report = service.add(core)
        with HungServer() as hung:
            start = int(time.time())
            service.drain('--lease', str(lease), env=hung.env(self.tmp))
        result = service.show(report)
        self.assertEqual((result['state'], result['attempts']), ('done', 1))
        self.assertLessEqual(result['processed_at'], start + lease)

    def test_debuginfod(self):
        served = os.path.join(self.tmp, 'served')
        os.makedirs(served, exist_ok=True)
        shutil.copy(DEMOCLIENT, served)

        def serve(port):
            """debuginfod on the port once it serves the client's debug file; None if it ended first,
            its port taken (start_on_a_port fails the row when every port tried ends so)."""
            server = subprocess.Popen(['debuginfod', '-F', served, '-p', str(port), '-d', os.path.join(self.tmp, 'debuginfod.sqlite')],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            url = 'http://127.0.0.1:%d' % port
            deadline = time.monotonic() + HANG_SECONDS
            while run('curl', '-sf', '--noproxy', '*', '-o', '/dev/null', '%s/buildid/%s/debuginfo' % (url, self.build_id)).returncode:
                if server.poll() is not None:
                    return None
                if time.monotonic() > deadline:
                    server.kill()
                    server.wait()
                    self.fail('debuginfod did not index the client')
                time.sleep(0.2)
            return server, url
        server, url = start_on_a_port(serve)
        try:
            cache = tempfile.mkdtemp(dir=self.tmp)
            service = self.service()
            report = service.add(self.cores['segv'])
            service.drain(*self.libc_symbols, env={'DEBUGINFOD_URLS': url, 'DEBUGINFOD_CACHE_PATH': cache})
            self.check_crash('segv', service.show(report))
            # The served client is unstripped: its executable, which unwinding needs, holds the
            # debug information too.
            self.assertTrue(os.path.exists(os.path.join(cache, self.build_id, 'executable')))
        finally:
            server.terminate()
            server.wait()

    def test_hostile_dumps(self):
        segv = self.dumps['segv']
        client_path = re.search(r'^module: \S+ \S+ (.*velmora-democlient)$', segv, re.M).group(1)
        unstripped = os.path.join(self.tmp, 'unstripped')
        shutil.copy(DEMOCLIENT, unstripped)
        rows = [
            ('truncated', segv[:segv.index('frame 2:') + 12], 'done', '(no module)'),
            ("garbage under a dump's name", os.urandom(4096), 'done', 'EMPTY: no crash dump'),
            ('a dump path to debug info, no build ID', segv.replace(self.build_id + ' ' + client_path, 'none ' + unstripped)
             .replace(client_path, unstripped), 'done', 'unstripped@0x'),
            ('a wrong build ID', segv.replace(self.build_id, 'ab' * 20).replace(client_path, unstripped), 'done', 'unstripped@0x'),
            ('no dump', None, 'done', 'EMPTY: no crash dump'),
            ('no zip', b'PK\x03\x04 not a zip', 'failed', 'cannot be opened as a zip'),
        ]
        service = self.service()
        reports = [service.add(archive=dump) if name == 'no zip' else service.add(dump) for name, dump, _, _ in rows]
        service.drain('--symbols', self.symbols, *self.libc_symbols)
        for (name, _, state, answer), report in zip(rows, reports):
            with self.subTest(name):
                result = service.show(report)
                self.assertEqual(result['state'], state)
                self.assertIn(answer, result['signature'] if state == 'done' else result['failure'])

    def test_killed_mid_report(self):
        for kills, state in ((1, 'done'), (3, 'failed')):
            with self.subTest(kills=kills):
                service = self.service()
                report = service.add(self.dumps['segv'])
                for _ in range(kills):
                    with HungServer() as hung:
                        # Lookups give up at half the lease: the kill comes within that second.
                        command, env = service.processor('--lease', '2', *self.libc_symbols, env=hung.env(self.tmp))
                        worker = subprocess.Popen(command, env=env, stderr=subprocess.DEVNULL)
                        hung.wait_for_request(self)
                        worker.kill()
                        worker.wait()
                    # Until the lease has run out, on the whole second that the processor reads.
                    lease = service.sql('SELECT lease_until FROM reports')[0]['lease_until']
                    while int(time.time()) <= lease:
                        time.sleep(0.05)
                service.drain('--symbols', self.symbols, *self.libc_symbols)
                result = service.show(report)
                self.assertEqual((result['state'], result['attempts']), (state, kills + (state == 'done')))
                self.assertEqual(sum(service.counts().values()), int(state == 'done'))
                if state == 'failed':
                    self.assertIn('cut short 3 times', result['failure'])

    def test_stopped_mid_download(self):
        service = self.service()
        report = service.add(self.dumps['segv'])
        with HungServer() as hung:
            command, env = service.processor(*self.libc_symbols, env=hung.env(self.tmp))
            worker = subprocess.Popen(command, env=env, stderr=subprocess.DEVNULL)
            hung.wait_for_request(self)
            worker.send_signal(signal.SIGTERM)
            self.assertEqual(worker.wait(timeout=HANG_SECONDS / 2), 0)
        self.assertEqual(service.sql('SELECT state, attempts FROM reports'), [{'state': 'new', 'attempts': 0}])

    def rules(self, version, edit):
        """A copy of the shipped lists at another version, with one list edited."""
        rules = tempfile.mkdtemp(dir=self.tmp)
        shutil.copytree(os.path.join(ROOT, 'service/signature'), rules, dirs_exist_ok=True)
        for name in os.listdir(rules):
            with open(os.path.join(rules, name)) as f:
                text = re.sub(r'(?m)^version: \d+$', 'version: %d' % version, f.read())
            with open(os.path.join(rules, name), 'w') as f:
                f.write(edit(name, text))
        return rules

    def test_reprocess(self):
        rules = self.rules(RULES + 1, lambda name, text: text + ('crash\n' if name == 'prefix.txt' else ''))
        # The last row's frames have no functions: regrouped, they keep their module and offset.
        for since, archive_kept, symbols, signature in ((DAY, True, True, 'crash | main'), (DAY, False, True, 'crash | main'),
                                                        ('2026-11-19', True, True, 'crash'), (DAY, False, False, None)):
            with self.subTest(since=since, archive_kept=archive_kept, symbols=symbols):
                service = self.service()
                report = service.add(self.dumps['segv'])
                service.drain(*(['--symbols', self.symbols] if symbols else []), *self.libc_symbols)
                signature = signature or service.show(report)['signature']
                if not archive_kept:
                    shutil.rmtree(os.path.join(service.store, report[:8]))
                command, env = service.processor('--reprocess', '--since', since, '--rules', rules,
                                                 '--symbols', self.symbols, *self.libc_symbols)
                run(*command, env=env).check_returncode()
                result = service.show(report)
                self.assertEqual((result['signature'], result['rule_version'], result['signal']),
                                 (signature, RULES if since != DAY else RULES + 1, 'SIGSEGV'))
                self.assertEqual(service.counts(), {(signature, DAY): 1})

    def test_reprocess_moves_every_count(self):
        # Reports grouped by lists of version 1, which knew no kinds of death, regroup under
        # the shipped ones: abort's and assert's counts move from "crash" to their kinds.
        old = self.rules(1, lambda name, text: re.sub(r'(?m)^[^#\n].*=>.*$', '', text) if name == 'kinds.txt' else text)
        service = self.service()
        modes = ('segv', 'abort', 'assert', 'fpe')
        for mode in modes:
            service.add(self.cores[mode])
        service.drain('--rules', old, '--symbols', self.symbols, *self.libc_symbols)
        before = collections.Counter('crash' if mode in ('abort', 'assert') else CRASHES[mode][0] for mode in modes)
        self.assertEqual(service.counts(), {(s, DAY): n for s, n in before.items()})
        command, env = service.processor('--reprocess', '--symbols', self.symbols, *self.libc_symbols)
        run(*command, env=env).check_returncode()
        after = collections.Counter(CRASHES[mode][0] for mode in modes)
        self.assertEqual(service.counts(), {(s, DAY): n for s, n in after.items()})
        self.assertEqual({r['rule_version'] for r in service.sql('SELECT rule_version FROM processed')}, {RULES})

    def test_postgresql(self):
        postgres = Postgres()
        try:
            service = self.service(postgres.url)
            reports = [service.add(self.dumps['segv']) for _ in range(20)]
            workers = [subprocess.Popen(service.processor('--drain', '--worker', 'w%d' % n, '--symbols', self.symbols,
                                                          *self.libc_symbols)[0]) for n in (1, 2)]
            self.assertEqual([w.wait(timeout=HANG_SECONDS) for w in workers], [0, 0])
            rows = service.sql('SELECT state, attempts, worker FROM reports')
            self.assertEqual([(r['state'], r['attempts']) for r in rows], [('done', 1)] * len(reports))
            self.assertEqual(service.counts(), {('crash', DAY): 20})

            # A report in hand while the database restarts is written once it is back, not left
            # to wait out its lease.
            report = service.add(self.dumps['segv'])
            with HungServer() as hung:
                command, env = service.processor('--lease', '600', *self.libc_symbols, env=hung.env(self.tmp))
                worker = subprocess.Popen(command, env=env, stderr=subprocess.PIPE, text=True)
                self.addCleanup(worker.communicate)
                self.addCleanup(worker.terminate)
                hung.wait_for_request(self)
                postgres.stop(keep=True)
                hung.held[0][0].close()
            next(line for line in worker.stderr if 'not finished' in line)
            postgres.start()
            deadline = time.monotonic() + HANG_SECONDS
            while service.sql('SELECT state, attempts FROM reports WHERE id = ?', report) != [{'state': 'done', 'attempts': 1}]:
                self.assertLess(time.monotonic(), deadline, 'report %s not written' % report)
                time.sleep(0.1)
        finally:
            postgres.stop()

    def test_loader_writes_the_same_rows(self):
        """Reports uploaded to the service and processed, then loaded by scripts/load-reports.php as
        they came out: the loader's rows are the endpoint's and the processor's."""
        service = servicefixture.Service(self.tmp, '--rate-limit', '0').start()
        try:
            for version, dump in (('3.0.0', self.dumps['segv']), ('3.0.0', self.dumps['segv']), ('3.0.1', self.cores['fpe']),
                                  ('3.0.1', None), ('3.0.1', self.dumps['segv'].replace('CRASH 2', 'CRASH 9'))):
                data = servicefixture.archive('[General]\nversion=%s\n' % version, dump or b'')
                fields = {'product': 'Velmora 3', 'os': 'linux/x86_64 ü'}
                self.assertEqual(servicefixture.exchange(service.port, servicefixture.upload_request(data, fields))[0], 200)
        finally:
            service.stop()
        run(PROCESSOR, '--db', service.db, '--store', service.store, '--drain', '--symbols', self.symbols,
            *self.libc_symbols).check_returncode()

        def tables(url):
            # Without what the loader cannot know: the archive (it makes none here) and the time of processing.
            return {table: [{key: json.loads(value) if key in ('frames', 'threads') and value else value for key, value in row.items()
                             if key not in ('size', 'sha256', 'processed_at')} for row in query(url, 'SELECT * FROM ' + table + ' ORDER BY 1, 2, 3')]
                    for table in ('reports', 'processed', 'signature_days')}
        uploaded = tables(service.db)
        results = {row['report_id']: row for row in uploaded['processed']}
        listed = [{**report, 'fields': json.loads(report['fields']), 'archive': False,
                   **({key: results[report['id']][key] for key in ('signature', 'rule_version', 'signal', 'address', 'frames', 'threads', 'message', 'capture')}
                      if report['id'] in results else {})}
                  for report in uploaded['reports']]
        loaded = self.service()
        run('php', os.path.join(ROOT, 'scripts/load-reports.php'), '--db', loaded.url, '-', input=json.dumps(listed)).check_returncode()
        for name, rows in tables(loaded.url).items():
            with self.subTest(table=name):
                self.assertEqual(rows, uploaded[name])
        self.assertEqual(sorted((r['state'], r.get('signature')) for r in listed),
                         [('done', 'EMPTY: no crash dump'), ('done', 'crash'), ('done', 'crash'), ('done', 'divide_by_zero'), ('failed', None)])

    def test_command_lines(self):
        service = self.service()
        rows = [
            ([], 2, '--db URL is needed'),
            (['--db', service.url], 2, '--store DIR is needed'),
            (['--db', service.url, '--store', service.store, '--lease', '0'], 2, '--lease takes'),
            (['--db', service.url, '--store', service.store, '--since', '2026-11-17'], 2, '--since goes with --reprocess'),
            (['--db', service.url, '--store', service.store, '--reprocess', '--since', '17.11.2026'], 2, 'YYYY-MM-DD'),
            (['--db', service.url, '--store', service.store, '--symbols', '/nonexistent'], 2, 'no folder'),
            (['--db', 'sqlite:' + self.tmp + '/none.sqlite', '--store', service.store], 1, 'migrate.php creates it'),
            (['--db', 'mysql://x/y', '--show', 'x'], 1, 'not a database URL'),
            (['--db', service.url, '--show', '20261117-0000000000000099'], 1, 'no report'),
            (['--db', service.url, '--store', service.store, '--drain', '--rules', self.tmp], 1, 'libraries.txt'),
        ]
        for args, code, message in rows:
            with self.subTest(args=args):
                done = run(PROCESSOR, *args)
                self.assertEqual(done.returncode, code, done.stderr)
                self.assertIn(message, done.stderr)
        known = service.sql('SELECT MAX(version) AS v FROM schema_migrations')[0]['v']
        service.sql('INSERT INTO schema_migrations (version, name, applied_at) VALUES (?, ?, 0)', known + 1, 'future.sql')
        done = run(PROCESSOR, '--db', service.url, '--store', service.store, '--drain')
        self.assertEqual((done.returncode, done.stderr),
                         (1, 'velmora-processor: the database is at schema version %d, this processor knows %d\n' % (known + 1, known)))
        done = run('php', os.path.join(ROOT, 'service/schema/migrate.php'), service.url)
        self.assertEqual((done.returncode, done.stderr),
                         (1, "migrate: the database is at schema %d, newer than this service's %d\n" % (known + 1, known)))


if __name__ == '__main__':
    unittest.main(verbosity=2)
