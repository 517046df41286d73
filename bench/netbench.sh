#!/usr/bin/env bash
# Network benchmark: hivecopy against a parallel rsync fan-out over a
# simulated network of network namespaces.
#
# A bridge sits in a namespace of its own; the client and each host get their
# own namespace, joined to the bridge by a veth pair on 10.77.0.0/24 (client
# .2, host K .(10+K)). Each namespace's side of its veth sends at most
# NETBENCH_MBIT Mbit/s (tbf), so every link, the client's and every host's,
# has that rate. Each host runs hopperd and an rsync daemon, both with their
# trees on one tmpfs. Cases, each against rsync from the client to every host
# at once:
#   a 64 MiB file to 1, 8 and 16 hosts
#   10,000 files of 4 KiB in 100 folders to 1 and 8 hosts
#   a 256 MiB file to 8 hosts, then the same with the head's hopperd killed
#     (SIGKILL) once half of the file has left the client: the time against
#     the upload without the kill, and the bytes the client sent again
# Every copy is compared byte for byte with its source; a difference fails the
# run. Wire limit: S bytes over a link of B bit/s take at least
# S/1448*1514*8/B seconds (1514-byte frames carrying 1448 bytes of data).
# The relay chain crosses every link once, so that is hivecopy's limit for
# any number of hosts; rsync pushes every copy through the client's link.
#
# Before that, without namespaces: the tree to one local daemon on 127.0.0.2
# whose root is on a disk-backed file system, against the same with its root
# on a tmpfs; then, as the floor each file system sets, the tree copied by
# cp -r and made durable on each; last, the tree to a chain of 8 local
# daemons (127.0.0.2-9, tmpfs) against one: the chain's own cost per host,
# without the simulated links and bridge.
#
# Needs root for namespaces and mounts; without it (or when `ip netns add`
# fails) the network part is skipped with one line.
#   bench/netbench.sh BUILD_DIR
# Environment: NETBENCH_MBIT (link rate, default 200), NETBENCH_FILE_HOSTS
# (host counts for the 64 MiB file, default "1 8 16"), NETBENCH_TREE_HOSTS
# (default "1 8"), NETBENCH_KILL_HOSTS (default 8), NETBENCH_BURST_KB (tbf
# burst, default 256 KiB per 200 Mbit/s, at least 256).
#
# The scripts run inside namespaces take their values as arguments:
# shellcheck disable=SC2016
set -euo pipefail

build=$(cd "${1:?usage: bench/netbench.sh BUILD_DIR}" && pwd)
hivecopy=$build/hivecopy
hopperd=$build/hopperd
for p in "$hivecopy" "$hopperd"; do
  [ -x "$p" ] || { echo "netbench: $p is missing" >&2; exit 1; }
done

mbit=${NETBENCH_MBIT:-200}
read -ra file_hosts <<< "${NETBENCH_FILE_HOSTS:-1 8 16}"
read -ra tree_hosts <<< "${NETBENCH_TREE_HOSTS:-1 8}"
kill_hosts=${NETBENCH_KILL_HOSTS:-8}
# tbf cuts in software every packet larger than its burst. A sender's stack
# hands the link packets of up to 64 KiB (a real NIC cuts them in hardware),
# so a smaller burst makes the simulated links, not the programs, take most
# of the processor. 256 KiB at 200 Mbit/s lets a link run ahead of its rate
# by at most 10 ms, under 0.4 % of a 2.8 s copy.
burst_kb=${NETBENCH_BURST_KB:-$(( mbit * 256 / 200 > 256 ? mbit * 256 / 200 : 256 ))}
net=10.77.0
local_port=2471     # the local daemon's port, away from the tests' daemons
rsync_port=8730
tag=nb$$            # prefix of this run's namespace names
ns_br=$tag-br
ns_client=$tag-c

started=$EPOCHREALTIME
base=$(mktemp -d /tmp/hivecopy-netbench.XXXXXX)
pids=() namespaces=() mounts=() scratch=()
head_pid=""

fail() { echo "netbench: FAILED: $*" >&2; exit 1; }

