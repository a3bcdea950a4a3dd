<?php
// GET /health, for a load balancer or a monitor: 200 when this collector would take an upload
// (its database answers at the expected schema and takes a write, its store is writable and has
// room for the largest upload), 503 or 507 and why otherwise; with the backlog of reports waiting
// for a processor. GET /health/queue: 503 once the oldest waiting report is older than the
// alarm, since processors that do not keep up are no reason to stop taking uploads.
// One plain-text line either way.
declare(strict_types=1);
require __DIR__ . '/lib/config.php';
require __DIR__ . '/lib/db.php';

function refuse(int $status, string $line): never
{
    http_response_code($status);
    echo $line;
    exit;
}

header('Content-Type: text/plain; charset=utf-8');
header('Cache-Control: no-store');
try {
    $config = serviceConfig();
    $db = openDatabase($config['db'], true);
    [$waiting, $oldest] = $db->query("SELECT COUNT(*), MIN(received_at) FROM reports WHERE state IN ('new', 'processing')")
                             ->fetch(PDO::FETCH_NUM);
    $waiting = (int) $waiting;
    $age = $oldest === null ? 0 : max(0, time() - (int) $oldest);
    if (($_SERVER['VELMORA_HEALTH'] ?? '') === 'queue') {
        $alarm = (int) ($config['queue_alarm'] ?? 900);
        if ($age > $alarm)
            refuse(503, "Queue stalled: the oldest of $waiting waiting reports has waited $age s, past the alarm of $alarm s.");
        echo "OK: $waiting reports waiting, the oldest for $age s (the alarm is at $alarm s).";
        exit;
    }
    // The upload's own insert, rolled back: a database that refuses writes refuses every upload.
    $refused = null;
    try {
        $db->beginTransaction();
        $db->exec("INSERT INTO reports (id, received_at, client_addr, fields, version, description, size, sha256)"
                  . " VALUES ('health-probe', 0, '', '{}', '', '', 0, '')");
    } catch (PDOException $e) {
        $refused = strtok($e->getMessage(), "\n");
    } finally {
        // The worker keeps its connection for the next upload: never inside a transaction.
        if ($db->inTransaction())
            $db->rollBack();
    }
    if ($refused !== null)
        refuse(503, "Not ready: the database refuses writes: $refused.");
    if (!is_dir($config['store']) || !is_writable($config['store']))
        refuse(503, 'Not ready: the store ' . $config['store'] . ' is not writable.');
    $free = (int) disk_free_space($config['store']);
    if ($free < (int) $config['max_bytes'])
        refuse(507, 'Not ready: the store ' . $config['store'] . " is full: $free bytes free, less than the largest upload ("
                    . $config['max_bytes'] . ' bytes).');
    printf('OK: schema %d, %d reports waiting, the oldest for %d s, %.1f GiB free in the store.', SCHEMA_VERSION, $waiting, $age,
           $free / (1 << 30));
} catch (Throwable $e) {
    refuse(503, 'Not ready: ' . strtok($e->getMessage(), "\n") . '.');
}
