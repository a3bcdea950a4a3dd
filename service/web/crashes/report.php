<?php
// /crashes/report/ID: everything about one report. /crashes/report?id=TEXT finds a report by the
// id the sender's window showed; the whole line "Report … received" may be pasted.
declare(strict_types=1);
require __DIR__ . '/../lib/html.php';
require __DIR__ . '/../lib/archive.php';

const LOG_MAX_BYTES = 64 * 1024;

function findReport(PDO $db, string $text): never
{
    if (!preg_match('/' . REPORT_ID_FORM . '/i', $text, $match))
        throw new PageError(400, 'A report id is 8 digits, a dash and 16 hex digits, like 20261124-0123456789abcdef; "'
                            . shortened($text, 80) . '" holds none.');
    $id = strtolower($match[0]);
    $exists = $db->prepare('SELECT 1 FROM reports WHERE id = ?');
    $exists->execute([$id]);
    if ($exists->fetchColumn() === false)
        throw new PageError(404, "There is no report $id.");
    header('Location: ' . reportUrl($id), true, 303);
    exit;
}

// The client's log from the stored archive: the entry that is neither info.ini nor the dump,
// read by index (never by a name from the archive), at most LOG_MAX_BYTES of it.
function readLog(string $path): ?array
{
    $zip = new ZipArchive();
    if ($zip->open($path, ZipArchive::RDONLY) !== true)
        return null;
    try {
        for ($i = 0; $i < $zip->count(); ++$i) {
            $stat = $zip->statIndex($i);
            if ($stat === false || $stat['name'] === 'info.ini' || str_ends_with($stat['name'], '/'))
                continue;
            $stream = $zip->getStreamIndex($i);
            if ($stream === false)
                continue;
            $text = '';
            while (strlen($text) < LOG_MAX_BYTES && ($chunk = fread($stream, LOG_MAX_BYTES - strlen($text))) !== false && $chunk !== '')
                $text .= $chunk;
            fclose($stream);
            if (!isCrashDump($text))
                return ['name' => $stat['name'], 'size' => $stat['size'], 'text' => $text];
        }
        return null;
    } finally {
        $zip->close();
    }
}

function definitionList(array $items): string
{
    $html = "<dl>\n";
    foreach ($items as $term => $value)
        $html .= '<dt>' . h($term) . '</dt><dd>' . $value . "</dd>\n";
    return $html . "</dl>\n";
}

function processing(array $report): string
{
    return match ($report['state']) {
        'new' => 'waiting to be processed',
        'processing' => 'being processed by ' . h($report['worker']) . ' (attempt ' . h($report['attempts']) . ')',
        'done' => 'processed ' . h(utc((int) $report['processed_at'])) . ', signature rules version ' . h($report['rule_version']),
        'failed' => '<span class="error">failed: ' . h($report['failure'] ?? 'no reason given') . '</span> ('
                    . h((int) $report['attempts'] === 1 ? '1 attempt' : "{$report['attempts']} attempts") . ')',
        default => h($report['state']),
    };
}

servePage(function () {
    $db = pagesDatabase();
    $id = $_SERVER['REPORT_ID'] ?? '';
    if ($id === '')
        findReport($db, queryParam('id'));
    if (!isReportId($id))
        throw new PageError(404, 'There is no such report.');
    $query = $db->prepare('SELECT r.*, p.signature, p.rule_version, p.signal, p.address, p.frames, p.processed_at'
                          . ' FROM reports r LEFT JOIN processed p ON p.report_id = r.id WHERE r.id = ?');
    $query->execute([$id]);
    $report = $query->fetch(PDO::FETCH_ASSOC);
    if ($report === false)
        throw new PageError(404, "There is no report $id.");

    $fields = json_decode($report['fields'], true);
    $fieldList = '';
    foreach (is_array($fields) ? $fields : [] as $name => $value)
        $fieldList .= h($name) . ' = ' . h(is_scalar($value) ? (string) $value : json_encode($value)) . '<br>';
    $path = (new FileStore(serviceConfig()['store']))->path($id);
    $stored = $report['archive_removed_at'] === null && is_file($path);

    pageStart("Report $id");
    echo '<h1>Report ', h($id), "</h1>\n";
    $items = [
        'Received' => h(utc((int) $report['received_at'])) . ' from ' . h($report['client_addr']),
        'Version' => h($report['version']),
        'Form fields' => $fieldList,
        'Processing' => processing($report),
    ];
    if ($report['signature'] !== null) {
        $items['Signature'] = '<a href="' . h(signatureUrl($report['signature'])) . '">' . h($report['signature']) . '</a>';
        $items['Signal'] = h($report['signal'] === null ? 'none: the report has no dump' : "{$report['signal']} at " . ($report['address'] ?? 'none'));
    }
    $items['Archive'] = match (true) {
        $stored => '<a href="' . h(reportUrl($id) . '/archive') . '">' . h("$id.zip") . '</a>, ' . h(number_format((int) $report['size'])) . ' bytes',
        $report['archive_removed_at'] !== null => 'removed from the store on ' . h(utc((int) $report['archive_removed_at'])) . ', as it was older than the service keeps archives',
        default => '<span class="error">missing from the store</span>',
    };
    echo definitionList($items);
    echo "<h2>Description</h2>\n<p class=\"description\">", $report['description'] === '' ? '<em>none given</em>' : h($report['description']), "</p>\n";
    if ($report['frames'] !== null)
        echo "<h2>Stack</h2>\n", framesTable($report['frames']);

    $log = $stored ? readLog($path) : null;
    if ($log !== null) {
        $cut = $log['size'] > strlen($log['text']);
        echo '<h2>Log: ', h($log['name']), $cut ? h(', the first ' . number_format(strlen($log['text'])) . ' of ' . number_format($log['size']) . ' bytes') : '',
            "</h2>\n<pre class=\"log\">", h(preg_replace('/[\x00-\x08\x0b\x0c\x0e-\x1f\x7f]/', "\u{fffd}", $log['text'])), "</pre>\n";
    }
    pageEnd();
});
