#!/usr/bin/env bash
# Prints test code lines against the other code lines (cloc's code column) and their ratio.
# Prose (Markdown) and sample data (INI) are no code; .ts catalogues are not counted either.
set -euo pipefail
cd "$(dirname "$0")/.."

count() {
    cloc --quiet --csv --exclude-lang=Markdown,INI "$@" | awk -F, '$2 == "SUM" { print $5 }'
}

tests=$(count tests)
# The other code as the suite's budget was set: the sender's own folders and every CMake file.
other=$(count src tools bench fuzz scripts .ci $(git ls-files '*CMakeLists.txt' '*.cmake' | grep -v '^tests/'))
awk -v t="$tests" -v o="$other" 'BEGIN { printf "test code %d, other code %d, ratio %.2f\n", t, o, t / o }'
