"""The real service for tests: service/run.sh on a loopback port of its own with a data folder of
its own and, when asked, a private PostgreSQL on its socket alone; each stops what it started. Also builds
report archives and raw requests, and reads back the rows and the store."""
import http.client
import io
import json
import os
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import zipfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
RUN_SH = os.path.join(ROOT, 'service/run.sh')
# Only a hang ever waits this long; the sanitizer build stretches it as it stretches the test's limit.
TIMEOUT_FACTOR = int(os.environ.get('TEST_TIMEOUT_FACTOR') or 1)
HANG_SECONDS = 60 * TIMEOUT_FACTOR
PORT_TRIES = 20
INFO_INI = '[General]\nversion=3.0.0\ndescription=It crashed.\n'
FIELDS = {'product': 'Velmora 3', 'channel': 'stable', 'os': 'linux'}


def random_port():
    """A port to try: the server that is given it says when it is taken, and is then given another.
    Below Linux's ephemeral range, so that no client's own end holds it."""
    return random.randrange(10000, 32768)


def start_on_a_port(start):
    """Calls start(port) on random ports until it returns something other than None (None: the
    port was taken), PORT_TRIES times at most."""
    for _ in range(PORT_TRIES):
        started = start(random_port())
        if started is not None:
            return started
    raise RuntimeError('%d ports tried, all taken' % PORT_TRIES)


def archive(info=INFO_INI, dump=b'VELMORA-CRASH 1\n', extra=(), method=zipfile.ZIP_DEFLATED):
    """A report archive as the sender makes it, with extra (name, bytes) entries."""
    out = io.BytesIO()
    with zipfile.ZipFile(out, 'w', method) as z:
        for name, data in [('client.log', b'started\n'), ('crash.dmp', dump), *extra] + [('info.ini', info)] * (info is not None):
            z.writestr(name, data)
    return out.getvalue()


def many_entries(count):
    """A zip whose classic end record says 5 entries and whose ZIP64 record says count, with a
    central directory of count entries that all name one empty local file."""
    local = struct.pack('<IHHHHHIIIHH', 0x04034b50, 20, 0, 0, 0, 0, 0, 0, 0, 1, 0) + b'x'
    entry = struct.pack('<IHHHHHHIIIHHHHHII', 0x02014b50, 45, 20, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0) + b'x'
    directory = entry * count
    end64 = struct.pack('<IQHHIIQQQQ', 0x06064b50, 44, 45, 45, 0, 0, count, count, len(directory), len(local))
    locator = struct.pack('<IIQI', 0x07064b50, 0, len(local) + len(directory), 1)
    end = struct.pack('<IHHHHIIH', 0x06054b50, 0, 0, 5, 5, 0xffffffff, 0xffffffff, 0)
    return local + directory + end64 + locator + end


def request(method, path, body=b'', content_type='', length=None):
    # Kept alive, as the sender's are, so that an answer cut off shows as such.
    head = '%s %s HTTP/1.1\r\nHost: 127.0.0.1\r\n' % (method, path)
    head += 'Content-Type: %s\r\n' % content_type if content_type else ''
    head += 'Content-Length: %d\r\n' % (len(body) if length is None else length) if method == 'POST' else ''
    return head.encode() + b'\r\n' + body


def upload_request(data, fields=FIELDS, files=None):
    """POST /upload as multipart/form-data; files are (field, bytes[, file name]), by default the archive as dumpfile."""
    body = b''.join(b'--B\r\nContent-Disposition: form-data; name="%s"\r\n\r\n%s\r\n'
                    % (name.encode(), value if isinstance(value, bytes) else value.encode()) for name, value in fields.items())
    body += b''.join(b'--B\r\nContent-Disposition: form-data; name="%s"; filename="%s"\r\n'
                     b'Content-Type: application/zip\r\n\r\n%s\r\n' % (name.encode(), filename.encode(), content)
                     for name, content, filename in [(*file, 'cv3dump_1.zip')[:3] for file in files or [('dumpfile', data)]])
    return request('POST', '/upload', body + b'--B--\r\n', 'multipart/form-data; boundary=B')


def exchange(port, raw, source='127.0.0.1'):
    """Sends raw bytes from the source address: (status, content type, body), or (None, '', '') if
    the answer is missing or cut off."""
    with socket.create_connection(('127.0.0.1', port), timeout=HANG_SECONDS, source_address=(source, 0)) as s:
        s.sendall(raw)
        return answer_on(s)


def answer_on(connection):
    """The answer that comes on a connection, as exchange() gives it; closes the connection."""
    with connection:
        answer = http.client.HTTPResponse(connection)
        try:
            answer.begin()
            return answer.status, answer.getheader('Content-Type'), answer.read().decode()
        except (http.client.RemoteDisconnected, http.client.IncompleteRead):
            return None, '', ''


def query(db_url, sql, *params):
    """Rows as dicts, through the service's own database code, SQLite and PostgreSQL alike; the
    parameters are bound."""
    script = ('require $argv[1]; $q = connectDatabase($argv[2])->prepare($argv[3]); $q->execute(json_decode($argv[4]));'
              'echo json_encode($q->fetchAll(PDO::FETCH_ASSOC));')
    return json.loads(subprocess.run(['php', '-r', script, ROOT + '/service/web/lib/db.php', db_url, sql, json.dumps(params)],
                                     check=True, capture_output=True, text=True, timeout=HANG_SECONDS).stdout)


