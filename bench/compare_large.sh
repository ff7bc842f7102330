#!/usr/bin/env bash
# `boxlane mux` on a recording past 4 GiB, beside `ffmpeg -c copy` of the
# same streams: an hour and a quarter of 720p H.264 at about 9 Mbit/s with
# B-frames, and 48 kHz AAC, about 5 GB in all (a 20-second clip repeated:
# each copy starts with its parameter sets and an IDR picture, so the whole
# is one valid stream). Timed with and without --faststart, runs taking turns
# with FFmpeg's and with a plain copy of the input bytes (cat), the floor
# that writing 5 GB sets on this machine. Every output of boxlane is then checked with FFmpeg's tools:
# the layout (64-bit mdat, co64 for the tracks that pass 4 GiB), one video
# sample per picture, every packet lying inside the file and some past 4 GiB,
# and the last ten seconds decoding to the source's pictures.
#
# At its peak it holds the input and one output, about 2 x SIZE_GB of disk
# (10 GB by default; it wants 2 GB more free before it starts), and it takes
# 5 to 8 minutes with RUNS=3 on the 2-core VM, 11 with RUNS=5; see
# bench/README.md. The media are removed at the end unless KEEP=1.
#
# Environment: BUILD (default build/bench), WORK (default
# $BUILD/compare_large), RUNS (default 3), SIZE_GB (input size, default 5),
# KEEP (1 keeps the media for another run).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${BUILD:-$ROOT/build/bench}
WORK=${WORK:-$BUILD/compare_large}
RUNS=${RUNS:-3}
SIZE_GB=${SIZE_GB:-5}
KEEP=${KEEP:-0}
# The helpers (build, ff, median, ratio, target, ...) of the ten-minute comparison.
# shellcheck source=bench/compare.sh
source "$ROOT/bench/compare.sh"

FOUR_GIB=4294967296
OUTPUTS=(boxlane.mp4 boxlane_faststart.mp4 ffmpeg.mp4 ffmpeg_faststart.mp4 copy.bin)

