"""The crash-stats pages under load: a million reports loaded straight into the database (90
days, a few thousand signatures with a long tail, six versions), then 4 clients ask for the
28-day top crashes over and over with wrk, side by side with nginx serving the same page saved
as a static file behind the same login. The top list as served (from nginx's cache, refreshed
at most once a minute), the same computed on every request (the browser's reload), and the
signature page of the most frequent signature, with SQLite and with PostgreSQL. Prints
requests a second, p50/p95/p99 and the p95 ratio to the static page.
    python3 bench/pages.py [REPORTS [SECONDS [ROUNDS]]]"""
import base64
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import urllib.parse
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, 'tests/service'))
from servicefixture import Postgres, Service  # noqa: E402

CLIENTS = 4
REPORTS = int(sys.argv[1]) if len(sys.argv) > 1 else 1000000
SECONDS = int(sys.argv[2]) if len(sys.argv) > 2 else 10
ROUNDS = int(sys.argv[3]) if len(sys.argv) > 3 else 3
TOP = '/crashes/?days=28'
WRK_SCRIPT = '''
wrk.headers["Authorization"] = "%(login)s"
%(extra)s
done = function(summary, latency, requests)
  io.write(string.format("RESULT %%d %%d %%d %%d %%d %%d\\n", summary.requests, summary.duration,
           latency:percentile(50), latency:percentile(95), latency:percentile(99),
           summary.errors.status + summary.errors.connect + summary.errors.read + summary.errors.timeout))
end
'''


def wrk(url, script):
    out = subprocess.run(['wrk', '-t', '2', '-c', str(CLIENTS), '-d', '%ds' % SECONDS, '-s', script, url],
                         check=True, capture_output=True, text=True).stdout
    requests, micros, p50, p95, p99, bad = map(int, re.search(r'^RESULT (.*)$', out, re.M)[1].split())
    if bad:
        raise RuntimeError('%d requests to %s failed' % (bad, url))
    return requests / (micros / 1e6), p50 / 1000, p95 / 1000, p99 / 1000


def run(work, name, db):
    static = os.path.join(work, 'static')
    os.makedirs(static, exist_ok=True)
    include = os.path.join(work, 'static.conf')
    service = Service(work, '--nginx-include', include, db=db)
    with open(include, 'w') as f:
        f.write('location = /static/top.html {\n    auth_basic "Velmora 3 crash reports";\n'
                '    auth_basic_user_file "%s/htpasswd";\n    root "%s";\n    default_type text/html;\n}\n'
                % (service.data, work))
    service.start()
    try:
        subprocess.run(['php', os.path.join(ROOT, 'scripts/load-reports.php'), '--db', service.db,
                        '--synthetic', str(REPORTS)], check=True)
        with open(os.path.join(service.data, 'admin-password')) as f:
            login = 'Basic ' + base64.b64encode(b'admin:' + f.read().strip().encode()).decode()
        url = 'http://127.0.0.1:%d' % service.port
        page = urllib.request.urlopen(urllib.request.Request(url + TOP, headers={'Authorization': login})).read()
        with open(os.path.join(static, 'top.html'), 'wb') as f:
            f.write(page)
        top = re.search(rb'<a href="(/crashes/signature\?[^"]+)"', page)[1].decode().replace('&amp;', '&')
        scripts = {}
        for kind, extra in (('plain', ''), ('fresh', 'wrk.headers["Cache-Control"] = "no-cache"')):
            scripts[kind] = os.path.join(work, kind + '.lua')
            with open(scripts[kind], 'w') as f:
                f.write(WRK_SCRIPT % {'login': login, 'extra': extra})
        runs = {'static': [], 'top': [], 'fresh': [], 'signature': []}
        # Alternated, so that the load of the machine's other jobs falls on all alike.
        for _ in range(ROUNDS):
            runs['static'].append(wrk(url + '/static/top.html', scripts['plain']))
            runs['top'].append(wrk(url + TOP, scripts['plain']))
            runs['fresh'].append(wrk(url + TOP, scripts['fresh']))
            runs['signature'].append(wrk(url + top, scripts['plain']))
    finally:
        service.stop()
    medians = {kind: [statistics.median(r[i] for r in rounds) for i in range(4)] for kind, rounds in runs.items()}
    for kind, label in (('static', 'static file, same login'), ('top', 'top crashes, as served'),
                        ('fresh', 'top crashes, computed'), ('signature', 'signature page')):
        rate, p50, p95, p99 = medians[kind]
        print('%-10s %-24s %8.1f %8.1f %8.1f %8.1f %7.2fx' % (
            name, label, rate, p50, p95, p99, p95 / medians['static'][2]))
    print('%-10s most frequent signature: %s' % ('', urllib.parse.unquote(top.split('s=', 1)[1])))


def main():
    work = tempfile.mkdtemp(prefix='velmora-bench.')
    # Started as root, the service's workers run as its own user, who must get through.
    os.chmod(work, 0o711)
    postgres = None
    try:
        print('%d reports, %d clients, medians of %d rounds of %d s; ratio: p95 against the static file'
              % (REPORTS, CLIENTS, ROUNDS, SECONDS))
        print('%-10s %-24s %8s %8s %8s %8s %8s' % ('', '', 'per s', 'p50 ms', 'p95 ms', 'p99 ms', 'ratio'))
        run(os.path.join(work, 'sqlite'), 'SQLite', None)
        postgres = Postgres()
        run(os.path.join(work, 'postgresql'), 'PostgreSQL', postgres.url)
    finally:
        if postgres:
            postgres.stop()
        shutil.rmtree(work)


if __name__ == '__main__':
    main()
