#!/usr/bin/env bash
# Prints each frame of a crash dump with its function, file and line:
#
#   scripts/symbolize.sh DUMP|ARCHIVE
#
# A report archive's dump is the entry that the service takes for it (scripts/crash-dump.php).
# A minicore (format 3, crash-*.core) is an ELF core: eu-stack unwinds every thread in it from
# the stacks it holds and the modules' call-frame information, finding the modules by the paths
# in its NT_FILE note. After them come, for every format, the crashing thread's return addresses
# as the handler found them in the process (the only frames formats 1 and 2 have).
#
# eu-addr2line (elfutils) reads the dump's memory map and takes the run-time addresses as they
# are, so one recipe holds for PIE and non-PIE programs, shared libraries and any linker. It
# needs the very builds that crashed at the paths the map names, or their debug files from
# debuginfod (DEBUGINFOD_URLS). A file there whose build ID differs from the one the dump
# recorded is named on stderr: its frames would name the wrong functions.
set -euo pipefail
# eu-readelf's output is parsed below: its words, untranslated.
export LC_ALL=C
dump=$(mktemp)
maps=$(mktemp)
note=$(mktemp)
trap 'rm -f "$dump" "$maps" "$note"' EXIT
php "$(dirname "$0")/crash-dump.php" "$1" >"$dump" 2>/dev/null || { echo "symbolize: $1 is no crash dump and holds none" >&2; exit 2; }
if [ "$(head -c 4 -- "$dump")" = $'\x7fELF' ]; then
    # The note of our own is text from its magic to the NUL that pads it.
    offset=$(grep -abo -m 1 'VELMORA-CRASH 3' -- "$dump" | cut -d: -f1 | head -n 1)
    [ -n "$offset" ] || { echo "symbolize: $1 is no crash dump" >&2; exit 2; }
    head -z -n 1 < <(tail -c +$((offset + 1)) -- "$dump") | tr -d '\0' >"$note"
    # It answers 1 when a thread's walk ends early (a module without call-frame information).
    # A stack overflow built by clang can hold half a million frames: the innermost 4096 do.
    eu-stack -i -s -n 4096 --core="$dump" 2>&1 || true
    echo "The crashing thread, as the handler found it:"
else
    cp -- "$dump" "$note"
fi
case $(head -n 1 -- "$note") in
"VELMORA-CRASH 1" | "VELMORA-CRASH 2" | "VELMORA-CRASH 3") ;;
*) echo "symbolize: $1 is no crash dump" >&2; exit 2 ;;
esac
dump=$note
sed '1,/^maps:$/d' -- "$dump" >"$maps"

while read -r _ _ id path; do
    [ "$id" != none ] && [ -f "$path" ] || continue
    found=$(eu-readelf -n -- "$path" 2>/dev/null | awk '$1 == "Build" && $2 == "ID:" { print $3; exit }')
    [ "$found" = "$id" ] || echo "symbolize: $path is another build (ID ${found:-none}; the dump has $id)" >&2
done < <(grep '^module: ' -- "$dump" || true)

# Frame 0 is the faulting instruction; the others are return addresses, looked up inside
# their call instruction (address - 1): the one after it may belong to another line or function.
frames=()
lookups=()
while read -r _ number address; do
    frames+=("$address")
    [ "$number" = 0: ] && lookups+=("$address") || lookups+=("$(printf '0x%x' $((address - 1)))")
done < <(grep '^frame [0-9]*: 0x[0-9a-f]*$' -- "$dump" || true)
[ ${#frames[@]} -gt 0 ] || exit 0
# It answers 1 when some frame has no line (a stripped library): that is no failure here.
{ eu-addr2line -M "$maps" -f -i -C --pretty-print "${lookups[@]}" || [ $? -eq 1 ]; } |
    awk -v frames="${frames[*]}" 'BEGIN { split(frames, address, " ") }
        /^ / { print; next }
        { printf "#%-2d %s %s\n", n, address[n + 1], $0; n++ }'
