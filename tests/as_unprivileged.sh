#!/usr/bin/env bash
# as_unprivileged.sh COMMAND...: runs COMMAND as nobody (65534) when started as root, so that the
# kernel's permission checks apply to it; otherwise runs it as the current user, which is then
# unprivileged already. A test that still finds itself root skips with its reason.
# nobody may be unable to enter the checkout (a root home is mode 0700, so is any mktemp -d): each
# argument, or element of a colon-separated list, naming a file or folder that nobody cannot read
# is replaced by a copy in a scratch folder that nobody can read. Of a folder (a library path)
# only its shared libraries are copied.
set -uo pipefail
if [ "$(id -u)" != 0 ] || ! command -v setpriv >/dev/null 2>&1; then exec "$@"; fi
as_nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
chmod 755 "$scratch"
copies=0
readable() { as_nobody test -r "$1" && { [ ! -d "$1" ] || as_nobody test -x "$1"; }; }
reachable() {  # sets `path` to $1 or to its copy
  path=$1
  if [ -z "$path" ] || [ ! -e "$path" ] || readable "$path"; then return; fi
  copies=$((copies + 1))
  mkdir "$scratch/$copies"
  if [ -d "$1" ]; then
    path=$scratch/$copies
    cp "$1"/*.so "$path"/ 2>/dev/null
  else
    path=$scratch/$copies/$(basename "$1")
    cp "$1" "$path"
  fi
}

args=()
for arg in "$@"; do
  IFS=: read -ra parts <<<"$arg"
  joined=
  for part in "${parts[@]}"; do
    reachable "$part"
    joined+=${joined:+:}$path
  done
  args+=("$joined")
done
chmod -R a+rX "$scratch"
cd "$scratch" && as_nobody "${args[@]}"
