<?php
// /crashes/report/ID/archive: the report's archive as uploaded. PHP only checks the id and that
// the archive is still kept; nginx then sends the file from an internal location.
declare(strict_types=1);
require __DIR__ . '/../lib/html.php';

servePage(function () {
    $id = $_SERVER['REPORT_ID'] ?? '';
    if (!isReportId($id))
        throw new PageError(404, 'There is no such report.');
    $query = pagesDatabase()->prepare('SELECT archive_removed_at FROM reports WHERE id = ?');
    $query->execute([$id]);
    $removed = $query->fetchColumn();
    if ($removed === false)
        throw new PageError(404, "There is no report $id.");
    if ($removed !== null)
        throw new PageError(410, "The archive of report $id was removed from the store on " . utc((int) $removed)
                            . ', as it was older than the service keeps archives.');
    if (!is_file((new FileStore(serviceConfig()['store']))->path($id)))
        throw new PageError(404, "The archive of report $id is missing from the store.");
    header('Content-Type: application/zip');
    header("Content-Disposition: attachment; filename=\"$id.zip\"");
    header('X-Accel-Redirect: /.store/' . substr($id, 0, 8) . "/$id.zip");
});
