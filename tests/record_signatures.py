#!/usr/bin/python3
"""Records the signature table (tests/data/signatures.txt) from real crashes: the demo clients,
the C one built with gcc (with and without PIE) and with clang/lld, the Qt one with gcc and
with clang/lld, crash in each mode below, on two CPU levels that glibc's tunables mask down
to, and velmora-processor unwinds every minicore the crash handler wrote, once with the C
library's debug file and once with only its executable. The frames it gives
(function and module, no addresses) are written as rows, each with the signature that its
case must give. Run it again after a change to the processor or to the demo client:

    tests/record_signatures.py [BUILD_DIR]
"""
import glob
import json
import os
import subprocess
import sys
import tempfile
import zipfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), 'service'))
from servicefixture import ROOT, query  # noqa: E402

BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, 'build'))
TABLE = os.path.join(ROOT, 'tests/data/signatures.txt')
CLIENTS = {
    'gcc': os.path.join(BUILD, 'bin/velmora-democlient'),
    'gcc without PIE': os.path.join(BUILD, 'tests/velmora-democlient-nopie'),
    'clang/lld': os.path.join(BUILD, 'tests/velmora-democlient-lld-mixed'),
    'Qt': os.path.join(BUILD, 'bin/velmora-democlient-qt'),
    'Qt, clang/lld': os.path.join(BUILD, 'tests/velmora-democlient-qt-lld'),
}
# Masks that leave the SSSE3 and the SSE2 copies of memcpy, which any x86-64 CI machine has.
CPUS = {
    'ssse3': '-AVX512F,-AVX512VL,-AVX2,-AVX,-RTM,-Fast_Unaligned_Copy',
    'sse2': '-AVX512F,-AVX512VL,-AVX2,-AVX,-RTM,-SSSE3',
}
LIBC_DEBUG = {True: "C library's debug file", False: "C library's executable only"}
# A mode, the signature it must give with the C library's debug file and without, and which
# builds, CPUs and debug files it is recorded with.
EXPECTED = [
    # The Qt client: an exception nobody catches, one that reaches a noexcept function (gcc's
    # stack still holds the thrower, clang's no longer), and qFatal. No debug file of libstdc++
    # or Qt is filed: their frames are named from their symbol tables. (Its qthread-stack signs
    # "recurse" by the frames alone, with no rule to test.)
    ('exception', ('terminate | main',) * 2, ['Qt', 'Qt, clang/lld'], ['sse2'], [True, False]),
    ('noexcept', ('noexcept | present',) * 2, ['Qt', 'Qt, clang/lld'], ['sse2'], [True, False]),
    ('qfatal', ('fatal | main',) * 2, ['Qt', 'Qt, clang/lld'], ['sse2'], [True, False]),
    # A terminate handler whose assertion fails: the assertion, the innermost way of dying,
    # is the bug, not the rethrow that called std::terminate.
    ('terminate-assert', ('terminate | sayUncaught',) * 2, ['Qt', 'Qt, clang/lld'], ['sse2'], [True, False]),
    ('abort', ('abort | crash',) * 2, ['gcc', 'clang/lld'], ['sse2'], [True, False]),
    ('assert-index', ('assert | check_index',) * 2, ['gcc', 'clang/lld'], ['sse2'], [True, False]),
    ('assert-range', ('assert | check_range',) * 2, ['gcc', 'clang/lld'], ['sse2'], [True, False]),
    ('fortify', ('buffer overflow | fill_header',) * 2, ['gcc', 'clang/lld'], ['sse2'], [True, False]),
    ('badcopy', ('memcpy | copy_record',) * 2, ['gcc', 'clang/lld'], ['ssse3', 'sse2'], [True, False]),
    ('badlength', ('libc | measure_name',) * 2, ['gcc'], ['sse2'], [True, False]),
    ('jump', ('(no module) | jump_to_data',) * 2, ['gcc', 'gcc without PIE', 'clang/lld'], ['sse2'], [True]),
    ('badcall', ('(no module) | crash',) * 2, ['gcc', 'clang/lld'], ['sse2'], [True]),
    ('nullcall', ('(no module) | crash',) * 2, ['gcc'], ['sse2'], [True]),
]


def run(*args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, check=True, timeout=120, **kwargs)


def build_id(path):
    notes = run('readelf', '-n', path).stdout
    return notes.split('Build ID: ')[1].split()[0]


def library_executables(folder, clients):
    """A symbols folder with the executables of the libraries the clients load, filed under
    their build IDs. The processor names frames from their symbol tables where no debug file
    is found; one that looks only for .debug files reads them under that name too."""
    for client in clients:
        libraries = run('sh', '-c', 'ldd "$0" | sed -n "s/.* => \\(\\/\\S*\\).*/\\1/p"', client).stdout.split()
        for library in libraries:
            bid = build_id(library)
            os.makedirs(os.path.join(folder, '.build-id', bid[:2]), exist_ok=True)
            for name in (bid[2:], bid[2:] + '.debug'):
                if not os.path.lexists(os.path.join(folder, '.build-id', bid[:2], name)):
                    os.symlink(os.path.realpath(library), os.path.join(folder, '.build-id', bid[:2], name))
    return folder