def processes(service, name):
    """nginx's or PHP-FPM's master process and its workers."""
    with open('%s/run/%s.pid' % (service.data, name)) as f:
        master = f.read().strip()
    return [int(pid) for pid in [master] + subprocess.run(['pgrep', '-P', master], capture_output=True, text=True).stdout.split()]


def status_of(pid, key):
    """A line of /proc/PID/status, such as VmRSS or Uid; None once the process is gone."""
    try:
        with open('/proc/%d/status' % pid) as f:
            return next((line.split(':', 1)[1].split() for line in f if line.startswith(key + ':')), None)
    except FileNotFoundError:
        return None


class Service:
    def __init__(self, workdir, *options, db=None, store=None, env=None):
        # As root, run.sh runs the workers as the service's user, who must get through to the data.
        if os.geteuid() == 0:
            os.chmod(workdir, 0o711)
        self.port = None
        self.env = env and dict(os.environ, **env)
        self.data = tempfile.mkdtemp(prefix='service-', dir=workdir)
        self.store = store or os.path.join(self.data, 'raw')
        self.db = db or 'sqlite:' + os.path.join(self.data, 'reports.sqlite')
        self.extra = ['--db', self.db, '--store', self.store, '--processors', '0', *options]

    @property
    def options(self):
        return ['--port', str(self.port), '--data', self.data, *self.extra]

    def start(self):
        """Starts run.sh and returns once it says it serves, on a port it found free (the one it
        had, when it can); its errors go to the test's stderr."""
        if getattr(self, 'process', None):
            self.process.stdout.close()
        def on(port):
            self.port = port
            self.process = subprocess.Popen([RUN_SH, *self.options], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                            env=self.env)
            said = []
            self.passed_on = threading.Thread(target=lambda: [said.append(line) or sys.stderr.write(line) for line in self.process.stderr],
                                              daemon=True)
            self.passed_on.start()
            if any(line.startswith('Service on') for line in self.process.stdout):
                return self
            self.process.wait(HANG_SECONDS)
            self.passed_on.join(HANG_SECONDS)
            if 'port %d on 127.0.0.1 is taken' % port not in ''.join(said):
                raise RuntimeError('the service did not start')
        return (self.port and on(self.port)) or start_on_a_port(on)

    def stop(self):
        if self.process.returncode is None:
            # run.sh returns once all it started has ended; its stderr is still being passed on.
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(HANG_SECONDS)
            self.process.stdout.close()
            self.passed_on.join(HANG_SECONDS)

    def rows(self):
        return {row['id']: row for row in query(self.db, 'SELECT * FROM reports')}

    def stored(self):
        """Archives in the store by id, and any other file there (what a write left behind)."""
        paths = [os.path.join(folder, name) for folder, _, names in os.walk(self.store) for name in names]
        archives = {os.path.basename(p)[:-4]: p for p in paths if re.search(r'/[^./][^/]*\.zip$', p)}
        return archives, sorted(set(paths) - set(archives.values()))


class Postgres:
    """A private PostgreSQL 15 in a temporary folder; initdb refuses root, so as root it runs as
    the postgres user that Debian's package creates."""
    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix='velmora-pg.')
        os.chmod(self.dir, 0o755)
        self.owner = ['runuser', '-u', 'postgres', '--'] if os.geteuid() == 0 else []
        if self.owner:
            shutil.chown(self.dir, 'postgres')
        # No TCP port at all: the socket in its own folder is no other run's.
        self.url = 'postgresql://postgres@/postgres?host=' + self.dir
        self.pg('initdb', '-D', self.dir + '/db', '-U', 'postgres', '-A', 'trust')
        self.start()

    def start(self):
        self.pg('pg_ctl', '-D', self.dir + '/db', '-l', self.dir + '/log', '-w', '-t', str(HANG_SECONDS), 'start',
                '-o', "-k %s -c listen_addresses=''" % self.dir)

    def sql(self, statements):
        """Runs statements through psql, in a session that may write whatever the defaults say."""
        subprocess.run(self.owner + ['env', 'PGOPTIONS=-c default_transaction_read_only=off', '/usr/lib/postgresql/15/bin/psql',
                                     '-h', self.dir, '-U', 'postgres', '-qAt', '-v', 'ON_ERROR_STOP=1', '-c', statements],
                       check=True, stdout=subprocess.DEVNULL, timeout=HANG_SECONDS)

    def refuse_one(self):
        """While the server is stopped: takes the next connection on its socket and closes it."""
        path = os.path.join(self.dir, '.s.PGSQL.5432')
        with socket.socket(socket.AF_UNIX) as standin:
            standin.bind(path)
            os.chmod(path, 0o777)
            standin.listen()
            standin.settimeout(HANG_SECONDS)
            standin.accept()[0].close()
        os.unlink(path)

    def pg(self, tool, *args):
        subprocess.run(self.owner + ['/usr/lib/postgresql/15/bin/' + tool, *args], check=True,
                       stdout=subprocess.DEVNULL, timeout=HANG_SECONDS)

    def stop(self, keep=False):
        self.pg('pg_ctl', '-D', self.dir + '/db', '-m', 'fast', '-w', 'stop')
        if not keep:
            shutil.rmtree(self.dir)
