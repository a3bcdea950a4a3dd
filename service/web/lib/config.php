<?php
// The service's settings, one PHP file that returns an array, named by VELMORA_CONFIG (set in
// the PHP-FPM pool; run.sh writes DATA/run/config.php). Keys: db (database URL), store (the
// archive store's folder), data (the data folder), max_bytes (largest archive), max_log_bytes
// (largest log in one, unpacked), keep_days, queue_alarm (seconds a report may wait), and
// optionally debuginfod_urls (the vendor's debuginfod, for the report page's debugger recipe).
declare(strict_types=1);

function serviceConfig(): array
{
    static $config = null;
    if ($config === null) {
        $path = getenv('VELMORA_CONFIG');
        if ($path === false || $path === '' || !is_file($path))
            throw new RuntimeException('VELMORA_CONFIG names no configuration file');
        $config = require $path;
        foreach (['db', 'store', 'max_bytes'] as $key) {
            if (!isset($config[$key]))
                throw new RuntimeException("the configuration $path lacks '$key'");
        }
    }
    return $config;
}
