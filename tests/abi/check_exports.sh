#!/bin/sh
# check_exports.sh [--sanitized] NM LIBRARY LIST
# The dynamic symbols LIBRARY defines must be exactly the names in LIST
# (one per line, sorted). _init and _fini, which the toolchain adds, are
# ignored, and in a sanitizer build (--sanitized) AddressSanitizer's ODR
# indicators of exported objects (__odr_asan.NAME); nothing else is.
set -eu
sanitized=0
if [ "${1:-}" = --sanitized ]; then
    sanitized=1
    shift
fi
nm=$1 lib=$2 list=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export LC_ALL=C

if ! "$nm" -D --defined-only "$lib" >"$tmp/nm.out"; then
    echo "cannot list the dynamic symbols of $lib with $nm" >&2
    exit 1
fi
# "<value> <type> <name>[@@version]"; undefined symbols are already gone.
awk 'NF >= 3 { sub(/@.*/, "", $3); print $3 }' "$tmp/nm.out" |
    grep -v -x -e _init -e _fini |
    if [ $sanitized -eq 1 ]; then grep -v -e '^__odr_asan[.]'; else cat; fi | sort -u >"$tmp/actual"
grep -v -e '^[[:space:]]*$' -e '^#' "$list" >"$tmp/expected_raw" || true
sort -u "$tmp/expected_raw" >"$tmp/expected"
if ! cmp -s "$tmp/expected_raw" "$tmp/expected"; then
    echo "$list is not sorted (LC_ALL=C sort -u) or has duplicates" >&2
    exit 1
fi

comm -23 "$tmp/expected" "$tmp/actual" >"$tmp/missing"
comm -13 "$tmp/expected" "$tmp/actual" >"$tmp/extra"
echo "$lib: $(wc -l <"$tmp/actual") exported symbols, $(wc -l <"$tmp/expected") in $(basename "$list")"
if [ -s "$tmp/missing" ] || [ -s "$tmp/extra" ]; then
    if [ -s "$tmp/missing" ]; then
        echo "MISSING: listed but not exported by the library:"
        sed 's/^/    - /' "$tmp/missing"
    fi
    if [ -s "$tmp/extra" ]; then
        echo "UNEXPECTED: exported by the library but not listed:"
        grep -F -w -f "$tmp/extra" "$tmp/nm.out" | sed 's/^/    + /'
    fi
    echo "Export only what zq_diag.h declares with ZQ_EXPORT; when the interface"
    echo "changes on purpose, update $list."
    exit 1
fi
echo "exports match"
