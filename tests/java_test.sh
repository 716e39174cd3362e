#!/usr/bin/env bash
# java_test.sh JAVA CLASSPATH LIBRARY_PATH CLASS: one JUnit class under -Xcheck:jni.
set -uo pipefail
java=$1 cp=$2 libpath=$3 cls=$4
log=$(mktemp)
trap 'rm -f "$log"' EXIT
"$java" -Xcheck:jni -Djava.library.path="$libpath" -cp "$cp" \
  org.junit.platform.console.ConsoleLauncher --disable-banner --details=tree --fail-if-no-tests \
  --select-class "$cls" >"$log" 2>&1
rc=$?
cat "$log"
if grep -q "WARNING in native method" "$log"; then
  echo "FAILED: -Xcheck:jni reported a warning"
  rc=1
fi
exit $rc
