#!/bin/sh
# Fails when the offline security review of the configured hopperd unit
# rates its exposure above the limit (default 5.0). Exits 77 (skipped) when
# systemd-analyze is not installed.
#   unit_security.sh UNIT_FILE [LIMIT]
unit=$1
limit=${2:-5.0}
command -v systemd-analyze >/dev/null 2>&1 || { echo "skipped: systemd-analyze is not installed"; exit 77; }
[ -f "$unit" ] || { echo "no unit file at $unit"; exit 1; }
out=$(systemd-analyze security --offline=yes --no-pager "$unit" 2>&1)
echo "$out" | grep -E '^✗|Overall'
score=$(echo "$out" | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
[ -n "$score" ] || { printf 'systemd-analyze gave no exposure level:\n%s\n' "$out"; exit 1; }
if awk -v s="$score" -v l="$limit" 'BEGIN { exit !(s > l) }'; then
  echo "exposure $score is above $limit"
  exit 1
fi
echo "exposure $score (limit $limit)"
