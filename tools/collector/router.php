<?php
// Reference collection server for Velmora 3 crash reports, run by PHP's built-in web
// server: php -S 127.0.0.1:8750 router.php (collector.sh sets the options below).

declare(strict_types=1);

const POST_INFO_PATH = '/service-data/client-crashdump-postinfo.ini';
const UPLOAD_PATH = '/upload';
const FILE_FIELD = 'dumpfile';
const DEFAULT_MAX_BYTES = 64 * 1024 * 1024;
// Room for the plain fields and the part headers beside the archive itself.
const FORM_OVERHEAD = 64 * 1024;
// First line of a dump written by the client's crash handler (crashhandler/), either version.
const CRASH_MAGICS = ["VELMORA-CRASH 1\n", "VELMORA-CRASH 2\n"];
const CRASH_READ_BYTES = 4 * 1024 * 1024;
const RECEIPT_FRAMES = 8;

function answer(int $status, string $line): void
{
    http_response_code($status);
    header('Content-Type: text/plain; charset=utf-8');
    header('Cache-Control: no-store');
    // No line break: the report window shows the body as one line of its own.
    echo $line;
}

function reportsDir(): string
{
    $dir = getenv('COLLECTOR_REPORTS');
    if ($dir === false || $dir === '')
        $dir = (getenv('XDG_DATA_HOME') ?: getenv('HOME') . '/.local/share') . '/velmora3-collector/reports';
    return rtrim($dir, '/');
}

function iniBytes(string $value): int
{
    $value = trim($value);
    $number = (int) $value;
    switch (strtolower(substr($value, -1))) {
    case 'g': return $number << 30;
    case 'm': return $number << 20;
    case 'k': return $number << 10;
    }
    return $number;
}

// The collector's own limit, lowered to PHP's when PHP was started with a smaller one,
// so that the reason given names the limit that actually applied.
function maxBytes(): int
{
    $own = (int) (getenv('COLLECTOR_MAX_BYTES') ?: DEFAULT_MAX_BYTES);
    $php = iniBytes((string) ini_get('upload_max_filesize'));
    return $php > 0 ? min($own, $php) : $own;
}

// Undoes QSettings' INI escaping: optional double quotes, backslash escapes, and
// \xHHHH for every character outside ASCII, as UTF-16 units that iconv then decodes.
function qsettingsValue(string $raw): string
{
    $units = [];
    $n = strlen($raw);
    for ($i = 0; $i < $n; ++$i) {
        $c = $raw[$i];
        if ($c === '"')
            continue;
        if ($c !== '\\' || $i + 1 >= $n) {
            $units[] = ord($c);
            continue;
        }
        $e = $raw[++$i];
        $simple = ['a' => 7, 'b' => 8, 'f' => 12, 'n' => 10, 'r' => 13, 't' => 9, 'v' => 11];
        if (isset($simple[$e])) {
            $units[] = $simple[$e];
        } elseif ($e === 'x' && preg_match('/\G[0-9a-fA-F]{1,4}/', $raw, $m, 0, $i + 1)) {
            $units[] = hexdec($m[0]);
            $i += strlen($m[0]);
        } elseif ($e === '0' && preg_match('/\G[0-7]{0,2}/', $raw, $m, 0, $i + 1)) {
            $units[] = octdec('0' . $m[0]);
            $i += strlen($m[0]);
        } else {
            $units[] = ord($e);
        }
    }
    // A lone surrogate cannot be decoded; it is dropped rather than failing the whole value.
    $text = (string) @iconv('UTF-16BE', 'UTF-8//IGNORE', pack('n*', ...$units));
    // QSettings doubles a leading '@' so that it is not read as a type marker.
    return str_starts_with($text, '@@') ? substr($text, 1) : $text;
}

// The two keys the program writes outside any group, which QSettings puts under [General].
function readInfoIni(string $text): array
{
    $info = ['version' => null, 'description' => null];
    $section = '';
    foreach (preg_split('/\r?\n/', $text) as $line) {
        $line = trim($line);
        if ($line === '' || $line[0] === ';')
            continue;
        if ($line[0] === '[') {
            $section = trim($line, '[] ');
            continue;
        }
        $eq = strpos($line, '=');
        if ($eq === false || $section !== 'General')
            continue;
        $key = trim(substr($line, 0, $eq));
        if (array_key_exists($key, $info))
            $info[$key] = qsettingsValue(trim(substr($line, $eq + 1)));
    }
    return $info;
}

