#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test (C++, Java, stand-in and real PC/SC).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bash "$here/setup.sh"
source "$here/env.sh"
korjnidr_build
cd "$KORJNIDR_BUILD"
ctest --output-on-failure -j 2 "$@"
