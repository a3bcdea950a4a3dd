<?php
// /crashes/signature?s=SIGNATURE: one crash's history (a plot of its reports per day), its
// counts by version, its newest reports and the stack of the newest one.
declare(strict_types=1);
require __DIR__ . '/../lib/html.php';

const HISTORY_DAYS = 90;
const NEWEST_REPORTS = 20;
// Signatures are at most 255 characters, each at most 4 bytes in UTF-8.
const SIGNATURE_MAX_BYTES = 1020;

function countsByVersion(PDO $db, string $signature): array
{
    $query = $db->prepare('SELECT version, SUM(count) AS n, MIN(day) AS first, MAX(day) AS last FROM signature_days'
                          . ' WHERE signature = ? GROUP BY version ORDER BY n DESC, version');
    $query->execute([$signature]);
    return $query->fetchAll(PDO::FETCH_ASSOC);
}

function countsByDay(PDO $db, string $signature, string $from): array
{
    $query = $db->prepare('SELECT day, SUM(count) FROM signature_days WHERE signature = ? AND day >= ? GROUP BY day');
    $query->execute([$signature, $from]);
    return array_map('intval', $query->fetchAll(PDO::FETCH_KEY_PAIR));
}

// Report ids begin with their UTC day, so the newest reports all lie on or after the day of the
// NEWEST_REPORTS-th highest id: only those days' reports are read and sorted by time.
function newestReports(PDO $db, string $signature): array
{
    $nth = $db->prepare('SELECT report_id FROM processed WHERE signature = ? ORDER BY report_id DESC LIMIT 1 OFFSET ' . (NEWEST_REPORTS - 1));
    $nth->execute([$signature]);
    $fromDay = substr((string) $nth->fetchColumn(), 0, 8);
    $query = $db->prepare('SELECT r.id, r.received_at, r.version, r.description FROM processed p'
                          . ' JOIN reports r ON r.id = p.report_id WHERE p.signature = ? AND p.report_id >= ?'
                          . ' ORDER BY r.received_at DESC, r.id DESC LIMIT ' . NEWEST_REPORTS);
    $query->execute([$signature, $fromDay]);
    return $query->fetchAll(PDO::FETCH_ASSOC);
}

// Reports per day as bars, drawn here so that the page needs no script and no outside source.
function historyPlot(array $perDay, int $now): string
{
    [$width, $height, $left, $bottom, $bar] = [720, 150, 40, 20, 8];
    $max = max(1, ...array_values($perDay ?: [0]));
    $svg = '<svg class="plot" viewBox="0 0 ' . ($left + HISTORY_DAYS * $bar + 16) . " $height\" role=\"img\" aria-label=\"Reports per day\">\n"
         . '<line class="axis" x1="' . $left . '" y1="' . ($height - $bottom) . '" x2="' . ($left + HISTORY_DAYS * $bar) . '" y2="' . ($height - $bottom) . "\"/>\n"
         . '<text class="label" x="' . ($left - 4) . '" y="12" text-anchor="end">' . h($max) . "</text>\n"
         . '<text class="label" x="' . ($left - 4) . '" y="' . ($height - $bottom) . "\" text-anchor=\"end\">0</text>\n";
    for ($i = 0; $i < HISTORY_DAYS; ++$i) {
        $day = gmdate('Y-m-d', $now - (HISTORY_DAYS - 1 - $i) * 86400);
        $x = $left + $i * $bar;
        $n = $perDay[$day] ?? 0;
        if ($n > 0) {
            $h = max(1, round(($height - $bottom - 14) * $n / $max));
            $svg .= '<rect class="bar" x="' . ($x + 1) . '" y="' . ($height - $bottom - $h) . '" width="' . ($bar - 2) . "\" height=\"$h\"><title>"
                  . h("$day: $n") . "</title></rect>\n";
        }
        if (($i - HISTORY_DAYS + 1) % 14 === 0)
            $svg .= '<text class="label" x="' . ($x + $bar / 2) . '" y="' . ($height - 4) . '" text-anchor="middle">' . h(substr($day, 5)) . "</text>\n";
    }
    return $svg . "</svg>\n";
}

servePage(function () {
    $signature = queryParam('s');
    if ($signature === '' || strlen($signature) > SIGNATURE_MAX_BYTES)
        throw new PageError(400, 'A signature is given as s=…, at most 255 characters.');
    $db = pagesDatabase();
    $versions = countsByVersion($db, $signature);
    $reports = newestReports($db, $signature);
    if (!$versions && !$reports)
        throw new PageError(404, "No report has the signature \"$signature\".");
    $now = time();
    $perDay = countsByDay($db, $signature, gmdate('Y-m-d', $now - (HISTORY_DAYS - 1) * 86400));

    pageStart($signature);
    echo '<p class="crumbs"><a href="', h(PAGES), '">Top crashes</a> › signature</p>
<h1 class="signature">', h($signature), "</h1>\n";
    echo '<h2>Reports per day, last ', h(HISTORY_DAYS), ' days: ', h(number_format(array_sum($perDay))), "</h2>\n", historyPlot($perDay, $now);

    echo "<h2>By version</h2>\n<table><thead><tr><th>Version</th><th>Reports</th><th>First seen</th><th>Last seen</th></tr></thead>\n<tbody>\n";
    foreach ($versions as $row)
        echo '<tr><td>', h($row['version']), '</td><td class="number">', h(number_format((int) $row['n'])), '</td><td>',
            h($row['first']), '</td><td>', h($row['last']), "</td></tr>\n";
    echo "</tbody></table>\n";

    echo "<h2>Newest reports</h2>\n<table class=\"reports\"><thead><tr><th>Received</th><th>Report</th><th>Version</th>",
        "<th>Description</th></tr></thead>\n<tbody>\n";
    foreach ($reports as $report)
        echo '<tr><td>', h(utc((int) $report['received_at'])), '</td><td><a href="', h(reportUrl($report['id'])), '">', h($report['id']),
            '</a></td><td>', h($report['version']), '</td><td class="description">', h(shortened($report['description'], 300)), "</td></tr>\n";
    echo "</tbody></table>\n";

    if ($reports) {
        $frames = $db->prepare('SELECT frames FROM processed WHERE report_id = ?');
        $frames->execute([$reports[0]['id']]);
        echo '<h2>Stack of the newest report, <a href="', h(reportUrl($reports[0]['id'])), '">', h($reports[0]['id']), "</a></h2>\n",
            framesTable((string) $frames->fetchColumn());
    }
    pageEnd();
});
