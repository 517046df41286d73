#!/bin/sh
# Checks the Debian packages made by ./build.sh package: what each one
# installs, the hopperd conffile and maintainer scripts, and that the unit
# inside starts the installed binary with the installed environment file.
# Exits 77 (skipped) when no packages were built or dpkg-deb is missing.
#   deb_contents.sh DIR...   (the first DIR holding the packages is used)
command -v dpkg-deb >/dev/null 2>&1 || { echo "skipped: dpkg-deb is not installed"; exit 77; }
for d in "$@"; do
  client=$(ls "$d"/hivecopy_*.deb 2>/dev/null | head -1)
  daemon=$(ls "$d"/hopperd_*.deb 2>/dev/null | head -1)
  [ -n "$client" ] && [ -n "$daemon" ] && break
done
if [ -z "$client" ] || [ -z "$daemon" ]; then
  echo "skipped: no hivecopy and hopperd packages in $* (run ./build.sh package)"
  exit 77
fi
status=0
fail() { echo "$*"; status=1; }

has() {  # has DEB PATH...
  deb=$1; shift
  list=$(dpkg-deb -c "$deb" | awk '{print $6}')
  for p in "$@"; do
    printf '%s\n' "$list" | grep -qxF "$p" || fail "$(basename "$deb") lacks $p"
  done
}
has "$client" ./usr/bin/hivecopy ./usr/share/man/man1/hivecopy.1.gz \
  ./usr/share/bash-completion/completions/hivecopy
has "$daemon" ./usr/sbin/hopperd ./usr/share/man/man8/hopperd.8.gz \
  ./lib/systemd/system/hopperd.service ./etc/default/hopperd ./var/lib/hopperd/
dpkg-deb -c "$daemon" | grep -q 'bin/hivecopy$' && fail "hopperd package holds hivecopy"
dpkg-deb -c "$client" | grep -q 'hopperd' && fail "hivecopy package holds hopperd files"
for deb in "$client" "$daemon"; do
  dpkg-deb -f "$deb" Depends | grep -q 'libc6' || fail "$(basename "$deb") has no library dependencies"
done

control=$(mktemp -d)
trap 'rm -rf "$control"' EXIT
dpkg-deb -e "$daemon" "$control"
grep -qxF /etc/default/hopperd "$control/conffiles" 2>/dev/null || fail "/etc/default/hopperd is not a conffile"
for s in postinst prerm postrm; do
  [ -x "$control/$s" ] && sh -n "$control/$s" 2>/dev/null || fail "hopperd package has no executable, parsable $s"
done
unit=$(dpkg-deb --fsys-tarfile "$daemon" | tar -xOf - ./lib/systemd/system/hopperd.service)
printf '%s\n' "$unit" | grep -q '^ExecStart=/usr/sbin/hopperd ' || fail "the unit does not start /usr/sbin/hopperd"
printf '%s\n' "$unit" | grep -qxF 'EnvironmentFile=-/etc/default/hopperd' || fail "the unit does not read /etc/default/hopperd"

# As root, and only where neither package is installed already: install
# both, then remove and purge them, and look for anything left behind.
if [ "$(id -u)" -eq 0 ] && ! dpkg -s hivecopy hopperd >/dev/null 2>&1; then
  dpkg -i "$client" "$daemon" >/dev/null 2>&1 || fail "dpkg -i of both packages failed"
  [ -x /usr/bin/hivecopy ] && /usr/sbin/hopperd --version >/dev/null 2>&1 || fail "installed programs do not run"
  dpkg -P hivecopy hopperd >/dev/null 2>&1 || fail "dpkg -P of both packages failed"
  for f in /usr/bin/hivecopy /usr/sbin/hopperd /usr/share/man/man1/hivecopy.1.gz \
           /usr/share/bash-completion/completions/hivecopy /usr/share/man/man8/hopperd.8.gz \
           /lib/systemd/system/hopperd.service /etc/default/hopperd /var/lib/hopperd /usr/share/doc/hopperd; do
    [ -e "$f" ] && fail "$f is left after removal"
  done
fi
[ $status -eq 0 ] && echo "packages in $(dirname "$client") look right"
exit $status
