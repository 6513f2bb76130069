#!/usr/bin/env bash
# Installs what the build and the tests need from Debian's packages. Does
# nothing when everything is there already.
set -euo pipefail
pkgs=(cmake ninja-build g++ pkg-config libyajl-dev libgtest-dev libgmock-dev libbenchmark-dev)
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
