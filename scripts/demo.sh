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
server_pid=
trap '[ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null || true' EXIT
cameras=()
# A second camera over RTSP: a clip made by ffmpeg, played by GStreamer's
# RTSP server on 127.0.0.1 (both come with scripts/install-deps.sh).
if command -v ffmpeg >/dev/null && /usr/bin/python3 -c 'import gi; gi.require_version("GstRtspServer", "1.0"); from gi.repository import GstRtspServer' 2>/dev/null; then
  echo "== starting a local RTSP camera (the first start builds GStreamer's registry)"
  ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=640x360:rate=25 -f lavfi -i sine=f=440:sample_rate=8000 -t 60 \
    -c:v libx264 -profile:v baseline -preset veryfast -g 50 -c:a pcm_alaw -y "$run/camera.mkv"
  /usr/bin/python3 "$root/tests/rtsp_server.py" "$run/camera.mkv" >"$run/rtsp_server.out" 2>&1 &
  server_pid=$!
  for _ in $(seq 1 240); do grep -q '^port ' "$run/rtsp_server.out" 2>/dev/null && break; sleep 0.5; done
  port=$(sed -n 's/^port //p' "$run/rtsp_server.out")
  if [ -n "$port" ]; then
    doc() {  # the plug-in's document of camera $1, recording always
      echo '{"common":{"key1":"host","key2":"4201","key3":"'"$1"'","enable":"1","_typeJS":"profiles"},"archive":{"_type":{"_value":"writer"},"writer":{"in":{"_value":"trackSource"},"arc_key1":{"_value":"demo"},"arc_key2":{"_value":"'"$1"'"},"arc_key3":{"_value":"main"}}}}'
    }
    cat >"$run/cameras.json" <<EOF2
{"cameras": [
  {"name": "cam1", "source": {"type": "synthetic", "fps": 25, "key_interval_ms": 2000, "audio": true}, "config": $(doc cam1)},
  {"name": "rtsp", "source": {"type": "stream", "url": "rtsp://127.0.0.1:$port/cam"}, "config": $(doc rtsp)}]}
EOF2
    cameras=(--cameras "$run/cameras.json")
  else
    echo "  (the RTSP server did not come up; recording the synthetic camera alone)"
  fi
fi
echo
echo "== recording for 10 s into $run, with the web front (dashboard, API, /metrics) on 127.0.0.1"
set +e
"$bin/writer-host" --archive "$run/archive" --log "$run/log" --state "$run" --duration 10 "${cameras[@]}" \
  --http "${WRITER_HTTP:-127.0.0.1:0}"
status=$?
set -e
echo
echo "== writer-archive list --root $run/archive"
"$bin/writer-archive" list --root "$run/archive"
echo
echo "== writer-archive verify --root $run/archive"
"$bin/writer-archive" verify --root "$run/archive" | tail -n 1
if [ ${#cameras[@]} -gt 0 ]; then
  echo
  echo "== export and play what the RTSP camera recorded"
  "$bin/writer-archive" export --root "$run/archive" --camera demo_rtsp_main --format mkv --out "$run/rtsp.mkv" || true
  echo "  MP4 (video, and the A-law audio as AAC):"
  echo "    $bin/writer-archive export --root $run/archive --camera demo_rtsp_main --format mp4 --out $run/rtsp.mp4"
  echo "  play: ffplay $run/rtsp.mkv    (or any player)"
fi
echo
echo "== summary"
echo "  writer-host exit status: $status (0: every camera recorded)"
echo "  archive: $(du -sh "$run/archive" | cut -f1) in $run/archive; logs in $run/log"
exit $status