cleanup() {
  set +e
  local pid ns m tries alive inside
  for ns in "${namespaces[@]}"; do   # also what the daemons forked
    mapfile -t inside < <(ip netns pids "$ns" 2>/dev/null)
    pids+=("${inside[@]}")
  done
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  for ((tries = 0; tries < 30; tries++)); do   # hopperd stops within about 2 s
    alive=no
    for pid in "${pids[@]}"; do
      if kill -0 "$pid" 2>/dev/null; then alive=yes; break; fi
    done
    [ $alive = yes ] || break
    sleep 0.1
  done
  for pid in "${pids[@]}"; do kill -KILL "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
  for ns in "${namespaces[@]}"; do ip netns del "$ns" 2>/dev/null; done
  for m in "${mounts[@]}"; do umount "$m" 2>/dev/null || umount -l "$m"; done
  rm -rf "$base" "${scratch[@]}"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# --- arithmetic and checks ---------------------------------------------------

sub() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / (b > 0.01 ? b : 0.01) }'; }
wire_seconds() { awk -v s="$1" -v b="$mbit" 'BEGIN { printf "%.2f", s / 1448 * 1514 * 8 / (b * 1e6) }'; }
fs_type() { stat -f -c %T "$1"; }
is_count() { [[ $1 =~ ^[0-9]+$ ]] && [ "$1" -ge 1 ] && [ "$1" -le 200 ]; }

machine_line() {
  local model
  model=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)
  echo "machine: $(nproc) cores, ${model:-unknown CPU}, $(awk '/^MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo)," \
       "kernel $(uname -sr)"
}

# same SRC COPY: COPY (a file or a tree) equals SRC byte for byte.
same() {
  if [ -d "$1" ]; then diff -r "$1" "$2" >/dev/null 2>&1; else cmp -s "$1" "$2"; fi
}

# --- sources -----------------------------------------------------------------

make_sources() {  # make_sources DIR: blob64.bin, blob256.bin (random), tree/
  local dir=$1
  mkdir -p "$dir"
  head -c $((64 << 20)) /dev/urandom > "$dir/blob64.bin"
  head -c $((256 << 20)) /dev/urandom > "$dir/blob256.bin"
  python3 - "$dir/tree" <<'PY'
import os, sys
root = sys.argv[1]
for d in range(100):
    os.makedirs(f"{root}/d{d:03}", exist_ok=True)
    for f in range(100):
        with open(f"{root}/d{d:03}/f{f:03}.dat", "wb") as out:
            out.write(os.urandom(4096))
PY
}

data_bytes() { find "$1" -type f -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }'; }

# --- the local case: one daemon on 127.0.0.2, disk against tmpfs ----------------

listening() { (exec 3<>"/dev/tcp/$1/$2") 2>/dev/null; }

# local_tree DIR [N]: uploads the tree to N daemons (default 1) on 127.0.0.2
# and up, host K rooted in DIR/hK; sets elapsed.
local_tree() {
  local dir=$1 n=${2:-1} k ip tries out=$base/local.out started=()
  for ((k = 1; k <= n; k++)); do
    ip=127.0.0.$((k + 1))
    mkdir -p "$dir/h$k/root" "$dir/h$k/state"
    ! listening "$ip" "$local_port" || fail "$ip:$local_port is already taken"
    "$hopperd" --bind="$ip" --port="$local_port" --root="$dir/h$k/root" \
      --state-dir="$dir/h$k/state" >"$dir/h$k/hopperd.out" 2>&1 &
    started+=($!); pids+=($!)
  done
  for ((k = 1; k <= n; k++)); do
    tries=0
    until listening "127.0.0.$((k + 1))" "$local_port"; do
      tries=$((tries + 1))
      if [ $tries -ge 100 ] || ! kill -0 "${started[k - 1]}" 2>/dev/null; then
        fail "local daemon $k did not start: $(cat "$dir/h$k/hopperd.out")"
      fi
      sleep 0.1
    done
  done
  sync  # nothing left to write back from what ran before
  local t0=$EPOCHREALTIME
  timeout 300 "$hivecopy" --timeout=240 --hosts="127.0.0.{2-$((n + 1))}:$local_port" "$src/tree" /bench \
    >"$out" 2>&1 || { cat "$out" >&2; fail "hivecopy to $n local daemon(s) in $dir"; }
  elapsed=$(sub "$t0" "$EPOCHREALTIME")
  for ((k = 1; k <= n; k++)); do
    same "$src/tree" "$dir/h$k/root/bench/tree" || fail "local daemon $k's copy in $dir differs from the source"
  done
  kill -TERM "${started[@]}"; wait "${started[@]}" || true
  rm -rf "${dir:?}"/h*
}

