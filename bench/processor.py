"""Reports per second of velmora-processor against eu-addr2line run once per report on the same
frames, over a corpus of real crashes of the demo client as format 2 text dumps (made of the
crash handler's minicores, as older clients send them), in the same run; then on the handler's
minicores of the same crashes against eu-stack --core run once per report on the same files.
    python3 bench/processor.py BUILD_DIR [REPORTS [MINICORES]]"""
import glob
import os
import re
import shutil
import sqlite3
import statistics
import struct
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
    """The minicore of a crash, and the format 2 text dump of it: its note's text."""
    os.mkdir(folder)
    subprocess.run([client, '--crash=' + mode, '--dump-folder', folder, '--log', folder + '/client.log',
                    '--sender', '/bin/true'], stderr=subprocess.DEVNULL)
    core = glob.glob(folder + '/crash-*.core')[0]
    with open(core, 'rb') as f:
        data = f.read()
    kind, _, at, _, _, size, _, _ = struct.unpack_from('<IIQQQQQQ', data, struct.unpack_from('<Q', data, 32)[0])
    end = at + size
    while kind == 4 and at + 12 <= end:
        namesz, descsz, kind = struct.unpack_from('<III', data, at)
        desc = at + 12 + (namesz + 3) // 4 * 4
        if data[at + 12:at + 11 + namesz] == b'VELMORA' and kind == 1:
            with open(core[:-len('.core')] + '.dmp', 'wb') as f:
                f.write(data[desc:desc + descsz].replace(b'VELMORA-CRASH 3', b'VELMORA-CRASH 2', 1))
            return core, f.name
        at, kind = desc + (descsz + 3) // 4 * 4, 4
    raise RuntimeError(core + ' has no VELMORA note')


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


def time_processor(processor, db, url, store, symbols, *more):
    db.executescript("DELETE FROM processed; DELETE FROM signature_days; "
                     "UPDATE reports SET state = 'new', attempts = 0, worker = NULL, lease_until = NULL;")
    db.commit()
    start = time.monotonic()
    subprocess.run([processor, '--db', url, '--store', store, '--drain', '--symbols', symbols,
                    '--symbols', '/usr/lib/debug', *more], check=True, stderr=subprocess.DEVNULL)
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


# What a developer does per minicore: every thread unwound, with inlined calls and source lines,
# the modules found where the core's notes say and their debug files in /usr/lib/debug.
def time_eu_stack(cores):
    start = time.monotonic()
    for core in cores:
        subprocess.run(['eu-stack', '-i', '-s', '--core=' + core], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.monotonic() - start


def bench_minicores(processor, client, data, symbols, made, count):
    """The crash handler's minicores of the same crashes, stored count times over."""
    cores = [made[n % len(made)] for n in range(count)]
    # The C library's executable by build ID: the processor finds nothing by path.
    system = os.path.join(data, 'system')
    libc = subprocess.run(['sh', '-c', 'ldd "$0" | sed -n "s/.*libc.so.6 => \\(.*\\) (.*/\\1/p"', client],
                          capture_output=True, text=True, check=True).stdout.strip()
    libc_id = re.search(r'Build ID: (\w+)', subprocess.run(['readelf', '-n', libc], capture_output=True, text=True).stdout).group(1)
    os.makedirs(os.path.join(system, '.build-id', libc_id[:2]))
    shutil.copy(libc, os.path.join(system, '.build-id', libc_id[:2], libc_id[2:]))
    os.mkdir(os.path.join(data, 'minicore-store'))
    db, url, store = make_store(os.path.join(data, 'minicore-store'), cores)
    ours, theirs = [], []
    time_processor(processor, db, url, store, symbols, '--symbols', system)
    for _ in range(ROUNDS):
        ours.append(count / time_processor(processor, db, url, store, symbols, '--symbols', system))
        theirs.append(count / time_eu_stack(cores))
    sizes = [os.path.getsize(c) for c in made]
    print('%d minicores (%s; %d to %d KB), %d rounds, medians:' % (count, ' '.join(MODES), min(sizes) // 1024,
                                                                    max(sizes) // 1024, ROUNDS))
    print('  velmora-processor, one worker:     %7.1f reports/s  (%s)' % (statistics.median(ours), ', '.join('%.1f' % r for r in ours)))
    print('  eu-stack -i -s --core:             %7.1f reports/s  (%s)' % (statistics.median(theirs), ', '.join('%.1f' % r for r in theirs)))
    print('  ratio: %.1fx (goal: 5x)' % (statistics.median(ours) / statistics.median(theirs)))


def main():
    build = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    minicores = int(sys.argv[3]) if len(sys.argv) > 3 else 200
    processor = os.path.join(build, 'bin/velmora-processor')
    client = os.path.join(build, 'bin/velmora-democlient')
    data = tempfile.mkdtemp(prefix='processor-bench.')
    try:
        symbols = os.path.join(data, 'symbols')
        subprocess.run([os.path.join(ROOT, 'scripts/file-debug-info.sh'), symbols, client], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        crashes = [crash(client, MODES[n % len(MODES)], os.path.join(data, 'crash-%d' % n)) for n in range(count)]
        dumps = [dump for _, dump in crashes]
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
        bench_minicores(processor, client, data, symbols, [core for core, _ in crashes], minicores)
    finally:
        shutil.rmtree(data)


if __name__ == '__main__':
    main()
