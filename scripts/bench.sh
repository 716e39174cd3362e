#!/usr/bin/env bash
# Builds and runs the benchmarks: first the Java harnesses of the JNI paths, which print one table
# of paired ratios (each figure beside what runs with it in the same run), then the C++ ones
# (Google Benchmark). Speed is measured here, never in tests.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bash "$here/setup.sh"
source "$here/env.sh"
korjnidr_build >/dev/null
b=$KORJNIDR_BUILD
java=("$JAVA_HOME/bin/java" -Djava.library.path="$b:$b/bench" -cp "$b/korjnidr.jar:$b/bench/korjnidr-bench.jar")
harness_dir=$KORJNIDR_ROOT/bench/java/kor/plox/ldm/bench

# One table: the header once, then the rows of every harness class (*Bench.java), each in its own
# JVM; the known ones first, in this order, then any other found.
harnesses=(IoBench DispatchBench WatchBench)
for f in "$harness_dir"/*Bench.java; do
  name=$(basename "$f" .java)
  [[ " ${harnesses[*]} " == *" $name "* ]] || harnesses+=("$name")
done
"${java[@]}" kor.plox.ldm.bench.BenchTable
for harness in "${harnesses[@]}"; do
  [ -f "$harness_dir/$harness.java" ] || continue
  "${java[@]}" -Dbench.continued=true "kor.plox.ldm.bench.$harness" || echo "| $harness stopped with status $? |"
done

# The C++ benchmarks of today's sources (a binary left from a deleted source is not run).
for src in "$KORJNIDR_ROOT"/bench/*_bench.cpp; do
  exe=$b/bench/$(basename "$src" .cpp)
  [ -x "$exe" ] || continue
  echo
  echo "== $(basename "$exe")"
  "$exe" --benchmark_min_time=0.2 || echo "$(basename "$exe") stopped with status $?"
done
