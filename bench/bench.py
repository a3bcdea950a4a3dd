#!/usr/bin/env python3
"""bench.py <build dir> <data dir> <port>: the four benchmarks, each with its ratio.

<data dir> holds crash.dmp and client.log from gendata.py; bench/run.sh prepares both.
Every time stamp here and in reportdriver is CLOCK_MONOTONIC (time.monotonic())."""
import json
import os
import queue
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import threading
import time

RUNS = int(os.environ.get('BENCH_RUNS', '11'))
POST_INFO = """[meta]
url = http://127.0.0.1:{port}/upload
filefield = dumpfile
mime = application/zip

[postdata]
product = Velmora 3
channel = stable
"""


class Server:
    """Serves the post-info file and reads each upload whole before answering."""

    def __init__(self, port):
        self.port = port
        self.listener = socket.create_server(('127.0.0.1', port))
        # One buffer for every upload, so that the server does not time its own allocations.
        self.buffer = memoryview(bytearray(256 << 20))
        self.events = queue.Queue()
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                conn, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self.handle, args=(conn,), daemon=True).start()

    def handle(self, conn):
        with conn:
            head = b''
            while b'\r\n\r\n' not in head:
                chunk = conn.recv(65536)
                if not chunk:
                    return
                head += chunk
            head, got = head.split(b'\r\n\r\n', 1)
            lines = head.decode('latin-1').split('\r\n')
            fields = {k.strip().lower(): v.strip() for k, _, v in (l.partition(':') for l in lines[1:])}
            length = int(fields.get('content-length', '0'))
            if fields.get('expect', '').lower() == '100-continue':
                conn.sendall(b'HTTP/1.1 100 Continue\r\n\r\n')
            self.buffer[:len(got)] = got
            size = len(got)
            while size < length:
                n = conn.recv_into(self.buffer[size:length])
                if not n:
                    return
                size += n
            arrived = time.monotonic()
            get = lines[0].startswith('GET ')
            body = POST_INFO.format(port=self.port).encode() if get else b'stored'
            conn.sendall(b'HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: close\r\n'
                         b'Content-Length: %d\r\n\r\n%s' % (len(body), body))
            self.events.put(('info', time.monotonic(), 0) if get else ('body', arrived, size))

    def expect(self, kind):
        while True:
            event = self.events.get(timeout=120)
            if event[0] == kind:
                return event

    def drain(self):
        while not self.events.empty():
            self.events.get()


def show(name, values):
    median = statistics.median(values)
    print(f'  {name:<34} {median:9.1f} ms   (min {min(values):.1f}, max {max(values):.1f}, n={len(values)})')
    return median


def verdict(name, ratio, target, fastest):
    print(f'{name:<36} {ratio:6.3f}x  target <= {target}x  {"met" if ratio <= target else "MISSED"}'
          + (f'   (fastest runs: {fastest:.3f}x)' if fastest else ''))


def fresh_folder(work, dump_source):
    folder = os.path.join(work, 'crash')
    shutil.rmtree(folder, ignore_errors=True)
    os.mkdir(folder)
    shutil.copyfile(dump_source, os.path.join(folder, 'crash.dmp'))
    # Nothing left to write back while a run is timed.
    os.sync()
    return folder


def ms(later, earlier):
    return (float(later) - float(earlier)) * 1000


