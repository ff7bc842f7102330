#!/usr/bin/env bash
# Builds Boxlane with the address and undefined-behaviour sanitizers and runs
# every test. The independent readers the suite checks our files with are
# installed too: FFmpeg, GStreamer, Chromium, and from npm into the build
# tree mp4box.js and playwright-core (which drives Chromium).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BOXLANE_BUILD_PACKAGES[@]}" "${BOXLANE_READER_PACKAGES[@]}"
# A Node.js that comes with its own npm is used as it is.
command -v npm >/dev/null || ensure_packages nodejs npm

build=${BOXLANE_TEST_BUILD:-build/test}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBOXLANE_SANITIZE=address ${BOXLANE_CMAKE_ARGS:-}
install_npm_packages "$build/npm"
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
