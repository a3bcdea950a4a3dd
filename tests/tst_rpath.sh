#!/bin/sh
# A vendor's own Qt or QuaZip in lib/ beside the program must win over LD_LIBRARY_PATH, for the
# program's libraries and for the libraries that those need in turn.
# Usage: tst_rpath.sh <error_report> <scratch folder>
set -eu
exe=$1
rm -rf "$2" && mkdir -p "$2/bin/lib" "$2/elsewhere"
dir=$(cd "$2" && pwd -P)
cp "$exe" "$dir/bin/error_report"
# QuaZip is the program's own dependency, double-conversion only Qt Core's.
libs="libquazip1-qt5.so.1 libdouble-conversion.so.3"
for lib in $libs; do
    path=$(ldd "$exe" | awk -v lib="$lib" '$1 == lib { print $3 }')
    cp "$path" "$dir/bin/lib/" && cp "$path" "$dir/elsewhere/"
done
# Without arguments the program ends at once, once the loader has done its work.
LD_DEBUG=libs LD_LIBRARY_PATH="$dir/elsewhere" "$dir/bin/error_report" 2>"$dir/loader.txt"
status=0
for lib in $libs; do
    if ! grep -qF "calling init: $dir/bin/lib/$lib" "$dir/loader.txt"; then
        echo "$lib not taken from bin/lib/:" && grep "calling init: .*/$lib" "$dir/loader.txt"
        status=1
    fi
done
exit $status
