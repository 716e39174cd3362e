#!/usr/bin/env bash
# Installs what the build, the demo and the tests need on a bare Debian bookworm (run as root).
# Idempotent and quiet when everything is already present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  openjdk-17-jdk-headless junit5
  libgtest-dev libgmock-dev libbenchmark-dev
  libpcsclite-dev pcscd pcsc-tools
  vsmartcard-vpcd vsmartcard-vpicc python3-pycryptodome
  util-linux
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
