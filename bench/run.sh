#!/usr/bin/env bash
# Benchmarks. Prints figures and ratios against peers measured in the same run:
#   crc_bench     CRC-32C with the CPU instruction and with slicing tables,
#                 against a byte-at-a-time loop
#   upload_cpu    the client's CPU time for 1 GiB against a plain read/write loop
#   four hosts    hivecopy of a 1 GiB file and of a 10,000-file tree to four
#                 local daemons, against cp (and cp + sync) into one directory
#   netbench.sh   hivecopy against rsync over a simulated network of network
#                 namespaces, and one daemon's root on disk against tmpfs
set -euo pipefail
build=${1:-"$(cd "$(dirname "$0")/.." && pwd)/build"}
"$build/bench/crc_bench"
"$build/bench/upload_cpu"

work=$(mktemp -d /tmp/hivecopy-bench.XXXXXX)
source "$(dirname "$0")/../tools/local-daemons.sh"

now() { date +%s.%N; }
seconds() { python3 -c "print(f'{$2 - $1:.2f}')"; }
ratio() { python3 -c "print(f'{$1 / $2:.2f}')"; }

# Sources: one 1 GiB file, and a tree of 10,000 files of 1-8 KiB in 100 folders.
mkdir -p "$work/src/big" "$work/src/tree"
head -c $((1 << 30)) /dev/urandom > "$work/src/big/blob.bin"
python3 - "$work/src/tree" <<'PY'
import os, random, sys
random.seed(7)
root = sys.argv[1]
for d in range(100):
    os.makedirs(f"{root}/d{d:03}", exist_ok=True)
    for f in range(100):
        with open(f"{root}/d{d:03}/f{f:03}.dat", "wb") as out:
            out.write(random.randbytes(random.randint(1024, 8192)))
PY

start_local_daemons 2 3 4 5

measure() {  # measure NAME SOURCE
  local name=$1 src=$2
  sync
  local t0; t0=$(now)
  "$build/hivecopy" --hosts="127.0.0.{2-5}" "$src" "/bench/$name" >/dev/null
  local t1; t1=$(now)
  cp -r "$src" "$work/cp-$name"
  local t2; t2=$(now)
  sync
  local t3; t3=$(now)
  local up; up=$(seconds "$t0" "$t1")
  local cp; cp=$(seconds "$t1" "$t2")
  local cps; cps=$(seconds "$t1" "$t3")
  echo "$name: hivecopy to 4 hosts ${up}s; cp into one folder ${cp}s (with sync ${cps}s);" \
       "ratio hivecopy/cp $(ratio "$up" "$cp"), hivecopy/(cp+sync) $(ratio "$up" "$cps")"
  for i in 2 3 4 5; do
    diff -r "$src" "$work/host$i/root/bench/$name/$(basename "$src")" >/dev/null ||
      { echo "host 127.0.0.$i differs from the source" >&2; exit 1; }
  done
  rm -rf "$work/cp-$name" "$work"/host*/root/bench
}
measure big "$work/src/big"
measure tree "$work/src/tree"

# The network benchmark starts daemons of its own; these are done (and the
# exit trap must not signal their ids again).
stop_local_daemons
# shellcheck disable=SC2034  # read by the exit trap of tools/local-daemons.sh
daemon_pids=()
"$(dirname "$0")/netbench.sh" "$build"
