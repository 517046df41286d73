#!/usr/bin/env bash
# Set-up, build, test and demo entry point.
#   ./build.sh          install missing packages, build (build/)
#   ./build.sh test     the above, then the whole suite twice: a normal build
#                       and an AddressSanitizer+UndefinedBehaviorSanitizer build
#   ./build.sh demo     build, then upload a sample tree to three local daemons
#   ./build.sh bench    build, then run the benchmarks under bench/
#   ./build.sh package  release build in build-package/ (prefix /usr), then
#                       the Debian packages hivecopy and hopperd (cpack -G DEB)
#   ./build.sh fuzz [SECONDS]  clang libFuzzer build (build-fuzz/), then each
#                       target of tests/fuzz/ for SECONDS (default 60); exits 1
#                       when a target crashed (artifacts in tests/fuzz/crashes/)
set -euo pipefail
cd "$(dirname "$0")"
top=$PWD

packages=(cmake ninja-build g++ googletest libgtest-dev libgmock-dev
          libssl-dev libcurl4-openssl-dev openssl python3 procps iproute2 rsync)

install_packages() {
  local missing=()
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing missing packages: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
}

build() {  # build DIR [cmake args...]
  local dir=$1; shift
  cmake -S "$top" -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir"
}

run_tests() {  # run_tests DIR
  (cd "$1" && ctest --output-on-failure --timeout 600 -j2)
}

cmd=${1:-build}
install_packages
case "$cmd" in
  build)
    build build ;;
  test)
    build build
    run_tests build
    build build-asan -DHIVE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 run_tests build-asan ;;
  demo)
    build build
    exec "$top/tools/demo.sh" "$top/build" ;;
  bench)
    # Optimised, in a folder of its own so that it leaves build/ as it is.
    build build-bench -DCMAKE_BUILD_TYPE=Release
    exec "$top/bench/run.sh" "$top/build-bench" ;;
  package)
    packages+=(dpkg-dev)  # dpkg-shlibdeps works out the packages' dependencies
    install_packages
    build build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DHIVE_TESTS=OFF
    (cd build-package && rm -f ./*.deb && cpack -G DEB >/dev/null)
    ls -1 "$top"/build-package/*.deb ;;
  fuzz)
    seconds=${2:-60}
    packages+=(clang)  # libFuzzer and the sanitizers' runtimes come with it
    install_packages
    targets=(xml hosts options massage replies connection agents)
    # The whole build is instrumented; each target links libFuzzer's main.
    cmake -S "$top" -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHIVE_FUZZ=ON \
      "-DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined" >/dev/null
    cmake --build build-fuzz --target "${targets[@]/%/_fuzz}"
    mkdir -p tests/fuzz/crashes
    total_execs=0 total_crashes=0
    summary=()
    for t in "${targets[@]}"; do
      work=$(mktemp -d)  # new inputs land here, not in the checked-in corpus
      log=build-fuzz/fuzz-$t.log
      before=$(find tests/fuzz/crashes -type f | wc -l)
      ASAN_OPTIONS=detect_leaks=1 "build-fuzz/tests/fuzz/${t}_fuzz" -max_total_time="$seconds" \
        -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$top/tests/fuzz/crashes/$t-" "$work" "tests/fuzz/corpus/$t" >"$log" 2>&1 || true
      rm -rf "$work"
      execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
      crashes=$(( $(find tests/fuzz/crashes -type f | wc -l) - before ))
      summary+=("$t: ${execs:-0} execs, $crashes crashes")
      total_execs=$((total_execs + ${execs:-0}))
      total_crashes=$((total_crashes + crashes))
    done
    printf '%s\n' "${summary[@]}"
    echo "total: $total_execs execs, $total_crashes crashes"
    [ "$total_crashes" -eq 0 ] ;;
  *)
    echo "usage: ./build.sh [build|test|demo|bench|package|fuzz [SECONDS]]" >&2
    exit 2 ;;
esac