def crash(client, mode, cpu, folder):
    env = dict(os.environ, GLIBC_TUNABLES='glibc.cpu.hwcaps=' + CPUS[cpu])
    subprocess.run([client, '--crash=' + mode, '--dump-folder', folder, '--log', folder + '/client.log',
                    '--sender', os.path.join(ROOT, 'tests/data/stub_sender.sh')],
                   env=env, capture_output=True, timeout=60)
    dumps = glob.glob(folder + '/crash-*.core')
    if len(dumps) != 1:
        sys.exit('%s --crash=%s left %d minicores' % (client, mode, len(dumps)))
    return dumps[0]


def symbolize(dumps, tmp, symbols):
    """The frames velmora-processor gives for each dump, through a database of their own."""
    db = 'sqlite:' + os.path.join(tempfile.mkdtemp(dir=tmp), 'reports.sqlite')
    store = tempfile.mkdtemp(dir=tmp)
    run('php', os.path.join(ROOT, 'service/schema/migrate.php'), db)
    reports = []
    for n, dump in enumerate(dumps, 1):
        report = '20261118-%016x' % n
        os.makedirs(os.path.join(store, report[:8]), exist_ok=True)
        with zipfile.ZipFile(os.path.join(store, report[:8], report + '.zip'), 'w') as z:
            z.write(dump, os.path.basename(dump))
        query(db, "INSERT INTO reports (id, received_at, client_addr, fields, version, description, size, sha256) "
                  "VALUES (?, 1795000000, '127.0.0.1', '{}', '3.0.0', '', 0, '')", report)
        reports.append(report)
    processor = os.path.join(BUILD, 'bin/velmora-processor')
    run(processor, '--db', db, '--store', store, '--drain', *[a for s in symbols for a in ('--symbols', s)])
    result = []
    for report in reports:
        rows = []
        for frame in json.loads(run(processor, '--db', db, '--show', report).stdout)['frames']:
            source = '' if frame['function'] or not frame['file'] else '%s:%d' % (os.path.basename(frame['file']), frame['line'])
            rows.append('\t'.join((frame['function'] or '', frame['module'] or '', source, frame['symbol'] or '',
                                   'refuses' if frame['refuses_exceptions'] else '')).rstrip('\t'))
        result.append(rows)
    return result


def main():
    run('cmake', '--build', BUILD, '--target', 'velmora-processor', 'velmora-democlient', 'democlient_variants')
    for name, client in list(CLIENTS.items()):
        if not os.path.exists(client):
            print('%s: not built here, its rows are left out' % client)
            del CLIENTS[name]
    with tempfile.TemporaryDirectory(prefix='record_signatures.') as tmp:
        symbols = os.path.join(tmp, 'symbols')
        run(os.path.join(ROOT, 'scripts/file-debug-info.sh'), symbols, *CLIENTS.values())
        libraries = library_executables(os.path.join(tmp, 'libraries'), CLIENTS.values())
        # The debug file wins where both are filed: the folders are searched in order.
        folders = {True: [symbols, '/usr/lib/debug', libraries], False: [symbols, libraries]}
        stripped = {}
        for name, client in CLIENTS.items():
            stripped[name] = os.path.join(tmp, os.path.basename(client))
            run('strip', '-o', stripped[name], client)
        cases = []  # (case, signature, dump, with the debug file)
        for mode, signatures, builds, cpus, debug_files in EXPECTED:
            for build in [b for b in builds if b in CLIENTS]:
                for cpu in cpus:
                    dump = crash(stripped[build], mode, cpu, tempfile.mkdtemp(dir=tmp))
                    for with_debug in debug_files:
                        cases.append(('%s, %s, %s, %s' % (mode, build, cpu, LIBC_DEBUG[with_debug]),
                                      signatures[0 if with_debug else 1], dump, with_debug))
        frames = {}
        for with_debug in (True, False):
            chosen = [c for c in cases if c[3] == with_debug]
            frames.update(zip([c[0] for c in chosen], symbolize([c[2] for c in chosen], tmp, folders[with_debug])))
    out = ['# Recorded by tests/record_signatures.py from real crashes of the demo client; record',
           '# again with that one command. A row: its case, the signature it must give, then its',
           '# frames innermost first, one a line: function, module, file:line (without a function),',
           "# the name in the module's own symbol table and \"refuses\" where its function's exception",
           '# table refuses an exception through it, separated by tabs.']
    for case, signature, _, _ in cases:
        out += ['', 'case: ' + case, 'signature: ' + signature] + ['\t' + f for f in frames[case]]
    with open(TABLE, 'w') as f:
        f.write('\n'.join(out) + '\n')
    print('%d rows in %s' % (len(cases), os.path.relpath(TABLE)))


if __name__ == '__main__':
    main()
