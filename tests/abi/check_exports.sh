#!/bin/sh
# check_exports.sh [--sanitized] NM LIBRARY LIST: the dynamic symbols LIBRARY defines are exactly LIST (one a
# line, sorted), besides the toolchain's _init and _fini and, with --sanitized, ASan's ODR indicators.
set -eu
skip='^(_init|_fini)$'
[ "$1" != --sanitized ] || { skip='^(_init|_fini|__odr_asan[.].*)$'; shift; }
nm=$1 lib=$2 list=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export LC_ALL=C
# "<value> <type> <name>[@@version]"; a failing nm leaves every listed name missing.
"$nm" -D --defined-only "$lib" | awk 'NF >= 3 { sub(/@.*/, "", $3); print $3 }' | grep -v -E "$skip" |
    sort -u >"$tmp/actual"
grep -v -e '^[[:space:]]*$' -e '^#' "$list" >"$tmp/expected" || true
sort -c -u "$tmp/expected" || { echo "$list is not sorted (LC_ALL=C sort -u) or has duplicates"; exit 1; }
comm -3 "$tmp/expected" "$tmp/actual" |
    sed -e 's/^\t/UNEXPECTED, not listed: /' -e t -e 's/^/MISSING, not exported: /' >"$tmp/diff"
[ ! -s "$tmp/diff" ] || { cat "$tmp/diff"; echo "export only what zq_diag.h declares, or update $list"; exit 1; }
echo "exports match: $(wc -l <"$tmp/actual") symbols"
