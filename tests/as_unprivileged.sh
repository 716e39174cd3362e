#!/usr/bin/env bash
# as_unprivileged.sh COMMAND...: runs COMMAND as nobody (65534) when started as root, so that the
# kernel's permission checks apply to it; otherwise runs it as the current user, which is then
# unprivileged already. A test that still finds itself root skips with its reason.
if [ "$(id -u)" = 0 ] && command -v setpriv >/dev/null 2>&1; then
  exec setpriv --reuid=65534 --regid=65534 --clear-groups "$@"
fi
exec "$@"
