#!/usr/bin/env bash
# Prints test code lines against the other code lines (cloc's code column) and their ratio.
# Test code is everything under tests/; the other code is every other file in the repository
# that cloc counts as code. Prose (Markdown), sample data (INI, the fuzz seeds, plain-text
# lists and recorded tables) and the translation catalogues (which cloc would take for
# TypeScript) are not code.
set -euo pipefail
cd "$(dirname "$0")/.."

count() {
    cloc --quiet --csv --exclude-lang=Markdown,INI,Text --list-file=- | awk -F, '$2 == "SUM" { print $5 }'
}

tests=$(git ls-files tests | count)
other=$(git ls-files | grep -Ev '^(tests|translations|fuzz/corpus)/' | count)
awk -v t="$tests" -v o="$other" 'BEGIN { printf "test code %d, other code %d, ratio %.2f\n", t, o, t / o }'
