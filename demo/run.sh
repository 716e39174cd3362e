#!/usr/bin/env bash
# Runs the demo against the built library (expects scripts/env.sh to have been sourced), with a
# PC/SC daemon and a virtual card running for the smart card part.
set -euo pipefail
b=${KORJNIDR_BUILD:?}
exec bash "$KORJNIDR_ROOT/tests/realstack/with_pcscd.sh" \
  "$JAVA_HOME/bin/java" -Xcheck:jni -Djava.library.path="$b" \
  -cp "$b/korjnidr.jar:$b/demo/korjnidr-demo.jar" kor.plox.ldm.demo.Demo "$@"
