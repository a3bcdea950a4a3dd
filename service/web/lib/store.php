<?php
// The archive store: one file per report, found from the report's id alone.
declare(strict_types=1);

// A report id: its UTC day of receipt, a dash and 64 bits in lowercase hex. nginx's locations
// for report pages spell it once more, in service/conf/locations/crashes.conf.in.
const REPORT_ID_FORM = '[0-9]{8}-[0-9a-f]{16}';

// The UTC date of receipt and 64 random bits: unique across any number of collectors
// without asking anyone. $bits fixes the 8 bytes, for made-up reports that must come out alike.
function newReportId(?int $receivedAt = null, ?string $bits = null): string
{
    return gmdate('Ymd', $receivedAt ?? time()) . '-' . bin2hex($bits ?? random_bytes(8));
}

function isReportId(string $id): bool
{
    return preg_match('/^' . REPORT_ID_FORM . '$/D', $id) === 1;
}

// The store has no room left: the upload may be tried again once it has.
final class StoreFullException extends RuntimeException
{
}

interface ReportStore
{
    // Takes the file in durably under the id (an uploaded file is moved, any other copied);
    // returns [size, sha256] of what it stored.
    public function put(string $id, string $source): array;

    // The stored archive, open for reading, or null if there is none.
    public function open(string $id);

    public function remove(string $id): void;

    // Removes the archives received before the day $firstKept (YYYYMMDD), a day at a time;
    // $removing gets each day's ids before its files go. Returns how many went.
    public function removeOlder(string $firstKept, callable $removing): int;

    // Removes what interrupted uploads left behind, once older than $seconds (younger ones may
    // be another collector's upload in flight): temporary files, and archives of the last two
    // days whose ids $unreported returns, as they never got their row. Returns how many went.
    public function sweep(int $seconds, callable $unreported): int;
}

// The store as a folder, which may be a mount shared by several collectors:
// ROOT/YYYYMMDD/<id>.zip.
final class FileStore implements ReportStore
{
    private const HASH_IN_MEMORY_BYTES = 8 << 20;

    public function __construct(private string $root)
    {
    }

    public function path(string $id): string
    {
        if (!isReportId($id))
            throw new InvalidArgumentException('not a report id');
        return $this->root . '/' . substr($id, 0, 8) . "/$id.zip";
    }

    public function put(string $id, string $source): array
    {
        error_clear_last();
        $path = $this->path($id);
        $dir = dirname($path);
        $newDir = !is_dir($dir);
        if ($newDir && !@mkdir($dir, 0755) && !is_dir($dir))
            throw self::failure("cannot create $dir");
        $temp = "$dir/.$id.zip.tmp";
        try {
            // An upload on the store's own filesystem is renamed into it rather than copied.
            if (!@move_uploaded_file($source, $temp) && !@copy($source, $temp))
                throw self::failure("cannot write $temp");
            // The rename makes the archive visible; it must not show before its bytes are on disk.
            $written = @fopen($temp, 'rb');
            if ($written === false || !@fsync($written))
                throw self::failure("cannot sync $temp");
            fclose($written);
            $stored = [filesize($temp), self::sha256($temp)];
            if (!@rename($temp, $path))
                throw self::failure("cannot rename $temp");
        } catch (Throwable $e) {
            @unlink($temp);
            throw $e;
        }
        self::syncFolder($dir);
        if ($newDir)
            self::syncFolder($this->root);
        return $stored;
    }

    public function open(string $id)
    {
        $stream = @fopen($this->path($id), 'rb');
        return $stream === false ? null : $stream;
    }

    public function remove(string $id): void
    {
        $path = $this->path($id);
        if (!@unlink($path) && file_exists($path))
            throw self::failure("cannot remove $path");
    }

    public function removeOlder(string $firstKept, callable $removing): int
    {
        $removed = 0;
        foreach (self::days($this->root) as $day) {
            if ($day >= $firstKept)
                continue;
            $dir = "$this->root/$day";
            $ids = [];
            foreach (scandir($dir) as $name) {
                if (str_ends_with($name, '.zip') && isReportId(substr($name, 0, -4)))
                    $ids[] = substr($name, 0, -4);
            }
            $removing($ids);
            foreach ($ids as $id)
                $this->remove($id);
            $removed += count($ids);
            // A folder that still holds a write in flight stays for the next round.
            @rmdir($dir);
        }
        return $removed;
    }

    public function sweep(int $seconds, callable $unreported): int
    {
        $before = time() - $seconds;
        $old = fn (string $path) => (@filemtime($path) ?: PHP_INT_MAX) < $before;
        $leftovers = [];
        $days = self::days($this->root);
        foreach ($days as $day)
            $leftovers = array_merge($leftovers, array_filter(glob("$this->root/$day/.*.zip.tmp"), $old));
        // An upload is stored and answered within minutes, so only the newest days can hold
        // an archive whose row is still to come or never came.
        foreach (array_slice($days, -2) as $day) {
            $names = array_map(fn ($path) => basename($path, '.zip'), array_filter(glob("$this->root/$day/*.zip"), $old));
            $ids = array_values(array_filter($names, 'isReportId'));
            foreach ($ids ? $unreported($ids) : [] as $id)
                $leftovers[] = $this->path($id);
        }
        return count(array_filter($leftovers, fn ($path) => @unlink($path)));
    }

    private static function days(string $root): array
    {
        $days = array_filter(scandir($root) ?: [], fn ($name) => preg_match('/^[0-9]{8}$/D', $name) === 1);
        sort($days);
        return $days;
    }

    // OpenSSL's SHA-256 is several times faster than PHP's own, but takes the file whole, so a
    // large archive is hashed as a stream.
    private static function sha256(string $path): string
    {
        if (filesize($path) > self::HASH_IN_MEMORY_BYTES)
            return hash_file('sha256', $path);
        return openssl_digest((string) file_get_contents($path), 'sha256');
    }

    private static function syncFolder(string $dir): void
    {
        $handle = @fopen($dir, 'r');
        if ($handle === false || !@fsync($handle))
            throw self::failure("cannot sync $dir");
        fclose($handle);
    }

    // A full disk is told apart from other failures: it asks the sender to try again later.
    private static function failure(string $what): RuntimeException
    {
        $error = error_get_last()['message'] ?? '';
        if (str_contains($error, 'No space left') || str_contains($error, 'Disk quota exceeded'))
            return new StoreFullException("$what: $error");
        return new RuntimeException("$what: $error");
    }
}
