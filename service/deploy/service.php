<?php
// The PHP side's settings on a real host: /etc/velmora3/service.php, named by VELMORA_CONFIG in
// the PHP-FPM pool. It reads service.env, so that the database URL is written in one place.
$env = parse_ini_file('/etc/velmora3/service.env', false, INI_SCANNER_RAW);
return [
    'db' => $env['VELMORA_DB'],
    'store' => $env['VELMORA_STORE'],
    'data' => $env['VELMORA_DATA'],
    'max_bytes' => (int) $env['VELMORA_MAX_BYTES'],
    'keep_days' => (int) $env['VELMORA_KEEP_DAYS'],
];
