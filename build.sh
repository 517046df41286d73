#!/usr/bin/env bash
# Set-up, build, test and demo entry point.
#   ./build.sh          install missing packages, build (build/)
#   ./build.sh test     the above, then the whole suite twice: a normal build
#                       and an AddressSanitizer+UndefinedBehaviorSanitizer build
#   ./build.sh demo     build, then upload a sample tree to three local daemons
#   ./build.sh bench    build, then run the benchmarks under bench/
#   ./build.sh package  release build in build-package/ (prefix /usr), then
#                       the Debian packages hivecopy and hopperd (cpack -G DEB)
set -euo pipefail
cd "$(dirname "$0")"
top=$PWD

packages=(cmake ninja-build g++ googletest libgtest-dev libgmock-dev
          libssl-dev libcurl4-openssl-dev openssl python3 procps iproute2)

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
    build build
    exec "$top/bench/run.sh" "$top/build" ;;
  package)
    packages+=(dpkg-dev)  # dpkg-shlibdeps works out the packages' dependencies
    install_packages
    build build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DHIVE_TESTS=OFF
    (cd build-package && rm -f ./*.deb && cpack -G DEB >/dev/null)
    ls -1 "$top"/build-package/*.deb ;;
  *)
    echo "usage: ./build.sh [build|test|demo|bench|package]" >&2
    exit 2 ;;
esac
