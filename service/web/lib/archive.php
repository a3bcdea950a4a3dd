<?php
// Checks an uploaded report archive without extracting it, and reads its info.ini.
declare(strict_types=1);

// An upload that is refused: the status and the one line the sender's window shows.
final class Refusal extends Exception
{
    public function __construct(public readonly int $status, string $line)
    {
        parent::__construct($line);
    }
}

const ARCHIVE_MAX_ENTRIES = 16;
const CENTRAL_DIRECTORY_MAX_BYTES = 64 * 1024;
const INFO_INI_MAX_BYTES = 64 * 1024;
// The processor's cap for a dump.
const DUMP_MAX_BYTES = 16 * 1024 * 1024;
const VERSION_MAX_CHARS = 128;
const DESCRIPTION_MAX_CHARS = 4000;

// How much of an entry tells whether it is the crash dump.
const DUMP_HEAD_BYTES = 18;

// The crash dump is the entry that starts as one: a text dump (formats 1 and 2), or an ELF core
// (format 3), whose e_type is read in the byte order its header gives.
function isCrashDump(string $head): bool
{
    if (str_starts_with($head, 'VELMORA-CRASH '))
        return true;
    if (strlen($head) < DUMP_HEAD_BYTES || !str_starts_with($head, "\x7fELF") || ($head[5] !== "\1" && $head[5] !== "\2"))
        return false;
    return unpack($head[5] === "\1" ? 'v' : 'n', $head, 16)[1] === 4;
}

// The index of the archive's crash dump, or null when it holds none.
function dumpEntry(ZipArchive $zip): ?int
{
    for ($i = 0; $i < $zip->count(); ++$i) {
        $stream = $zip->getStreamIndex($i);
        if ($stream === false)
            continue;
        $head = (string) stream_get_contents($stream, DUMP_HEAD_BYTES);
        fclose($stream);
        if (isCrashDump($head))
            return $i;
    }
    return null;
}

// libzip reads the whole central directory into memory outside PHP's memory_limit, and takes a
// ZIP64 record's entry count over the classic one: the end record is checked first, as the
// sender writes it (no comment, no ZIP64, a few entries).
function checkZipEnd(string $path): void
{
    $size = (int) filesize($path);
    $file = fopen($path, 'rb');
    $tail = $size >= 22 && fseek($file, max(0, $size - 42)) === 0 ? (string) fread($file, 42) : '';
    fclose($file);
    $end = substr($tail, -22);
    if (strlen($end) !== 22 || !str_starts_with($end, "PK\x05\x06"))
        throw new Refusal(422, 'Report refused: the file is not a readable zip archive.');
    if (strlen($tail) === 42 && str_starts_with($tail, "PK\x06\x07"))
        throw new Refusal(422, 'Report refused: the archive is in ZIP64 form, which no report needs.');
    $record = unpack('vdisk/vcdDisk/vdiskEntries/ventries/VcdSize/VcdOffset/vcommentLength', $end, 4);
    $entries = max($record['entries'], $record['diskEntries']);
    if ($entries > ARCHIVE_MAX_ENTRIES)
        throw new Refusal(422, "Report refused: the archive holds $entries entries, more than " . ARCHIVE_MAX_ENTRIES . '.');
    if ($record['cdSize'] > CENTRAL_DIRECTORY_MAX_BYTES)
        throw new Refusal(422, 'Report refused: the archive\'s central directory is over ' . CENTRAL_DIRECTORY_MAX_BYTES . ' bytes.');
    if ($record['commentLength'] !== 0 || $record['cdOffset'] + $record['cdSize'] > $size - 22)
        throw new Refusal(422, 'Report refused: the file is not a readable zip archive.');
}

