#!/bin/sh
# check_man.sh MANDIR [ZQDIAG...]: the manual pages lint clean (mandoc -Tlint -Wwarning, else groff -ww), and
# zqdiag(1) names every command, option and exit status the help of the given command line lists.
set -eu
mandir=$1
shift
fail=0
for page in "$mandir/zqdiag.1" "$mandir/libzqdiag.3"; do
    if command -v mandoc >/dev/null 2>&1; then
        out=$(mandoc -Tlint -Wwarning "$page" 2>&1) || { echo "$out"; echo "lint: $page"; fail=1; }
    elif command -v groff >/dev/null 2>&1; then
        out=$(groff -ww -z -mandoc "$page" 2>&1)
        [ -z "$out" ] || { echo "$out"; echo "lint: $page"; fail=1; }
    else
        echo "neither mandoc nor groff: skipped"
        exit 77
    fi
done
[ $# -gt 0 ] || exit $fail

page=$mandir/zqdiag.1
# A command of the tool appears as '.Cm NAME', an option as 'Fl \-NAME'.
has_command() { grep -q -E -- "\\.Cm $1( |\$)" "$page"; }
has_option() { grep -q -E -- "Fl \\\\-$1( |\$)" "$page"; }
options() { sed -n 's/^ *\(-[a-z], \)\{0,1\}--\([a-z-]\{1,\}\).*/\2/p'; }
help=$("$@" --help)
# The first words of the items of the help's section $1 that match $2.
list() { printf '%s\n' "$help" | sed -n "/^$1:/,/^\$/p" | sed -n "s/^  \\($2\\) .*/\\1/p"; }
commands=$(list Commands '[a-z]\{1,\}')
statuses=$(list 'Exit status' '[0-9]\{1,\}')
[ -n "$commands" ] && [ -n "$statuses" ] || { echo "zqdiag --help lists no commands or no exit status"; exit 1; }
for c in $commands; do
    has_command "$c" || { echo "zqdiag(1) does not describe the command '$c'"; fail=1; }
    [ "$c" = help ] && continue
    for o in $("$@" "$c" --help | options); do
        has_option "$o" || { echo "zqdiag(1) does not describe '$c --$o'"; fail=1; }
    done
done
for o in $(printf '%s\n' "$help" | sed -n '/^Options:/,/^$/p' | options); do
    has_option "$o" || { echo "zqdiag(1) does not describe the global option '--$o'"; fail=1; }
done
exit_section=$(sed -n '/^\.Sh EXIT STATUS/,/^\.Sh /p' "$page")
for s in $statuses; do
    printf '%s\n' "$exit_section" | grep -q -x "\\.It $s" || { echo "zqdiag(1) EXIT STATUS lacks $s"; fail=1; }
done
[ $fail -ne 0 ] || echo "man pages: lint clean; zqdiag(1) covers $(echo $commands | wc -w) commands"
exit $fail
