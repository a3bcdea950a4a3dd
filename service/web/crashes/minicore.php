<?php
// /crashes/report/ID/minicore: the report's minicore alone, for eu-stack or gdb. The entry is
// found as the processor finds the dump, never by a name from the archive, and sent at most at the
// processor's cap for a dump.
declare(strict_types=1);
require __DIR__ . '/../lib/html.php';
require_once __DIR__ . '/../lib/archive.php';

servePage(function () {
    [$id, $path] = keptArchive();
    $zip = new ZipArchive();
    if ($zip->open($path, ZipArchive::RDONLY) !== true)
        throw new PageError(404, "The archive of report $id cannot be read.");
    try {
        $i = dumpEntry($zip);
        $stat = $i === null ? false : $zip->statIndex($i);
        $stream = $stat === false || $stat['size'] > DUMP_MAX_BYTES ? false : $zip->getStreamIndex($i);
        // A text dump (formats 1 and 2) is in the archive's download; this is the minicore alone.
        if ($stream !== false && str_starts_with($start = (string) fread($stream, DUMP_HEAD_BYTES), "\x7fELF")) {
            header('Content-Type: application/octet-stream');
            header("Content-Disposition: attachment; filename=\"$id.core\"");
            header('Content-Length: ' . $stat['size']);
            echo $start;
            while (!feof($stream) && ($chunk = fread($stream, 65536)) !== false && $chunk !== '')
                echo $chunk;
            fclose($stream);
            return;
        }
    } finally {
        $zip->close();
    }
    throw new PageError(404, "Report $id has no minicore.");
});
