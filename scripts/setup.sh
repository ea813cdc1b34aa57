#!/usr/bin/env bash
# Installs the Debian packages libtavo builds with (and any named as arguments), when any is
# missing. Idempotent: a machine
# that has them all is left untouched. Runs apt-get as root, or through sudo.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libcurl4-openssl-dev libssl-dev libsqlite3-dev nlohmann-json3-dev libzip-dev libdeflate-dev
  liblzma-dev
  libasio-dev
  libcli11-dev libcpp-httplib-dev googletest libgtest-dev libbenchmark-dev
  curl zip unzip libarchive-tools 7zip python3 ca-certificates openssl time
  e2fsprogs  # chattr pins a file that a deletion test must fail on
  nginx-light wrk  # `tavo serve` behind nginx (a tool test), and beside it (a benchmark)
  minisign  # signs packages in the signed-package tests, the demo and a benchmark
  "$@"  # extra packages a caller needs (scripts/fuzz: Clang and libFuzzer)
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages are installed"
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: need root or sudo to install packages" >&2; exit 1; }
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
