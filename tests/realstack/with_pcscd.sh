#!/usr/bin/env bash
# with_pcscd.sh COMMAND...: runs COMMAND against a real PC/SC stack: pcscd in the foreground with
# the vpcd reader driver, and vicc presenting an ISO 7816 card (ATR 3B 95 13 81 01 80 73 FF 01 00 0B)
# in reader "Virtual PCD 00 00". Waits (bounded) until the card answers, runs COMMAND, and stops
# both processes by PID whatever happens. Runs on this machine are serialised with a lock file,
# since pcscd's socket is machine-wide.
set -uo pipefail
[ $# -gt 0 ] || { echo "usage: $0 COMMAND..." >&2; exit 2; }

exec 9>/tmp/korjnidr-realstack.lock
flock -w 600 9 || { echo "realstack: lock busy" >&2; exit 1; }

work=$(mktemp -d)
pids=()
stop() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  rm -rf "$work"
}
trap stop EXIT
trap 'exit 130' INT TERM

pcscd_opts=(-f)
pcscd --help 2>&1 | grep -q -- '--disable-polkit' && pcscd_opts+=(--disable-polkit)
# A pcscd started elsewhere holds the machine-wide socket and makes ours exit: retry a while.
started=0
for _ in $(seq 120); do
  pcscd "${pcscd_opts[@]}" >"$work/pcscd.log" 2>&1 &
  pid=$!
  sleep 0.5
  if kill -0 "$pid" 2>/dev/null; then
    pids+=("$pid")
    started=1
    break
  fi
  sleep 1
done
if [ $started -ne 1 ]; then
  echo "realstack: pcscd does not start" >&2
  cat "$work/pcscd.log" >&2
  exit 1
fi

# vicc needs the system python and pycryptodome under the name Crypto.
mkdir "$work/shim"
ln -s /usr/lib/python3/dist-packages/Cryptodome "$work/shim/Crypto"
for _ in $(seq 50); do [ -S /run/pcscd/pcscd.comm ] && break; sleep 0.1; done
PYTHONPATH=/usr/lib/python3/site-packages/virtualsmartcard:$work/shim \
  /usr/bin/python3 /usr/bin/vicc -t iso7816 >"$work/vicc.log" 2>&1 &
pids+=($!)

# The card is up once a SELECT through the reader gets an answer.
ready=0
for _ in $(seq 100); do
  if echo "00 A4 04 00 00" | timeout 5 scriptor -r "Virtual PCD 00 00" 2>/dev/null | grep -q '6A 82'; then
    ready=1
    break
  fi
  sleep 0.2
done
if [ $ready -ne 1 ]; then
  echo "realstack: no card in Virtual PCD 00 00" >&2
  cat "$work/pcscd.log" "$work/vicc.log" >&2
  exit 1
fi

"$@"
