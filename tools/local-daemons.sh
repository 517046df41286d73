# Sourced by the demo and the benchmarks: starts hopperd processes on
# 127.0.0.N:2411, each with its own root and state folder under $work, and
# stops them (and removes $work) when the calling script exits.
# Needs: $build (the build folder) and $work (a scratch folder) set.

daemon_pids=()

stop_local_daemons() {
  for pid in "${daemon_pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${daemon_pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap stop_local_daemons EXIT

# start_local_daemons N... : one daemon on 127.0.0.N for each N given; returns
# once every one accepts connections (at most 10 s each). Its root is
# $work/hostN/root; extra hopperd switches may come in $HOPPERD_EXTRA.
start_local_daemons() {
  local i
  for i in "$@"; do
    mkdir -p "$work/host$i/root" "$work/host$i/state"
    # shellcheck disable=SC2086
    "$build/hopperd" --bind="127.0.0.$i" --root="$work/host$i/root" \
      --state-dir="$work/host$i/state" ${HOPPERD_EXTRA:-} &
    daemon_pids+=($!)
  done
  for i in "$@"; do
    local tries=0
    until (exec 3<>"/dev/tcp/127.0.0.$i/2411") 2>/dev/null; do
      tries=$((tries + 1))
      if [ $tries -ge 100 ]; then
        echo "no daemon listening on 127.0.0.$i:2411" >&2
        return 1
      fi
      sleep 0.1
    done
  done
}
