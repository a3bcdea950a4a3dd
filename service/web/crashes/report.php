<?php
// /crashes/report/ID: everything about one report. /crashes/report?id=TEXT finds a report by the
// id the sender's window showed; the whole line "Report … received" may be pasted.
declare(strict_types=1);
require __DIR__ . '/../lib/html.php';
require_once __DIR__ . '/../lib/archive.php';

const LOG_MAX_BYTES = 64 * 1024;
const THREADS_SHOWN = 256;

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

// Every thread but the crashing one, each under its id and name, as the processor stored them.
function otherThreads(string $json): string
{
    $threads = json_decode($json, true, 16);
    if (!is_array($threads) || !array_is_list($threads))
        return '<p>The threads are not readable.</p>';
    $html = '';
    $shown = 0;
    foreach ($threads as $thread) {
        if (!is_array($thread) || ($thread['crashed'] ?? false) === true)
            continue;
        if (++$shown > THREADS_SHOWN) {
            $html .= '<p>' . h(count($threads) - 1 - THREADS_SHOWN) . " more threads not shown.</p>\n";
            break;
        }
        $name = is_string($thread['name'] ?? null) ? $thread['name'] : '';
        $html .= '<h3>Thread ' . h(is_int($thread['id'] ?? null) ? $thread['id'] : '?') . ($name === '' ? '' : ' <code>' . h($name) . '</code>')
               . "</h3>\n" . threadFrames($thread);
    }
    return $html;
}

function threadFrames(array $thread): string
{
    $html = framesTable(json_encode($thread['frames'] ?? [], JSON_UNESCAPED_SLASHES | JSON_UNESCAPED_UNICODE));
    $leftOut = $thread['left_out'] ?? 0;
    if (is_int($leftOut) && $leftOut > 0)
        $html .= '<p>' . h(number_format($leftOut)) . " frames between the innermost and the outermost are left out.</p>\n";
    $fromProcess = $thread['from_process'] ?? 0;
    if (is_int($fromProcess) && $fromProcess > 0)
        $html .= '<p>The last ' . h($fromProcess) . " frames are the return addresses the crash handler found in the process: the call-frame information went no further.</p>\n";
    return $html;
}

// How to open the minicore: eu-stack through the vendor's debuginfod; gdb with each module's
// executable fetched first, as gdb fetches only the main executable of a core itself.
function minicoreRecipe(string $id, array $modules, string $main): string
{
    $urls = (string) (serviceConfig()['debuginfod_urls'] ?? '');
    $urls = $urls === '' ? 'https://debuginfod.example.com' : $urls;
    $core = "$id.core";
    $fetch = '';
    foreach ($modules as $name => $buildId)
        $fetch .= 'cp "$(debuginfod-find executable ' . $buildId . ')" modules/' . $name . "\n";
    return '<p><a href="' . h(reportUrl($id) . '/minicore') . '">' . h($core) . "</a>: every thread's registers and stack, "
         . "the modules' headers and build IDs, no heap.</p>\n"
         . "<pre class=\"log\">" . h("export DEBUGINFOD_URLS='$urls'\neu-stack --core=$core\n\n"
         . "mkdir -p modules\n$fetch"
         . "gdb -ex 'set sysroot modules' -ex 'set solib-search-path modules' -ex 'file modules/$main' -ex 'core-file $core' -ex 'thread apply all bt'")
         . "</pre>\n";
}

// The modules of the frames shown, by file name, with their build IDs, the crashing thread's first;
// only names that a shell takes as they are, as the recipe is pasted into one.
function frameModules(array $frameLists): array
{
    $modules = [];
    foreach ($frameLists as $frames) {
        foreach (is_array($frames) ? $frames : [] as $frame) {
            $module = $frame['module'] ?? null;
            $buildId = $frame['build_id'] ?? null;
            if (is_string($module) && is_string($buildId) && preg_match('/^[0-9a-f]{2,128}$/', $buildId) && preg_match('/^[A-Za-z0-9._+-]+$/', $module))
                $modules[$module] ??= $buildId;
        }
    }
    return $modules;
}

servePage(function () {
    $db = pagesDatabase();
    $id = $_SERVER['REPORT_ID'] ?? '';
    if ($id === '')
        findReport($db, queryParam('id'));
    if (!isReportId($id))
        throw new PageError(404, 'There is no such report.');
    $query = $db->prepare('SELECT r.*, p.signature, p.rule_version, p.signal, p.address, p.frames, p.processed_at,'
                          . ' p.threads, p.message, p.capture FROM reports r LEFT JOIN processed p ON p.report_id = r.id WHERE r.id = ?');
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
    if ($report['message'] !== null)
        echo '<pre class="message">', h($report['message']), "</pre>\n";
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
    $threads = $report['threads'] === null ? null : json_decode($report['threads'], true, 16);
    if (is_array($threads)) {
        $items['Threads'] = h(match ($report['capture']) {
            'self' => 'only the crashing thread: the crash handler could not attach to the others (ptrace refused)',
            default => count($threads) . (count($threads) === 1 ? ' thread' : ' threads') . ', captured with ptrace',
        });
    }
    $items['Archive'] = match (true) {
        $stored => '<a href="' . h(reportUrl($id) . '/archive') . '">' . h("$id.zip") . '</a>, ' . h(number_format((int) $report['size'])) . ' bytes',
        $report['archive_removed_at'] !== null => 'removed from the store on ' . h(utc((int) $report['archive_removed_at'])) . ', as it was older than the service keeps archives',
        default => '<span class="error">missing from the store</span>',
    };
    echo definitionList($items);
    echo "<h2>Description</h2>\n<p class=\"description\">", $report['description'] === '' ? '<em>none given</em>' : h($report['description']), "</p>\n";
    if (is_array($threads)) {
        $crashed = array_values(array_filter($threads, fn ($t) => is_array($t) && ($t['crashed'] ?? false) === true))[0] ?? [];
        echo "<h2>Crashing thread</h2>\n", threadFrames($crashed);
        if (count($threads) > 1)
            echo "<h2>Other threads</h2>\n", otherThreads($report['threads']);
        if ($stored) {
            // The program is the module of the crashing thread's outermost frame (its _start).
            $outer = array_values(array_filter(is_array($crashed['frames'] ?? null) ? $crashed['frames'] : [],
                                               fn ($f) => is_array($f) && is_string($f['module'] ?? null)));
            $modules = frameModules(array_merge([$crashed['frames'] ?? []], array_column(array_filter($threads, 'is_array'), 'frames')));
            $main = $outer ? (string) end($outer)['module'] : '';
            echo "<h2>Minicore</h2>\n", minicoreRecipe($id, $modules, isset($modules[$main]) ? $main : 'PROGRAM');
        }
    } elseif ($report['frames'] !== null) {
        echo "<h2>Stack</h2>\n", framesTable($report['frames']);
    }

    $log = $stored ? readLog($path) : null;
    if ($log !== null) {
        $cut = $log['size'] > strlen($log['text']);
        echo '<h2>Log: ', h($log['name']), $cut ? h(', the first ' . number_format(strlen($log['text'])) . ' of ' . number_format($log['size']) . ' bytes') : '',
            "</h2>\n<pre class=\"log\">", h(preg_replace('/[\x00-\x08\x0b\x0c\x0e-\x1f\x7f]/', "\u{fffd}", $log['text'])), "</pre>\n";
    }
    pageEnd();
});