# cp_tree DIR: the tree copied into DIR by cp -r and made durable (syncfs),
# in the same state of the file system: what creating its 10,000 files costs
# there without any daemon.
cp_tree() {
  sync
  local t0=$EPOCHREALTIME
  cp -r "$src/tree" "$1/cp" && sync -f "$1/cp" || fail "cp -r into $1"
  elapsed=$(sub "$t0" "$EPOCHREALTIME")
  rm -rf "$1/cp"
}

disk_dir() {  # a fresh directory on a disk-backed file system, or nothing
  local d t
  for d in /var/tmp "$build" /work; do
    if [ ! -d "$d" ] || [ ! -w "$d" ]; then continue; fi
    t=$(fs_type "$d")
    if [ "$t" != tmpfs ] && [ "$t" != ramfs ]; then
      mktemp -d "$d/hivecopy-netbench-disk.XXXXXX"
      return
    fi
  done
  return 0
}

local_case() {  # local_case MEMDIR
  local disk mem=$1/local disk_s mem_s cp_disk cp_mem
  disk=$(disk_dir)
  [ -n "$disk" ] || { echo "local: no disk-backed directory found; skipped"; return; }
  scratch+=("$disk")
  mkdir -p "$mem"
  local_tree "$disk"; disk_s=$elapsed
  local_tree "$mem"; mem_s=$elapsed
  cp_tree "$disk"; cp_disk=$elapsed
  cp_tree "$mem"; cp_mem=$elapsed
  echo "local: 10,000 x 4 KiB to one daemon on 127.0.0.2: root on disk ($(fs_type "$disk"), $disk) ${disk_s}s," \
       "root on tmpfs ${mem_s}s; disk/tmpfs $(ratio "$disk_s" "$mem_s")"
  echo "local: the same tree by cp -r and syncfs: disk ${cp_disk}s, tmpfs ${cp_mem}s; disk/tmpfs" \
       "$(ratio "$cp_disk" "$cp_mem"); hivecopy/cp on disk $(ratio "$disk_s" "$cp_disk")"
  # The chain's own cost, without the simulated network: every host is a
  # process of this machine, so eight of them share its cores.
  local_tree "$mem" 8
  echo "local: the same tree to 8 daemons on 127.0.0.2-9, roots on tmpfs, no rate limit: ${elapsed}s," \
       "to one ${mem_s}s; 8/1 $(ratio "$elapsed" "$mem_s")"
  rm -rf "$disk" "$mem"
}

# --- the simulated network ---------------------------------------------------

hosts_word() { if [ "$1" -eq 1 ]; then echo "1 host"; else echo "$1 hosts"; fi; }
host_ns() { echo "$tag-h$1"; }
host_ip() { echo "$net.$((10 + $1))"; }
hosts_arg() {  # the --hosts value naming hosts 1..N
  if [ "$1" -eq 1 ]; then host_ip 1; else echo "$net.{11-$((10 + $1))}"; fi
}

add_ns() {  # add_ns NAME: an empty namespace with its loopback up, IPv4 only
  ip netns add "$1"
  namespaces+=("$1")
  ip -n "$1" link set lo up
  ip netns exec "$1" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1 2>/dev/null || true
}

# attach NS PORT ADDRESS: NS's eth0 to the bridge's PORT, NS's egress shaped.
attach() {
  local ns=$1 port=$2 addr=$3
  ip -n "$ns_br" link add "$port" type veth peer name eth0 netns "$ns"
  ip -n "$ns_br" link set "$port" master br0 up
  ip -n "$ns" addr add "$addr/24" dev eth0
  ip -n "$ns" link set eth0 up
  tc -n "$ns" qdisc add dev eth0 root tbf rate "${mbit}mbit" burst "${burst_kb}kb" latency 50ms
}

build_network() {  # build_network N: the bridge, the client and hosts 1..N
  local k
  add_ns "$ns_br"
  ip -n "$ns_br" link add br0 type bridge
  ip -n "$ns_br" link set br0 up
  add_ns "$ns_client"
  attach "$ns_client" c0 "$net.2"
  for ((k = 1; k <= $1; k++)); do
    add_ns "$(host_ns "$k")"
    attach "$(host_ns "$k")" "h$k" "$(host_ip "$k")"
  done
}

