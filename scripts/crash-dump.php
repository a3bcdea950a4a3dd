<?php
// Writes the crash dump of a report archive to stdout: the entry that the service and the
// processor take for it, by its first bytes. A file that is a dump itself is written as it is.
//   php scripts/crash-dump.php ARCHIVE|DUMP
declare(strict_types=1);
require __DIR__ . '/../service/web/lib/archive.php';

if ($argc !== 2) {
    fwrite(STDERR, "usage: php crash-dump.php ARCHIVE|DUMP\n");
    exit(2);
}
$zip = new ZipArchive();
if ($zip->open($argv[1], ZipArchive::RDONLY) === true) {
    $entry = dumpEntry($zip);
    $dump = $entry === null ? false : $zip->getStreamIndex($entry);
    $head = '';
} else {
    $dump = @fopen($argv[1], 'rb');
    $head = $dump === false ? '' : (string) stream_get_contents($dump, DUMP_HEAD_BYTES);
    if (!isCrashDump($head))
        $dump = false;
}
if ($dump === false) {
    fwrite(STDERR, "crash-dump: $argv[1] is no crash dump and holds none\n");
    exit(1);
}
fwrite(STDOUT, $head);
stream_copy_to_stream($dump, STDOUT);