def report_run(build, data, work, server, env):
    """One window from start to upload; the times in ms, the body's size and the archive."""
    folder = fresh_folder(work, os.path.join(data, 'crash.dmp'))
    server.drain()
    driver = subprocess.Popen([os.path.join(build, 'reportdriver'), 'report', '3.0.0', folder,
                               os.path.join(data, 'client.log'), 'crash.dmp'],
                              env=env, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        stamps = dict(driver.stdout.readline().split() for _ in range(3))
        info = server.expect('info')[1]
        _, body, size = server.expect('body')
        driver.stdin.write('\n')
        driver.stdin.flush()
        stamps.update(driver.stdout.readline().split() for _ in range(2))
        driver.wait(timeout=60)
    finally:
        driver.kill()
        driver.wait()
    archive = next(os.path.join(folder, f) for f in os.listdir(folder) if f.endswith('.zip'))
    times = {'stage': ms(stamps['archived'], info), 'upload': ms(body, stamps['yes']),
             'click': ms(stamps['posted'], stamps['yes']), 'network': ms(body, stamps['posted']),
             'read': float(stamps['read']), 'build': float(stamps['build'])}
    times['rest'] = times['click'] - times['read'] - times['build']
    return times, size, archive


def bare_post_run(build, server, size, env):
    server.drain()
    out = subprocess.run([os.path.join(build, 'reportdriver'), 'post', f'http://127.0.0.1:{server.port}/upload',
                          str(size)], env=env, stdout=subprocess.PIPE, text=True, check=True).stdout
    stamps = dict(line.split() for line in out.splitlines())
    return ms(server.expect('body')[1], stamps['yes'])


def curl_run(server, archive):
    server.drain()
    start = time.monotonic()
    subprocess.run(['curl', '-sS', '-o', '/dev/null', '-F', f'dumpfile=@{archive};type=application/zip',
                    f'http://127.0.0.1:{server.port}/upload'], check=True)
    return ms(server.expect('body')[1], start)


def hyperfine_run(command, work):
    out = os.path.join(work, 'hyperfine.json')
    subprocess.run(['hyperfine', '--style', 'none', '--runs', '1', '--export-json', out, command], check=True)
    with open(out) as f:
        return json.load(f)['results'][0]['times'][0] * 1000


def startup(build, work, env):
    folder = os.path.join(work, 'small')
    os.makedirs(folder, exist_ok=True)
    log = os.path.join(work, 'small.log')
    with open(log, 'w') as f:
        f.write('[2024-05-01T12:00:00] client started\n')
    report, bare = [], []
    for _ in range(2 * RUNS):
        shutil.rmtree(folder)
        os.mkdir(folder)
        with open(os.path.join(folder, 'crash.dmp'), 'wb') as f:
            f.write(os.urandom(65536))
        for times, cmd in ((report, [os.path.join(build, 'bin', 'error_report'), '3.0.0', folder, log, 'crash.dmp']),
                           (bare, [os.path.join(build, 'barewindow')])):
            out = subprocess.run([os.path.join(build, 'mapwait')] + cmd, env=env, check=True,
                                 stdout=subprocess.PIPE, text=True).stdout
            times.append(float(out))
    return report, bare


def resident_kib(pid):
    with open(f'/proc/{pid}/status') as f:
        return int(next(line.split()[1] for line in f if line.startswith('VmRSS:')))


def peak_kib(cmd, env, work, then):
    """Peak resident size by /usr/bin/time; then(pid, window) drives the program before SIGTERM ends it."""
    out = os.path.join(work, 'time.txt')
    timer = subprocess.Popen(['/usr/bin/time', '-f', '%M', '-o', out] + cmd, env=env, stderr=subprocess.DEVNULL)
    children = f'/proc/{timer.pid}/task/{timer.pid}/children'
    while not open(children).read().split():
        time.sleep(0.01)
    pid = int(open(children).read().split()[0])
    try:
        window = subprocess.run(['xdotool', 'search', '--sync', '--onlyvisible', '--pid', str(pid)], env=env,
                                check=True, stdout=subprocess.PIPE, text=True, timeout=60).stdout.split()[0]
        then(pid, window)
    finally:
        os.kill(pid, signal.SIGTERM)
        timer.wait()
    with open(out) as f:
        return int(f.read().split()[-1])


def memory(build, data, work, server, env):
    """The real program answered with Alt+Y as a user would, against the bare window at rest."""
    folder = fresh_folder(work, os.path.join(data, 'crash.dmp'))
    before = []

    def press_yes(pid, window):
        while os.path.exists(os.path.join(folder, 'crash.dmp')):
            time.sleep(0.05)
        before.append(resident_kib(pid))
        server.drain()
        subprocess.run(['xdotool', 'windowfocus', '--sync', window], env=env, check=True)
        subprocess.run(['xdotool', 'key', 'alt+y'], env=env, check=True)
        server.expect('body')
        time.sleep(0.5)

    def rest(pid, window):
        time.sleep(0.5)
        before.append(resident_kib(pid))

    report = peak_kib([os.path.join(build, 'bin', 'error_report'), '3.0.0', folder,
                       os.path.join(data, 'client.log'), 'crash.dmp'], env, work, press_yes)
    archive = next(os.path.join(folder, f) for f in os.listdir(folder) if f.endswith('.zip'))
    bare = peak_kib([os.path.join(build, 'barewindow')], env, work, rest)
    return report, bare, os.path.getsize(archive), before


def main():
    build, data, port = sys.argv[1], sys.argv[2], int(sys.argv[3])
    work = os.path.join(data, 'work')
    os.makedirs(work, exist_ok=True)
    server = Server(port)
    read, write = os.pipe()
    xvfb = subprocess.Popen(['Xvfb', '-displayfd', str(write), '-screen', '0', '1280x1024x24', '-nolisten', 'tcp'],
                            pass_fds=(write,), stderr=subprocess.DEVNULL)
    os.close(write)
    try:
        display = os.read(read, 64).decode().strip()
        runtime = os.path.join(work, 'runtime')
        os.makedirs(runtime, mode=0o700, exist_ok=True)
        env = dict(os.environ, DISPLAY=':' + display, LC_ALL='C.UTF-8', LANG='C.UTF-8', QT_QPA_PLATFORM='xcb',
                   XDG_RUNTIME_DIR=runtime)
        dump, log = os.path.join(data, 'crash.dmp'), os.path.join(data, 'client.log')
        print(f'{RUNS} runs of each; medians, with min and max')

        print(f'a. archive stage: {os.path.getsize(dump) >> 20} MiB dump, {os.path.getsize(log) >> 20} MiB log')
        # Interleaved, so that whatever else the machine does falls on each alike.
        runs, gzip, floor, curl = [], [], [], []
        for _ in range(RUNS):
            gzip.append(hyperfine_run(f'gzip -6 -c {log} {dump} > {work}/reference.gz', work))
            times, size, archive = report_run(build, data, work, server, env)
            runs.append(times)
            floor.append(bare_post_run(build, server, size, env))
            curl.append(curl_run(server, archive))
        stage = [r['stage'] for r in runs]
        ratio_a = show('post-info arrival to dump deleted', stage) / show('gzip -6 of both (hyperfine)', gzip)

        print(f'b. upload of a {os.path.getsize(archive) / 2**20:.1f} MiB archive ({size} bytes of body) over loopback')
        upload = [r['upload'] for r in runs]
        ours = show('Yes to body received', upload)
        base = show('bare QNAM post to body received', floor)
        fast = show('curl -F to body received', curl)
        for key, label in (('click', 'of which click() on Yes'), ('read', '  reading the archive'),
                           ('build', '  building the body'), ('rest', '  info.ini, close, post()'),
                           ('network', 'then the network stack')):
            show(label, [r[key] for r in runs])

        print('c. start-up to the window mapped under Xvfb')
        report, bare = startup(build, work, env)
        ratio_c = show('error_report', report) / show('bare Qt Widgets window', bare)

        print('d. peak resident memory (/usr/bin/time), upload included')
        peak, bare_peak, archive_size, before = memory(build, data, work, server, env)
        bound = bare_peak + 2.05 * archive_size / 1024
        print(f'  error_report {peak} KiB (resident before Yes {before[0]}), bare window {bare_peak} KiB'
              f' (at rest {before[1]}), archive {archive_size >> 10} KiB')
        print(f'  (peak - bare) / archive = {(peak - bare_peak) * 1024 / archive_size:.2f}; bound {bound:.0f} KiB')

        print()
        verdict('a. archive stage vs gzip -6', ratio_a, 0.9, min(stage) / min(gzip))
        verdict('b. upload vs bare QNAM post', ours / base, 1.15, None)
        print(f'{"   upload vs curl -F":<36} {ours / fast:6.3f}x')
        verdict('c. start-up vs bare window', ratio_c, 1.2, min(report) / min(bare))
        verdict('d. peak vs bare + 2.05 x archive', peak / bound, 1.0, None)
    finally:
        xvfb.terminate()
        xvfb.wait()
        server.listener.close()


if __name__ == '__main__':
    main()
