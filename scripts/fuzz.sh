#!/usr/bin/env bash
# Fuzzes every input of the plug-in and the reference archive's reader:
#   scripts/fuzz.sh SECONDS [TARGET...]
# Builds the libFuzzer targets with clang (folder build-fuzz), then runs each
# for SECONDS, starting from its seeds in fuzz/corpus/<target>/ and from the
# work corpus, which takes what the run finds: $FUZZ_WORK/<target>/ (default
# /var/tmp/writer-fuzz, outside the repository). Prints executions, coverage
# and features per target. A crash, leak, sanitizer report or hang fails the
# run; its input is kept as $FUZZ_WORK/artifacts/<target>-crash-... and the
# path printed, to be replayed with: build-fuzz/bin/<target> FILE
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:?usage: scripts/fuzz.sh SECONDS [TARGET...]}
shift
case "$seconds" in '' | *[!0-9]*) echo "fuzz.sh: SECONDS must be a whole number" >&2; exit 2 ;; esac
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(fuzz_camera_document fuzz_query fuzz_event fuzz_frame fuzz_status fuzz_forced fuzz_schedule
           fuzz_web_service fuzz_saved_file fuzz_profile_file fuzz_archive)
fi
work=${FUZZ_WORK:-/var/tmp/writer-fuzz}
# FUZZ_SEED fixes libFuzzer's random seed: the test command's short stage
# then walks the same inputs on every run, so that it fails on a fault of the
# code, not on a lucky draw; a long run without it explores afresh.
seed_arg=
[ -n "${FUZZ_SEED:-}" ] && seed_arg="-seed=${FUZZ_SEED}"
dir="$root/build-fuzz"

# -O1 with line tables: quick to build, fast enough to run, stacks with lines.
CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Fuzz -DCMAKE_C_FLAGS_FUZZ="-O1 -gline-tables-only" \
  -DCMAKE_CXX_FLAGS_FUZZ="-O1 -gline-tables-only" -DWRITER_FUZZ=ON >/dev/null
cmake --build "$dir" --target fuzz_all

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:halt_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
mkdir -p "$work/artifacts"
failed=()
printf '%-22s %12s %10s %8s %8s %8s\n' target executions execs/s cov ft corpus > "$work/summary.txt"
for t in "${targets[@]}"; do
  mkdir -p "$work/$t"
  log="$work/$t.log"
  echo "== $t, ${seconds} s"
  rc=0
  "$dir/bin/$t" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 -print_final_stats=1 ${seed_arg} \
    -artifact_prefix="$work/artifacts/$t-" "$work/$t" "$root/fuzz/corpus/$t" >"$log" 2>&1 || rc=$?
  if [ "$rc" -ne 0 ]; then
    failed+=("$t")
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written|==[0-9]+==' "$log" | head -20 || true
    echo "!! $t failed (exit $rc); its log: $log"
    grep -o 'Test unit written to [^ ]*' "$log" | sed 's/^Test unit written to /!! reproducer: /' || true
    continue
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  last=$(grep -E '^#[0-9]+' "$log" | tail -1)
  cov=$(echo "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
  ft=$(echo "$last" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
  corp=$(echo "$last" | sed -n 's/.* corp: \([0-9]*\).*/\1/p')
  printf '%-22s %12s %10s %8s %8s %8s\n' "$t" "$execs" "$speed" "$cov" "$ft" "$corp" | tee -a "$work/summary.txt"
done
echo
cat "$work/summary.txt"
echo "fuzz: $((${#targets[@]} - ${#failed[@]})) passed, ${#failed[@]} failed"
if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzz.sh: findings in: ${failed[*]} (reproducers in $work/artifacts)" >&2
  exit 1
fi
