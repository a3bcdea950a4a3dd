<?php
// /crashes/?days=1|7|28&version=V: the most frequent crashes of the last days, from the daily
// counts, each against the period of the same length before it.
declare(strict_types=1);
require __DIR__ . '/../lib/html.php';

const PERIODS = [1, 7, 28];
const DEFAULT_DAYS = 7;
const TOP_ROWS = 50;
const VERSIONS_SHOWN = 4;
// The version chooser lists the most reported ones.
const VERSIONS_LISTED = 50;

// The days as the daily counts name them: the last $days UTC days up to today, and the same
// number just before.
function periods(int $days, int $now): array
{
    $day = fn (int $back) => gmdate('Y-m-d', $now - $back * 86400);
    return ['from' => $day($days - 1), 'to' => $day(0), 'before_from' => $day(2 * $days - 1), 'before_to' => $day($days)];
}

// Hostile reports can make a row of daily counts each, so the database ranks and the page takes
// only what it shows: the top rows, each one's most frequent versions, and the versions most
// reported for the chooser. Then the shown rows are looked up again, by signature, for their
// earlier counts and their first day.
function topCrashes(PDO $db, array $period, string $version): array
{
    $only = $version === '' ? '' : ' AND version = ?';
    $inPeriod = array_merge([$period['from'], $period['to']], $version === '' ? [] : [$version]);
    $sum = $db->prepare("SELECT COALESCE(SUM(count), 0) FROM signature_days WHERE day >= ? AND day <= ?$only");
    $sum->execute($inPeriod);
    $total = (int) $sum->fetchColumn();
    // Ties in name order, so that the rows stay in place from one look to the next.
    $top = $db->prepare("SELECT signature, SUM(count) AS n FROM signature_days WHERE day >= ? AND day <= ?$only"
                        . ' GROUP BY signature ORDER BY n DESC, signature LIMIT ' . TOP_ROWS);
    $top->execute($inPeriod);
    $rows = [];
    foreach ($top as [$signature, $n])
        $rows[(string) $signature] = (int) $n;

    $chooser = $db->prepare('SELECT version, SUM(count) AS n FROM signature_days WHERE day >= ? AND day <= ?'
                            . ' GROUP BY version ORDER BY n DESC, version LIMIT ' . VERSIONS_LISTED);
    $chooser->execute([$period['from'], $period['to']]);
    $versions = [];
    foreach ($chooser as [$v, $n])
        $versions[(string) $v] = (int) $n;
    uksort($versions, fn ($a, $b) => version_compare((string) $b, (string) $a));

    $sum->execute(array_merge([$period['before_from'], $period['before_to']], $version === '' ? [] : [$version]));
    $earlierTotal = (int) $sum->fetchColumn();

    $earlier = $versionsOf = $versionCount = [];
    if ($rows) {
        $marks = implode(', ', array_fill(0, count($rows), '?'));
        $history = $db->prepare("SELECT signature, MIN(day), SUM(CASE WHEN day >= ? AND day <= ?$only THEN count ELSE 0 END)"
                                . " FROM signature_days WHERE signature IN ($marks) GROUP BY signature");
        $history->execute(array_merge([$period['before_from'], $period['before_to']], $version === '' ? [] : [$version],
                                      array_keys($rows)));
        foreach ($history as [$signature, $first, $n])
            $earlier[$signature] = ['first' => $first, 'count' => (int) $n];
        // Each row's versions, most reports first, as many as are shown, and how many there are.
        $ranked = $db->prepare('SELECT signature, version, n, place, versions FROM (SELECT signature, version, SUM(count) AS n,'
                               . ' ROW_NUMBER() OVER (PARTITION BY signature ORDER BY SUM(count) DESC, version DESC) AS place,'
                               . ' COUNT(*) OVER (PARTITION BY signature) AS versions FROM signature_days'
                               . " WHERE day >= ? AND day <= ?$only AND signature IN ($marks) GROUP BY signature, version) ranked"
                               . ' WHERE place <= ' . VERSIONS_SHOWN . ' ORDER BY signature, place');
        $ranked->execute(array_merge($inPeriod, array_keys($rows)));
        foreach ($ranked as [$signature, $v, $n, $place, $count]) {
            $versionsOf[$signature][] = (string) $v;
            $versionCount[$signature] = (int) $count;
        }
    }

    $table = [];
    foreach ($rows as $signature => $n) {
        $before = $earlier[$signature]['count'] ?? 0;
        $table[] = [
            'signature' => $signature,
            'count' => $n,
            'share' => 100 * $n / $total,
            'change' => $before === 0 ? null : 100 * $n / $total - 100 * $before / max(1, $earlierTotal),
            'first' => $earlier[$signature]['first'] ?? '',
            'versions' => $versionsOf[$signature] ?? [],
            'more_versions' => ($versionCount[$signature] ?? 0) > count($versionsOf[$signature] ?? []),
        ];
    }
    return [$table, $total, $versions];
}

