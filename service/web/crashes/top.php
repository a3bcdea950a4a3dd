<?php
// /crashes/?days=1|7|28&version=V: the most frequent crashes of the last days, from the daily
// counts, each against the period of the same length before it.
declare(strict_types=1);
require __DIR__ . '/../lib/html.php';

const PERIODS = [1, 7, 28];
const DEFAULT_DAYS = 7;
const TOP_ROWS = 50;
const VERSIONS_SHOWN = 4;

// The days as the daily counts name them: the last $days UTC days up to today, and the same
// number just before.
function periods(int $days, int $now): array
{
    $day = fn (int $back) => gmdate('Y-m-d', $now - $back * 86400);
    return ['from' => $day($days - 1), 'to' => $day(0), 'before_from' => $day(2 * $days - 1), 'before_to' => $day($days)];
}

// One pass over the period's daily counts gives every signature's count, each version's count
// and the versions each signature occurred in; only the shown rows are then looked up again,
// by signature, for their earlier counts and their first day.
function topCrashes(PDO $db, array $period, string $version): array
{
    $counts = $db->prepare('SELECT signature, version, SUM(count) AS n FROM signature_days'
                           . ' WHERE day >= ? AND day <= ? GROUP BY signature, version');
    $counts->execute([$period['from'], $period['to']]);
    $bySignature = $versionsOf = $versions = [];
    foreach ($counts as [$signature, $v, $n]) {
        $versions[$v] = ($versions[$v] ?? 0) + $n;
        if ($version === '' || $v === $version) {
            $bySignature[$signature] = ($bySignature[$signature] ?? 0) + $n;
            $versionsOf[$signature][$v] = (int) $n;
        }
    }
    // Ties in name order, so that the rows stay in place from one look to the next.
    uksort($bySignature, fn ($a, $b) => $bySignature[$b] <=> $bySignature[$a] ?: strcmp((string) $a, (string) $b));
    $rows = array_slice($bySignature, 0, TOP_ROWS, true);

    $only = $version === '' ? '' : ' AND version = ?';
    $sum = $db->prepare("SELECT SUM(count) FROM signature_days WHERE day >= ? AND day <= ?$only");
    $sum->execute(array_merge([$period['before_from'], $period['before_to']], $version === '' ? [] : [$version]));
    $earlierTotal = (int) $sum->fetchColumn();

    $earlier = [];
    if ($rows) {
        $marks = implode(', ', array_fill(0, count($rows), '?'));
        $history = $db->prepare("SELECT signature, MIN(day), SUM(CASE WHEN day >= ? AND day <= ?$only THEN count ELSE 0 END)"
                                . " FROM signature_days WHERE signature IN ($marks) GROUP BY signature");
        $history->execute(array_merge([$period['before_from'], $period['before_to']], $version === '' ? [] : [$version],
                                      array_map('strval', array_keys($rows))));
        foreach ($history as [$signature, $first, $n])
            $earlier[$signature] = ['first' => $first, 'count' => (int) $n];
    }

    $total = array_sum($bySignature);
    $table = [];
    foreach ($rows as $signature => $n) {
        $signature = (string) $signature;
        $before = $earlier[$signature]['count'] ?? 0;
        arsort($versionsOf[$signature]);
        $table[] = [
            'signature' => $signature,
            'count' => $n,
            'share' => 100 * $n / $total,
            'change' => $before === 0 ? null : 100 * $n / $total - 100 * $before / max(1, $earlierTotal),
            'first' => $earlier[$signature]['first'] ?? '',
            'versions' => array_map('strval', array_keys($versionsOf[$signature])),
        ];
    }
    uksort($versions, fn ($a, $b) => version_compare((string) $b, (string) $a));
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
        $shown = array_slice($row['versions'], 0, VERSIONS_SHOWN);
        echo '<tr><td>', h($rank + 1), '</td><td class="signature"><a href="', h(signatureUrl($row['signature'])), '">',
            h($row['signature']), '</a></td><td class="number">', h(number_format($row['count'])), '</td><td class="number">',
            h(sprintf('%.2f', $row['share'])), '</td><td class="number">', change($row['change']), '</td><td>', h($row['first']),
            '</td><td>', h(implode(', ', $shown) . (count($row['versions']) > count($shown) ? ', …' : '')), "</td></tr>\n";
    }
    echo "</tbody></table>\n";
    pageEnd();
});
