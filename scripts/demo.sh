#!/usr/bin/env bash
# The demonstration: installs what is missing, builds, and runs the base
# layer's benchmarks (trace calls, activity marks, checked memory, hashing,
# bus delivery), then prints a summary.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$root/build"
out=$(mktemp)
for b in bench_base bench_bus; do
  if [ -x "$root/build/bin/$b" ]; then
    "$root/build/bin/$b" --benchmark_min_time=0.2 | tee -a "$out"
  fi
done
echo
echo "== summary (time per operation)"
grep -E '^[A-Za-z_][^ ]* +[0-9.]+ (ns|us|ms) ' "$out" | awk '{printf "  %-48s %10s %s\n", $1, $2, $3}'
rm -f "$out"
