<?php
// GET /health, for a load balancer or a monitor: 200 when this collector can take reports (its
// database answers at the expected schema and its store is writable), 503 and why otherwise,
// with the backlog of reports waiting for a processor. One plain-text line either way.
declare(strict_types=1);
require __DIR__ . '/lib/config.php';
require __DIR__ . '/lib/db.php';

header('Content-Type: text/plain; charset=utf-8');
header('Cache-Control: no-store');
try {
    $config = serviceConfig();
    $waiting = (int) openDatabase($config['db'], true)
        ->query("SELECT COUNT(*) FROM reports WHERE state IN ('new', 'processing')")->fetchColumn();
    if (!is_dir($config['store']) || !is_writable($config['store']))
        throw new RuntimeException('the store ' . $config['store'] . ' is not writable');
    $free = (int) disk_free_space($config['store']);
    printf('OK: schema %d, %d reports waiting, %.1f GiB free in the store.', SCHEMA_VERSION, $waiting, $free / (1 << 30));
} catch (Throwable $e) {
    http_response_code(503);
    echo 'Not ready: ', strtok($e->getMessage(), "\n"), '.';
}
