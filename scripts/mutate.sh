#!/usr/bin/env bash
# Mutation sampling over the units that carry the behaviour:
#   scripts/mutate.sh [--seed N] [--count N] [--build DIR] [--asan DIR] [--pick 3,7-9] [--list]
# See scripts/mutate.py for what a mutant is and how it is judged;
# scripts/mutate-equivalent.txt lists the mutants marked equivalent by hand.
# Builds in its own folders (default build-mut, and build-mut-asan for the
# sanitizer stage of survivors) with ccache, two jobs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CMAKE_C_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=${CCACHE_BASEDIR:-$root} CCACHE_NOHASHDIR=1
fi
exec /usr/bin/python3 "$root/scripts/mutate.py" "$@"
