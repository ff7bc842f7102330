#!/usr/bin/env bash
# Builds Boxlane with the address and undefined-behaviour sanitizers and runs
# every test. FFmpeg is installed too: the suite checks our files with it.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BOXLANE_BUILD_PACKAGES[@]}" ffmpeg

build=${BOXLANE_TEST_BUILD:-build/test}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBOXLANE_SANITIZE=address ${BOXLANE_CMAKE_ARGS:-}
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
