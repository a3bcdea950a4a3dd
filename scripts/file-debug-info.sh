#!/usr/bin/env bash
# Files a release's binaries and their debug information into the layout that velmora-processor,
# debuginfod and the distributions use, named by build ID: DEST/.build-id/ab/cdef….debug for the
# debug file, DEST/.build-id/ab/cdef… for the binary itself, whose call-frame information
# unwinding needs.
#   scripts/file-debug-info.sh DEST FILE_OR_FOLDER...
# Every ELF file given, or found under a folder given, is copied with objcopy --only-keep-debug
# (executables and libraries built with -g, or debug files already split off), and copied as it
# is unless it is a debug file already. A file without a build ID cannot be found by one and is
# named and left out; the run then ends with code 1.
set -euo pipefail

if [ $# -lt 2 ] || [ "$1" = --help ]; then
    sed -n '2,10s/^# \{0,1\}//p' "$0" >&2
    exit 2
fi
dest=$1
shift
objcopy=${OBJCOPY:-objcopy}
command -v "$objcopy" readelf >/dev/null || { echo "file-debug-info: needs objcopy and readelf (binutils)" >&2; exit 2; }

filed=0 skipped=0
file_one() {
    local file=$1 id target
    # Only ELF files: a release folder also holds data, scripts and translations.
    [ "$(head -c 4 "$file" | od -An -c | tr -d ' ')" = '177ELF' ] || return 0
    id=$(LC_ALL=C readelf --notes "$file" 2>/dev/null | awk '/Build ID:/ { print $3; exit }')
    if [ -z "$id" ]; then
        echo "file-debug-info: $file has no build ID; left out (link with -Wl,--build-id)" >&2
        skipped=$((skipped + 1))
        return 0
    fi
    target=$dest/.build-id/${id:0:2}/${id:2}.debug
    mkdir -p "${target%/*}"
    "$objcopy" --only-keep-debug "$file" "$target.tmp"
    mv -f "$target.tmp" "$target"
    # A debug file split off holds its code as NOBITS: it is no binary to unwind with.
    if ! LC_ALL=C readelf --sections --wide "$file" 2>/dev/null | grep -Eq '\.text +NOBITS'; then
        cp "$file" "${target%.debug}.tmp"
        mv -f "${target%.debug}.tmp" "${target%.debug}"
    fi
    if ! LC_ALL=C readelf --sections "$target" 2>/dev/null | grep -q '\.debug_info'; then
        echo "file-debug-info: $file has no debug information, only its symbol table (build with -g)" >&2
    fi
    echo "$id $file"
    filed=$((filed + 1))
}

for source in "$@"; do
    if [ -d "$source" ]; then
        while IFS= read -r -d '' file; do
            file_one "$file"
        done < <(find "$source" -type f -print0 | sort -z)
    elif [ -f "$source" ]; then
        file_one "$source"
    else
        echo "file-debug-info: $source: no such file or folder" >&2
        exit 2
    fi
done
echo "Filed $filed debug files in $dest/.build-id" >&2
[ "$skipped" -eq 0 ]
