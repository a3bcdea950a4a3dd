<?php
// Loads crash reports straight into the service's database (and their archives into the store),
// as the upload endpoint and the processor would have left them: for trying the crash-stats
// pages, for their tests and for their benchmark.
//
//   php load-reports.php --db URL [--store DIR] FILE|-
//       FILE is a JSON array of reports (see loadListed below); - reads it from stdin.
//   php load-reports.php --db URL --synthetic N [--days D] [--signatures S] [--seed K]
//       N reports over the last D days (default 90), S signatures with a long tail (default
//       3000), several versions released over the period; no archives.
//
// The database must be migrated already (service/schema/migrate.php).
declare(strict_types=1);
require __DIR__ . '/../service/web/lib/db.php';
require __DIR__ . '/../service/web/lib/store.php';
require __DIR__ . '/../service/web/lib/reports.php';

const BATCH = 5000;

// A report as the JSON file gives it; every key may be left out:
//   id, received_at (Unix seconds, default now), client_addr, fields (object), version,
//   description, state ('done'), failure, attempts,
//   signature, signal, address, frames (array, as processed.frames), rule_version, threads (array,
//   as processed.threads), message, capture  (for 'done'),
//   log (the client log's text), archive (true: stored, false: none, "removed": aged out).
function loadListed(PDO $db, ?FileStore $store, array $reports): array
{
    $rows = [];
    $processed = [];
    $counted = [];
    foreach ($reports as $n => $r) {
        $received = (int) ($r['received_at'] ?? time());
        $id = $r['id'] ?? newReportId($received);
        $state = $r['state'] ?? 'done';
        $archive = $r['archive'] ?? true;
        $version = (string) ($r['version'] ?? '3.0.0');
        $description = (string) ($r['description'] ?? '');
        [$size, $sha] = [0, str_repeat('0', 64)];
        if ($archive !== false) {
            if ($store === null)
                throw new InvalidArgumentException("report $n has an archive but no --store was given");
            [$size, $sha] = storeArchive($store, $id, $version, $description, (string) ($r['log'] ?? ''),
                                         (string) ($r['dump'] ?? "VELMORA-CRASH 1\n"));
            if ($archive === 'removed')
                $store->remove($id);
        }
        $rows[] = ['id' => $id, 'received_at' => $received, 'client_addr' => $r['client_addr'] ?? '127.0.0.1',
                   'fields' => $r['fields'] ?? ['product' => 'Velmora 3'], 'version' => $version, 'description' => $description,
                   'size' => $size, 'sha256' => $sha, 'state' => $state, 'worker' => $r['worker'] ?? null,
                   'attempts' => (int) ($r['attempts'] ?? ($state === 'new' ? 0 : 1)), 'failure' => $r['failure'] ?? null,
                   'archive_removed_at' => $archive === 'removed' ? $received + 86400 : null];
        if ($state === 'done') {
            $signature = (string) ($r['signature'] ?? 'EMPTY: no crash dump');
            $processed[] = [$id, $signature, (int) ($r['rule_version'] ?? 1), $r['signal'] ?? null,
                            $r['address'] ?? null, json_encode($r['frames'] ?? [], JSON_THROW_ON_ERROR), $received + 1,
                            isset($r['threads']) ? json_encode($r['threads'], JSON_THROW_ON_ERROR) : null,
                            $r['message'] ?? null, $r['capture'] ?? null];
            $counted[] = [$signature, $received, $version];
        }
    }
    insertAll($db, $rows, $processed, $counted);
    return array_column($rows, 'id');
}

// The archive the sender would have made: the log, the dump and info.ini.
function storeArchive(FileStore $store, string $id, string $version, string $description, string $log, string $dump): array
{
    $temp = tempnam(sys_get_temp_dir(), 'report');
    try {
        $zip = new ZipArchive();
        $zip->open($temp, ZipArchive::OVERWRITE);
        $zip->addFromString('client.log', $log);
        $zip->addFromString('crash.dmp', $dump);
        $zip->addFromString('info.ini', "[General]\nversion=" . iniValue($version) . "\ndescription=" . iniValue($description) . "\n");
        $zip->close();
        return $store->put($id, $temp);
    } finally {
        @unlink($temp);
    }
}

// Written as Qt's QSettings writes a value: quoted when it holds , ; or =, backslash escapes.
function iniValue(string $value): string
{
    $escaped = strtr($value, ['\\' => '\\\\', '"' => '\\"', "\n" => '\\n']);
    return strpbrk($value, ',;=') !== false ? "\"$escaped\"" : $escaped;
}

