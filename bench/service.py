"""Uploads a second through the real service: 16 clients send one 400 KB report archive over and
over with wrk, first to a floor endpoint on the same nginx and PHP-FPM that only lets PHP parse
the upload, then to /upload, with SQLite and with PostgreSQL. Prints uploads a second, the
median and 99th percentile latency, the ratio to the floor, and whether every upload answered
200 has its row and its archive. With SQLite, /upload again while 200 slow clients, each from an
address of its own, hold an upload open by sending a byte every few seconds: the ratio to the
same without them (target 0.8x or more).
    python3 bench/service.py [SECONDS [ROUNDS]]"""
import os
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, '../tests/service'))
from servicefixture import Postgres, Service, archive, upload_request  # noqa: E402

CLIENTS = 16
SLOW_CLIENTS = 200
SECONDS = int(sys.argv[1]) if len(sys.argv) > 1 else 10
ROUNDS = int(sys.argv[2]) if len(sys.argv) > 2 else 3
WRK_SCRIPT = '''
local f = io.open("%(body)s", "rb")
wrk.method = "POST"
wrk.body = f:read("*a")
f:close()
wrk.headers["Content-Type"] = "%(type)s"
done = function(summary, latency, requests)
  io.write(string.format("RESULT %%d %%d %%d %%d %%d\\n", summary.requests, summary.duration,
           latency:percentile(50), latency:percentile(99), summary.errors.status))
end
'''


def wrk(url, script):
    out = subprocess.run(['wrk', '-t', '2', '-c', str(CLIENTS), '-d', '%ds' % SECONDS, '-s', script, url],
                         check=True, capture_output=True, text=True).stdout
    requests, micros, p50, p99, bad = map(int, re.search(r'^RESULT (.*)$', out, re.M)[1].split())
    return requests, requests / (micros / 1e6), p50 / 1000, p99 / 1000, bad


class SlowClients:
    """Uploads that never end: each from an address of its own, announcing 1 MiB and sending a byte
    every 3 s, within the body timeout."""
    def __init__(self, port, count):
        self.sockets = []
        for n in range(count):
            s = socket.create_connection(('127.0.0.1', port), source_address=('127.0.%d.%d' % (1 + n // 250, 1 + n % 250), 0))
            s.sendall(b'POST /upload HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: multipart/form-data; boundary=B\r\n'
                      b'Content-Length: 1048576\r\n\r\n--B')
            self.sockets.append(s)
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self.trickle)
        self.thread.start()

    def trickle(self):
        while not self.stopped.wait(3):
            for s in self.sockets:
                s.send(b'x')

    def close(self):
        """Stops, and returns how many were still held open."""
        self.stopped.set()
        self.thread.join()
        held = 0
        for s in self.sockets:
            try:
                s.send(b'x')
                held += 1
            except OSError:
                pass
            s.close()
        return held


def run(work, name, db, slow=False):
    # The conn limit per address would cap wrk's own 16 connections from one address.
    service = Service(work, '--rate-limit', '0', '--conn-limit', '0', '--nginx-include', os.path.join(work, 'floor.conf'), db=db)
    with open(os.path.join(work, 'floor.conf'), 'w') as f:
        f.write('location = /floor {\n    include "%s/service/conf/fastcgi.conf";\n'
                '    fastcgi_param SCRIPT_FILENAME "%s/floor.php";\n    fastcgi_pass velmora_php;\n}\n'
                % (os.path.dirname(HERE), HERE))
    service.start()
    script = os.path.join(work, 'upload.lua')
    floors, uploads, slowed, held = [], [], [], []
    try:
        url = 'http://127.0.0.1:%d' % service.port
        # Alternated, so that the load of the machine's other jobs falls on both alike.
        for _ in range(ROUNDS):
            floors.append(wrk(url + '/floor', script))
            uploads.append(wrk(url + '/upload', script))
            if slow:
                clients = SlowClients(service.port, SLOW_CLIENTS)
                slowed.append(wrk(url + '/upload', script))
                held.append(clients.close())
    finally:
        # Counted once the uploads still under way when wrk stopped are finished.
        service.stop()
    rows, archives = len(service.rows()), len(service.stored()[0])
    floor, upload = median(floors), median(uploads)
    for label, (rate, p50, p99) in (('floor (204 after parsing)', floor), ('/upload, ' + name, upload)):
        print('%-28s %9.1f %8.1f %8.1f' % (label, rate, p50, p99))
    if slow:
        rate, p50, p99 = median(slowed)
        print('%-28s %9.1f %8.1f %8.1f' % ('/upload, %d slow held' % SLOW_CLIENTS, rate, p50, p99))
        print('%-28s ratio to without them %.2fx (target 0.8x); slow clients still held at the end: %s' % (
            '', rate / upload[0], ', '.join(map(str, held))))
    answered = sum(u[0] - u[4] for u in uploads + slowed)
    print('%-28s ratio to the floor %.2fx; %d answered 200, %d rows, %d archives: %s' % (
        '', upload[0] / floor[0], answered, rows, archives,
        'nothing lost' if rows >= answered and rows == archives else 'LOST'))


def median(runs):
    """Medians of uploads a second, p50 and p99 over the rounds."""
    return [statistics.median(run[i] for run in runs) for i in (1, 2, 3)]


def main():
    work = tempfile.mkdtemp(prefix='velmora-bench.')
    postgres = None
    try:
        # The body of the fixture's upload request, with the sender's form fields.
        body = upload_request(archive(dump=os.urandom(400 * 1024))).split(b'\r\n\r\n', 1)[1]
        content_type = 'multipart/form-data; boundary=B'
        with open(os.path.join(work, 'body'), 'wb') as f:
            f.write(body)
        with open(os.path.join(work, 'upload.lua'), 'w') as f:
            f.write(WRK_SCRIPT % {'body': os.path.join(work, 'body'), 'type': content_type})
        print('%d clients, a %d-byte upload, medians of %d rounds of %d s' % (CLIENTS, len(body), ROUNDS, SECONDS))
        print('%-28s %9s %8s %8s' % ('', 'per s', 'p50 ms', 'p99 ms'))
        run(work, 'SQLite', None, slow=True)
        postgres = Postgres()
        run(work, 'PostgreSQL', postgres.url)
    finally:
        if postgres:
            postgres.stop()
        shutil.rmtree(work)


if __name__ == '__main__':
    main()
