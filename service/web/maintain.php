<?php
// Tidies the store, at the service's start and then hourly: sweeps what interrupted uploads left
// (temporary files, archives that never got their row) and removes raw archives older than
// keep_days (their rows and counts stay).
//   VELMORA_CONFIG=DATA/run/config.php php maintain.php
declare(strict_types=1);
require __DIR__ . '/lib/config.php';
require __DIR__ . '/lib/db.php';
require __DIR__ . '/lib/store.php';

// A younger leftover may be another collector's write still in flight on a shared store.
const SWEEP_AFTER_SECONDS = 3600;

if (PHP_SAPI !== 'cli')
    exit(1);
try {
    $config = serviceConfig();
    $store = new FileStore($config['store']);
    $db = openDatabase($config['db']);
    $swept = $store->sweep(SWEEP_AFTER_SECONDS, function (array $ids) use ($db) {
        $known = [];
        foreach (array_chunk($ids, 500) as $chunk) {
            $select = $db->prepare('SELECT id FROM reports WHERE id IN (' . implode(',', array_fill(0, count($chunk), '?')) . ')');
            $select->execute($chunk);
            $known = array_merge($known, $select->fetchAll(PDO::FETCH_COLUMN));
        }
        return array_diff($ids, $known);
    });
    $removed = 0;
    $keepDays = (int) ($config['keep_days'] ?? 0);
    if ($keepDays > 0) {
        $mark = $db->prepare('UPDATE reports SET archive_removed_at = ? WHERE id = ? AND archive_removed_at IS NULL');
        // The rows are marked first: a removal cut short then leaves files that the next round
        // removes, never a row that claims an archive that is gone.
        $removed = $store->removeOlder(gmdate('Ymd', time() - $keepDays * 86400), function (array $ids) use ($db, $mark) {
            $db->beginTransaction();
            foreach ($ids as $id)
                $mark->execute([time(), $id]);
            $db->commit();
        });
    }
    if ($swept > 0 || $removed > 0)
        echo "Store tidied: $swept leftovers of interrupted uploads swept, $removed archives past $keepDays days removed.\n";
} catch (Throwable $e) {
    fwrite(STDERR, 'maintain: ' . $e->getMessage() . "\n");
    exit(1);
}
