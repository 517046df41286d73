#!/usr/bin/env bash
# Demo: three daemons on 127.0.0.2-4, each with its own root, receive a sample
# tree from one hivecopy run; then every copy is checked byte for byte.
set -euo pipefail
build=${1:-"$(cd "$(dirname "$0")/.." && pwd)/build"}
hivecopy=$build/hivecopy
hopperd=$build/hopperd
for p in "$hivecopy" "$hopperd"; do
  [ -x "$p" ] || { echo "demo: $p is missing; run ./build.sh first" >&2; exit 1; }
done

work=$(mktemp -d /tmp/hivecopy-demo.XXXXXX)
source "$(dirname "$0")/local-daemons.sh"

# A sample tree: nested folders, an empty file, a name with blanks, an
# executable script and a few megabytes of random bytes.
src=$work/src/sample
mkdir -p "$src/docs/notes" "$src/bin" "$src/data"
echo "hello from hivecopy" > "$src/README.txt"
printf 'line %d\n' $(seq 1 500) > "$src/docs/notes/lines.txt"
: > "$src/docs/empty.txt"
echo "a file with blanks in its name" > "$src/docs/odd name (1).txt"
printf '#!/bin/sh\necho tool\n' > "$src/bin/tool.sh"; chmod 755 "$src/bin/tool.sh"
head -c 5000000 /dev/urandom > "$src/data/blob.bin"; chmod 600 "$src/data/blob.bin"

start_local_daemons 2 3 4
echo "== three daemons listening on 127.0.0.2, 127.0.0.3 and 127.0.0.4"

echo "== hivecopy --verbose --hosts=\"127.0.0.{2-4}\" $src /srv/demo"
"$hivecopy" --verbose --hosts="127.0.0.{2-4}" "$src" /srv/demo

listing() {  # mode, size and relative path of every file below $1
  (cd "$1" && find . -type f -printf '%M %s %p\n' | sort)
}
status=0
for i in 2 3 4; do
  got=$work/host$i/root/srv/demo/sample
  echo "== host 127.0.0.$i: /srv/demo/sample holds"
  listing "$got" | sed 's/^/   /'
  if diff -r "$src" "$got" >/dev/null && diff <(listing "$src") <(listing "$got") >/dev/null; then
    echo "   identical to the source, byte for byte and mode for mode"
  else
    echo "   DIFFERS from the source" >&2
    status=1
  fi
done
exit $status
