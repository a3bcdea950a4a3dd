<?php
// What every crash-stats page shares: h(), the one way any text reaches a page; the page's frame
// with the report finder; checked query parameters; the read-only database; errors as pages.
declare(strict_types=1);
require_once __DIR__ . '/config.php';
require_once __DIR__ . '/db.php';
require_once __DIR__ . '/store.php';

const PAGES = '/crashes/';

// A request the page refuses, or something it does not have: a status and a sentence.
final class PageError extends Exception
{
    public function __construct(public readonly int $status, string $message)
    {
        parent::__construct($message);
    }
}

function h(string|int|float|null $text): string
{
    return htmlspecialchars((string) $text, ENT_QUOTES | ENT_SUBSTITUTE | ENT_HTML5, 'UTF-8');
}

// A URL under the pages, with its query; still to be passed through h() like any text.
function pageUrl(string $path, array $query = []): string
{
    $query = array_filter($query, fn ($value) => $value !== null && $value !== '');
    return PAGES . $path . ($query ? '?' . http_build_query($query, '', '&', PHP_QUERY_RFC3986) : '');
}

function reportUrl(string $id): string
{
    return pageUrl("report/$id");
}

function signatureUrl(string $signature): string
{
    return pageUrl('signature', ['s' => $signature]);
}

// A query parameter as a string, or $default when absent; a repeated name (of which PHP keeps
// the last) or a bracketed one (PHP makes those arrays) is refused rather than guessed at. Text
// that is not UTF-8 matches nothing stored, on any database.
function queryParam(string $name, string $default = ''): string
{
    $value = $_GET[$name] ?? $default;
    $given = array_filter(explode('&', $_SERVER['QUERY_STRING'] ?? ''),
                          fn ($pair) => urldecode(explode('=', $pair, 2)[0]) === $name);
    if (!is_string($value) || count($given) > 1)
        throw new PageError(400, "The parameter \"$name\" is given more than once.");
    if (preg_match('//u', $value) !== 1)
        throw new PageError(404, "Nothing has the \"$name\" asked for: it is not UTF-8 text.");
    return $value;
}

// The pages never write: the connection itself refuses to. Each PHP worker keeps it for its
// next page, apart from the upload endpoint's, which must stay writable.
function pagesDatabase(): PDO
{
    $db = openDatabase(serviceConfig()['db'], 'crash-pages');
    $db->exec(isPostgres($db) ? 'SET default_transaction_read_only = on' : 'PRAGMA query_only = ON');
    return $db;
}

// The archive of the report that nginx named (REPORT_ID), as long as the store keeps it: its id
// and path. Pages that serve it answer 404 or 410 otherwise.
function keptArchive(): array
{
    $id = $_SERVER['REPORT_ID'] ?? '';
    if (!isReportId($id))
        throw new PageError(404, 'There is no such report.');
    $query = pagesDatabase()->prepare('SELECT archive_removed_at FROM reports WHERE id = ?');
    $query->execute([$id]);
    $removed = $query->fetchColumn();
    if ($removed === false)
        throw new PageError(404, "There is no report $id.");
    if ($removed !== null)
        throw new PageError(410, "The archive of report $id was removed from the store on " . utc((int) $removed)
                            . ', as it was older than the service keeps archives.');
    $path = (new FileStore(serviceConfig()['store']))->path($id);
    if (!is_file($path))
        throw new PageError(404, "The archive of report $id is missing from the store.");
    return [$id, $path];
}

function utc(int $time): string
{
    return gmdate('Y-m-d H:i:s', $time) . ' UTC';
}

// At most $bytes of UTF-8 text, cut between characters, with an ellipsis when cut.
function shortened(string $text, int $bytes): string
{
    if (strlen($text) <= $bytes)
        return $text;
    while ($bytes > 0 && (ord($text[$bytes]) & 0xc0) === 0x80)
        --$bytes;
    return substr($text, 0, $bytes) . '…';
}

function pageStart(string $title): void
{
    header('Content-Type: text/html; charset=utf-8');
    echo '<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>', h($title), ' · Velmora 3 crash reports</title>
<link rel="stylesheet" href="', h(pageUrl('style.css')), '">
</head>
<body>
<header>
<a class="home" href="', h(PAGES), '">Velmora 3 crash reports</a>
<form class="find" method="get" action="', h(pageUrl('report')), '">
<label for="find-id">Report id</label>
<input id="find-id" name="id" size="28" placeholder="20261124-0123456789abcdef" required>
<button type="submit">Find</button>
</form>
</header>
<main>
';
}

function pageEnd(): void
{
    echo "</main>\n</body>\n</html>\n";
}

// Runs a page; what it refuses becomes a page of its own with the status, and a failure a plain
// apology, with the details in the service's PHP log rather than in front of the user.
function servePage(callable $page): void
{
    try {
        ob_start();
        $page();
        ob_end_flush();
    } catch (Throwable $e) {
        ob_end_clean();
        if (!$e instanceof PageError) {
            error_log('crash-stats pages: ' . $e);
            $e = new PageError(500, 'The page failed; the service\'s PHP log tells why.');
        }
        http_response_code($e->status);
        pageStart('Error ' . $e->status);
        echo '<h1>', h($e->status === 500 ? 'Something went wrong' : 'Not shown'), "</h1>\n<p class=\"error\">", h($e->getMessage()), "</p>\n";
        pageEnd();
    }
}

// The symbolized stack, innermost first. A frame with inlined functions is several lines with
// one frame number; the inlined ones are marked. Malformed entries show as far as they go.
function framesTable(string $json, int $limit = 256): string
{
    $frames = json_decode($json, true, 8);
    if (!is_array($frames) || !array_is_list($frames))
        return '<p>The frames are not readable.</p>';
    if (!$frames)
        return '<p>No frames.</p>';
    $text = fn ($frame, $key) => is_scalar($frame[$key] ?? null) ? (string) $frame[$key] : '';
    $html = '<table class="frames"><thead><tr><th>Frame</th><th>Function</th><th>File:line</th>'
          . "<th>Module+offset</th></tr></thead>\n<tbody>\n";
    $previous = null;
    foreach (array_slice($frames, 0, $limit) as $frame) {
        $frame = is_array($frame) ? $frame : [];
        $number = $text($frame, 'frame');
        $inlined = ($frame['inlined'] ?? false) === true;
        $function = $text($frame, 'function');
        $file = $text($frame, 'file');
        $line = $text($frame, 'line');
        $module = $text($frame, 'module');
        $offset = $text($frame, 'offset');
        $html .= '<tr' . ($inlined ? ' class="inlined"' : '') . '><td>' . ($number === $previous ? '' : h($number)) . '</td><td>'
               . ($function === '' ? '<span class="unknown">?</span>' : '<code>' . h($function) . '</code>')
               . ($inlined ? ' <span class="tag">inlined</span>' : '')
               . (($frame['symbol_table'] ?? false) === true && $function !== ''
                  ? ' <span class="tag" title="named from the module\'s symbol table: no debug file, so no file or line">symbol table</span>' : '')
               . '</td><td>'
               . ($file === '' ? '' : h($file . ($line === '' ? '' : ":$line"))) . '</td><td>'
               . h($module . ($offset === '' ? '' : "+$offset")) . "</td></tr>\n";
        $previous = $number;
    }
    $html .= "</tbody></table>\n";
    if (count($frames) > $limit)
        $html .= '<p>' . h(count($frames) - $limit) . " more frames not shown.</p>\n";
    return $html;
}
