#!/usr/bin/env bash
# Builds a Release Boxlane in build/release and muxes the committed sample
# (tests/data/sample.h264 and sample.aac) into build/demo.mp4.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BOXLANE_BUILD_PACKAGES[@]}"

build=build/release
echo "Building Boxlane (Release) in $build ..."
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBOXLANE_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target boxlane_tool >/dev/null

demo=build/demo.mp4
echo
echo "Muxing the sample into $demo:"
"$build/boxlane" mux --video tests/data/sample.h264 --audio tests/data/sample.aac --faststart -o "$demo"

echo
echo "Reading it back through the stream parser, 1000 bytes at a time:"
"$build/boxlane" probe --piece 1000 "$demo"

echo
echo "The file is $(pwd)/$demo"
echo "Play it with any of:"
echo "  ffplay $demo"
echo "  gst-play-1.0 $demo"
echo "  a web browser: open file://$(pwd)/$demo"
