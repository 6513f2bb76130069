#!/usr/bin/env bash
# Configures and builds one build folder: scripts/build.sh DIR [SANITIZER]
# SANITIZER is empty, "address" (with undefined behaviour) or "thread".
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
san=${2:-}
type=RelWithDebInfo
[ -n "$san" ] && type=Debug
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=$type -DWRITER_SANITIZER="$san" >/dev/null
cmake --build "$dir"
