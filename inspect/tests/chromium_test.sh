#!/bin/sh
# zqdiag-inspect's HTML report in a real browser: Debian's headless
# Chromium renders the report of a lab upload and of a hostile one; the
# rendered DOM must hold the ladder (two lanes, the arrows in time order,
# the verdict), and nothing the gateway wrote may run. A screenshot of each
# is left in OUT_DIR for a person to look at.
#   chromium_test.sh TOOL FIXTURES OUT_DIR
set -eu
TOOL=$1 FIXTURES=$2 OUT=$3
mkdir -p "$OUT"
fail() { echo "FAIL: $*"; exit 1; }
render() { # html-file dom-file png-file
    chromium --headless=new --no-sandbox --disable-gpu --no-first-run --user-data-dir="$OUT/profile" \
        --virtual-time-budget=2000 --dump-dom "file://$1" >"$2" 2>/dev/null
    chromium --headless=new --no-sandbox --disable-gpu --no-first-run --user-data-dir="$OUT/profile" \
        --window-size=1000,2400 --screenshot="$3" "file://$1" >/dev/null 2>&1 || true
}

# A lab upload: the CHAP failure's PPPoE ladder.
"$TOOL" report "$FIXTURES/pppoe-chap-failure/11161621dia.tar" --format html -o "$OUT/chap.html"
render "$OUT/chap.html" "$OUT/chap.dom" "$OUT/chap.png"
grep -q '<svg class="ladder"' "$OUT/chap.dom" || fail "no ladder"
grep -q 'class="lane client"' "$OUT/chap.dom" || fail "no client lane"
grep -q 'class="lane server"' "$OUT/chap.dom" || fail "no server lane"
order=$(sed -n '/data-protocol="pppoe"/,/<\/section>/p' "$OUT/chap.dom" | grep -o 'data-name="[^"]*"' | sed 's/data-name="//; s/"$//' | tr '\n' ' ')
case $order in
"PADI PADO PADR PADS LCP Conf-Request LCP Conf-Ack LCP Conf-Request LCP Conf-Ack CHAP Challenge CHAP Response CHAP Failure LCP Term-Request LCP Term-Ack PADT "*) ;;
*) fail "arrows out of order: $order" ;;
esac
grep -q 'verdict 0: sessions analysed one by one' "$OUT/chap.dom" || fail "no verdict"
grep -q 'server 1 (isp1): authentication failed' "$OUT/chap.dom" || fail "no session finding"
grep -q 'stopped at: authentication' "$OUT/chap.dom" || fail "no stop"
[ -s "$OUT/chap.png" ] || fail "no screenshot"

# A hostile upload: its log and command output try to run script.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '\n>>>> pon_status diag <<<<\n[error  ]<script>document.title="PWNED"</script>\n[warn   ]<img src=x onerror="document.body.setAttribute(%s,1)">\n' "'data-pwned'" >"$work/diag_log"
printf 'cmd: [echo <svg onload=alert(1)>]\n<iframe src="javascript:alert(2)"></iframe>\n\n' >"$work/cmd_log"
tar -C "$work" -cf "$work/11161621dia.tar" diag_log cmd_log
"$TOOL" report "$work/11161621dia.tar" --format html -o "$OUT/hostile.html"
render "$OUT/hostile.html" "$OUT/hostile.dom" "$OUT/hostile.png"
grep -q '<title>PWNED' "$OUT/hostile.dom" && fail "the log's script ran"
grep -q 'data-pwned' "$OUT/hostile.dom" && ! grep -q 'setAttribute(.data-pwned.,1)' "$OUT/hostile.dom" && fail "the img handler ran"
grep -q 'body data-pwned' "$OUT/hostile.dom" && fail "the img handler ran"
grep -q '<script' "$OUT/hostile.dom" && fail "a script element reached the DOM"
grep -q '<img' "$OUT/hostile.dom" && fail "an img element reached the DOM"
grep -q '<iframe' "$OUT/hostile.dom" && fail "an iframe reached the DOM"
grep -q '&lt;script&gt;document.title' "$OUT/hostile.dom" || fail "the log's text is not shown"
echo "chromium: ladder and escaping checked; screenshots in $OUT"
echo "1 passed, 0 failed"
