#!/usr/bin/env bash
# Installs what the build and the tests need from Debian's packages. Does
# nothing when everything is there already.
set -euo pipefail
pkgs=(
  # build and unit tests
  cmake ninja-build g++ clang pkg-config ccache libyajl-dev libgtest-dev libgmock-dev libbenchmark-dev
  # fuzzing (libFuzzer and the sanitizer runtimes for clang)
  libfuzzer-14-dev libclang-rt-14-dev
  # streams and containers, and their test peers: ffprobe/ffmpeg, GStreamer's RTSP server
  libavformat-dev libavcodec-dev libavutil-dev ffmpeg
  # G.711 audio re-encoded as AAC in the MP4 export
  libswresample-dev
  python3-gi gir1.2-gst-rtsp-server-1.0 gstreamer1.0-tools gstreamer1.0-plugins-base
  gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  # the web front, its metrics check (promtool) and the browser test
  libcpp-httplib-dev prometheus chromium chromium-driver python3-selenium
  # benchmarks
  valgrind linux-perf
)
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