// The signal, the fault address and the top frames of a crash handler's dump, each frame with
// the file it lies in and its offset there (what addr2line takes).
function readCrashDump(string $name, string $text): array
{
    $crash = ['dump' => $name, 'signal' => null, 'signal_name' => null, 'address' => null, 'frames' => []];
    $maps = [];
    $frames = [];
    $inMaps = false;
    foreach (explode("\n", $text) as $line) {
        if ($inMaps) {
            if (preg_match('~^([0-9a-f]+)-([0-9a-f]+) \S+ ([0-9a-f]+) \S+ \d+ +(/.*)$~', $line, $m))
                $maps[] = [hexdec($m[1]), hexdec($m[2]), hexdec($m[3]), $m[4]];
        } elseif ($line === 'maps:') {
            $inMaps = true;
        } elseif (preg_match('/^signal: (\d+) (\w+)$/', $line, $m)) {
            $crash['signal'] = (int) $m[1];
            $crash['signal_name'] = $m[2];
        } elseif (preg_match('/^address: (0x[0-9a-f]+)$/', $line, $m)) {
            $crash['address'] = $m[1];
        } elseif (preg_match('/^frame \d+: (0x[0-9a-f]+)$/', $line, $m) && count($frames) < RECEIPT_FRAMES) {
            $frames[] = $m[1];
        }
    }
    foreach ($frames as $frame) {
        $address = hexdec(substr($frame, 2));
        foreach ($maps as [$start, $end, $offset, $file]) {
            if ($address >= $start && $address < $end) {
                $frame .= sprintf(' %s+0x%x', $file, $address - $start + $offset);
                break;
            }
        }
        $crash['frames'][] = $frame;
    }
    return $crash;
}

function removeTree(string $dir): void
{
    if (!is_dir($dir))
        return;
    foreach (scandir($dir) as $name) {
        if ($name !== '.' && $name !== '..')
            @unlink("$dir/$name");
    }
    @rmdir($dir);
}

function storedName(string $clientName): string
{
    $name = preg_replace('/[^A-Za-z0-9._-]/', '_', basename($clientName));
    if ($name === '' || $name[0] === '.' || $name === 'receipt.json')
        $name = 'report.zip';
    return $name;
}

function servePostInfo(): void
{
    $host = $_SERVER['HTTP_HOST'] ?? '';
    if (!preg_match('/^[A-Za-z0-9.\-]+(:\d+)?$|^\[[0-9A-Fa-f:.]+\](:\d+)?$/', $host))
        $host = $_SERVER['SERVER_NAME'] . ':' . $_SERVER['SERVER_PORT'];
    header('Content-Type: text/plain; charset=utf-8');
    header('Cache-Control: no-store');
    echo "[meta]\n",
         'url = http://', $host, UPLOAD_PATH, "\n",
         'filefield = ', FILE_FIELD, "\n",
         "mime = application/zip\n",
         "\n[postdata]\n",
         "product = Velmora 3\n",
         "channel = local\n",
         "os = linux\n";
}