start_host() {  # start_host K: hopperd and an rsync daemon in host K's namespace
  local k=$1 ns ip d
  ns=$(host_ns "$k"); ip=$(host_ip "$k"); d=$hosts_dir/host$k
  mkdir -p "$d/root" "$d/state" "$d/rsync"
  cat > "$d/rsyncd.conf" <<EOF
port = $rsync_port
address = $ip
use chroot = no
pid file = $d/rsyncd.pid
lock file = $d/rsyncd.lock
log file = $d/rsyncd.log
[bench]
  path = $d/rsync
  read only = no
  uid = root
  gid = root
  hosts allow = $net.0/24
EOF
  # Disowned: the shell would report the head's SIGKILL as a killed job.
  ip netns exec "$ns" "$hopperd" --bind="$ip" --root="$d/root" --state-dir="$d/state" \
    --allow="$net.0/24" >"$d/hopperd.out" 2>&1 &
  pids+=($!)
  disown $!
  if [ "$k" -eq 1 ]; then head_pid=${pids[-1]}; fi
  ip netns exec "$ns" rsync --daemon --no-detach --config="$d/rsyncd.conf" >"$d/rsyncd.out" 2>&1 &
  pids+=($!)
  disown $!
}

gone() {  # gone PID: the process has exited (a zombie counts)
  local state
  state=$(awk '{ print $3 }' "/proc/$1/stat" 2>/dev/null) || true
  [ -z "$state" ] || [ "$state" = Z ]
}

# wait_listening ADDR:PORT...: each accepts connections from the client's
# namespace within 10 s (this also proves the bridge forwards).
wait_listening() {
  ip netns exec "$ns_client" bash -c '
    for ep; do
      tries=0
      until (exec 3<>"/dev/tcp/${ep%:*}/${ep#*:}") 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -lt 100 ] || { echo "nothing listens on $ep" >&2; exit 1; }
        sleep 0.1
      done
    done' wait_listening "$@" || fail "the hosts did not start"
}

tx_bytes() { ip netns exec "$ns_client" cat /sys/class/net/eth0/statistics/tx_bytes; }

clear_copies() {
  local k d
  for ((k = 1; k <= nhosts; k++)); do
    d=$hosts_dir/host$k
    rm -rf "$d/root/bench" "$d/rsync"
    mkdir "$d/rsync"
  done
}

# what_differs SRC COPY: the first difference, for the failure message.
what_differs() {
  if [ -d "$1" ]; then
    diff -rq "$1" "$2" 2>&1 | head -3
  else
    echo "$(stat -c %s "$1" 2>&1) bytes against $(stat -c %s "$2" 2>&1);" "$(cmp "$1" "$2" 2>&1 | head -1)"
  fi
}

# check_copies SRC SUBDIR K...: host K's SUBDIR holds SRC's name, unchanged.
check_copies() {
  local src=$1 sub=$2 k copy; shift 2
  for k; do
    copy=$hosts_dir/host$k/$sub/$(basename "$src")
    same "$src" "$copy" ||
      fail "host $k ($(host_ip "$k")): $sub copy of $(basename "$src") differs from the source: $(what_differs "$src" "$copy")"
  done
}

# The machine's CPU ticks "busy total" from /proc/stat: all namespaces share
# these cores, so a run that keeps them busy is limited by them, not the links.
cpu_ticks() { awk '/^cpu / { b = $2 + $3 + $4 + $7 + $8 + $9; print b, b + $5 + $6 }' /proc/stat; }
busy_percent() {  # busy_percent "BUSY0 TOTAL0" "BUSY1 TOTAL1"
  awk -v a="$1" -v b="$2" 'BEGIN { split(a, x, " "); split(b, y, " ");
    printf "%.0f", 100 * (y[1] - x[1]) / (y[2] - x[2] > 0 ? y[2] - x[2] : 1) }'
}

# run_hivecopy N SRC TGT: from the client to hosts 1..N; sets elapsed and cpu
# (the share of all cores busy meanwhile, in percent).
run_hivecopy() {
  local out=$base/hivecopy.out t0=$EPOCHREALTIME c0
  c0=$(cpu_ticks)
  ip netns exec "$ns_client" timeout 360 "$hivecopy" --timeout=300 --hosts="$(hosts_arg "$1")" "$2" "$3" \
    >"$out" 2>&1 || { cat "$out" >&2; fail "hivecopy of $(basename "$2") to $1 hosts"; }
  elapsed=$(sub "$t0" "$EPOCHREALTIME")
  cpu=$(busy_percent "$c0" "$(cpu_ticks)")
}

