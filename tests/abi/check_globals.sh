#!/bin/sh
# check_globals.sh NM ARCHIVE EXPORTS: every function and object that the
# library's objects define outside a namespace is one of EXPORTS (the
# exported interface); internal names live in namespace zq or have internal
# linkage. Prints the others; exits 1 if there are any.
set -eu
nm=$1 archive=$2 exports=$3
others=$("$nm" -C --defined-only "$archive" 2>/dev/null |
    awk 'NF >= 3 && $2 ~ /^[TDBRVW]$/ { $1 = ""; $2 = ""; sub(/^  /, ""); print }' |
    sed -e 's/(.*//' -e 's/<.*//' -e 's/^.* //' | grep -v -e '::' -e '^_' -e '^typeinfo' -e '^vtable' |
    sort -u | grep -v -x -F -f "$exports" || true)
if [ -n "$others" ]; then
    echo "defined in the global namespace but not exported:"
    echo "$others" | sed 's/^/  /'
    echo "$(echo "$others" | wc -l) name(s)"
    exit 1
fi
echo "global namespace: exported names only"
