#!/usr/bin/env bash
# Boxlane beside FFmpeg, side by side in one run, printing ratios:
#   1. `boxlane mux` against `ffmpeg -c copy`, the same job: ten minutes of
#      720p H.264 with B-frames plus AAC, elementary streams into MP4. Both
#      outputs are decoded and must give the same frames.
#   2. Reading the index of a one-hour MP4: `boxlane probe --json` and
#      boxlane_parse_index (the parser only) against avformat_open (only
#      avformat_open_input, which reads the moov and builds libavformat's
#      index).
#   3. Peak memory of each (/usr/bin/time).
# Runs alternate between the contenders so that both see the same machine,
# and the median of RUNS runs is taken.
#
# Environment: BUILD (default build/bench), WORK (default $BUILD/compare),
# RUNS (default 5), CHECK_FRAMES (video frames decoded and compared, default
# 1800; 0 decodes all). Installs what is missing with apt-get when run as root.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${BUILD:-$ROOT/build/bench}
WORK=${WORK:-$BUILD/compare}
RUNS=${RUNS:-5}
CHECK_FRAMES=${CHECK_FRAMES:-1800}

say() { printf '%s\n' "$*"; }
die() { printf 'compare.sh: %s\n' "$*" >&2; exit 1; }

install_missing() {
  local missing=() pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done
  ((${#missing[@]})) || return 0
  [[ $(id -u) == 0 ]] || die "missing packages: ${missing[*]} (run as root to install them)"
  say "installing ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build() {
  cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBOXLANE_BUILD_BENCH=ON \
    -DBOXLANE_BUILD_TESTS=OFF -DBOXLANE_BUILD_EXAMPLES=OFF >/dev/null
  ninja -C "$BUILD" boxlane_tool boxlane_parse_index >/dev/null
  cc -O2 -std=c99 -Wall -Wextra "$ROOT/bench/avformat_open.c" -o "$WORK/avformat_open" \
    $(pkg-config --cflags --libs libavformat libavutil)
  BOXLANE=$BUILD/boxlane
  PARSE_INDEX=$BUILD/bench/boxlane_parse_index
  AVFORMAT_OPEN=$WORK/avformat_open
}

ff() { ffmpeg -hide_banner -nostdin -loglevel error -y "$@"; }

# Ten minutes are a 20-second clip repeated: each copy starts with its
# parameter sets and an IDR picture, so the concatenation is one valid
# stream, and generation stays cheap.
make_media() {
  if [[ ! -s $WORK/video.h264 ]]; then
    say "making 10 minutes of 720p H.264 (B-frames) and AAC ..."
    ff -f lavfi -i testsrc2=size=1280x720:rate=30 -t 20 -c:v libx264 -preset ultrafast -bf 2 -g 60 -crf 28 \
      -pix_fmt yuv420p -f h264 "$WORK/clip.h264"
    for _ in $(seq 30); do cat "$WORK/clip.h264"; done >"$WORK/video.h264.part"
    mv "$WORK/video.h264.part" "$WORK/video.h264"
  fi
  if [[ ! -s $WORK/audio.aac ]]; then
    ff -f lavfi -i sine=frequency=440:sample_rate=48000 -t 600 -ac 2 -c:a aac -b:a 128k -f adts "$WORK/audio.aac"
  fi
  if [[ ! -s $WORK/hour.mp4 ]]; then
    say "making a one-hour MP4 (30 fps with B-frames, 48 kHz AAC) ..."
    ff -f lavfi -i testsrc2=size=160x120:rate=30 -f lavfi -i sine=frequency=440:sample_rate=48000 -t 20 \
      -c:v libx264 -preset ultrafast -bf 2 -g 60 -pix_fmt yuv420p -c:a aac -b:a 64k "$WORK/hour_clip.mp4"
    ff -stream_loop 179 -i "$WORK/hour_clip.mp4" -c copy -movflags +faststart "$WORK/hour.mp4"
  fi
}

# Wall milliseconds of one run of a command (its output discarded).
wall_ms() {
  local start=$EPOCHREALTIME
  "$@" >/dev/null
  local end=$EPOCHREALTIME
  awk -v s="$start" -v e="$end" 'BEGIN { printf "%.1f\n", (e - s) * 1000 }'
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

peak_kib() {
  /usr/bin/time -f %M -o "$WORK/time.out" "$@" >/dev/null
  tail -n 1 "$WORK/time.out"
}

# The "N ms" that a program reports for its own index work, median of RUNS.
inner_ms() {
  local i
  for ((i = 0; i < RUNS; i++)); do "$@" | sed -n 's/.* \([0-9.]*\) ms$/\1/p'; done | median
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0) ? a / b : 0 }'; }

# TARGET line: what, value, limit, at_least (1) or at_most (0).
target() {
  awk -v what="$1" -v v="$2" -v lim="$3" -v up="$4" 'BEGIN {
    holds = up ? (v >= lim) : (v <= lim)
    printf "TARGET %-62s %10.2f %s %-6g %s\n", what, v, up ? ">=" : "<=", lim, holds ? "HOLDS" : "DOES NOT HOLD" }'
}

md5_column() { grep -v '^#' | awk -F, '{ gsub(/ /, "", $NF); print $NF }'; }

# MD5 of each decoded video frame, into a file. FFmpeg's -c copy of a raw
# H.264 stream with B-frames has no composition times, so it writes an edit
# list that hides its first two pictures; decoding with -ignore_editlist
# compares the pictures each file holds, whatever the edit list shows.
decoded_frames() {
  local input=$1 out=$2 limit=()
  shift 2
  ((CHECK_FRAMES > 0)) && limit=(-frames:v "$CHECK_FRAMES")
  ffmpeg -hide_banner -nostdin -loglevel error "$@" -i "$input" -map 0:v:0 "${limit[@]}" -fps_mode passthrough \
    -f framemd5 - | md5_column >"$out"
}

audio_packets() { ffmpeg -hide_banner -nostdin -loglevel error -i "$1" -map 0:a:0 -c copy -f framemd5 - | md5_column; }

video_packets() {
  ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$1"
}

compare_mux() {
  local out_b=$WORK/boxlane.mp4 out_f=$WORK/ffmpeg.mp4 i
  local mux_b=("$BOXLANE" mux --video "$WORK/video.h264" --audio "$WORK/audio.aac" --fps 30 -q -o "$out_b")
  local mux_f=(ffmpeg -hide_banner -nostdin -loglevel error -y -framerate 30 -i "$WORK/video.h264"
    -i "$WORK/audio.aac" -map 0:v -map 1:a -c copy "$out_f")
  say
  say "== mux: $(du -m "$WORK/video.h264" | cut -f1) MB of H.264 and $(du -m "$WORK/audio.aac" | cut -f1) MB of AAC into MP4, $RUNS runs each"
  "${mux_b[@]}" || die "boxlane mux failed"
  "${mux_f[@]}" || die "ffmpeg -c copy failed"
  local tb=() tf=()
  for ((i = 0; i < RUNS; i++)); do
    tb+=("$(wall_ms "${mux_b[@]}")")
    tf+=("$(wall_ms "${mux_f[@]}")")
  done
  local mb mf pb pf
  mb=$(printf '%s\n' "${tb[@]}" | median)
  mf=$(printf '%s\n' "${tf[@]}" | median)
  pb=$(peak_kib "${mux_b[@]}")
  pf=$(peak_kib "${mux_f[@]}")
  say "boxlane mux      median $mb ms (runs: ${tb[*]})  peak $pb KiB"
  say "ffmpeg -c copy   median $mf ms (runs: ${tf[*]})  peak $pf KiB"

  local frames_b frames_f
  frames_b=$(video_packets "$out_b")
  frames_f=$(video_packets "$out_f")
  if [[ $frames_b == "$frames_f" ]]; then
    say "CHECK  both files hold $frames_b video samples: PASSED"
  else
    say "CHECK  video sample counts differ: boxlane $frames_b, ffmpeg $frames_f: FAILED"
  fi
  local shown=$CHECK_FRAMES
  ((CHECK_FRAMES > 0)) || shown=all
  decoded_frames "$WORK/video.h264" "$WORK/source.md5"
  decoded_frames "$out_b" "$WORK/boxlane.md5"
  decoded_frames "$out_b" "$WORK/boxlane_all.md5" -ignore_editlist 1
  decoded_frames "$out_f" "$WORK/ffmpeg_all.md5" -ignore_editlist 1
  if cmp -s "$WORK/boxlane.md5" "$WORK/source.md5"; then
    say "CHECK  boxlane.mp4 as played (edit list applied): the first $shown frames are the source's: PASSED"
  else
    say "CHECK  boxlane.mp4 as played (edit list applied) differs from the source: FAILED"
  fi
  if cmp -s "$WORK/boxlane_all.md5" "$WORK/source.md5" && cmp -s "$WORK/ffmpeg_all.md5" "$WORK/source.md5"; then
    say "CHECK  both files hold the same pictures (edit lists ignored), the first $shown as decoded: PASSED"
  else
    say "CHECK  the pictures in the two files differ (edit lists ignored): FAILED"
  fi
  audio_packets "$out_b" >"$WORK/boxlane_audio.md5"
  audio_packets "$out_f" >"$WORK/ffmpeg_audio.md5"
  if cmp -s "$WORK/boxlane_audio.md5" "$WORK/ffmpeg_audio.md5"; then
    say "CHECK  every AAC frame is identical in both files: PASSED"
  else
    say "CHECK  AAC frames differ between the two files: FAILED"
  fi
  MUX_SPEED=$(ratio "$mf" "$mb")
  MUX_MEMORY=$(ratio "$pb" "$pf")
}

compare_index() {
  local hour=$WORK/hour.mp4 i
  local probe=("$BOXLANE" probe --json "$hour")
  local parse=("$PARSE_INDEX" "$hour")
  local open=("$AVFORMAT_OPEN" "$hour")
  say
  say "== index of a one-hour MP4 ($(du -m "$hour" | cut -f1) MB, moov first), $RUNS runs each"
  say "boxlane_parse_index: $("${parse[@]}")"
  say "avformat_open:       $("${open[@]}")"
  "${probe[@]}" >/dev/null || die "boxlane probe failed"
  local tp=() ti=() to=()
  for ((i = 0; i < RUNS; i++)); do
    tp+=("$(wall_ms "${probe[@]}")")
    ti+=("$(wall_ms "${parse[@]}")")
    to+=("$(wall_ms "${open[@]}")")
  done
  local mp mi mo pp pi po ii io
  mp=$(printf '%s\n' "${tp[@]}" | median)
  mi=$(printf '%s\n' "${ti[@]}" | median)
  mo=$(printf '%s\n' "${to[@]}" | median)
  pp=$(peak_kib "${probe[@]}")
  pi=$(peak_kib "${parse[@]}")
  po=$(peak_kib "${open[@]}")
  ii=$(inner_ms "${parse[@]}")
  io=$(inner_ms "${open[@]}")
  say "boxlane probe --json   process median $mp ms (runs: ${tp[*]})  peak $pp KiB"
  say "boxlane_parse_index    process median $mi ms (runs: ${ti[*]})  peak $pi KiB  index work $ii ms"
  say "avformat_open          process median $mo ms (runs: ${to[*]})  peak $po KiB  avformat_open_input $io ms"
  INDEX_PROBE=$(ratio "$mo" "$mp")
  INDEX_PARSE=$(ratio "$mo" "$mi")
  INDEX_INNER=$(ratio "$io" "$ii")
  INDEX_PROBE_MEMORY=$(ratio "$pp" "$po")
  INDEX_PARSE_MEMORY=$(ratio "$pi" "$po")
}

main() {
  install_missing ffmpeg libavformat-dev pkg-config time cmake ninja-build g++ libbenchmark-dev
  mkdir -p "$WORK"
  build
  make_media
  say "machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
  compare_mux
  compare_index
  say
  say "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
  target "mux: ffmpeg -c copy time / boxlane mux time" "$MUX_SPEED" 3 1
  target "mux: boxlane peak memory / ffmpeg peak memory" "$MUX_MEMORY" 1 0
  target "index: avformat_open time / boxlane probe --json time" "$INDEX_PROBE" 10 1
  target "index: avformat_open time / boxlane_parse_index time" "$INDEX_PARSE" 10 1
  target "index: avformat_open_input / parser's index work, in-process" "$INDEX_INNER" 10 1
  target "index: boxlane probe peak memory / avformat_open peak memory" "$INDEX_PROBE_MEMORY" 1 0
  target "index: boxlane_parse_index peak memory / avformat_open peak" "$INDEX_PARSE_MEMORY" 1 0
}

main "$@"
