# Sourced by the scripts: toolchain locations that a bare machine does not export.
if [ -z "${JAVA_HOME:-}" ] || [ ! -x "${JAVA_HOME}/bin/javac" ]; then
  JAVA_HOME=$(dirname "$(dirname "$(readlink -f "$(command -v javac)")")")
  export JAVA_HOME
fi
KORJNIDR_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
KORJNIDR_BUILD=${KORJNIDR_BUILD:-$KORJNIDR_ROOT/build}
export KORJNIDR_ROOT KORJNIDR_BUILD

korjnidr_build() {
  cmake -S "$KORJNIDR_ROOT" -B "$KORJNIDR_BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$KORJNIDR_BUILD" -j "$(nproc)"
}
