#!/usr/bin/env bash
# doctor_without_pcscd.sh KORJNIDR: with no PC/SC daemon running (the real-stack lock held, so no
# test starts one), `korjnidr doctor` must name the daemon as the fault and exit non-zero.
set -uo pipefail
korjnidr=$1
exec 9>/tmp/korjnidr-realstack.lock
flock -w 600 9 || { echo "lock busy" >&2; exit 1; }
if pgrep -x pcscd >/dev/null; then
  echo "a pcscd that no test started is running; cannot check the stopped case"
  exit 0
fi
out=$("$korjnidr" doctor 2>&1)
status=$?
echo "$out"
[ $status -ne 0 ] || { echo "FAILED: doctor exited 0 with no PC/SC daemon"; exit 1; }
echo "$out" | grep -q '^FAIL  PC/SC daemon .*SCARD_E_NO_SERVICE.*not running' \
  || { echo "FAILED: doctor did not name the PC/SC daemon"; exit 1; }
