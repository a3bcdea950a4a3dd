<?php
// The rows that an upload and its processing leave, as the upload endpoint writes them and
// scripts/load-reports.php writes them in bulk: one statement each, so that reports loaded for
// trying the pages are the endpoint's own rows.
declare(strict_types=1);

// A report's row: the upload endpoint gives the first eight, the processors' columns default.
const REPORT_COLUMNS = ['id', 'received_at', 'client_addr', 'fields', 'version', 'description', 'size', 'sha256',
                        'state', 'worker', 'lease_until', 'attempts', 'failure', 'archive_removed_at'];
// Rows written by one statement: well inside both databases' caps on bound values.
const ROWS_PER_STATEMENT = 500;

// Each report a map from column to value; its fields (the upload's form fields) as an array.
function insertReports(PDO $db, array $reports): void
{
    $rows = [];
    foreach ($reports as $report) {
        $report['fields'] = json_encode((object) $report['fields'], JSON_UNESCAPED_SLASHES | JSON_UNESCAPED_UNICODE | JSON_THROW_ON_ERROR);
        $report += ['state' => 'new', 'attempts' => 0];
        $rows[] = array_map(fn ($column) => $report[$column] ?? null, REPORT_COLUMNS);
    }
    insertRows($db, 'reports (' . implode(', ', REPORT_COLUMNS) . ')', $rows);
}

// Counts processed reports, each [signature, received_at, version], into signature_days: one
// more for its signature on the UTC day it was received, in its version, added to what is there.
function addDailyCounts(PDO $db, array $reports): void
{
    $counts = [];
    foreach ($reports as [$signature, $receivedAt, $version]) {
        $key = json_encode([$signature, gmdate('Y-m-d', $receivedAt), $version], JSON_THROW_ON_ERROR);
        $counts[$key] = ($counts[$key] ?? 0) + 1;
    }
    $rows = [];
    foreach ($counts as $key => $count)
        $rows[] = [...json_decode($key), $count];
    insertRows($db, 'signature_days (signature, day, version, count)', $rows,
               ' ON CONFLICT (signature, day, version) DO UPDATE SET count = signature_days.count + excluded.count');
}

// $into is the table and its columns; $rows are lists of values in that order.
function insertRows(PDO $db, string $into, array $rows, string $tail = ''): void
{
    foreach (array_chunk($rows, ROWS_PER_STATEMENT) as $chunk) {
        $row = '(' . implode(', ', array_fill(0, count($chunk[0]), '?')) . ')';
        $db->prepare("INSERT INTO $into VALUES " . implode(', ', array_fill(0, count($chunk), $row)) . $tail)
           ->execute(array_merge(...$chunk));
    }
}
