"""The real service for tests: service/run.sh on a free loopback port with a data folder of
its own and, when asked, a private PostgreSQL; each stops what it started. Also builds
report archives and raw requests, and reads back the rows and the store."""
import io
import json
import os
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import zipfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
RUN_SH = os.path.join(ROOT, 'service/run.sh')
# Only a hang ever waits this long.
HANG_SECONDS = 60
INFO_INI = '[General]\nversion=3.0.0\ndescription=It crashed.\n'
FIELDS = {'product': 'Velmora 3', 'channel': 'stable', 'os': 'linux'}


def free_port():
    with socket.socket() as s:
        s.bind(('127.0.0.1', 0))
        return s.getsockname()[1]


def archive(info=INFO_INI, dump=b'VELMORA-CRASH 1\nsignal: 11 SIGSEGV\n', extra=(), method=zipfile.ZIP_DEFLATED):
    """A report archive as the sender makes it; extra holds further (name, bytes) entries."""
    out = io.BytesIO()
    with zipfile.ZipFile(out, 'w', method) as z:
        z.writestr('client.log', b'started\n')
        z.writestr('crash.dmp', dump)
        for name, data in extra:
            z.writestr(name, data)
        if info is not None:
            z.writestr('info.ini', info)
    return out.getvalue()


def multipart(fields=FIELDS, files=(('dumpfile', 'cv3dump_1.zip', b''),)):
    boundary = b'----velmora-test-boundary'
    body = b''
    for name, value in fields.items():
        body += b'--%s\r\nContent-Disposition: form-data; name="%s"\r\n\r\n%s\r\n' % (
            boundary, name.encode(), value if isinstance(value, bytes) else value.encode())
    for name, filename, data in files:
        body += (b'--%s\r\nContent-Disposition: form-data; name="%s"; filename="%s"\r\n'
                 b'Content-Type: application/zip\r\n\r\n%s\r\n') % (boundary, name.encode(), filename.encode(), data)
    body += b'--%s--\r\n' % boundary
    return body, 'multipart/form-data; boundary=' + boundary.decode()


def request(method, path, body=b'', content_type=None, length=None):
    head = '%s %s HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: Velmora3-Crash-Reporter-1.0\r\nConnection: close\r\n' % (method, path)
    if content_type:
        head += 'Content-Type: %s\r\n' % content_type
    if method == 'POST':
        head += 'Content-Length: %d\r\n' % (len(body) if length is None else length)
    return head.encode() + b'\r\n' + body


def upload_request(data, fields=FIELDS):
    return request('POST', '/upload', *multipart(fields, [('dumpfile', 'cv3dump_1.zip', data)]))


def exchange(port, raw):
    """Sends raw bytes and reads the answer to its end: (status, content type, body text), or
    None for the status if the connection closed without an answer."""
    with socket.create_connection(('127.0.0.1', port), timeout=HANG_SECONDS) as s:
        try:
            s.sendall(raw)
        except (BrokenPipeError, ConnectionResetError):
            pass  # nginx may answer and close before it has read a body it refuses
        answer = b''
        while chunk := s.recv(65536):
            answer += chunk
    if not answer:
        return None, '', ''
    head, _, body = answer.partition(b'\r\n\r\n')
    lines = head.decode('latin-1').split('\r\n')
    headers = dict(line.lower().split(': ', 1) for line in lines[1:] if ': ' in line)
    if headers.get('transfer-encoding') == 'chunked':
        plain = b''
        while body:
            size, _, rest = body.partition(b'\r\n')
            size = int(size, 16)
            plain, body = plain + rest[:size], rest[size + 2:]
            if size == 0:
                break
        body = plain
    return int(lines[0].split()[1]), headers.get('content-type', ''), body.decode('utf-8', 'replace')


def descendants(pid):
    """The processes that pid started, and theirs."""
    children = {}
    for entry in filter(str.isdigit, os.listdir('/proc')):
        try:
            with open('/proc/%s/stat' % entry) as f:
                parent = int(f.read().rsplit(')', 1)[1].split()[1])
        except (OSError, ValueError, IndexError):
            continue
        children.setdefault(parent, []).append(int(entry))
    found, todo = [], [pid]
    while todo:
        started = children.get(todo.pop(), [])
        found += started
        todo += started
    return found


