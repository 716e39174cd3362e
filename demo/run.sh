#!/usr/bin/env bash
# Runs the demo against the built library (expects scripts/env.sh to have been sourced).
set -euo pipefail
b=${KORJNIDR_BUILD:?}
exec "$JAVA_HOME/bin/java" -Xcheck:jni -Djava.library.path="$b" \
  -cp "$b/korjnidr.jar:$b/demo/korjnidr-demo.jar" kor.plox.ldm.demo.Demo "$@"