// Every entry is inflated as a stream and its real bytes are counted against its cap (info.ini,
// the dump, or a log at $maxLogBytes) and the archive's, and checked against its stated size and
// CRC-32, so a damaged archive or a zip bomb is refused early and no entry is ever written out
// under its own name. Returns info.ini's version and description.
function checkArchive(string $path, int $maxLogBytes): array
{
    checkZipEnd($path);
    $maxUnpacked = INFO_INI_MAX_BYTES + DUMP_MAX_BYTES + $maxLogBytes;
    $zip = new ZipArchive();
    // CHECKCONS also refuses an archive that names an entry twice.
    if ($zip->open($path, ZipArchive::RDONLY | ZipArchive::CHECKCONS) !== true)
        throw new Refusal(422, 'Report refused: the file is not a readable zip archive.');
    try {
        $count = $zip->count();
        if ($count > ARCHIVE_MAX_ENTRIES)
            throw new Refusal(422, "Report refused: the archive holds $count entries, more than " . ARCHIVE_MAX_ENTRIES . '.');
        $ini = null;
        $unpacked = 0;
        for ($i = 0; $i < $count; ++$i) {
            $stat = $zip->statIndex($i);
            if ($stat === false)
                throw new Refusal(422, "Report refused: entry $i of the archive cannot be read.");
            $isIni = $stat['name'] === 'info.ini';
            // What an entry says it holds is refused before a byte is inflated.
            $cap = $isIni ? INFO_INI_MAX_BYTES : max(DUMP_MAX_BYTES, $maxLogBytes);
            if ($stat['size'] > $cap)
                throw new Refusal(422, $isIni ? 'Report refused: info.ini is over ' . INFO_INI_MAX_BYTES . ' bytes.'
                                              : "Report refused: entry $i of the archive unpacks to more than $cap bytes.");
            $stream = $stat['encryption_method'] === ZipArchive::EM_NONE ? @$zip->getStreamIndex($i) : false;
            if ($stream === false)
                throw new Refusal(422, "Report refused: entry $i of the archive cannot be read.");
            $crc = hash_init('crc32b');
            $size = 0;
            $text = '';
            while (($chunk = @fread($stream, 1 << 20)) !== false && $chunk !== '') {
                if ($size === 0 && !$isIni)
                    $cap = isCrashDump($chunk) ? DUMP_MAX_BYTES : $maxLogBytes;
                $size += strlen($chunk);
                $unpacked += strlen($chunk);
                $refusal = match (true) {
                    $isIni && $size > INFO_INI_MAX_BYTES => 'Report refused: info.ini is over ' . INFO_INI_MAX_BYTES . ' bytes.',
                    $size > $cap => "Report refused: entry $i of the archive, "
                                    . ($cap === DUMP_MAX_BYTES ? 'the dump' : 'a log') . ", unpacks to more than $cap bytes.",
                    $unpacked > $maxUnpacked => "Report refused: the archive unpacks to more than $maxUnpacked bytes.",
                    default => null,
                };
                if ($refusal !== null) {
                    fclose($stream);
                    throw new Refusal(422, $refusal);
                }
                hash_update($crc, $chunk);
                if ($isIni)
                    $text .= $chunk;
            }
            fclose($stream);
            if ($size !== $stat['size'] || hash_final($crc) !== sprintf('%08x', $stat['crc']))
                throw new Refusal(422, "Report refused: entry $i of the archive is damaged.");
            if ($isIni)
                $ini = $text;
        }
    } finally {
        $zip->close();
    }
    if ($ini === null)
        throw new Refusal(422, 'Report refused: the archive holds no info.ini.');
    $info = readInfoIni($ini);
    // PostgreSQL's text cannot hold a NUL, where SQLite's can: refused on both alike.
    if (str_contains($info['version'] . $info['description'], "\0"))
        throw new Refusal(422, 'Report refused: info.ini\'s version or description holds a NUL character.');
    return [firstChars($info['version'], VERSION_MAX_CHARS), firstChars($info['description'], DESCRIPTION_MAX_CHARS)];
}

function firstChars(string $text, int $count): string
{
    preg_match('/^.{0,' . $count . '}/su', $text, $m);
    return $m[0];
}

// Undoes QSettings' INI escaping: optional double quotes, backslash escapes, and \xHHHH for
// every character outside ASCII, as UTF-16 units that iconv then decodes.
function qsettingsValue(string $raw): string
{
    $simple = ['a' => 7, 'b' => 8, 'f' => 12, 'n' => 10, 'r' => 13, 't' => 9, 'v' => 11];
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

// The two keys the sender writes outside any group, which QSettings puts under [General].
function readInfoIni(string $text): array
{
    $info = ['version' => '', 'description' => ''];
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
