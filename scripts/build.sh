#!/usr/bin/env bash
# Configures and builds one build folder: scripts/build.sh DIR [SANITIZER] [COMPILER]
# SANITIZER is empty, "address" (with undefined behaviour) or "thread".
# COMPILER is "gcc" (the default) or "clang"; a folder keeps the compiler it
# was first configured with.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
san=${2:-}
compiler=${3:-gcc}
type=RelWithDebInfo
[ -n "$san" ] && type=Debug
case "$compiler" in
  gcc) cc=gcc cxx=g++ ;;
  clang) cc=clang cxx=clang++ ;;
  *) echo "build.sh: compiler must be gcc or clang, not '$compiler'" >&2; exit 2 ;;
esac
CC=$cc CXX=$cxx cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=$type -DWRITER_SANITIZER="$san" >/dev/null
cmake --build "$dir"
