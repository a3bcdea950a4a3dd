"""Uploads a second through the real service: 16 clients send one 400 KB report archive over and
over with wrk, first to a floor endpoint on the same nginx and PHP-FPM that only lets PHP parse
the upload, then to /upload, with SQLite and with PostgreSQL. Prints uploads a second, the
median and 99th percentile latency, the ratio to the floor, and whether every upload answered
200 has its row and its archive.
    python3 bench/service.py [SECONDS]"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, '../tests/service'))
from servicefixture import Postgres, Service, archive, multipart  # noqa: E402

CLIENTS = 16
SECONDS = int(sys.argv[1]) if len(sys.argv) > 1 else 15
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


def run(work, name, db):
    service = Service(work, '--rate-limit', '0', '--nginx-include', os.path.join(work, 'floor.conf'), db=db)
    with open(os.path.join(work, 'floor.conf'), 'w') as f:
        f.write('location = /floor {\n    include "%s/run/fastcgi.conf";\n'
                '    fastcgi_param SCRIPT_FILENAME "%s/floor.php";\n    fastcgi_pass velmora_php;\n}\n'
                % (service.data, HERE))
    service.start()
    try:
        url = 'http://127.0.0.1:%d' % service.port
        floor = wrk(url + '/floor', os.path.join(work, 'upload.lua'))
        upload = wrk(url + '/upload', os.path.join(work, 'upload.lua'))
        rows = len(service.rows())
        archives = len(service.stored()[0])
    finally:
        service.stop()
    for label, (requests, rate, p50, p99, bad) in (('floor (204 after parsing)', floor), ('/upload, ' + name, upload)):
        print('%-28s %7d %9.1f %8.1f %8.1f %6d' % (label, requests, rate, p50, p99, bad))
    lost = (upload[0] - upload[4]) - rows
    print('%-28s ratio to the floor %.2fx; %d answered 200, %d rows, %d archives%s' % (
        '', upload[1] / floor[1], upload[0] - upload[4], rows, archives, '' if lost == 0 and rows == archives else ', LOST'))


def main():
    work = tempfile.mkdtemp(prefix='velmora-bench.')
    postgres = None
    try:
        body, content_type = multipart(files=[('dumpfile', 'cv3dump_1.zip', archive(dump=os.urandom(400 * 1024)))])
        with open(os.path.join(work, 'body'), 'wb') as f:
            f.write(body)
        with open(os.path.join(work, 'upload.lua'), 'w') as f:
            f.write(WRK_SCRIPT % {'body': os.path.join(work, 'body'), 'type': content_type})
        print('%d clients, %d s each, a %d-byte upload; %s' % (CLIENTS, SECONDS, len(body), os.uname().release))
        print('%-28s %7s %9s %8s %8s %6s' % ('', 'uploads', 'per s', 'p50 ms', 'p99 ms', 'non-2xx'))
        run(work, 'SQLite', None)
        postgres = Postgres()
        run(work, 'PostgreSQL', postgres.url)
    finally:
        if postgres:
            postgres.stop()
        shutil.rmtree(work)


if __name__ == '__main__':
    main()
