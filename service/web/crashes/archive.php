<?php
// /crashes/report/ID/archive: the report's archive as uploaded. PHP only checks the id and that
// the archive is still kept; nginx then sends the file from an internal location.
declare(strict_types=1);
require __DIR__ . '/../lib/html.php';

servePage(function () {
    [$id] = keptArchive();
    header('Content-Type: application/zip');
    header("Content-Disposition: attachment; filename=\"$id.zip\"");
    header('X-Accel-Redirect: /.store/' . substr($id, 0, 8) . "/$id.zip");
});
