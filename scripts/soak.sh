#!/usr/bin/env bash
# Long run of writer-host in real time: scripts/soak.sh CAMERAS MINUTES [BUILD_DIR]
#
# Records CAMERAS synthetic cameras (video 25 fps with a key frame every 2 s,
# FRAME_BYTES a frame, default 2000, and 20 ms PCMA audio) for MINUTES, and
# every 10 s samples the process's resident memory (VmRSS), threads and open
# files from /proc. At the end it prints the samples and the growth of each
# figure from the first minute's end to the last sample: a process that runs
# for months must be flat once its buffers and archive files are warm.
# The run's folders are removed unless KEEP=1.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cams=${1:?usage: soak.sh CAMERAS MINUTES [BUILD_DIR]}
minutes=${2:?usage: soak.sh CAMERAS MINUTES [BUILD_DIR]}
build=${3:-$root/build}
bin=$build/bin
frame_bytes=${FRAME_BYTES:-2000}
period=10
[[ $cams =~ ^[0-9]+$ && $cams -ge 1 ]] || { echo "soak.sh: CAMERAS must be a whole number above 0" >&2; exit 2; }
[[ $minutes =~ ^[0-9]+$ && $minutes -ge 2 ]] || { echo "soak.sh: MINUTES must be a whole number, at least 2" >&2; exit 2; }
[ -x "$bin/writer-host" ] || { echo "soak.sh: no $bin/writer-host; build first (scripts/build.sh build)" >&2; exit 2; }

work=$(mktemp -d /tmp/writer-soak.XXXXXX)
host_pid=
cleanup() {
  [ -n "$host_pid" ] && kill "$host_pid" 2>/dev/null && wait "$host_pid" 2>/dev/null
  [ "${KEEP:-0}" = 1 ] && echo "kept: $work" || rm -rf "$work"
}
trap cleanup EXIT

{
  printf '{"cameras":['
  for ((i = 1; i <= cams; i++)); do
    [ "$i" -gt 1 ] && printf ','
    printf '{"name":"c%d","source":{"type":"synthetic","fps":25,"key_interval_ms":2000,"frame_bytes":%d,' "$i" "$frame_bytes"
    printf '"audio":true,"audio_frame_ms":20},"config":{"common":{"key1":"soak","key2":"%d","key3":"c%d",' "$i" "$i"
    printf '"enable":"1","_typeJS":"profiles"},"archive":{"writer":{"in":{"_value":"trackSource"},'
    printf '"by_events":{"_value":false},"arc_key1":{"_value":"soak"},"arc_key2":{"_value":"c%d"},' "$i"
    printf '"arc_key3":{"_value":"main"}}}}}'
  done
  printf ']}\n'
} >"$work/cams.json"

seconds=$((minutes * 60))
"$bin/writer-host" --cameras "$work/cams.json" --duration "$seconds" --drain 10 --archive "$work/arc" \
  --log "$work/log" --state "$work" >"$work/host.txt" 2>&1 &
host_pid=$!

# One line per sample: seconds since start, resident KB, threads, open
# files, the plug-in's frame-buffer memory from the latest progress line
# (MB): the buffers size themselves from the traffic, so they tell a
# process that grows from a plug-in that holds more frames; and the
# machine's load (1-minute average), since a loaded machine stalls the run
# and makes the buffers grow.
sample() {
  local rss thr fds buf load
  rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$host_pid/status" 2>/dev/null) || return 1
  thr=$(awk '/^Threads:/ { print $2 }' "/proc/$host_pid/status" 2>/dev/null) || return 1
  fds=$(ls "/proc/$host_pid/fd" 2>/dev/null | wc -l)
  buf=$(tail -n 40 "$work/host.txt" | grep -o 'buffers [0-9.]* MB' | tail -n 1 | awk '{ print $2 }')
  load=$(cut -d' ' -f1 /proc/loadavg)
  [ -n "$rss" ] && echo "$1 $rss $thr $fds ${buf:-0} $load"
}

echo "soak: $cams cameras, $minutes min, $frame_bytes bytes a video frame, pid $host_pid, samples every ${period} s"
printf "%6s %10s %8s %6s %11s %6s\n" "s" "rss KB" threads files "buffers MB" load
start=$(date +%s)
: >"$work/samples.txt"
while kill -0 "$host_pid" 2>/dev/null; do
  now=$(($(date +%s) - start))
  [ "$now" -ge "$seconds" ] && break
  line=$(sample "$now") || break
  [ -n "$line" ] || break
  echo "$line" >>"$work/samples.txt"
  printf "%6d %10d %8d %6d %11s %6s\n" $line
  sleep $period
done
wait "$host_pid" && rc=0 || rc=$?
host_pid=
grep -E '^(archive|frames|whole|result)' "$work/host.txt" || true
echo "writer-host exit status: $rc"

# Growth from the first sample at or after WARM seconds to the last one;
# the peak after warm-up too, since a leak can hide behind a late dip.
# Judged after the first minute; told also after 300 s, once every frame
# buffer has been through its first 240 s reduction check.
growth() {
  awk -v warm="$1" '
    $1 >= warm && base == "" { base = $2; bthr = $3; bfds = $4; bt = $1; bbuf = $5 }
    base != "" { last = $2; lthr = $3; lfds = $4; lt = $1; lbuf = $5; if ($2 > peak) peak = $2; if ($5 > pbuf) pbuf = $5
                 load += $6; n++; if ($6 > pload) pload = $6 }
    END {
      if (base == "") { printf "soak: no sample after %d s\n", warm; exit 1 }
      printf "after %d s (%d s to %d s): resident %d KB -> %d KB (%+.2f %%, peak %+.2f %%), threads %d -> %d, files %d -> %d, buffers %s MB -> %s MB (peak %s MB)\n",
             warm, bt, lt, base, last, 100 * (last - base) / base, 100 * (peak - base) / base, bthr, lthr, bfds, lfds, bbuf, lbuf, pbuf
      # The buffers size themselves from the traffic (a late machine makes
      # them hold more), so the rest of the process is told on its own.
      bo = base - bbuf * 1024; lo = last - lbuf * 1024
      printf "  resident beside the frame buffers: %d KB -> %d KB (%+.2f %%)\n", bo, lo, 100 * (lo - bo) / bo
      printf "  machine load (1-minute average) over that time: mean %.2f, peak %.2f\n", load / n, pload
      exit (100 * (last - base) / base < 1 && lthr <= bthr && lfds <= bfds) ? 0 : 3
    }' "$work/samples.txt"
}
[ "$seconds" -gt 300 ] && { growth 300 || true; }
growth 60
