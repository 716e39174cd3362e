#!/usr/bin/env bash
# Builds and runs the benchmarks: the C++ ones (Google Benchmark) and the Java harness of the JNI
# paths. Speed is measured here, never in tests.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bash "$here/setup.sh"
source "$here/env.sh"
korjnidr_build >/dev/null
b=$KORJNIDR_BUILD
for exe in "$b"/bench/*_bench; do
  echo "== $(basename "$exe")"
  "$exe" --benchmark_min_time=0.2
done
echo "== JNI paths (Java harness)"
"$JAVA_HOME/bin/java" -Djava.library.path="$b" -cp "$b/korjnidr.jar:$b/bench/korjnidr-bench.jar" kor.plox.ldm.bench.JniBench
