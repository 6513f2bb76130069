#!/usr/bin/env bash
# The demonstration: installs what is missing, builds everything, records
# the embedded default camera (synthetic video at 25 fps and 20 ms PCMA
# audio) with writer-host for about ten seconds into a fresh folder, then
# lists what the archive holds and checks it. The web front listens on a
# free loopback port while it records (WRITER_HTTP=ADDR:PORT picks one); its
# address is printed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$root/build"
bin="$root/build/bin"
run=$(mktemp -d /tmp/writer-demo.XXXXXX)
echo
echo "== recording for 10 s into $run, with the web front (dashboard, API, /metrics) on 127.0.0.1"
set +e
"$bin/writer-host" --archive "$run/archive" --log "$run/log" --state "$run" --duration 10 \
  --http "${WRITER_HTTP:-127.0.0.1:0}"
status=$?
set -e
echo
echo "== writer-archive list --root $run/archive"
"$bin/writer-archive" list --root "$run/archive"
echo
echo "== writer-archive verify --root $run/archive"
"$bin/writer-archive" verify --root "$run/archive" | tail -n 1
echo
echo "== summary"
echo "  writer-host exit status: $status (0: every camera recorded)"
echo "  archive: $(du -sh "$run/archive" | cut -f1) in $run/archive; logs in $run/log"
exit $status
