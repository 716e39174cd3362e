#!/usr/bin/env bash
# Sets up the machine, builds the library and runs the demo in a real JVM.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bash "$here/setup.sh"
source "$here/env.sh"
korjnidr_build >/dev/null
exec bash "$KORJNIDR_ROOT/demo/run.sh"
