#!/bin/sh
# Checks a manual page: groff formats it without a single warning, and it
# documents every long switch the program's --help lists. Exits 77 (skipped)
# when groff is not installed.
#   man_pages.sh PAGE PROGRAM
page=$1
prog=$2
command -v groff >/dev/null 2>&1 || { echo "skipped: groff is not installed"; exit 77; }
[ -f "$page" ] || { echo "no manual page at $page"; exit 1; }
status=0
warnings=$(groff -man -ww -z "$page" 2>&1)
[ -z "$warnings" ] || { printf 'groff warns about %s:\n%s\n' "$page" "$warnings"; status=1; }
# The page as text, with hyphens and dashes made plain.
text=$(groff -man -Tutf8 -P-c -P-b -P-u "$page" 2>/dev/null | sed 's/\xe2\x80\x90/-/g; s/\xe2\x88\x92/-/g')
switches=$("$prog" --help | grep -oE -- '--[a-z][a-z-]*' | sort -u)
[ -n "$switches" ] || { echo "$prog --help lists no switches"; exit 1; }
for s in $switches; do
  printf '%s\n' "$text" | grep -qF -- "$s" || { echo "$page does not document $s"; status=1; }
done
exit $status