// A month or three of a client's crashes, seeded so that every run writes the same rows: the
// signatures follow a long tail (Zipf), versions come out every few weeks and the older ones fade.
function loadSynthetic(PDO $db, int $count, int $daysBack, int $signatureCount, int $seed): void
{
    mt_srand($seed);
    $weights = [];
    $total = 0.0;
    for ($s = 1; $s <= $signatureCount; ++$s)
        $weights[] = $total += 1 / ($s ** 1.1);
    $signatures = [];
    for ($s = 0; $s < $signatureCount; ++$s)
        $signatures[] = syntheticSignature($s);
    $versions = ['3.0.0', '3.0.1', '3.1.0', '3.1.1', '3.2.0', '3.2.1'];
    $now = time();
    $start = $now - $daysBack * 86400;
    $rows = $processed = $counted = [];
    for ($n = 0; $n < $count; ++$n) {
        $received = $start + (int) ($daysBack * 86400 * $n / $count) + mt_rand(0, 59);
        $age = ($received - $start) / ($daysBack * 86400);
        // The newest version has most users, the one before it some, older ones a few.
        $newest = min(count($versions) - 1, (int) ($age * count($versions)));
        $pick = mt_rand(0, 99);
        $v = $pick < 70 ? $newest : ($pick < 92 ? max(0, $newest - 1) : mt_rand(0, $newest));
        $point = mt_rand() / mt_getrandmax() * $total;
        $lo = 0;
        $hi = $signatureCount - 1;
        while ($lo < $hi) {
            $mid = intdiv($lo + $hi, 2);
            $weights[$mid] < $point ? $lo = $mid + 1 : $hi = $mid;
        }
        // Crashes new in a version: a few signatures occur only from the version they came with.
        $s = $lo % 50 === 7 && $v < 3 ? ($lo + 1) : $lo;
        $id = newReportId($received, pack('J', $n * 2654435761 % PHP_INT_MAX));
        $failed = mt_rand(0, 199) === 0;
        $rows[] = ['id' => $id, 'received_at' => $received, 'client_addr' => '192.0.2.' . mt_rand(1, 254),
                   'fields' => ['product' => 'Velmora 3', 'channel' => 'stable', 'os' => 'linux'], 'version' => $versions[$v],
                   'description' => "Synthetic report $n", 'size' => 400000 + mt_rand(0, 99999), 'sha256' => str_repeat('ab', 32),
                   'state' => $failed ? 'failed' : 'done', 'worker' => 'bench-1', 'attempts' => 1,
                   'failure' => $failed ? 'the dump is truncated' : null,
                   'archive_removed_at' => $received < $now - 30 * 86400 ? $received + 30 * 86400 : null];
        if (!$failed) {
            $processed[] = [$id, $signatures[$s], 1, 'SIGSEGV', '0x0000000000000000',
                            syntheticFrames($signatures[$s]), $received + 2, null, null, null];
            $counted[] = [$signatures[$s], $received, $versions[$v]];
        }
        if (count($rows) === BATCH) {
            insertAll($db, $rows, $processed, $counted);
            $rows = $processed = $counted = [];
        }
    }
    insertAll($db, $rows, $processed, $counted);
}

function syntheticSignature(int $s): string
{
    static $words = ['Map', 'Harbour', 'Render', 'Tile', 'Cache', 'Route', 'Sound', 'Font', 'Net', 'Save'];
    $name = $words[$s % 10] . $words[intdiv($s, 10) % 10] . '::' . ['load', 'draw', 'update', 'flush'][intdiv($s, 100) % 4];
    return $s % 3 === 0 ? "$name | memcpy" : "$name$s";
}

function syntheticFrames(string $signature): string
{
    $frames = [];
    foreach (explode(' | ', $signature) as $i => $function)
        $frames[] = ['frame' => $i, 'address' => sprintf('0x%016x', 0x55d0c1a00000 + $i * 0x40), 'module' => 'velmora3',
                     'offset' => sprintf('0x%x', $i * 0x40), 'build_id' => null, 'function' => $function,
                     'file' => null, 'line' => null, 'inlined' => false];
    return json_encode($frames);
}

// $counted: [signature, received_at, version] of each report done.
function insertAll(PDO $db, array $reports, array $processed, array $counted): void
{
    $db->beginTransaction();
    insertReports($db, $reports);
    insertRows($db, 'processed (report_id, signature, rule_version, signal, address, frames, processed_at, threads, message, capture)', $processed);
    addDailyCounts($db, $counted);
    $db->commit();
}

function options(array $argv): array
{
    $options = ['db' => null, 'store' => null, 'synthetic' => null, 'days' => 90, 'signatures' => 3000, 'seed' => 1, 'file' => null];
    for ($i = 1; $i < count($argv); ++$i) {
        $name = substr($argv[$i], 2);
        if (str_starts_with($argv[$i], '--') && array_key_exists($name, $options) && $name !== 'file' && $i + 1 < count($argv))
            $options[$name] = $argv[++$i];
        elseif ($options['file'] === null && !str_starts_with($argv[$i], '--'))
            $options['file'] = $argv[$i];
        else
            throw new InvalidArgumentException("unexpected argument {$argv[$i]}");
    }
    if ($options['db'] === null || ($options['file'] === null) === ($options['synthetic'] === null))
        throw new InvalidArgumentException('usage: load-reports.php --db URL [--store DIR] FILE|-  or  --db URL --synthetic N');
    return $options;
}

try {
    $options = options($argv);
    $db = openDatabase($options['db']);
    if ($options['synthetic'] !== null) {
        $started = microtime(true);
        loadSynthetic($db, (int) $options['synthetic'], (int) $options['days'], (int) $options['signatures'], (int) $options['seed']);
        // What the databases' own upkeep does soon after a bulk load: statistics for the planner,
        // and on PostgreSQL the visibility map that lets it sum the counts from an index alone.
        $db->exec(isPostgres($db) ? 'VACUUM ANALYZE' : 'ANALYZE');
        printf("Loaded %d synthetic reports in %.1f s\n", $options['synthetic'], microtime(true) - $started);
    } else {
        $text = file_get_contents($options['file'] === '-' ? 'php://stdin' : $options['file']);
        $store = $options['store'] === null ? null : new FileStore($options['store']);
        echo json_encode(loadListed($db, $store, json_decode($text, true, 64, JSON_THROW_ON_ERROR))), "\n";
    }
} catch (Throwable $e) {
    fwrite(STDERR, 'load-reports: ' . $e->getMessage() . "\n");
    exit(1);
}