def query(db_url, sql):
    """Rows as dicts, read through the service's own database code, for SQLite and PostgreSQL alike."""
    script = ('require $argv[1]; $db = connectDatabase($argv[2]);'
              'echo json_encode($db->query($argv[3])->fetchAll(PDO::FETCH_ASSOC));')
    out = subprocess.run(['php', '-r', script, os.path.join(ROOT, 'service/web/lib/db.php'), db_url, sql],
                         check=True, capture_output=True, text=True, timeout=HANG_SECONDS).stdout
    return json.loads(out)


class Service:
    def __init__(self, workdir, *options, db=None, store=None, port=None):
        self.port = port or free_port()
        self.data = os.path.join(workdir, 'service-%d' % self.port)
        self.store = store or os.path.join(self.data, 'raw')
        self.db = db or 'sqlite:' + os.path.join(self.data, 'reports.sqlite')
        self.options = ['--host', '127.0.0.1', '--port', str(self.port), '--data', self.data,
                        '--db', self.db, '--store', self.store, '--processors', '0', *options]
        self.process = None

    def start(self):
        os.makedirs(self.data, exist_ok=True)
        self.log = open(os.path.join(self.data, 'service.log'), 'ab')
        self.process = subprocess.Popen([RUN_SH, *self.options],
                                        stdout=subprocess.PIPE, stderr=self.log)
        self.output = b''
        deadline = time.monotonic() + HANG_SECONDS
        while b'Service on' not in self.output:
            ready, _, _ = select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))
            chunk = os.read(self.process.stdout.fileno(), 4096) if ready else b''
            if not chunk:
                self.stop()
                raise RuntimeError('the service did not start: %s\n%s' % (self.output.decode(), self.messages()))
            self.output += chunk
        return self

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(HANG_SECONDS)
        if self.process:
            self.process.stdout.close()
            self.log.close()

    def messages(self):
        text = ''
        for name in ('service.log', 'log/nginx.log', 'log/php-fpm.log', 'log/php.log'):
            if os.path.exists(os.path.join(self.data, name)):
                with open(os.path.join(self.data, name), errors='replace') as f:
                    text += '--- %s\n%s' % (name, f.read()[-4000:])
        return text

    def send(self, raw):
        return exchange(self.port, raw)

    def rows(self):
        return {row['id']: row for row in query(self.db, 'SELECT * FROM reports')}

    def stored(self):
        """Archives in the store by id, and any other file there (leftovers of a write)."""
        archives, others = {}, []
        for folder, _, names in os.walk(self.store):
            for name in names:
                path = os.path.join(folder, name)
                if name.endswith('.zip') and not name.startswith('.'):
                    archives[name[:-4]] = path
                else:
                    others.append(path)
        return archives, others


class Postgres:
    """A private PostgreSQL 15 in a folder of its own. initdb refuses root, so as root it runs
    as the postgres user that Debian's package creates."""
    BIN = '/usr/lib/postgresql/15/bin/'

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix='velmora-pg.')
        os.chmod(self.dir, 0o755)
        self.as_owner = []
        if os.geteuid() == 0:
            shutil.chown(self.dir, 'postgres')
            self.as_owner = ['runuser', '-u', 'postgres', '--']
        port = free_port()
        self.url = 'postgresql://postgres@127.0.0.1:%d/postgres' % port
        self._run('initdb', '-D', self.dir + '/db', '-U', 'postgres', '-A', 'trust')
        self._run('pg_ctl', '-D', self.dir + '/db', '-l', self.dir + '/log', '-w', 'start', '-o',
                  '-k %s -p %d -c listen_addresses=127.0.0.1 -c max_connections=100' % (self.dir, port))

    def _run(self, tool, *args):
        subprocess.run(self.as_owner + [self.BIN + tool, *args], check=True, stdout=subprocess.DEVNULL,
                       timeout=HANG_SECONDS)

    def stop(self):
        self._run('pg_ctl', '-D', self.dir + '/db', '-m', 'fast', '-w', 'stop')
        shutil.rmtree(self.dir)
