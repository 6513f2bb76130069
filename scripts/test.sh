#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds, runs every test,
# then builds and runs it all again under AddressSanitizer with
# UndefinedBehaviorSanitizer, and once more under ThreadSanitizer; last, it
# builds the fuzz targets with clang and runs each for a short time. Any
# failure, sanitizer report or fuzz finding fails it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
jobs=$(nproc)

echo "== plain build"
"$root/scripts/build.sh" "$root/build"
(cd "$root/build" && ctest --output-on-failure -j "$jobs")

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
"$root/scripts/build.sh" "$root/build-asan" address
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:halt_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
(cd "$root/build-asan" && ctest --output-on-failure -j "$jobs")

echo "== ThreadSanitizer build"
"$root/scripts/tsan.sh"

echo "== fuzzing, each target for ${WRITER_FUZZ_SECONDS:-20} s"
fuzz_work=$(mktemp -d /tmp/writer-fuzz-XXXXXX)
FUZZ_WORK="$fuzz_work" FUZZ_SEED="${WRITER_FUZZ_SEED:-1}" "$root/scripts/fuzz.sh" "${WRITER_FUZZ_SECONDS:-20}"
rm -rf "$fuzz_work"