run_rsync() {  # run_rsync N SRC: one rsync per host 1..N, all at once; sets elapsed
  local out=$base/rsync.out t0=$EPOCHREALTIME
  ip netns exec "$ns_client" bash -c '
    src=$1 n=$2 net=$3 port=$4 pids=() rc=0
    for ((k = 1; k <= n; k++)); do
      timeout 360 rsync -a --timeout=120 "$src" "rsync://$net.$((10 + k)):$port/bench/" & pids+=($!)
    done
    for p in "${pids[@]}"; do wait "$p" || rc=1; done
    exit $rc' run_rsync "$2" "$1" "$net" "$rsync_port" >"$out" 2>&1 ||
    { cat "$out" >&2; fail "rsync of $(basename "$2") to $1 hosts"; }
  elapsed=$(sub "$t0" "$EPOCHREALTIME")
}

row() {  # row CASE BYTES HIVECOPY_S RSYNC_S|- CPU%
  local wire rs_hc=-; wire=$(wire_seconds "$2")
  if [ "$4" != - ]; then rs_hc=$(ratio "$4" "$3"); fi
  printf '%-34s %9s %9s %9s %9s %9s %9s\n' "$1" "$3" "$(ratio "$3" "$wire")" "$wire" "$4" "$rs_hc" "$5"
}

# target SRC: where hivecopy puts SRC: a tree becomes /bench/NAME, and a file
# is named in full so that it cannot land as a file called /bench.
target() { if [ -d "$1" ]; then echo /bench; else echo "/bench/$(basename "$1")"; fi; }

# fan_out NAME SRC N: hivecopy then rsync of SRC to hosts 1..N, one table row.
fan_out() {
  local name=$1 src=$2 n=$3 hc hc_cpu rs bytes
  bytes=$(data_bytes "$src")
  run_hivecopy "$n" "$src" "$(target "$src")"; hc=$elapsed hc_cpu=$cpu
  check_copies "$src" root/bench $(seq 1 "$n")
  clear_copies
  run_rsync "$n" "$src"; rs=$elapsed
  check_copies "$src" rsync $(seq 1 "$n")
  clear_copies
  row "$name" "$bytes" "$hc" "$rs" "$hc_cpu"
}

# kill_case N: the 256 MiB file to hosts 1..N, then again with the head's
# hopperd killed once the client's link carried half of the file.
kill_case() {
  local n=$1 file=$src/blob256.bin size plain plain_cpu killed tx0 tx1 sent_plain sent_killed watcher at
  size=$(stat -c %s "$file")
  tx0=$(tx_bytes)
  run_hivecopy "$n" "$file" "$(target "$file")"; plain=$elapsed plain_cpu=$cpu
  tx1=$(tx_bytes); sent_plain=$((tx1 - tx0))
  check_copies "$file" root/bench $(seq 1 "$n")
  clear_copies
  run_rsync "$n" "$file"
  check_copies "$file" rsync $(seq 1 "$n")
  clear_copies
  row "256 MiB file, $(hosts_word "$n")" "$size" "$plain" "$elapsed" "$plain_cpu"

  tx0=$(tx_bytes)
  # Polls the client's TX counter every 10 ms (at most 2 minutes) and kills
  # the head once half of the file's size has gone out.
  ip netns exec "$ns_client" bash -c '
    limit=$1 pid=$2 f=/sys/class/net/eth0/statistics/tx_bytes
    for ((i = 0; i < 12000 && SECONDS < 120; i++)); do
      read -r tx < "$f"
      if [ "$tx" -ge "$limit" ]; then kill -KILL "$pid"; echo "$tx"; exit 0; fi
      sleep 0.01
    done
    exit 1' watch_half "$((tx0 + size / 2))" "$head_pid" >"$base/watch.out" 2>&1 &
  watcher=$!; pids+=("$watcher")
  run_hivecopy "$n" "$file" "$(target "$file")"; killed=$elapsed
  tx1=$(tx_bytes); sent_killed=$((tx1 - tx0))
  kill "$watcher" 2>/dev/null || true
  wait "$watcher" || fail "the head was not killed during the upload: $(cat "$base/watch.out")"
  at=$(( $(cat "$base/watch.out") - tx0 ))
  gone "$head_pid" || fail "the head's hopperd survived SIGKILL"
  check_copies "$file" root/bench $(seq 2 "$n")
  [ ! -e "$hosts_dir/host1/root/bench/$(basename "$file")" ] ||
    fail "the killed head shows a copy of $(basename "$file")"
  clear_copies
  row "256 MiB file, $(hosts_word "$n"), head killed" "$size" "$killed" - "$cpu"
  kill_note="head killed after $at bytes on the client's link: hivecopy ${killed}s against ${plain}s without"
  kill_note+=" the kill (x$(ratio "$killed" "$plain")); the client's link carried $sent_killed bytes for the"
  kill_note+=" $size-byte file, $((sent_killed - size)) more than the file (without the kill $sent_plain,"
  kill_note+=" $((sent_plain - size)) more), so about $((sent_killed - sent_plain)) bytes were sent again."
  kill_note+=" The client said: $(tr '\n' ' ' < "$base/hivecopy.out")"
}

