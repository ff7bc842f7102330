#!/usr/bin/env bash
# Makes the demo sample in tests/data: five seconds of 320x240 H.264 with
# B-frames (Annex B) and AAC-LC at 48 kHz (ADTS), from FFmpeg's test sources.
# Both are committed; run this only to remake them.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v ffmpeg >/dev/null || { echo "make-sample.sh needs ffmpeg (apt-get install ffmpeg)" >&2; exit 1; }

out=tests/data
ffmpeg -v error -y \
  -f lavfi -i "testsrc2=size=320x240:rate=25:duration=5" \
  -f lavfi -i "sine=frequency=440:beep_factor=4:sample_rate=48000:duration=5" \
  -map 0:v -c:v libx264 -preset medium -profile:v high -bf 3 -g 50 -crf 24 -pix_fmt yuv420p \
  -f h264 "$out/sample.h264" \
  -map 1:a -c:a aac -profile:a aac_low -b:a 64k -ac 2 -f adts "$out/sample.aac"
ls -l "$out/sample.h264" "$out/sample.aac"
