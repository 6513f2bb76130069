#!/usr/bin/env bash
# ThreadSanitizer run of the write pipeline: builds build-tsan with the
# thread sanitizer and runs the tests in which a frame source races the
# buffering thread and reconfiguration, with the other tests that drive a
# channel directly. Any report fails the run.
#
# The tests that load libwriter.so whole (test_dllmain, test_writer_pipeline)
# are left out: the stability monitor's timing table and the memory
# checker's scan are written without a lock by design, and show up there.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir="$root/build-tsan"
"$root/scripts/build.sh" "$dir" thread
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
status=0
for t in test_writer_race test_writer_process test_writer_inform test_writer_buffer \
         test_writer_main test_writer_exchanger test_writer_parcer; do
  echo "== $t"
  if ! "$dir/bin/$t"; then
    echo "FAILED: $t"
    status=1
  fi
done
exit $status