function change(?float $points): string
{
    if ($points === null)
        return '<span class="new">new</span>';
    if (abs($points) < 0.05)
        return '0.0';
    return '<span class="' . ($points < 0 ? 'down' : 'up') . '">' . h(str_replace('-', '−', sprintf('%+.1f', $points))) . '</span>';
}

servePage(function () {
    $days = queryParam('days', (string) DEFAULT_DAYS);
    if (!in_array($days, array_map('strval', PERIODS), true))
        throw new PageError(400, 'The period is 1, 7 or 28 days, not "' . shortened($days, 40) . '".');
    $days = (int) $days;
    $version = queryParam('version');
    $now = time();
    $period = periods($days, $now);
    [$rows, $total, $versions] = topCrashes(pagesDatabase(), $period, $version);

    pageStart('Top crashes');
    echo '<h1>Top crashes</h1>
<form class="choose" method="get" action="', h(PAGES), '">
<label>Last <select name="days">';
    foreach (PERIODS as $n)
        echo '<option value="', h($n), '"', $n === $days ? ' selected' : '', '>', h($n === 1 ? '1 day' : "$n days"), '</option>';
    echo '</select></label>
<label>Version <select name="version"><option value="">all versions</option>';
    if ($version !== '' && !isset($versions[$version]))
        $versions = [$version => 0] + $versions;
    foreach ($versions as $v => $n)
        echo '<option value="', h($v), '"', (string) $v === $version ? ' selected' : '', '>', h("$v ($n)"), '</option>';
    echo '</select></label>
<button type="submit">Show</button>
</form>
<p class="summary">', h(number_format($total)), ' reports', $version === '' ? '' : ' of version <strong>' . h($version) . '</strong>',
        ' from ', h($period['from']), ' to ', h($period['to']), ' (UTC days, today so far), as of ', h(utc($now)), '.
Change is in percentage points of all reports against ', h($period['before_from']), ' to ', h($period['before_to']), ".</p>\n";
    if (!$rows) {
        echo "<p>No crashes in this period.</p>\n";
        pageEnd();
        return;
    }
    echo '<table class="top"><thead><tr><th>Rank</th><th>Signature</th><th>Count</th><th>% of all</th><th>Change</th>',
        "<th>First seen</th><th>Versions</th></tr></thead>\n<tbody>\n";
    foreach ($rows as $rank => $row) {
        echo '<tr><td>', h($rank + 1), '</td><td class="signature"><a href="', h(signatureUrl($row['signature'])), '">',
            h($row['signature']), '</a></td><td class="number">', h(number_format($row['count'])), '</td><td class="number">',
            h(sprintf('%.2f', $row['share'])), '</td><td class="number">', change($row['change']), '</td><td>', h($row['first']),
            '</td><td>', h(implode(', ', $row['versions']) . ($row['more_versions'] ? ', …' : '')), "</td></tr>\n";
    }
    echo "</tbody></table>\n";
    pageEnd();
});