network_cases() {
  local n
  nhosts=$kill_hosts
  for n in "${file_hosts[@]}" "${tree_hosts[@]}"; do
    if [ "$n" -gt "$nhosts" ]; then nhosts=$n; fi
  done
  hosts_dir=$mem/hosts
  build_network "$nhosts"
  local endpoints=()
  for ((n = 1; n <= nhosts; n++)); do
    start_host "$n"
    endpoints+=("$(host_ip "$n"):2411" "$(host_ip "$n"):$rsync_port")
  done
  wait_listening "${endpoints[@]}"
  echo "network: client and $nhosts hosts on $net.0/24, every link ${mbit} Mbit/s (tbf burst ${burst_kb}kb latency 50ms)"
  printf '%-34s %9s %9s %9s %9s %9s %9s\n' case hivecopy hc/wire wire rsync rs/hc "hc cpu%"
  for n in "${file_hosts[@]}"; do fan_out "64 MiB file, $(hosts_word "$n")" "$src/blob64.bin" "$n"; done
  for n in "${tree_hosts[@]}"; do fan_out "10,000 x 4 KiB, $(hosts_word "$n")" "$src/tree" "$n"; done
  kill_case "$kill_hosts"
  echo "(seconds; wire = S/1448*1514*8/B for one copy over one link; rsync runs one client per host at once;"
  echo " hc cpu% = share of all $(nproc) cores busy during the hivecopy run: the whole machine, whatever ran)"
  echo "$kill_note"
}

# --- main --------------------------------------------------------------------

for n in "${file_hosts[@]}" "${tree_hosts[@]}" "$kill_hosts"; do
  is_count "$n" || fail "host counts must be 1-200, got '$n'"
done
[ "$kill_hosts" -ge 2 ] || fail "NETBENCH_KILL_HOSTS needs at least 2 hosts"
if ! [[ $mbit =~ ^[0-9]+$ ]] || [ "$mbit" -lt 1 ]; then
  fail "NETBENCH_MBIT must be a whole number of Mbit/s"
fi
if ! [[ $burst_kb =~ ^[0-9]+$ ]] || [ "$burst_kb" -lt 8 ]; then
  fail "NETBENCH_BURST_KB must be a whole number of KiB, at least 8"
fi

machine_line
have_ns=no
if [ "$(id -u)" -eq 0 ] && ip netns add "$ns_br" 2>/dev/null; then
  ip netns del "$ns_br"
  have_ns=yes
fi
if [ $have_ns = yes ]; then
  mem=$base/mem
  mkdir -p "$mem"
  mount -t tmpfs -o size=8g,mode=0755 hivecopy-netbench "$mem"
  mounts+=("$mem")
elif [ "$(fs_type /dev/shm 2>/dev/null)" = tmpfs ] && [ -w /dev/shm ]; then
  mem=$(mktemp -d /dev/shm/hivecopy-netbench.XXXXXX)
  scratch+=("$mem")
else
  mem=""
fi

src=${mem:-$base}/src
make_sources "$src"
if [ -n "$mem" ]; then local_case "$mem"; else echo "local: no tmpfs to compare with; skipped"; fi

if [ $have_ns = no ]; then
  echo "netbench: network namespaces need root (ip netns add failed or not root); network cases skipped"
  exit 0
fi
network_cases
echo "netbench: whole run $(sub "$started" "$EPOCHREALTIME")s"
