#!/usr/bin/env bash
# Builds Boxlane with the address and undefined-behaviour sanitizers and runs
# every test. FFmpeg, GStreamer and mp4box.js (from npm, into the build
# tree) are installed too: the suite checks our files with them.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BOXLANE_BUILD_PACKAGES[@]}" ffmpeg gstreamer1.0-tools gstreamer1.0-plugins-good gstreamer1.0-libav
# A Node.js that comes with its own npm is used as it is.
command -v npm >/dev/null || ensure_packages nodejs npm

build=${BOXLANE_TEST_BUILD:-build/test}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBOXLANE_SANITIZE=address ${BOXLANE_CMAKE_ARGS:-}
cmake --build "$build"
if [ ! -f "$build/npm/node_modules/mp4box/package.json" ]; then
  npm install --prefix "$build/npm" --no-audit --no-fund --silent mp4box@0.5.4
fi
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
