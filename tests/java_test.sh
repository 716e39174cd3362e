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
# -Xcheck:jni reports misuse ("WARNING in native method") and local references that grew past
# what a native method planned for ("WARNING: JNI local refs"); either fails the class.
if grep -qE "WARNING in native method|WARNING: JNI local refs" "$log"; then
  echo "FAILED: -Xcheck:jni reported a warning"
  rc=1
fi
exit $rc
