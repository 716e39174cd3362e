#!/usr/bin/env bash
# package_test.sh BUILD: makes the Debian package, checks its dependencies, unpacks it into a
# scratch root and runs the installed `korjnidr doctor` against the test bed (pcscd + virtual
# card): it must pass, using the library from the scratch root.
set -uo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() { echo "FAILED: $*"; exit 1; }

(cd "$build" && cpack -G DEB -B "$root/out" >/dev/null) || fail "cpack -G DEB"
deb=$(ls "$root"/out/korjnidr_*.deb) || fail "no package made"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for d in libpcsclite1 java17-runtime-headless libc6 libstdc++6; do
  echo "$depends" | grep -q "$d" || fail "Depends lacks $d"
done
[ "$(dpkg-deb -f "$deb" Recommends)" = pcscd ] || fail "pcscd not recommended"
dpkg -x "$deb" "$root/fs" || fail "dpkg -x"
for f in usr/bin/korjnidr usr/share/java/korjnidr.jar usr/lib/jni/libkorjnidr.so usr/share/doc/korjnidr/api/index.html; do
  [ -e "$root/fs/$f" ] || fail "package lacks /$f"
done
out=$(bash "$here/with_pcscd.sh" "$root/fs/usr/bin/korjnidr" doctor 2>&1)
status=$?
echo "$out"
[ $status -eq 0 ] || fail "installed doctor exited $status"
echo "$out" | grep -q "loaded from $root/fs/usr/lib/jni/libkorjnidr.so" || fail "doctor did not use the installed library"
echo "$out" | grep -q '^ok    Virtual PCD 00 00 .*card present, ATR 3B' || fail "doctor did not see the virtual card"
