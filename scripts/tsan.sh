#!/usr/bin/env bash
# The whole test suite under ThreadSanitizer, in its own build folder
# (build-tsan): frame sources racing the buffering thread and
# reconfiguration, the bus, the monitor, the checked memory, the server.
# Any report fails the run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir="$root/build-tsan"
"$root/scripts/build.sh" "$dir" thread
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/scripts/tsan.supp"
cd "$dir" && ctest --output-on-failure -j "$(nproc)"
