"""Reports per second of velmora-processor against eu-addr2line run once per report on the same
frames, over a corpus of real crashes of the demo client, in the same run.
    python3 bench/processor.py BUILD_DIR [REPORTS]"""
import glob
import os
import re
import shutil
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
import zipfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The crashes that end in the C library's start-up frames, so that every report needs libc too.
MODES = ['segv', 'abort', 'fpe', 'nullcall', 'wild', 'trap', 'race']
ROUNDS = int(os.environ.get('BENCH_ROUNDS', '3'))


def crash(client, mode, folder):
    os.mkdir(folder)
    subprocess.run([client, '--crash=' + mode, '--dump-folder', folder, '--log', folder + '/client.log',
                    '--sender', '/bin/true'], stderr=subprocess.DEVNULL)
    return glob.glob(folder + '/crash-*.dmp')[0]


def make_store(data, dumps):
    store = os.path.join(data, 'raw')
    url = 'sqlite:' + os.path.join(data, 'reports.sqlite')
    subprocess.run(['php', os.path.join(ROOT, 'service/schema/migrate.php'), url], check=True, stdout=subprocess.DEVNULL)
    db = sqlite3.connect(url[7:])
    for n, dump in enumerate(dumps):
        report = '20261118-%016x' % n
        os.makedirs(os.path.join(store, report[:8]), exist_ok=True)
        with zipfile.ZipFile(os.path.join(store, report[:8], report + '.zip'), 'w', zipfile.ZIP_DEFLATED) as z:
            z.writestr('client.log', 'renderer: device lost\n')
            z.write(dump, os.path.basename(dump))
            z.writestr('info.ini', '[General]\nversion=3.0.0\n')
        db.execute("INSERT INTO reports (id, received_at, client_addr, fields, version, description, size, sha256) "
                   "VALUES (?, 1795000000, '127.0.0.1', '{}', '3.0.0', '', 0, '')", (report,))
    db.commit()
    return db, url, store


def time_processor(processor, db, url, store, symbols):
    db.executescript("DELETE FROM processed; DELETE FROM signature_days; "
                     "UPDATE reports SET state = 'new', attempts = 0, worker = NULL, lease_until = NULL;")
    db.commit()
    start = time.monotonic()
    subprocess.run([processor, '--db', url, '--store', store, '--drain', '--symbols', symbols,
                    '--symbols', '/usr/lib/debug'], check=True, stderr=subprocess.DEVNULL)
    seconds = time.monotonic() - start
    states = db.execute("SELECT state, COUNT(*) FROM reports GROUP BY state").fetchall()
    assert states == [('done', len(os.listdir(os.path.join(store, '20261118'))))], states
    return seconds


# What a vendor's script does per report: the maps into a file, the frames (callers at pc-1)
# on the command line. It exits 1 when some address has no answer, which is no failure here.
def time_addr2line(dumps, scratch):
    start = time.monotonic()
    for dump in dumps:
        with open(dump) as f:
            head, maps = f.read().split('maps:\n', 1)
        frames = [int(a, 16) for a in re.findall(r'^frame \d+: (0x[0-9a-f]+)$', head, re.M)]
        with open(scratch, 'w') as f:
            f.write(maps)
        subprocess.run(['eu-addr2line', '-M', scratch, '-f', '-i', '-C']
                       + ['0x%x' % (a - (n > 0)) for n, a in enumerate(frames)],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.monotonic() - start


def main():
    build = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    processor = os.path.join(build, 'bin/velmora-processor')
    client = os.path.join(build, 'bin/velmora-democlient')
    data = tempfile.mkdtemp(prefix='processor-bench.')
    try:
        symbols = os.path.join(data, 'symbols')
        subprocess.run([os.path.join(ROOT, 'scripts/file-debug-info.sh'), symbols, client], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        dumps = [crash(client, MODES[n % len(MODES)], os.path.join(data, 'crash-%d' % n)) for n in range(count)]
        db, url, store = make_store(data, dumps)
        ours, theirs = [], []
        time_processor(processor, db, url, store, symbols)  # warms the page cache for both
        for _ in range(ROUNDS):
            ours.append(count / time_processor(processor, db, url, store, symbols))
            theirs.append(count / time_addr2line(dumps, os.path.join(data, 'maps.txt')))
        print('%d reports (%s), %d rounds, medians:' % (count, ' '.join(MODES), ROUNDS))
        print('  velmora-processor, one worker:     %7.1f reports/s  (%s)' % (statistics.median(ours), ', '.join('%.1f' % r for r in ours)))
        print('  eu-addr2line -M maps -f -i -C:    %7.1f reports/s  (%s)' % (statistics.median(theirs), ', '.join('%.1f' % r for r in theirs)))
        print('  ratio: %.1fx (goal: 5x)' % (statistics.median(ours) / statistics.median(theirs)))
    finally:
        shutil.rmtree(data)


if __name__ == '__main__':
    main()