cleanup() {
  local name
  for name in "${OUTPUTS[@]}"; do rm -f "$WORK/$name"; done
  rm -f "$WORK"/.*.boxlane-* "$WORK/time.out" "$WORK"/*.md5 "$WORK"/*.csv "$WORK"/trace.txt
  ((KEEP)) || rm -f "$WORK/video.h264" "$WORK/audio.aac"
}

free_gb() { df -P -B1G "$WORK" | awk 'NR == 2 { print $4 }'; }

make_media() {
  [[ -s $WORK/clip.h264 ]] || ff -f lavfi -i testsrc2=size=1280x720:rate=30 -t 20 -c:v libx264 -preset ultrafast -bf 2 \
    -g 60 -crf 18 -pix_fmt yuv420p -f h264 "$WORK/clip.h264"
  [[ -s $WORK/clip.aac ]] || ff -f lavfi -i sine=frequency=440:sample_rate=48000 -t 20 -ac 2 -c:a aac -b:a 128k \
    -f adts "$WORK/clip.aac"
  local clip_bytes copies
  clip_bytes=$(($(stat -c %s "$WORK/clip.h264") + $(stat -c %s "$WORK/clip.aac")))
  copies=$(awk -v s="$SIZE_GB" -v c="$clip_bytes" 'BEGIN { n = s * 1e9 / c; print (n == int(n)) ? n : int(n) + 1 }')
  COPIES=$copies
  CLIP_FRAMES=$(ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$WORK/clip.h264")
  if [[ ! -s $WORK/video.h264 || $(stat -c %s "$WORK/video.h264") -ne $((copies * $(stat -c %s "$WORK/clip.h264"))) ]]; then
    say "making $copies copies of a 20-second clip (720p H.264 with B-frames and AAC) ..."
    for ((i = 0; i < copies; i++)); do cat "$WORK/clip.h264"; done >"$WORK/video.h264"
    for ((i = 0; i < copies; i++)); do cat "$WORK/clip.aac"; done >"$WORK/audio.aac"
  fi
}

fresh_outputs() {
  local name
  for name in "${OUTPUTS[@]}"; do rm -f "$WORK/$name"; done
  sync
}

# One run of a command, its output discarded: sets RUN_WALL and RUN_CPU (user +
# system, seconds) and RUN_PEAK (maximum resident set, KiB).
timed() {
  /usr/bin/time -f '%e %U %S %M' -o "$WORK/time.out" "$@" >/dev/null || die "failed: $*"
  read -r RUN_WALL RUN_CPU RUN_PEAK < <(awk '{ printf "%s %.2f %s\n", $1, $2 + $3, $4 }' "$WORK/time.out")
}

CHECKS_FAILED=0
# check TEXT COMMAND...: one CHECK line, PASSED when the command succeeds.
check() {
  local text=$1
  shift
  if "$@"; then
    say "CHECK  $text: PASSED"
  else
    say "CHECK  $text: FAILED"
    CHECKS_FAILED=1
  fi
}

# The last pictures FFmpeg decodes from the output are the clip's last ones.
same_end() { (($(wc -l <"$WORK/end.md5") >= 290)) && tail -n "$(wc -l <"$WORK/end.md5")" "$WORK/clip.md5" | cmp -s - "$WORK/end.md5"; }

# What FFmpeg reads from one of boxlane's outputs.
check_output() {
  local file=$1 faststart=$2 size layout tables frames places
  size=$(stat -c %s "$file")
  say "-- $(basename "$file"): $size bytes"
  ffprobe -v trace "$file" 2>"$WORK/trace.txt" >/dev/null || true
  layout=$(grep -o "type:'[a-z0-9]*' parent:'root' sz: [0-9]*" "$WORK/trace.txt" | awk '{ printf "%s ", substr($1, 7, 4) }')
  local want="ftyp mdat moov "
  ((faststart)) && want="ftyp moov mdat "
  check "top-level boxes are: $layout" test "$layout" == "$want"
  local mdat_size
  mdat_size=$(grep -o "type:'mdat' parent:'root' sz: [0-9]*" "$WORK/trace.txt" | awk '{ print $4 }')
  check "the mdat's 64-bit size, $mdat_size bytes, is read" test "$mdat_size" -gt "$FOUR_GIB"
  tables=$(grep -o "type:'\(stco\|co64\)'" "$WORK/trace.txt" | cut -c7-10 | tr '\n' ' ')
  check "chunk offset tables (video, audio): $tables" test "$tables" == "co64 co64 "

  frames=$(ffprobe -v error -select_streams v:0 -show_entries stream=nb_frames -of csv=p=0 "$file")
  check "$frames video samples, one per picture of the source ($COPIES x $CLIP_FRAMES)" \
    test "$frames" == $((COPIES * CLIP_FRAMES))

  ffprobe -v error -show_entries packet=pos,size -of csv=p=0 "$file" >"$WORK/places.csv"
  places=$(awk -F, -v file="$size" -v g="$FOUR_GIB" '
    { n++; if ($2 + $1 > file || $2 < 0) bad++; if ($2 >= g) past++ }
    END { printf "%d %d %d", n, bad + 0, past + 0 }' "$WORK/places.csv")
  read -r n bad past <<<"$places"
  check "all $n packets lie inside the file, $past of them past 4 GiB" test "$bad" == 0 -a "$past" -gt 0

  # The last ten seconds: the end of the last copy of the clip.
  local duration from
  duration=$(ffprobe -v error -select_streams v:0 -show_entries stream=duration -of csv=p=0 "$file")
  from=$(awk -v d="$duration" 'BEGIN { printf "%.3f", d - 10 }')
  ffmpeg -hide_banner -nostdin -loglevel error -ss "$from" -i "$file" -map 0:v:0 -fps_mode passthrough -f framemd5 - |
    md5_column >"$WORK/end.md5"
  check "the last $(wc -l <"$WORK/end.md5") pictures (from $from s) decode to the source's" same_end
}

main_large() {
  install_missing ffmpeg libavformat-dev pkg-config time cmake ninja-build gcc g++ libbenchmark-dev
  mkdir -p "$WORK"
  trap cleanup EXIT
  local need
  need=$(awk -v s="$SIZE_GB" 'BEGIN { printf "%d", s * 2 + 2 }')
  (($(free_gb) >= need)) || die "needs $need GB free in $WORK, has $(free_gb) GB"
  build
  make_media
  ffmpeg -hide_banner -nostdin -loglevel error -i "$WORK/clip.h264" -map 0:v:0 -fps_mode passthrough -f framemd5 - |
    md5_column >"$WORK/clip.md5"
  local video_mb audio_mb
  video_mb=$(du -m "$WORK/video.h264" | cut -f1)
  audio_mb=$(du -m "$WORK/audio.aac" | cut -f1)
  say "machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg), $(free_gb) GB free in $WORK"
  say "== mux: $video_mb MB of H.264 ($((COPIES * CLIP_FRAMES)) pictures) and $audio_mb MB of AAC into MP4, $RUNS runs each"

  local in=(--video "$WORK/video.h264" --audio "$WORK/audio.aac")
  local fin=(-framerate 30 -i "$WORK/video.h264" -i "$WORK/audio.aac" -map 0:v -map 1:a -c copy)
  # The baseline: the input bytes copied into one file with cat, the least
  # any muxer must do (read them, write them into the page cache and disk).
  local -a names=("boxlane mux" "ffmpeg -c copy" "boxlane mux --faststart" "ffmpeg -c copy +faststart" "cat of the inputs")
  local -a walls=("" "" "" "" "") cpus=("" "" "" "" "") peaks=("" "" "" "" "")
  local r i
  for ((r = 1; r <= RUNS; r++)); do
    for i in 0 1 2 3 4; do
      fresh_outputs
      case $i in
        0) timed "$BOXLANE" mux "${in[@]}" --fps 30 -q -o "$WORK/boxlane.mp4" ;;
        1) timed ffmpeg -hide_banner -nostdin -loglevel error -y "${fin[@]}" "$WORK/ffmpeg.mp4" ;;
        2) timed "$BOXLANE" mux "${in[@]}" --fps 30 --faststart -q -o "$WORK/boxlane_faststart.mp4" ;;
        3) timed ffmpeg -hide_banner -nostdin -loglevel error -y "${fin[@]}" -movflags +faststart "$WORK/ffmpeg_faststart.mp4" ;;
        4) timed sh -c 'cat "$1" "$2" >"$3"' sh "$WORK/video.h264" "$WORK/audio.aac" "$WORK/copy.bin" ;;
      esac
      walls[i]+="$RUN_WALL " cpus[i]+="$RUN_CPU " peaks[i]+="$RUN_PEAK "
      say "run $r: ${names[i]}: wall $RUN_WALL s, CPU $RUN_CPU s, peak $RUN_PEAK KiB"
      # The last round's outputs of boxlane are checked before the next run removes them.
      if ((r == RUNS && i == 0)); then check_output "$WORK/boxlane.mp4" 0; fi
      if ((r == RUNS && i == 2)); then check_output "$WORK/boxlane_faststart.mp4" 1; fi
    done
  done
  local -a wall cpu peak
  for i in 0 1 2 3 4; do
    wall[i]=$(printf '%s\n' ${walls[i]} | median)
    cpu[i]=$(printf '%s\n' ${cpus[i]} | median)
    peak[i]=$(printf '%s\n' ${peaks[i]} | median)
    say "$(printf '%-26s' "${names[i]}") wall ${wall[i]} s (runs: ${walls[i]% })  CPU ${cpu[i]} s  peak ${peak[i]} KiB"
  done
  say
  say "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
  target "mux past 4 GiB: ffmpeg -c copy / boxlane mux, wall time" "$(ratio "${wall[1]}" "${wall[0]}")" 3 1
  target "mux past 4 GiB: boxlane mux peak memory / ffmpeg -c copy peak" "$(ratio "${peak[0]}" "${peak[1]}")" 1 0
  say "INFO   mux past 4 GiB, CPU time (user + system): $(ratio "${cpu[1]}" "${cpu[0]}") x"
  say "INFO   with faststart: ffmpeg / boxlane wall $(ratio "${wall[3]}" "${wall[2]}") x, CPU $(ratio "${cpu[3]}" "${cpu[2]}") x"
  say "INFO   boxlane mux --faststart / boxlane mux, wall time: $(ratio "${wall[2]}" "${wall[0]}") x"
  say "INFO   boxlane mux / cat of the inputs, wall time: $(ratio "${wall[0]}" "${wall[4]}") x (1 is the copy's speed)"
  ((CHECKS_FAILED == 0)) || die "a check failed"
}

main_large "$@"
