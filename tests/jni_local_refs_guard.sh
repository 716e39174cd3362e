#!/usr/bin/env bash
# jni_local_refs_guard.sh COMMAND...: runs COMMAND and fails when -Xcheck:jni reported that a
# native method held more local references than the VM had planned for.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
"$@" 2>&1 | tee "$log"
rc=${PIPESTATUS[0]}
if grep -q "WARNING: JNI local refs" "$log"; then
  echo "FAILED: a native method let its local references grow"
  rc=1
fi
exit "$rc"