function acceptUpload(): void
{
    $limit = maxBytes();
    $length = (int) ($_SERVER['CONTENT_LENGTH'] ?? 0);
    $postMax = iniBytes((string) ini_get('post_max_size'));
    // Over post_max_size PHP drops the whole form, so the length is the only clue left.
    if ($length > $limit + FORM_OVERHEAD || ($postMax > 0 && $length > $postMax)) {
        answer(413, "Report refused: $length bytes is over the limit of $limit bytes.");
        return;
    }
    if (stripos($_SERVER['CONTENT_TYPE'] ?? '', 'multipart/form-data') !== 0) {
        answer(415, 'Report refused: the upload is not multipart/form-data.');
        return;
    }
    $file = $_FILES[FILE_FIELD] ?? null;
    if ($file === null || is_array($file['error']) || $file['error'] === UPLOAD_ERR_NO_FILE) {
        $other = array_keys($_FILES);
        answer(400, 'Report refused: no file in the field "' . FILE_FIELD . '"'
               . ($other ? ' (got "' . implode('", "', $other) . '")' : '') . '.');
        return;
    }
    switch ($file['error']) {
    case UPLOAD_ERR_OK:
        break;
    case UPLOAD_ERR_INI_SIZE:
    case UPLOAD_ERR_FORM_SIZE:
        answer(413, "Report refused: the file is over the limit of $limit bytes.");
        return;
    case UPLOAD_ERR_PARTIAL:
        answer(400, 'Report refused: the file arrived incomplete.');
        return;
    default:
        answer(500, "Report not stored: upload error {$file['error']} on the server.");
        return;
    }
    $size = (int) $file['size'];
    if ($size > $limit) {
        answer(413, "Report refused: the file's $size bytes are over the limit of $limit bytes.");
        return;
    }

    $zip = new ZipArchive();
    if ($zip->open($file['tmp_name'], ZipArchive::RDONLY | ZipArchive::CHECKCONS) !== true) {
        answer(422, 'Report refused: the file is not a zip archive.');
        return;
    }
    $ini = $zip->getFromName('info.ini');
    $entries = [];
    $crash = null;
    for ($i = 0; $i < $zip->numFiles; ++$i) {
        $entries[] = $zip->getNameIndex($i);
        if ($crash === null && in_array($zip->getFromIndex($i, strlen(CRASH_MAGICS[0])), CRASH_MAGICS, true))
            $crash = readCrashDump($entries[$i], (string) $zip->getFromIndex($i, CRASH_READ_BYTES));
    }
    $zip->close();
    if ($ini === false) {
        answer(422, 'Report refused: the archive holds no info.ini.');
        return;
    }
    $info = readInfoIni($ini);

    $reports = reportsDir();
    if (!is_dir($reports) && !@mkdir($reports, 0777, true) && !is_dir($reports)) {
        answer(500, 'Report not stored: the reports folder cannot be created.');
        return;
    }
    // Written under a hidden name and renamed when complete, so a report folder is
    // either whole or absent.
    do {
        $id = gmdate('Ymd-His') . '-' . bin2hex(random_bytes(2));
        $final = "$reports/$id";
        $incoming = "$reports/.incoming-$id";
    } while (file_exists($final) || file_exists($incoming));
    $name = storedName((string) $file['name']);
    $receipt = [
        'report' => $id,
        'time' => gmdate('Y-m-d\TH:i:s\Z'),
        'remote' => $_SERVER['REMOTE_ADDR'] ?? '',
        'fields' => $_POST,
        'file' => $name,
        'content_type' => (string) $file['type'],
        'size' => $size,
        'sha256' => hash_file('sha256', $file['tmp_name']),
        'version' => $info['version'],
        'description' => $info['description'],
        'entries' => $entries,
        'crash' => $crash,
    ];
    $json = json_encode($receipt, JSON_PRETTY_PRINT | JSON_UNESCAPED_SLASHES | JSON_UNESCAPED_UNICODE | JSON_INVALID_UTF8_SUBSTITUTE);
    $stored = @mkdir($incoming, 0777)
        && @move_uploaded_file($file['tmp_name'], "$incoming/$name")
        && @file_put_contents("$incoming/receipt.json", $json . "\n") !== false
        && @rename($incoming, $final);
    if (!$stored) {
        removeTree($incoming);
        answer(500, 'Report not stored: the reports folder is not writable.');
        return;
    }
    error_log("collector: report $id stored in $final ($size bytes)");
    $what = $crash === null ? '' : ": {$crash['signal_name']} at " . ($crash['address'] ?? 'no fault address');
    answer(200, "Report $id received ($size bytes)$what.");
}

$path = parse_url($_SERVER['REQUEST_URI'], PHP_URL_PATH) ?: '/';
$method = $_SERVER['REQUEST_METHOD'];
if ($path === POST_INFO_PATH && ($method === 'GET' || $method === 'HEAD')) {
    servePostInfo();
} elseif ($path === UPLOAD_PATH && $method === 'POST') {
    acceptUpload();
} elseif ($path === POST_INFO_PATH || $path === UPLOAD_PATH) {
    header('Allow: ' . ($path === UPLOAD_PATH ? 'POST' : 'GET, HEAD'));
    answer(405, "Method $method not allowed here.");
} elseif ($path === '/') {
    answer(200, 'Velmora 3 crash report collector: post-info at ' . POST_INFO_PATH . ', uploads to ' . UPLOAD_PATH . '.');
} else {
    answer(404, 'Not found.');
}
