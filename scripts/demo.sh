#!/usr/bin/env bash
# Builds a Release Boxlane and writes the header boxes of a movie as hex.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BOXLANE_BUILD_PACKAGES[@]}"

build=build/release
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBOXLANE_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" >/dev/null
"$build/boxlane_example_headers"
