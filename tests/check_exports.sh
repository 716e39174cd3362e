#!/usr/bin/env bash
# check_exports.sh LIBRARY JAVA_SOURCE: the library exports JNI_OnLoad and NativeLDM entry points
# only, exports one for every native method declared in Java, and does not link pcsc-lite.
set -euo pipefail
lib=$1 java=$2
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort)
stray=$(grep -vE '^(JNI_OnLoad|Java_kor_plox_ldm_NativeLDM_.+)$' <<<"$exported" || true)
if [ -n "$stray" ]; then echo "unexpected exports:"; echo "$stray"; exit 1; fi
declared=$(grep -oE 'native [^(]+ [A-Za-z_0-9]+\(' "$java" | sed -E 's/.* ([A-Za-z_0-9]+)\($/\1/' \
  | sed 's/_/_1/g; s/^/Java_kor_plox_ldm_NativeLDM_/' | sort)
missing=$(comm -23 <(echo "$declared") <(echo "$exported"))
echo "exported $(grep -c . <<<"$exported") symbols for $(grep -c . <<<"$declared") declared natives"
if [ -n "$missing" ]; then echo "declared but not exported:"; echo "$missing"; exit 1; fi
if ldd "$lib" | grep -qi pcsclite; then echo "library links pcsc-lite"; exit 1; fi
echo "exports and dependencies are as expected"
