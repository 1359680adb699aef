#!/bin/sh
# zqdiag-inspect's database commands on a real PostgreSQL server: the test
# starts its own (Debian's initdb and pg_ctl, as the unprivileged user
# nobody when run as root, since PostgreSQL refuses root), listening on a
# Unix socket only, in a temporary directory, and stops it at the end. The
# same fleet is filed into SQLite and into PostgreSQL; every question of
# `query` (table and JSON), every gateway's history and the NDJSON export
# must read the same from both, and a re-ingest must file nothing new.
# The cluster collates with ICU's en-US, as an operator's server may, so
# that an order the tool leaves to the server's collation shows up.
#   postgres_test.sh TOOL FIXTURES
set -eu
TOOL=$1 FIXTURES=$2
PGBIN=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
[ -x "$PGBIN/initdb" ] || { echo "FAIL: no PostgreSQL server under /usr/lib/postgresql"; exit 1; }

fail() { echo "FAIL: $*"; exit 1; }
# Directly under /tmp: a Unix socket's path must stay under 108 bytes.
work=$(mktemp -d /tmp/zqi-pg.XXXXXX)
chmod 755 "$work"
mkdir "$work/pg"
if [ "$(id -u)" -eq 0 ]; then
    chown nobody "$work/pg"
    as_server() { runuser -u nobody -- "$@"; }
else
    as_server() { "$@"; }
fi
data=$work/pg/data sock=$work/pg
started=
cleanup() {
    [ -z "$started" ] || as_server "$PGBIN/pg_ctl" -D "$data" -m immediate -w stop >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

as_server "$PGBIN/initdb" -D "$data" -U zqdiag -A trust -E UTF8 --locale=C.UTF-8 \
    --locale-provider=icu --icu-locale=en-US >"$work/initdb.log" 2>&1 ||
    { cat "$work/initdb.log"; fail "initdb"; }
started=yes
as_server "$PGBIN/pg_ctl" -D "$data" -l "$sock/server.log" -w -t 60 \
    -o "-c listen_addresses= -k $sock -c fsync=off" start >/dev/null ||
    { cat "$sock/server.log"; fail "the server did not start"; }
url="postgresql:///postgres?host=$sock&user=zqdiag"

# The fleet: the lab's uploads, each gateway's directory named so that
# byte order and en-US order differ, and bad archives (one under a name
# that is not UTF-8, as a server may store what a gateway sent).
fleet=$work/fleet
mkdir "$fleet"
for d in "$FIXTURES"/*/; do
    name=$(basename "$d")
    case $name in
    pppoe-*) to=GW-$name ;;
    *) to=gw-$name ;;
    esac
    cp -r "$d" "$fleet/$to"
done
echo "not an archive" >"$fleet/gw-dhcp-server/1161621capt.tar"
mkdir "$work/link"
ln -s /etc/passwd "$work/link/diag_log"
tar -C "$work/link" -cf "$fleet/GW-pppoe-success/11170900dia.tar" diag_log
printf 'truncated' >"$fleet/GW-pppoe-success/$(printf 'caf\351.tar')"
good=$(find "$FIXTURES" -name '*.tar' | wc -l)

"$TOOL" ingest "$fleet" --db "$work/fleet.db" --quiet 2>"$work/sqlite.err" || fail "SQLite ingest: $(cat "$work/sqlite.err")"
"$TOOL" ingest "$fleet" --db "$url" --quiet 2>"$work/pg.err" || fail "PostgreSQL ingest: $(cat "$work/pg.err")"
grep -q ": $good filed, 3 bad, 0 already filed" "$work/pg.err" || fail "PostgreSQL ingest: $(cat "$work/pg.err")"

same() { # what args...
    what=$1
    shift
    "$TOOL" "$@" --db "$work/fleet.db" >"$work/sqlite.out" 2>&1 || fail "$what on SQLite: $(cat "$work/sqlite.out")"
    "$TOOL" "$@" --db "$url" >"$work/pg.out" 2>&1 || fail "$what on PostgreSQL: $(cat "$work/pg.out")"
    cmp -s "$work/sqlite.out" "$work/pg.out" ||
        { diff "$work/sqlite.out" "$work/pg.out" || true; fail "$what differs between SQLite and PostgreSQL"; }
}
for q in pon-unregistered pppoe-failures dhcp-no-server top-findings bad-archives; do
    same "query $q" query $q
    same "query $q --json" query $q --json
done
for d in "$fleet"/*/; do
    same "history of $(basename "$d")" query history --gateway "$(basename "$d")"
done
same "export" export --ndjson

# The answers are the lab's, not two empty tables.
"$TOOL" query bad-archives --db "$url" >"$work/bad.out"
[ "$(grep -c '^GW-pppoe-success  ' "$work/bad.out")" -eq 2 ] || fail "bad archives: $(cat "$work/bad.out")"
grep -q 'caf\\xe9.tar' "$work/bad.out" || fail "the name that is not UTF-8 is not shown escaped"
"$TOOL" query pppoe-failures --db "$url" | grep -q '^authentication ' || fail "no PPPoE failure at authentication"
"$TOOL" query dhcp-no-server --db "$url" | grep -q '^gw-dhcp-no-server ' || fail "no DHCP client without a server"
"$TOOL" export --ndjson --db "$url" >"$work/export.ndjson"
[ "$(grep -c '"type":"archive"' "$work/export.ndjson")" -eq $((good + 3)) ] || fail "export: archives missing"

# Again: nothing new is filed, nothing changes.
"$TOOL" ingest "$fleet" --db "$url" --quiet 2>"$work/pg.err" || fail "PostgreSQL re-ingest: $(cat "$work/pg.err")"
grep -q ": 0 filed, 0 bad, $((good + 3)) already filed" "$work/pg.err" || fail "re-ingest: $(cat "$work/pg.err")"
"$TOOL" export --ndjson --db "$url" | cmp -s - "$work/export.ndjson" || fail "re-ingest changed the export"
echo "postgresql: ingest, query and export agree with SQLite ($good good and 3 bad archives)"
echo "1 passed, 0 failed"
