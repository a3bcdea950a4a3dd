<?php
// Brings a database to the newest schema: applies the numbered .sql files beside this script
// that it lacks, in order, each in a transaction, under a lock, so that several services
// starting at once against one database apply each migration exactly once.
//   php migrate.php DATABASE-URL
declare(strict_types=1);
require __DIR__ . '/../web/lib/db.php';

// An arbitrary key that this service alone takes PostgreSQL's advisory lock on.
const MIGRATION_LOCK = 7301903;

function migrations(): array
{
    $files = [];
    foreach (glob(__DIR__ . '/[0-9][0-9][0-9]_*.sql') as $path)
        $files[(int) basename($path)] = $path;
    ksort($files);
    if (array_key_last($files) !== SCHEMA_VERSION)
        throw new LogicException('newest migration ' . array_key_last($files) . ', code expects ' . SCHEMA_VERSION);
    return $files;
}

function migrate(PDO $db): array
{
    $applied = [];
    $postgres = isPostgres($db);
    if ($postgres)
        $db->query('SELECT pg_advisory_lock(' . MIGRATION_LOCK . ')');
    try {
        foreach (migrations() as $version => $path) {
            // SQLite takes its write lock at BEGIN IMMEDIATE, before the version is read.
            $postgres ? $db->beginTransaction() : $db->exec('BEGIN IMMEDIATE');
            $db->exec('CREATE TABLE IF NOT EXISTS schema_migrations (version INTEGER PRIMARY KEY, '
                      . 'name TEXT NOT NULL, applied_at BIGINT NOT NULL)');
            if (schemaVersion($db) >= $version) {
                $db->exec('COMMIT');
                continue;
            }
            $db->exec((string) file_get_contents($path));
            $db->prepare('INSERT INTO schema_migrations (version, name, applied_at) VALUES (?, ?, ?)')
               ->execute([$version, basename($path), time()]);
            $db->exec('COMMIT');
            $applied[] = basename($path);
        }
    } catch (Throwable $e) {
        if ($db->inTransaction() || !$postgres)
            @$db->exec('ROLLBACK');
        throw $e;
    } finally {
        if ($postgres)
            $db->query('SELECT pg_advisory_unlock(' . MIGRATION_LOCK . ')');
    }
    return $applied;
}

if ($argc !== 2) {
    fwrite(STDERR, "usage: php migrate.php DATABASE-URL\n");
    exit(2);
}
try {
    $db = connectDatabase($argv[1]);
    $applied = migrate($db);
    $version = schemaVersion($db);
    if ($version > SCHEMA_VERSION)
        throw new RuntimeException("the database is at schema $version, newer than this service's " . SCHEMA_VERSION);
    echo $applied ? 'Schema migrated to version ' . $version . ' (' . implode(', ', $applied) . ")\n"
                  : "Schema at version $version\n";
} catch (Throwable $e) {
    fwrite(STDERR, 'migrate: ' . $e->getMessage() . "\n");
    exit(1);
}
