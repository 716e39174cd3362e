#!/usr/bin/env bash
# Coverage-guided fuzzing of the smart card path with libFuzzer (clang), seeded with the captured
# server requests. Usage: bash scripts/fuzz.sh [seconds]   (default 60)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bash "$here/setup.sh"
for p in clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' \
    || { apt-get update -qq >/dev/null; apt-get install -y -qq "$p" >/dev/null; }
done
source "$here/env.sh"
build=$KORJNIDR_ROOT/build-fuzz
CC=clang CXX=clang++ cmake -S "$KORJNIDR_ROOT" -B "$build" -DKORJNIDR_BENCHMARKS=OFF >/dev/null
cmake --build "$build" --target scard_fuzzer -j "$(nproc)"
corpus=$build/corpus
mkdir -p "$corpus"
# Seed: each captured request behind its two-byte control code and an answer variant of 0.
grep -v "^#" "$KORJNIDR_ROOT/tests/data/windows-server/requests.tsv" | while read -r id ioctl _ hex; do
  code=$((ioctl & 0xFFFF))
  printf "$(printf '\\x%02x\\x%02x\\x00' $((code & 0xFF)) $((code >> 8)))" >"$corpus/${id//#/_}"
  perl -e "print pack(q(H*), q($hex))" >>"$corpus/${id//#/_}"
done
"$build/fuzz/scard_fuzzer" -max_total_time="${1:-60}" -max_len=4096 "$corpus"
