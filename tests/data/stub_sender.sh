#!/bin/sh
# Stands in for error_report: records the arguments it got, then its parent and session.
record="$2/sender-$$.txt"
{ printf '%s\n' "$@"; cut -d' ' -f4,6 /proc/$$/stat; } > "$record.part"
mv "$record.part" "$record"
