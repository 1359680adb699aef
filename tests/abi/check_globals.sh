#!/bin/sh
# check_globals.sh NM ARCHIVE EXPORTS: every function and object the library's objects define outside a
# namespace is one of EXPORTS; internal names live in namespace zq or have internal linkage.
set -eu
others=$("$1" -C --defined-only "$2" 2>/dev/null |
    awk 'NF >= 3 && $2 ~ /^[TDBRVW]$/ { $1 = ""; $2 = ""; sub(/^  /, ""); print }' |
    sed -e 's/(.*//' -e 's/<.*//' -e 's/^.* //' | grep -v -e '::' -e '^_' -e '^typeinfo' -e '^vtable' |
    sort -u | grep -v -x -F -f "$3" || true)
[ -z "$others" ] || { echo "defined in the global namespace but not exported:"; echo "$others"; exit 1; }
echo "global namespace: exported names only"
